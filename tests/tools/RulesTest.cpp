// SPDX-License-Identifier: Apache-2.0
//
// Each rule finds its fault in an otherwise correct survey, and no other rule does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "tools/Rules.h"

namespace powerstats {
namespace {

using Hal = Survey::Hal;
using Request = Survey::Request;

constexpr int64_t kStartMs = 10'000'000;
constexpr int64_t kSuspendedMs = 3'600'000;

// The places of answers in makeSurvey().
constexpr size_t kLast = 3;
constexpr size_t kSome = 4;
constexpr size_t kUnknown = 5;

/// Adds a call that was made `ms` after the first one.
template <typename Record>
void add(std::vector<Survey::Answer<Record>>* answers, const char* method, int64_t ms,
         std::vector<Record> records, Request request = Request::kAll,
         std::vector<int64_t> ids = {}) {
    Survey::Answer<Record> answer;
    answer.method = method;
    answer.request = request;
    answer.ids = std::move(ids);
    answer.beforeMs = kStartMs + ms;
    answer.afterMs = kStartMs + ms + 2;
    answer.suspendedMs = kSuspendedMs;
    answer.records = std::move(records);
    answers->push_back(std::move(answer));
}

/// Two rails of 2 W, and two entities that change their state every 10 ms.
Survey makeSurvey(Hal hal) {
    Survey survey;
    survey.hal = hal;
    survey.library = {true, 0, "", ""};
    const std::vector<Survey::State> states = {{0, "on"}, {1, "off"}};
    for (const int64_t ms : {0, 2, 500, 1000}) {
        const int64_t now = kStartMs + ms + 1;
        add(&survey.rails, "rails", ms, {{1, "cpu", "CPU"}, {2, "gpu", "GPU"}});
        if (hal == Hal::kAidl) {
            add(&survey.entities, "entities", ms, {{7, "soc", states}, {8, "modem", states}});
        } else {
            add(&survey.entities, "entities", ms, {{7, "soc", {}}, {8, "modem", {}}});
            add(&survey.stateLists, "states", ms, {{7, "", states}, {8, "", states}});
        }
        add(&survey.energies, "energies", ms,
            {{1, now, now, now * 2000}, {2, now, now, now * 2000}});
        const std::vector<Survey::StateTime> times = {{0, now / 2, now / 20, now - now % 10},
                                                      {1, now / 2, now / 20, now - now % 10}};
        add(&survey.residencies, "residencies", ms, {{7, times}, {8, times}});
    }
    const auto askForIds = [&](auto* answers) {
        auto some = answers->back();
        some.request = Request::kSome;
        some.ids = {some.records[0].id};
        some.records.resize(1);
        auto unknown = some;
        unknown.request = Request::kUnknown;
        unknown.ids = {99};
        unknown.records.clear();
        unknown.outcome = Survey::Outcome::kIllegalArgument;
        answers->push_back(some);
        answers->push_back(unknown);
    };
    askForIds(&survey.energies);
    askForIds(&survey.residencies);
    if (hal == Hal::kHidl) askForIds(&survey.stateLists);
    auto atOnce = survey.energies[kLast];
    atOnce.thread = 1;
    survey.energies.push_back(atOnce);
    return survey;
}

/// The rules with a verdict, separated by spaces.
std::string rulesWith(Verdict verdict, const Survey& survey) {
    std::string names;
    for (const Rule& rule : allRules()) {
        Findings findings;
        if (judge(rule, survey, &findings) == verdict) {
            names += (names.empty() ? "" : " ") + std::string(rule.name);
        }
    }
    return names;
}

TEST(Rules, KeptByACorrectService) {
    EXPECT_EQ(rulesWith(Verdict::kNotApplicable, makeSurvey(Hal::kAidl)),
              "state-list-request-exact status-matches-records rails-not-supported");
    EXPECT_EQ(rulesWith(Verdict::kNotApplicable, makeSurvey(Hal::kHidl)),
              "names-utf8 unknown-id-refused known-ids-accepted rails-not-supported "
              "state-time-monotonic state-entries-monotonic state-time-within-uptime "
              "energy-duration-within-stamp energy-duration-grows");
    for (const Hal hal : {Hal::kAidl, Hal::kHidl}) {
        EXPECT_EQ(rulesWith(Verdict::kBroken, makeSurvey(hal)), "");
        EXPECT_EQ(rulesWith(Verdict::kLegal, makeSurvey(hal)), "");
    }
}

struct Fault {
    const char* rule;
    std::function<void(Survey* survey)> make;
    const char* text = "";
    Hal hal = Hal::kAidl;
};

/// Changes the first rail's list entry in every call, so that the list stays the same.
std::function<void(Survey*)> changeRails(std::function<void(Survey::Rail* first)> change) {
    return [change](Survey* survey) {
        for (auto& list : survey->rails) change(&list.records[0]);
    };
}
std::function<void(Survey*)> changeEntities(std::function<void(Survey::Entity* first)> change) {
    return [change](Survey* survey) {
        for (auto& list : survey->entities) change(&list.records[0]);
    };
}
/// Changes the first rail's energy in every reading.
std::function<void(Survey*)> changeEnergies(std::function<void(Survey::Energy* first)> change) {
    return [change](Survey* survey) {
        for (auto& reading : survey->energies) {
            if (!reading.records.empty()) change(&reading.records[0]);
        }
    };
}
std::function<void(Survey*)> changeStates(std::function<void(Survey::StateTime* first)> change) {
    return [change](Survey* survey) {
        for (auto& reading : survey->residencies) {
            if (!reading.records.empty()) change(&reading.records[0].states[0]);
        }
    };
}

Survey::Energy& lastEnergy(Survey* survey) {
    return survey->energies[kLast].records[1];
}
Survey::StateTime& lastState(Survey* survey) {
    return survey->residencies[kLast].records[0].states[0];
}

const Fault kFaults[] = {
    {"rail-ids-unique",
     [](Survey* survey) {
         for (auto& list : survey->rails) list.records.push_back({2, "dsp", "DSP"});
     }},
    {"rail-names-unique", changeRails([](auto* rail) { rail->name = "gpu"; })},
    {"rail-names-present", changeRails([](auto* rail) { rail->name = ""; })},
    {"rail-subsystems-present", changeRails([](auto* rail) { rail->subsystem = ""; })},
    {"rail-list-stable", [](Survey* survey) { survey->rails[kLast].records[0].name = "other"; }},
    {"entity-ids-unique",
     [](Survey* survey) {
         for (auto& list : survey->entities)
             list.records.insert(list.records.begin() + 1, {7, "dsp", {{0, "on"}}});
     }},
    {"entity-names-unique", changeEntities([](auto* entity) { entity->name = "modem"; })},
    {"entity-names-present", changeEntities([](auto* entity) { entity->name = ""; })},
    {"entity-states-present",
     [](Survey* survey) {
         for (auto& list : survey->entities) list.records[0].states.clear();
         for (auto& reading : survey->residencies) {
             for (auto& entity : reading.records) {
                 if (entity.id == 7) entity.states.clear();
             }
         }
     }},
    {"state-ids-unique", changeEntities([](auto* entity) {
         entity->states.insert(entity->states.begin(), {0, "third"});
     })},
    {"state-names-unique", changeEntities([](auto* entity) { entity->states[1].name = "on"; })},
    {"entity-list-stable",
     [](Survey* survey) { survey->entities[1].records[1].states.pop_back(); }},
    {"names-utf8", changeEntities([](auto* entity) { entity->states[0].name = "\xff"; })},
    {"calls-answered",
     [](Survey* survey) {
         survey->energies[1].outcome = Survey::Outcome::kFailed;
         survey->energies[1].records.clear();
         survey->energies[1].error = "com.example.No: not today";
     },
     "com.example.No: not today"},
    {"calls-at-once-answered",
     [](Survey* survey) { survey->energies.back().outcome = Survey::Outcome::kFailed; }},
    {"rail-request-exact", [](Survey* survey) { survey->energies[kSome].records[0].id = 2; }},
    {"entity-request-exact",
     [](Survey* survey) {
         survey->residencies[kSome].records.push_back(survey->residencies[kSome].records[0]);
     },
     "a second record"},
    {"state-list-request-exact",
     [](Survey* survey) { survey->stateLists[kSome].records[0].id = 8; }, "", Hal::kHidl},
    {"unknown-id-refused",
     [](Survey* survey) { survey->residencies[kUnknown].outcome = Survey::Outcome::kAnswered; }},
    {"known-ids-accepted",
     [](Survey* survey) {
         survey->energies[kSome].outcome = Survey::Outcome::kIllegalArgument;
         survey->energies[kSome].records.clear();
     }},
    {"rail-ids-announced", [](Survey* survey) { survey->energies[kLast].records[1].id = 3; }},
    {"entity-ids-announced",
     [](Survey* survey) {
         survey->residencies[kLast].records.push_back({9, {}});
     }},
    {"state-ids-announced",
     [](Survey* survey) {
         survey->residencies[kLast].records[0].states.push_back({5, 0, 0, 0});
     }},
    {"states-complete",
     [](Survey* survey) { survey->residencies[kLast].records[0].states.pop_back(); }},
    {"status-matches-records",
     [](Survey* survey) { survey->energies[kUnknown].outcome = Survey::Outcome::kAnswered; }, "",
     Hal::kHidl},
    {"rails-not-supported",
     [](Survey* survey) {
         for (auto& list : survey->rails) {
             list.outcome = Survey::Outcome::kOtherStatus;
             list.records.clear();
         }
         survey->energies.clear();
     },
     "", Hal::kHidl},
    {"residency-not-negative", changeStates([](auto* state) { state->entries -= 1'000'000'000; })},
    {"state-time-monotonic", [](Survey* survey) { lastState(survey).totalMs = 5; }},
    {"state-entries-monotonic", [](Survey* survey) { lastState(survey).entries = 5; }},
    {"state-time-within-uptime", changeStates([](auto* state) { state->totalMs += kStartMs; })},
    {"state-time-within-interval",
     [](Survey* survey) {
         for (auto& reading : survey->residencies) {
             for (auto& entity : reading.records) {
                 for (auto& state : entity.states) state.totalMs -= 1'000'000;
             }
         }
         lastState(survey).totalMs += 300;
     }},
    {"last-entry-not-future", changeStates([](auto* state) { state->lastEntryMs *= 1000; }),
     "looks like microseconds"},
    {"last-entry-clock", changeStates([](auto* state) { state->lastEntryMs -= kSuspendedMs; }),
     "looks like CLOCK_MONOTONIC: off by the 3600 s"},
    {"last-entry-monotonic", [](Survey* survey) { lastState(survey).lastEntryMs = 5; }},
    {"last-entry-moves-with-entries", changeStates([](auto* state) { state->entries = 3; })},
    {"energy-stamp-boottime",
     changeEnergies([](auto* energy) { energy->durationMs = energy->timestampMs /= 1000; }),
     "looks like seconds"},
    {"energy-stamp-boottime",
     changeEnergies([](auto* energy) { energy->durationMs = energy->timestampMs -= kSuspendedMs; }),
     "looks like CLOCK_MONOTONIC: off by the 3600 s this machine was suspended"},
    {"energy-stamp-boottime",
     changeEnergies([](auto* energy) { energy->durationMs = energy->timestampMs += 5; })},
    {"energy-stamp-monotonic",
     [](Survey* survey) {
         lastEnergy(survey).timestampMs = lastEnergy(survey).durationMs = kStartMs + 400;
     }},
    {"energy-duration-within-stamp", changeEnergies([](auto* energy) { energy->durationMs += 1; })},
    {"energy-duration-grows",
     changeEnergies([](auto* energy) { energy->durationMs = kStartMs - 5000; })},
    {"energy-not-negative", changeEnergies([](auto* energy) { energy->energyUWs -= 1L << 40; })},
    {"energy-monotonic", [](Survey* survey) { lastEnergy(survey).energyUWs = 5; }},
    {"energy-power-plausible", changeEnergies([](auto* energy) { energy->energyUWs *= 10'000; })},
    {"library-goes-on", [](Survey* survey) { survey->library.signal = 6; }},
};

TEST(Rules, EachFindsItsFaultAndNoOther) {
    std::set<std::string> covered;
    for (const Fault& fault : kFaults) {
        SCOPED_TRACE(fault.rule);
        Survey survey = makeSurvey(fault.hal);
        fault.make(&survey);
        EXPECT_EQ(rulesWith(Verdict::kBroken, survey), fault.rule);
        covered.insert(fault.rule);
        for (const Rule& rule : allRules()) {
            Findings findings;
            if (rule.name != std::string(fault.rule)) continue;
            judge(rule, survey, &findings);
            if (findings.broken.first.empty()) continue;
            EXPECT_THAT(findings.broken.first[0].found, testing::HasSubstr(fault.text));
        }
    }
    EXPECT_EQ(covered.size(), allRules().size()) << "a rule without a fault";
}

TEST(Rules, ThatAreLegalToBreakAreReportedAsSuch) {
    Survey survey = makeSurvey(Hal::kAidl);
    survey.energies[kLast].records.pop_back();
    survey.residencies[kSome].records.clear();
    EXPECT_EQ(rulesWith(Verdict::kBroken, survey), "");
    EXPECT_EQ(rulesWith(Verdict::kLegal, survey), "rail-request-exact entity-request-exact");
    // A HIDL entity may be reset.
    survey = makeSurvey(Hal::kHidl);
    lastState(&survey) = {0, 1, 1, kStartMs};
    EXPECT_EQ(rulesWith(Verdict::kBroken, survey), "");
}

TEST(Rules, AreNotJudgedByCallsThatTheBusRefuses) {
    Survey survey = makeSurvey(Hal::kAidl);
    for (auto& reading : survey.energies) {
        reading.outcome = Survey::Outcome::kRefused;
        reading.records.clear();
    }
    EXPECT_EQ(rulesWith(Verdict::kBroken, survey), "");
    EXPECT_EQ(rulesWith(Verdict::kNotJudged, survey),
              "rail-request-exact rail-ids-announced energy-stamp-boottime energy-stamp-monotonic "
              "energy-duration-within-stamp energy-duration-grows energy-not-negative "
              "energy-monotonic energy-power-plausible");
}

}  // namespace
}  // namespace powerstats
