// SPDX-License-Identifier: Apache-2.0
//
// Each rule finds its fault in an otherwise correct survey, and no other rule does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "tools/check/Rules.h"

namespace powerstats {
namespace {

constexpr int64_t kStart = 10'000'000;
constexpr int64_t kSuspended = 3'600'000;

// The places of answers in makeSurvey().
constexpr size_t kLast = 3;
constexpr size_t kSome = 4;
constexpr size_t kUnknown = 5;

/// Adds a call that was made `ms` after the first one.
void add(Answers* answers, const char* method, int64_t ms, Records records) {
    Answer& answer = answers->emplace_back();
    answer.method = method;
    answer.beforeMs = kStart + ms;
    answer.afterMs = answer.beforeMs + 2;
    answer.suspendedMs = kSuspended;
    answer.records = std::move(records);
}

/// Ends a call without records.
void end(Answer* answer, Outcome outcome) {
    answer->outcome = outcome;
    answer->records.clear();
}

/// Two rails of 2 W, and two entities that change their state every 10 ms.
Survey makeSurvey(Hal hal) {
    Survey survey;
    survey.hal = hal;
    survey.library = {true, 0, ""};
    const Records states = {{0, "on"}, {1, "off"}};
    const auto both = [](const char* first, const char* second, const Records& its) {
        return Records{{7, first, "", 0, 0, 0, its}, {8, second, "", 0, 0, 0, its}};
    };
    for (const int64_t ms : {0, 2, 500, 1000}) {
        const int64_t now = kStart + ms + 1;
        add(&survey.rails, "rails", ms, {{1, "cpu", "CPU"}, {2, "gpu", "GPU"}});
        const bool isAidl = hal == Hal::kAidl;
        add(&survey.entities, "entities", ms, both("soc", "modem", isAidl ? states : Records()));
        if (!isAidl) add(&survey.stateLists, "states", ms, both("", "", states));
        add(&survey.energies, "energies", ms,
            {{1, "", "", now, now, now * 2000}, {2, "", "", now, now, now * 2000}});
        const Records results = {{0, "", "", now - now % 10, now / 2, now / 20},
                                 {1, "", "", now - now % 10, now / 2, now / 20}};
        add(&survey.residencies, "residencies", ms, both("", "", results));
    }
    const auto askForIds = [&](auto* answers) {
        auto some = answers->back();
        some.request = Request::kSome;
        some.ids = {some.records[0].id};
        some.records.resize(1);
        answers->push_back(some);
        some.request = Request::kUnknown;
        some.ids = {99};
        end(&some, Outcome::kIllegalArgument);
        answers->push_back(some);
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
    for (const Rule& rule : kRules) {
        if (judge(rule, survey).verdict == verdict) {
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

/// Changes the records of every answer that has some, so that a list stays the same.
template <auto kAnswers>
const auto changeAll = [](auto change) {
    return [change](Survey* survey) {
        for (auto& answer : survey->*kAnswers) {
            if (!answer.records.empty()) change(&answer.records);
        }
    };
};
/// Changes their first record.
template <auto kAnswers>
const auto changeFirst = [](auto change) {
    return changeAll<kAnswers>([change](Records* records) { change(&records->front()); });
};
const auto changeRails = changeFirst<&Survey::rails>;
const auto changeEntities = changeFirst<&Survey::entities>;
const auto changeEnergies = changeFirst<&Survey::energies>;
const auto changeStates = [](auto change) {
    return changeFirst<&Survey::residencies>([change](auto* it) { change(&it->states[0]); });
};

Record& lastEnergy(Survey* survey) {
    return survey->energies[kLast].records[1];
}
Record& lastState(Survey* survey) {
    return survey->residencies[kLast].records[0].states[0];
}

const Fault kFaults[] = {
    {"rail-ids-unique", changeAll<&Survey::rails>([](auto* rails) {
         rails->push_back({2, "dsp", "DSP"});
     })},
    {"rail-names-unique", changeRails([](auto* rail) { rail->name = "gpu"; })},
    {"rail-names-present", changeRails([](auto* rail) { rail->name = ""; })},
    {"rail-subsystems-present", changeRails([](auto* rail) { rail->subsystem = ""; })},
    {"rail-list-stable", [](Survey* survey) { survey->rails[kLast].records[0].name = "other"; }},
    {"entity-ids-unique", changeAll<&Survey::entities>([](auto* entities) {
         entities->insert(entities->begin() + 1, {7, "dsp", "", 0, 0, 0, {{0, "on"}}});
     })},
    {"entity-names-unique", changeEntities([](auto* entity) { entity->name = "modem"; })},
    {"entity-names-present", changeEntities([](auto* entity) { entity->name = ""; })},
    {"entity-states-present",
     [](Survey* survey) {
         changeEntities([](auto* entity) { entity->states.clear(); })(survey);
         changeFirst<&Survey::residencies>([](auto* entity) { entity->states.clear(); })(survey);
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
         end(&survey->energies[1], Outcome::kFailed);
         survey->energies[1].error = "com.example.No: not today";
     },
     "com.example.No: not today"},
    {"calls-at-once-answered",
     [](Survey* survey) { survey->energies.back().outcome = Outcome::kFailed; }},
    {"rail-request-exact", [](Survey* survey) { survey->energies[kSome].records[0].id = 2; }},
    {"entity-request-exact",
     [](Survey* survey) {
         auto& its = survey->residencies[kSome].records;
         its.resize(2, its[0]);
     },
     "a second record"},
    {"state-list-request-exact",
     [](Survey* survey) { survey->stateLists[kSome].records[0].id = 8; }, "", Hal::kHidl},
    {"unknown-id-refused",
     [](Survey* survey) { survey->residencies[kUnknown].outcome = Outcome::kAnswered; }},
    {"known-ids-accepted",
     [](Survey* survey) { end(&survey->energies[kSome], Outcome::kIllegalArgument); }},
    {"rail-ids-announced", [](Survey* survey) { survey->energies[kLast].records[1].id = 3; }},
    {"entity-ids-announced",
     [](Survey* survey) { survey->residencies[kLast].records.push_back({9}); }},
    {"state-ids-announced",
     [](Survey* survey) { survey->residencies[kLast].records[0].states.push_back({5}); }},
    {"states-complete",
     [](Survey* survey) { survey->residencies[kLast].records[0].states.pop_back(); }},
    {"status-matches-records",
     [](Survey* survey) { survey->energies[kUnknown].outcome = Outcome::kAnswered; }, "",
     Hal::kHidl},
    {"rails-not-supported",
     [](Survey* survey) {
         for (auto& list : survey->rails) end(&list, Outcome::kOtherStatus);
         survey->energies.clear();
     },
     "", Hal::kHidl},
    {"residency-not-negative", changeStates([](auto* state) { state->count -= 1'000'000'000; })},
    {"state-time-monotonic", [](Survey* survey) { lastState(survey).durationMs = 5; }},
    {"state-entries-monotonic", [](Survey* survey) { lastState(survey).count = 5; }},
    {"state-time-within-uptime", changeStates([](auto* state) { state->durationMs += kStart; })},
    {"state-time-within-interval",
     [](Survey* survey) {
         changeStates([](auto* state) { state->durationMs -= 1'000'000; })(survey);
         lastState(survey).durationMs += 300;
     }},
    {"last-entry-not-future", changeStates([](auto* state) { state->stampMs *= 1000; }),
     "looks like microseconds"},
    {"last-entry-not-future", changeStates([](auto* state) { state->stampMs *= 1'000'000; }),
     "looks like nanoseconds"},
    {"last-entry-clock", changeStates([](auto* state) { state->stampMs -= kSuspended; }),
     "looks like CLOCK_MONOTONIC: off by the 3600 s"},
    {"last-entry-monotonic", [](Survey* survey) { lastState(survey).stampMs = 5; }},
    {"last-entry-moves-with-entries", changeStates([](auto* state) { state->count = 3; })},
    {"energy-stamp-boottime",
     changeEnergies([](auto* energy) { energy->durationMs = energy->stampMs /= 1000; }),
     "looks like seconds"},
    {"energy-stamp-boottime",
     changeEnergies([](auto* energy) { energy->durationMs = energy->stampMs -= kSuspended; }),
     "looks like CLOCK_MONOTONIC: off by the 3600 s this machine was suspended"},
    {"energy-stamp-boottime",
     changeEnergies([](auto* energy) { energy->durationMs = energy->stampMs += 5; })},
    {"energy-stamp-monotonic",
     [](Survey* survey) {
         lastEnergy(survey).stampMs = lastEnergy(survey).durationMs = kStart + 400;
     }},
    {"energy-duration-within-stamp", changeEnergies([](auto* energy) { energy->durationMs += 1; })},
    {"energy-duration-grows",
     changeEnergies([](auto* energy) { energy->durationMs = kStart - 5000; })},
    {"energy-not-negative", changeEnergies([](auto* energy) { energy->count -= 1L << 40; })},
    {"energy-monotonic", [](Survey* survey) { lastEnergy(survey).count = 5; }},
    {"energy-power-plausible", changeEnergies([](auto* energy) { energy->count *= 10'000; })},
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
        size_t place = 0;
        while (kRules.at(place).name != std::string(fault.rule)) ++place;
        const Findings findings = judge(kRules.at(place), survey);
        ASSERT_FALSE(findings.first.empty());
        EXPECT_THAT(findings.first[0].found, testing::HasSubstr(fault.text));
    }
    EXPECT_EQ(covered.size(), kRules.size()) << "a rule without a fault";
}

TEST(Rules, ThatAreLegalToBreakAreReportedAsSuch) {
    Survey survey = makeSurvey(Hal::kAidl);
    survey.energies[kLast].records.pop_back();
    survey.residencies[kSome].records.clear();
    EXPECT_EQ(rulesWith(Verdict::kBroken, survey), "");
    EXPECT_EQ(rulesWith(Verdict::kLegal, survey), "rail-request-exact entity-request-exact");
    // The bus may refuse energy to a user.
    for (auto& reading : survey.energies) end(&reading, Outcome::kRefused);
    EXPECT_EQ(rulesWith(Verdict::kBroken, survey), "");
    EXPECT_EQ(rulesWith(Verdict::kNotJudged, survey),
              "rail-request-exact rail-ids-announced energy-stamp-boottime energy-stamp-monotonic "
              "energy-duration-within-stamp energy-duration-grows energy-not-negative "
              "energy-monotonic energy-power-plausible");
    // A HIDL entity may be reset.
    survey = makeSurvey(Hal::kHidl);
    lastState(&survey) = {0, "", "", kStart, 1, 1};
    EXPECT_EQ(rulesWith(Verdict::kBroken, survey), "");
}

}  // namespace
}  // namespace powerstats
