// SPDX-License-Identifier: Apache-2.0

#include "tools/Rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <map>
#include <set>
#include <string_view>
#include <type_traits>
#include <utility>

#include "hal/NamesAndIds.h"
#include "tools/SurveyWalk.h"

namespace powerstats {

namespace rules {

namespace {

/// A reading may be this old: meters have buffers.
constexpr int64_t kStaleMs = 1000;
/// A stamp that is off by less than this has no wrong unit, and is of the clock that it matches.
constexpr double kClockToleranceMs = 2000;
/// Rounding of a stamp or a total to milliseconds.
constexpr int64_t kRoundingMs = 1;
/// No rail of a machine carries more.
constexpr double kMostWatts = 10'000;

constexpr char kLibraryEnds[] = "this library's process would end";

// Lists.

/// Calls a function with each list of rails, of power entities, or of an entity's states, and with
/// a function that names a thing of the list.
template <typename Thing, typename Function>
void forLists(const Survey& survey, const Function& function) {
    if constexpr (std::is_same_v<Thing, State>) {
        forRecords(listsOfStates(survey), [&](const Call& call, const Entity& entity) {
            function(call, entity.states,
                     [&](const State& state) { return nameOfState(survey, entity.id, state.id); });
        });
    } else {
        const auto forAll = [&](const Answers<Thing>& lists) {
            for (const auto& list : lists) {
                if (!isForAll(list)) continue;
                function(list, list.records,
                         [&](const Thing& thing) { return nameOf<Thing>(survey, thing.id); });
            }
        };
        if constexpr (std::is_same_v<Thing, Rail>) {
            forAll(survey.rails);
        } else {
            forAll(survey.entities);
        }
    }
}

/// Calls a function with each thing of the lists, and a function that names it.
template <typename Thing, typename Function>
void forThings(const Survey& survey, const Function& function) {
    forLists<Thing>(survey, [&](const Call& call, const auto& things, const auto& name) {
        for (const Thing& thing : things) function(call, thing, name);
    });
}

template <typename Thing>
void idsUnique(const Survey& survey, Findings* findings) {
    forLists<Thing>(survey, [&](const Call& call, const auto& things, const auto& name) {
        for (size_t i = 0; i < things.size(); ++i) {
            if (findings->keeps(i == 0 || things[i - 1].id != things[i].id)) continue;
            findings->broken.add(call, name(things[i]),
                                 fmt::format("the id {} again, with the name \"{}\"", things[i].id,
                                             safeName(things[i].name)),
                                 "an id of its own");
        }
    });
}

template <typename Thing>
void namesUnique(const Survey& survey, Findings* findings) {
    forLists<Thing>(survey, [&](const Call& call, const auto& things, const auto& name) {
        std::map<std::string_view, const Thing*> firsts;
        for (const Thing& thing : things) {
            const auto [first, isNew] = firsts.emplace(thing.name, &thing);
            if (findings->keeps(isNew || thing.name.empty())) continue;
            findings->broken.add(call, name(thing), "the name of " + name(*first->second),
                                 "a name of its own");
        }
    });
}

template <typename Thing>
void namesPresent(const Survey& survey, Findings* findings) {
    forThings<Thing>(survey, [&](const Call& call, const Thing& thing, const auto& name) {
        if (findings->keeps(!thing.name.empty())) return;
        findings->broken.add(call, name(thing), "an empty name", "a name");
    });
}

void subsystemsPresent(const Survey& survey, Findings* findings) {
    forThings<Rail>(survey, [&](const Call& call, const Rail& rail, const auto& name) {
        if (findings->keeps(!rail.subsystem.empty())) return;
        findings->broken.add(call, name(rail), "an empty subsystem", "a name");
    });
}

void statesPresent(const Survey& survey, Findings* findings) {
    forRecords(listsOfStates(survey), [&](const Call& call, const Entity& entity) {
        if (findings->keeps(!entity.states.empty())) return;
        findings->broken.add(call, nameOf<Entity>(survey, entity.id), "no state",
                             "at least one state");
    });
}

template <typename Record>
void judgeStable(const Answers<Record>& lists, Findings* findings) {
    const std::vector<Record>* const first = announced(lists);
    for (const auto& list : lists) {
        if (!isForAll(list)) continue;
        if (findings->keeps(list.records == *first)) continue;
        findings->broken.add(
            list, "", fmt::format("{} entries, not those of the first call", list.records.size()),
            fmt::format("the {} entries of the first call", first->size()));
    }
}

void railsStable(const Survey& survey, Findings* findings) {
    judgeStable(survey.rails, findings);
}

void entitiesStable(const Survey& survey, Findings* findings) {
    judgeStable(survey.entities, findings);
    judgeStable(survey.stateLists, findings);
}

bool isUtf8(const std::string& text) {
    for (size_t i = 0, size = 0; i < text.size(); i += size) {
        size = decodeUtf8(text, i).size;
        if (size == 0) return false;
    }
    return true;
}

template <typename Thing>
void judgeUtf8(const Survey& survey, std::string Thing::*text, Findings* findings) {
    forThings<Thing>(survey, [&](const Call& call, const Thing& thing, const auto& name) {
        if (findings->keeps(isUtf8(thing.*text))) return;
        findings->broken.add(call, name(thing), "the text \"" + safeName(thing.*text) + "\"",
                             "UTF-8");
    });
}

void namesUtf8(const Survey& survey, Findings* findings) {
    judgeUtf8(survey, &Rail::name, findings);
    judgeUtf8(survey, &Rail::subsystem, findings);
    judgeUtf8(survey, &Entity::name, findings);
    judgeUtf8(survey, &State::name, findings);
}

// Requests and answers.

std::string countOf(size_t records) {
    return records == 1 ? "1 record" : fmt::format("{} records", records);
}

/// Returns the methods that fail when one client asks for everything.
std::set<std::string> failingMethods(const Survey& survey) {
    std::set<std::string> failing;
    forCalls(survey, [&](const Call& call, size_t /*records*/) {
        const bool isAlone = call.thread == 0 && call.request == Request::kAll;
        if (isAlone && call.outcome == Outcome::kFailed) failing.insert(call.method);
    });
    return failing;
}

/// Judges the answers that clients need: everything, and some.
/// @param atOnce [in] whether to judge the calls that were made at once, of those methods that
///     answer when they are called alone.
void judgeAnswered(const Survey& survey, bool atOnce, Findings* findings) {
    const bool isHidl = survey.hal == Hal::kHidl;
    const std::set<std::string> failing = failingMethods(survey);
    forCalls(survey, [&](const Call& call, size_t /*records*/) {
        const bool isNeeded = call.request == Request::kAll || call.request == Request::kSome ||
                              (isHidl && call.request == Request::kUnknown);
        if (!isNeeded || (call.thread != 0) != atOnce) return;
        if (atOnce && failing.count(call.method) != 0) return;
        const bool isRefused =
            call.outcome == Outcome::kOtherStatus ||
            (call.outcome == Outcome::kIllegalArgument && call.request != Request::kUnknown);
        const bool isKept = findings->keeps(call.outcome != Outcome::kFailed);
        if (isKept && !(isHidl && isRefused)) return;
        auto& list = isKept ? findings->legal : findings->broken;
        list.add(call, "", textOf(call.error), "an answer", isHidl ? kLibraryEnds : "");
    });
}

void callsAnswered(const Survey& survey, Findings* findings) {
    judgeAnswered(survey, false, findings);
}

void callsAtOnceAnswered(const Survey& survey, Findings* findings) {
    judgeAnswered(survey, true, findings);
}

/// Judges that an answer has the requested ids, each once. An answer may lack some of them.
template <typename Record>
void judgeExact(const Survey& survey, const Answers<Record>& answers, Findings* findings) {
    const auto* const list = announcedFor<Record>(survey);
    if (list == nullptr) return;
    for (const auto& answer : answers) {
        if (!isForAll(answer) &&
            (answer.outcome != Outcome::kAnswered || answer.request != Request::kSome)) {
            continue;
        }
        std::set<int64_t> missing(answer.ids.begin(), answer.ids.end());
        if (isForAll(answer)) {
            for (const auto& known : *list) missing.insert(known.id);
        }
        const auto asked = missing;
        for (const Record& record : answer.records) {
            // An id that was never announced is the matter of another rule.
            if (find(*list, record.id) == nullptr) continue;
            const bool isAsked = asked.count(record.id) != 0;
            if (findings->keeps(missing.erase(record.id) != 0)) continue;
            findings->broken.add(answer, nameOf<Record>(survey, record.id),
                                 isAsked ? "a second record" : "a record that was not asked for",
                                 "one record of each id that was asked for");
        }
        for (const int64_t id : missing) {
            findings->legal.add(answer, nameOf<Record>(survey, id), "no record",
                                "a record of each id that was asked for");
        }
    }
}

template <auto kAnswers>
void requestExact(const Survey& survey, Findings* findings) {
    judgeExact(survey, survey.*kAnswers, findings);
}

void unknownRefused(const Survey& survey, Findings* findings) {
    const std::set<std::string> failing = failingMethods(survey);
    forCalls(survey, [&](const Call& call, size_t records) {
        if (call.request != Request::kUnknown || failing.count(call.method) != 0) return;
        if (findings->keeps(call.outcome == Outcome::kIllegalArgument)) return;
        findings->broken.add(
            call, fmt::format("id {}, which is not announced", call.ids.front()),
            call.error.empty() ? "an answer with " + countOf(records) : textOf(call.error),
            "EX_ILLEGAL_ARGUMENT, on a bus org.freedesktop.DBus.Error.InvalidArgs");
    });
}

void knownAccepted(const Survey& survey, Findings* findings) {
    forCalls(survey, [&](const Call& call, size_t /*records*/) {
        if (call.request != Request::kAll && call.request != Request::kSome) return;
        if (findings->keeps(call.outcome != Outcome::kIllegalArgument)) return;
        findings->broken.add(
            call, call.ids.empty() ? "all ids" : fmt::format("{} known ids", call.ids.size()),
            textOf(call.error), "an answer");
    });
}

template <typename Record>
void judgeAnnounced(const Survey& survey, const Answers<Record>& answers, Findings* findings) {
    const auto* const list = announcedFor<Record>(survey);
    if (list == nullptr) return;
    for (const auto& answer : answers) {
        if (answer.request == Request::kUnknown) continue;
        for (const Record& record : answer.records) {
            if (findings->keeps(find(*list, record.id) != nullptr)) continue;
            findings->broken.add(answer, nameOf<Record>(survey, record.id),
                                 "an id that is not in the list", "only ids that are announced");
        }
    }
}

void railsAnnounced(const Survey& survey, Findings* findings) {
    judgeAnnounced(survey, survey.energies, findings);
}

void entitiesAnnounced(const Survey& survey, Findings* findings) {
    judgeAnnounced(survey, survey.residencies, findings);
    judgeAnnounced(survey, survey.stateLists, findings);
}

void statesAnnounced(const Survey& survey, Findings* findings) {
    forRecords(survey.residencies, [&](const Call& call, const Residency& entity) {
        const std::vector<State>* const states = statesOf(survey, entity.id);
        if (states == nullptr) return;
        for (const StateTime& state : entity.states) {
            if (findings->keeps(find(*states, state.id) != nullptr)) continue;
            findings->broken.add(call, nameOfState(survey, entity.id, state.id),
                                 "a state that is not in the list",
                                 "only states that are announced");
        }
    });
}

void statesComplete(const Survey& survey, Findings* findings) {
    forRecords(survey.residencies, [&](const Call& call, const Residency& entity) {
        const std::vector<State>* const states = statesOf(survey, entity.id);
        if (states == nullptr) return;
        for (const State& state : *states) {
            if (findings->keeps(find(entity.states, state.id) != nullptr)) continue;
            findings->broken.add(call, nameOfState(survey, entity.id, state.id), "no record",
                                 "every state");
        }
    });
}

std::string statusOf(const Call& call) {
    return call.outcome == Outcome::kAnswered ? "SUCCESS" : call.error;
}

void statusMatches(const Survey& survey, Findings* findings) {
    forCalls(survey, [&](const Call& call, size_t records) {
        if (call.outcome == Outcome::kFailed) return;
        if (findings->keeps((call.outcome == Outcome::kAnswered) == (records > 0))) return;
        findings->broken.add(call, "", statusOf(call) + " with " + countOf(records),
                             "SUCCESS with records, or another status without any");
    });
}

void railsNotSupported(const Survey& survey, Findings* findings) {
    if (announced(survey.rails) != nullptr) return;
    const auto judgeAll = [&](const auto& answers) {
        for (const auto& answer : answers) {
            if (answer.outcome == Outcome::kFailed) continue;
            if (findings->keeps(answer.outcome == Outcome::kNotSupported)) continue;
            findings->broken.add(answer, "", statusOf(answer), "NOT_SUPPORTED");
        }
    };
    judgeAll(survey.rails);
    judgeAll(survey.energies);
}

// Values.

/// Names the mistake that turns a time of an interval into this stamp; empty when none does.
std::string describeMistake(double stamp, int64_t fromMs, int64_t toMs, int64_t suspendedMs) {
    const auto matches = [&](double ms) {
        return ms > static_cast<double>(fromMs) - kClockToleranceMs &&
               ms < static_cast<double>(toMs) + kClockToleranceMs;
    };
    const auto suspended = static_cast<double>(suspendedMs);
    if (suspended > kClockToleranceMs && matches(stamp + suspended)) {
        return fmt::format(
            "; it looks like CLOCK_MONOTONIC: off by the {} s this machine was suspended",
            suspendedMs / 1000);
    }
    if (matches(stamp * 1000)) return "; it looks like seconds";
    if (matches(stamp / 1000)) return "; it looks like microseconds";
    if (matches(stamp / 1e6)) return "; it looks like nanoseconds";
    constexpr double k2017 = 1.5e12;
    constexpr double k2096 = 4e12;
    return stamp > k2017 && stamp < k2096 ? "; it looks like the time since 1970" : "";
}

std::string describeMistake(int64_t stamp, const Call& call) {
    return describeMistake(static_cast<double>(stamp), call.beforeMs, call.afterMs,
                           call.suspendedMs);
}

/// Judges that a value does not fall from one reading to the next.
/// @param nameThing [in] a function that names the thing with the value.
template <typename Record, typename Name>
void judgeNoFall(const Step<Record>& step, const char* name, int64_t Record::*value,
                 const Name& nameThing, Findings* findings) {
    if (findings->keeps(step.second.*value >= step.first.*value)) return;
    findings->broken.add(
        step.secondCall, nameThing(), fmt::format("{} {}", name, step.second.*value),
        fmt::format("at least {}, as read at {} ms", step.first.*value, step.firstCall.beforeMs));
}

// Residencies.

void residenciesNotNegative(const Survey& survey, Findings* findings) {
    forStates(survey, [&](const Call& call, int64_t entity, const StateTime& state) {
        if (findings->keeps(state.totalMs >= 0 && state.entries >= 0)) return;
        findings->broken.add(call, nameOfState(survey, entity, state.id),
                             fmt::format("totalTimeInStateMs {} and totalStateEntryCount {}",
                                         state.totalMs, state.entries),
                             "0 and more");
    });
}

/// @param applies [in] whether to judge two readings of a state.
template <typename Applies>
void judgeStatesNoFall(const Survey& survey, const char* name, int64_t StateTime::*value,
                       const Applies& applies, Findings* findings) {
    forStateSteps(survey, [&](int64_t entity, const Step<StateTime>& step) {
        const auto nameThing = [&, entity = entity] {
            return nameOfState(survey, entity, step.second.id);
        };
        if (applies(step)) judgeNoFall(step, name, value, nameThing, findings);
    });
}

bool always(const Step<StateTime>& /*step*/) {
    return true;
}

void timeMonotonic(const Survey& survey, Findings* findings) {
    judgeStatesNoFall(survey, "totalTimeInStateMs", &StateTime::totalMs, always, findings);
}

void entriesMonotonic(const Survey& survey, Findings* findings) {
    judgeStatesNoFall(survey, "totalStateEntryCount", &StateTime::entries, always, findings);
}

void lastEntryMonotonic(const Survey& survey, Findings* findings) {
    const auto applies = [&](const Step<StateTime>& step) {
        // 0 is a time that is not known. A HIDL entity may be reset.
        const bool isReset = survey.hal == Hal::kHidl && step.second.entries < step.first.entries;
        return step.second.lastEntryMs != 0 && !isReset;
    };
    judgeStatesNoFall(survey, "lastEntryTimestampMs", &StateTime::lastEntryMs, applies, findings);
}

void timeWithinUptime(const Survey& survey, Findings* findings) {
    forRecords(survey.residencies, [&](const Call& call, const Residency& entity) {
        double sumMs = 0;
        double mostMs = static_cast<double>(call.afterMs);
        for (const StateTime& state : entity.states) {
            sumMs += static_cast<double>(state.totalMs);
            mostMs += kRoundingMs;
        }
        if (findings->keeps(sumMs <= mostMs)) return;
        findings->broken.add(call, nameOf<Entity>(survey, entity.id),
                             fmt::format("{:.0f} ms in its states{}", sumMs,
                                         describeMistake(sumMs, call.beforeMs, call.afterMs, 0)),
                             fmt::format("at most the uptime, {:.0f} ms", mostMs));
    });
}

void timeWithinInterval(const Survey& survey, Findings* findings) {
    forSteps(survey.residencies, [&](const Step<Residency>& step) {
        double sumMs = 0;
        double mostMs = difference(step.firstCall.beforeMs, step.secondCall.afterMs);
        for (const StateTime& state : step.second.states) {
            const StateTime* const before = find(step.first.states, state.id);
            if (before == nullptr) continue;
            sumMs += std::max(0.0, difference(before->totalMs, state.totalMs));
            mostMs += kRoundingMs;
        }
        if (findings->keeps(sumMs <= mostMs)) return;
        findings->broken.add(step.secondCall, nameOf<Entity>(survey, step.second.id),
                             fmt::format("{:.0f} ms in its states since the reading at {} ms",
                                         sumMs, step.firstCall.beforeMs),
                             fmt::format("at most {:.0f} ms, the time since then", mostMs));
    });
}

void lastEntryNotFuture(const Survey& survey, Findings* findings) {
    forStates(survey, [&](const Call& call, int64_t entity, const StateTime& state) {
        if (findings->keeps(state.lastEntryMs >= 0 &&
                            state.lastEntryMs <= call.afterMs + kRoundingMs))
            return;
        findings->broken.add(call, nameOfState(survey, entity, state.id),
                             fmt::format("lastEntryTimestampMs {}{}", state.lastEntryMs,
                                         describeMistake(state.lastEntryMs, call)),
                             fmt::format("0 to {}, milliseconds since boot", call.afterMs));
    });
}

/// Judges the entries that happened between two readings.
void lastEntryClock(const Survey& survey, Findings* findings) {
    forStateSteps(survey, [&](int64_t entity, const Step<StateTime>& step) {
        const int64_t stamp = step.second.lastEntryMs;
        if (step.second.entries <= step.first.entries || stamp <= 0) return;
        const int64_t fromMs = step.firstCall.beforeMs;
        const int64_t toMs = step.secondCall.afterMs;
        const std::string mistake =
            describeMistake(static_cast<double>(stamp), fromMs, toMs, step.secondCall.suspendedMs);
        if (findings->keeps(stamp >= fromMs - kStaleMs || mistake.empty())) return;
        findings->broken.add(
            step.secondCall, nameOfState(survey, entity, step.second.id),
            fmt::format("lastEntryTimestampMs {} of a new entry{}", stamp, mistake),
            fmt::format("{} to {}, milliseconds since boot", fromMs, toMs));
    });
}

void lastEntryMoves(const Survey& survey, Findings* findings) {
    forStateSteps(survey, [&](int64_t entity, const Step<StateTime>& step) {
        if (step.second.entries != step.first.entries) return;
        // A step back is the matter of another rule.
        if (findings->keeps(step.second.lastEntryMs <= step.first.lastEntryMs)) return;
        findings->broken.add(
            step.secondCall, nameOfState(survey, entity, step.second.id),
            fmt::format("lastEntryTimestampMs {} and totalStateEntryCount {}",
                        step.second.lastEntryMs, step.second.entries),
            fmt::format("lastEntryTimestampMs {}, as read at {} ms with that count",
                        step.first.lastEntryMs, step.firstCall.beforeMs));
    });
}

// Energy.

void energyStampBoottime(const Survey& survey, Findings* findings) {
    forRecords(survey.energies, [&](const Call& call, const Energy& energy) {
        const bool isFresh = survey.isReplay || energy.timestampMs >= call.beforeMs - kStaleMs;
        if (findings->keeps(isFresh && energy.timestampMs <= call.afterMs + kRoundingMs)) return;
        findings->broken.add(
            call, nameOf<Energy>(survey, energy.id),
            fmt::format("timestampMs {}{}", energy.timestampMs,
                        describeMistake(energy.timestampMs, call)),
            fmt::format("{} to {}, CLOCK_BOOTTIME in milliseconds", call.beforeMs, call.afterMs));
    });
}

void judgeEnergyNoFall(const Survey& survey, const char* name, int64_t Energy::*value,
                       Findings* findings) {
    forSteps(survey.energies, [&](const Step<Energy>& step) {
        const auto nameThing = [&] { return nameOf<Energy>(survey, step.second.id); };
        judgeNoFall(step, name, value, nameThing, findings);
    });
}

void energyStampMonotonic(const Survey& survey, Findings* findings) {
    judgeEnergyNoFall(survey, "timestampMs", &Energy::timestampMs, findings);
}

void energyMonotonic(const Survey& survey, Findings* findings) {
    judgeEnergyNoFall(survey, "energyUWs", &Energy::energyUWs, findings);
}

void energyNotNegative(const Survey& survey, Findings* findings) {
    forRecords(survey.energies, [&](const Call& call, const Energy& energy) {
        if (findings->keeps(energy.energyUWs >= 0)) return;
        findings->broken.add(call, nameOf<Energy>(survey, energy.id),
                             fmt::format("energyUWs {}", energy.energyUWs), "0 and more");
    });
}

void durationWithinStamp(const Survey& survey, Findings* findings) {
    forRecords(survey.energies, [&](const Call& call, const Energy& energy) {
        if (findings->keeps(energy.durationMs >= 0 && energy.durationMs <= energy.timestampMs))
            return;
        findings->broken.add(call, nameOf<Energy>(survey, energy.id),
                             fmt::format("durationMs {}", energy.durationMs),
                             fmt::format("0 to timestampMs, {}", energy.timestampMs));
    });
}

void durationGrows(const Survey& survey, Findings* findings) {
    forSteps(survey.energies, [&](const Step<Energy>& step) {
        const double passed = difference(step.first.timestampMs, step.second.timestampMs);
        const double grown = difference(step.first.durationMs, step.second.durationMs);
        if (passed <= kRoundingMs) return;
        if (findings->keeps(grown > 0 && grown <= passed + kRoundingMs)) return;
        findings->broken.add(step.secondCall, nameOf<Energy>(survey, step.second.id),
                             fmt::format("durationMs {}, {:.0f} ms more than at {} ms",
                                         step.second.durationMs, grown, step.firstCall.beforeMs),
                             fmt::format("about {:.0f} ms more, as timestampMs", passed));
    });
}

/// Judges the power since boot and that of the longest interval, because a meter that counts in
/// large steps shows any power in a short one.
void powerPlausible(const Survey& survey, Findings* findings) {
    constexpr double kLeastMs = 100;
    constexpr double kLeastSinceBootMs = 1000;
    std::map<int64_t, Energy> firsts;
    std::map<int64_t, std::pair<const Call*, Energy>> lasts;
    forRecords(survey.energies, [&](const Call& call, const Energy& energy) {
        firsts.emplace(energy.id, energy);
        lasts[energy.id] = {&call, energy};
    });
    const auto judgeOver = [&](const Call& call, int64_t id, double energyUWs, double ms,
                               double leastMs, const std::string& since) {
        if (ms < leastMs) return;
        const double watts = energyUWs / ms / 1000;
        if (findings->keeps(watts <= kMostWatts)) return;
        findings->broken.add(call, nameOf<Rail>(survey, id),
                             fmt::format("{:.0f} W on average {}", watts, since),
                             fmt::format("at most {:.0f} W", kMostWatts));
    };
    for (const auto& [id, last] : lasts) {
        const auto& [call, energy] = last;
        const Energy& first = firsts[id];
        judgeOver(*call, id, static_cast<double>(energy.energyUWs),
                  static_cast<double>(energy.durationMs), kLeastSinceBootMs, "over durationMs");
        judgeOver(*call, id, difference(first.energyUWs, energy.energyUWs),
                  difference(first.timestampMs, energy.timestampMs), kLeastMs,
                  fmt::format("since timestampMs {}", first.timestampMs));
    }
}

void libraryGoesOn(const Survey& survey, Findings* findings) {
    const Survey::Library& library = survey.library;
    if (!library.wasCalled) return;
    Call call;
    call.method = "the library";
    if (findings->keeps(library.signal == 0)) return;
    findings->broken.add(call, "",
                         fmt::format("signal {} ({}) ended its process: {}", library.signal,
                                     strsignal(library.signal), textOf(library.log)),
                         "both calls return");
}

constexpr Interfaces kBoth = Interfaces::kBoth;
constexpr Interfaces kAidl = Interfaces::kAidl;
constexpr Interfaces kHidl = Interfaces::kHidl;
constexpr bool kPublished = true;
constexpr bool kOwn = false;

const std::vector<Rule> kRules = {
    // Lists.
    {"rail-ids-unique", kBoth, kPublished, "Every rail has an id of its own.",
     "readings of two rails are mixed up", idsUnique<Rail>},
    {"rail-names-unique", kBoth, kPublished, "Every rail has a name of its own.",
     "clients cannot tell two rails apart", namesUnique<Rail>},
    {"rail-names-present", kBoth, kPublished, "No rail's name is empty.",
     "clients show a rail without a name", namesPresent<Rail>},
    {"rail-subsystems-present", kBoth, kPublished, "No rail's subsystem name is empty.",
     "clients cannot group the rails", subsystemsPresent},
    {"rail-list-stable", kBoth, kOwn, "The list of rails is the same in every call.",
     "clients read the list once, and give readings to the wrong rail", railsStable},
    {"entity-ids-unique", kBoth, kPublished, "Every power entity has an id of its own.",
     "residencies of two entities are mixed up", idsUnique<Entity>},
    {"entity-names-unique", kBoth, kPublished, "Every power entity has a name of its own.",
     "clients cannot tell two entities apart", namesUnique<Entity>},
    {"entity-names-present", kBoth, kPublished, "No power entity's name is empty.",
     "clients show an entity without a name", namesPresent<Entity>},
    {"entity-states-present", kBoth, kPublished, "Every power entity has at least one state.",
     "the entity has nothing to report", statesPresent},
    {"state-ids-unique", kBoth, kPublished,
     "Every state has an id of its own within its power entity.",
     "residencies of two states are mixed up", idsUnique<State>},
    {"state-names-unique", kBoth, kPublished,
     "Every state has a name of its own within its power entity.",
     "clients cannot tell two states apart", namesUnique<State>},
    {"entity-list-stable", kBoth, kOwn,
     "The lists of power entities and their states are the same in every call.",
     "clients read the lists once, and give residencies to the wrong state", entitiesStable},
    {"names-utf8", kAidl, kOwn, "Every name is UTF-8.", "the transport may refuse the whole list",
     namesUtf8},

    // Requests and answers.
    {"calls-answered", kBoth, kPublished, "Every call is answered.", "Java receives null",
     callsAnswered},
    {"calls-at-once-answered", kBoth, kOwn, "Calls of several clients at once are answered.",
     "Java receives null now and then", callsAtOnceAnswered},
    {"rail-request-exact", kBoth, kPublished,
     "A request for rails returns a record of each of them, and no other; an empty list asks for "
     "all.",
     "clients miss rails, or count them twice", requestExact<&Survey::energies>},
    {"entity-request-exact", kBoth, kPublished,
     "A request for power entities returns a record of each of them, and no other; an empty list "
     "asks for all.",
     "clients miss entities, or count them twice", requestExact<&Survey::residencies>},
    {"state-list-request-exact", kHidl, kPublished,
     "A request for lists of states returns one of each power entity, and no other; an empty list "
     "asks for all.",
     "the states of an entity have no names", requestExact<&Survey::stateLists>},
    {"unknown-id-refused", kAidl, kOwn, "A request for an unknown id gives EX_ILLEGAL_ARGUMENT.",
     "a client with old ids does not notice its mistake", unknownRefused},
    {"known-ids-accepted", kAidl, kOwn,
     "A request for known ids, or for all, never gives EX_ILLEGAL_ARGUMENT.", "Java receives null",
     knownAccepted},
    {"rail-ids-announced", kBoth, kPublished, "Every rail in an answer is in the list of rails.",
     kLibraryEnds, railsAnnounced},
    {"entity-ids-announced", kBoth, kPublished,
     "Every power entity in an answer is in the list of power entities.", kLibraryEnds,
     entitiesAnnounced},
    {"state-ids-announced", kBoth, kPublished,
     "Every state in an answer is in the list of its power entity's states.", kLibraryEnds,
     statesAnnounced},
    {"states-complete", kBoth, kPublished, "A residency has every state of its power entity.",
     "the shares do not add up", statesComplete},
    {"status-matches-records", kHidl, kPublished,
     "The status is SUCCESS with records, or another one without any.",
     "clients take a failure for an answer", statusMatches},
    {"rails-not-supported", kHidl, kOwn, "Without rails both calls for rails answer NOT_SUPPORTED.",
     "clients take a device without meters for a faulty one", railsNotSupported},

    // Residencies.
    {"residency-not-negative", kBoth, kOwn, "No total of a state is negative.",
     "shares and rates are wrong", residenciesNotNegative},
    {"state-time-monotonic", kAidl, kOwn, "The time in a state never goes backwards.",
     "shares are wrong", timeMonotonic},
    {"state-entries-monotonic", kAidl, kOwn,
     "The count of entries into a state never goes backwards.", "rates of entries are wrong",
     entriesMonotonic},
    {"state-time-within-uptime", kAidl, kOwn,
     "The times in the states of a power entity add up to the uptime at most.",
     "shares since boot exceed 100 %", timeWithinUptime},
    {"state-time-within-interval", kBoth, kOwn,
     "Between two readings the times in the states of a power entity grow by the time between them "
     "at most.",
     "shares exceed 100 %", timeWithinInterval},
    {"last-entry-not-future", kBoth, kOwn,
     "The last entry into a state is milliseconds since boot, and not in the future.",
     "clients show a time that has not come", lastEntryNotFuture},
    {"last-entry-clock", kBoth, kOwn,
     "The last entry into a state has the unit and the clock of the other stamps.",
     "clients show a wrong time", lastEntryClock},
    {"last-entry-monotonic", kBoth, kOwn, "The last entry into a state never goes backwards.",
     "clients show a wrong time", lastEntryMonotonic},
    {"last-entry-moves-with-entries", kBoth, kOwn,
     "The last entry into a state moves only when the count of entries does.",
     "entries are missed, or the time is not that of an entry", lastEntryMoves},

    // Energy.
    {"energy-stamp-boottime", kBoth, kOwn,
     "An energy's time stamp is CLOCK_BOOTTIME in milliseconds when it was read.",
     "powers computed from it are wrong", energyStampBoottime},
    {"energy-stamp-monotonic", kBoth, kOwn, "An energy's time stamp never goes backwards.",
     "powers computed from it are wrong", energyStampMonotonic},
    {"energy-duration-within-stamp", kAidl, kOwn, "An energy's duration is at most its time stamp.",
     "this library leaves the rail out", durationWithinStamp},
    {"energy-duration-grows", kAidl, kOwn, "An energy's duration grows as its time stamp does.",
     "this library leaves the rail out", durationGrows},
    {"energy-not-negative", kBoth, kOwn, "No energy is negative.", "powers are wrong",
     energyNotNegative},
    {"energy-monotonic", kBoth, kOwn, "An energy is neither reset nor wraps.",
     "powers are negative, or energy is lost", energyMonotonic},
    {"energy-power-plausible", kBoth, kOwn,
     "An energy is in microwatt-seconds: no rail carries more than 10 kW.",
     "sums over rails are of no use", powerPlausible},

    {"library-goes-on", kBoth, kOwn, "The library calls the service, and its process goes on.",
     kLibraryEnds, libraryGoesOn},
};

template <typename Record>
bool isRefused(const Answers<Record>& answers) {
    return std::any_of(answers.begin(), answers.end(),
                       [](const Call& call) { return call.outcome == Outcome::kRefused; });
}

/// Whether the bus refused the list, or the readings, of the things that a rule is about. Its name
/// tells these: rails and their energy, or power entities.
bool lacksThings(const Rule& rule, const Survey& survey) {
    const std::string_view name = rule.name;
    const bool isOfRails = name.rfind("rail-", 0) == 0 || name.rfind("energy-", 0) == 0;
    if (isOfRails) {
        const auto* const list = announced(survey.rails);
        return list == nullptr ? isRefused(survey.rails)
                               : !list->empty() && isRefused(survey.energies);
    }
    const auto* const list = announced(survey.entities);
    return list == nullptr
               ? isRefused(survey.entities)
               : !list->empty() && (isRefused(survey.residencies) || isRefused(survey.stateLists));
}

}  // namespace

}  // namespace rules

bool Findings::keeps(bool isKept) {
    ++judged;
    return isKept;
}

void Findings::List::add(const Survey::Call& call, std::string thing, std::string found,
                         std::string expected, std::string consequence) {
    ++count;
    const auto isSame = [&](const Evidence& one) {
        return one.method == call.method && one.thing == thing;
    };
    if (first.size() == kMostKept || std::any_of(first.begin(), first.end(), isSame)) return;
    first.push_back({call.method, std::move(thing), call.beforeMs, std::move(found),
                     std::move(expected), std::move(consequence)});
}

const std::vector<Rule>& allRules() {
    return rules::kRules;
}

Verdict judge(const Rule& rule, const Survey& survey, Findings* findings) {
    *findings = {};
    const bool applies =
        rule.interfaces == Interfaces::kBoth ||
        (rule.interfaces == Interfaces::kAidl) == (survey.hal == Survey::Hal::kAidl);
    if (applies) rule.judge(survey, findings);
    if (findings->broken.count > 0) return Verdict::kBroken;
    if (findings->legal.count > 0) return Verdict::kLegal;
    if (findings->judged > 0) return Verdict::kKept;
    return applies && rules::lacksThings(rule, survey) ? Verdict::kNotJudged
                                                       : Verdict::kNotApplicable;
}

std::set<std::string> refusedMethods(const Survey& survey) {
    std::set<std::string> methods;
    const auto addAll = [&](const auto& answers) {
        for (const auto& answer : answers) {
            if (answer.outcome == Survey::Outcome::kRefused) methods.insert(answer.method);
        }
    };
    addAll(survey.rails);
    addAll(survey.entities);
    addAll(survey.stateLists);
    addAll(survey.energies);
    addAll(survey.residencies);
    return methods;
}

std::vector<std::string> takeNotes(const Survey& survey) {
    using namespace rules;
    std::set<std::string> notes;
    const std::set<std::string> failing = failingMethods(survey);
    forCalls(survey, [&](const Call& call, size_t records) {
        if (call.request == Request::kRepeated && failing.count(call.method) == 0) {
            notes.insert(fmt::format(
                "{} with an id twice: {}", call.method,
                call.error.empty() ? countOf(records) : "refused, " + textOf(call.error)));
        }
        if (call.outcome == Outcome::kNotSupported) {
            notes.insert(fmt::format("{}: {}", call.method, call.error));
        }
    });
    // One note for all things of a kind names the first of them.
    std::map<std::string, std::set<std::pair<int64_t, int64_t>>> states;
    forStateSteps(survey, [&](int64_t entity, const Step<StateTime>& step) {
        const std::pair<int64_t, int64_t> key(entity, step.second.id);
        if (survey.hal == Hal::kHidl && step.second.totalMs < step.first.totalMs) {
            states["the total fell, so the entity was reset"].insert(key);
        }
        if (step.second.lastEntryMs == 0 && step.second.entries > step.first.entries) {
            states["the service does not know the last entry"].insert(key);
        }
    });
    std::set<int64_t> rails;
    forRecords(survey.energies, [&](const Call& /*call*/, const Energy& energy) {
        if (energy.durationMs != energy.timestampMs) rails.insert(energy.id);
    });
    const auto others = [](size_t count) {
        return count > 1 ? fmt::format(" and {} more", count - 1) : "";
    };
    for (const auto& [text, keys] : states) {
        const auto& [entity, state] = *keys.begin();
        notes.insert(nameOfState(survey, entity, state) + others(keys.size()) + ": " + text);
    }
    if (!rails.empty()) {
        notes.insert(nameOf<Energy>(survey, *rails.begin()) + others(rails.size()) +
                     ": left out by this library, because durationMs is not timestampMs");
    }
    return {notes.begin(), notes.end()};
}

}  // namespace powerstats
