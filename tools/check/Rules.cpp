// SPDX-License-Identifier: Apache-2.0

#include "tools/check/Rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <type_traits>
#include <utility>

#include "power/text/Names.h"

namespace powerstats {

namespace {

// Sums and differences are floating-point, because a service may report any number.
using Ms = std::chrono::duration<double, std::milli>;

/// A reading may be this old: meters have buffers.
constexpr std::chrono::seconds kStale{1};
/// A stamp that is off by less than this has no wrong unit, and is of the clock that it matches.
constexpr std::chrono::seconds kClockTolerance{2};
/// A text of the service is cut after so many bytes.
constexpr size_t kMostTextBytes = 400;
/// Rounding of a stamp or a total to milliseconds.
constexpr std::chrono::milliseconds kRounding{1};

constexpr char kTotalTime[] = "totalTimeInStateMs";
constexpr char kEntryCount[] = "totalStateEntryCount";
constexpr char kLastEntry[] = "lastEntryTimestampMs";
constexpr char kTimestamp[] = "timestampMs";
constexpr char kEnergy[] = "energyUWs";
constexpr char kLibraryEnds[] = "this library's process would end";

// The things of a survey.

template <typename Record>
constexpr bool kIsOfRail = std::is_same_v<Record, Rail> || std::is_same_v<Record, EnergyResult>;
template <typename Record>
constexpr bool kIsOfState = std::is_same_v<Record, State> || std::is_same_v<Record, StateResult>;
template <typename Answer>
using RecordOf = typename decltype(std::decay_t<Answer>::records)::value_type;

/// Returns the first record with the id; null when there is none, or no list.
template <typename Record>
const Record* find(const std::vector<Record>* sorted, int64_t id) {
    if (sorted == nullptr) return nullptr;
    const auto found =
        std::lower_bound(sorted->begin(), sorted->end(), id,
                         [](const Record& record, int64_t wanted) { return record.id < wanted; });
    return found != sorted->end() && found->id == id ? &*found : nullptr;
}

bool isForAll(const Call& call) {
    return call.outcome == Outcome::kAnswered && call.request == Request::kAll;
}

/// Returns the records of the first list that was answered; null when none was.
template <typename Record>
const std::vector<Record>* announced(const Answers<Record>& lists) {
    const auto first = std::find_if(lists.begin(), lists.end(), isForAll);
    return first != lists.end() ? &first->records : nullptr;
}

/// Returns the answers that tell the states of entities.
const Answers<Entity>& listsOfStates(const Survey& survey) {
    return survey.hal == Hal::kAidl ? survey.entities : survey.stateLists;
}

const std::vector<State>* statesOf(const Survey& survey, int64_t entity) {
    const Entity* const known = find(announced(listsOfStates(survey)), entity);
    return known != nullptr ? &known->states : nullptr;
}

/// Returns the list that announces the ids of such records; null when there is none.
template <typename Record>
const auto* announcedFor(const Survey& survey) {
    if constexpr (kIsOfRail<Record>) return announced(survey.rails);
    if constexpr (!kIsOfRail<Record>) return announced(survey.entities);
}

/// Returns the answers with records of this type; those with its entity for a state.
template <typename Record>
const auto& answersWith(const Survey& survey) {
    if constexpr (std::is_same_v<Record, Rail>) return survey.rails;
    if constexpr (std::is_same_v<Record, Entity>) return survey.entities;
    if constexpr (std::is_same_v<Record, State>) return listsOfStates(survey);
    if constexpr (std::is_same_v<Record, EnergyResult>) return survey.energies;
    if constexpr (std::is_same_v<Record, EntityResult>) return survey.residencies;
    if constexpr (std::is_same_v<Record, StateResult>) return survey.residencies;
}

template <typename Thing>
std::string nameIn(const std::vector<Thing>* list, int64_t id) {
    const Thing* const known = find(list, id);
    return known != nullptr ? fmt::format("{} \"{}\"", id, safeName(known->name))
                            : std::to_string(id);
}

// Walks over a survey.

/// A record in an answer, and the one of the same id in an answer before it.
template <typename Record>
struct Item {
    const Survey& survey;
    const Call& call;
    const Record& record;
    /// The records among which it is.
    const std::vector<Record>* siblings = nullptr;
    int64_t entity = 0;  ///< that of a state
    /// Null when there is none.
    const Record* before = nullptr;
    const Call* callBefore = nullptr;

    std::string name() const {
        std::string thing =
            (kIsOfRail<Record> ? "rail " : "power entity ") +
            nameIn(announcedFor<Record>(survey), kIsOfState<Record> ? entity : record.id);
        if (!kIsOfState<Record>) return thing;
        return thing + ", state " + nameIn(statesOf(survey, entity), record.id);
    }
};

/// One answer of any method, whatever its request and outcome. A call that the bus refused is none,
/// because it says nothing about the service.
struct CallItem {
    const Survey& survey;
    const Call& call;
    size_t records = 0;
    bool isOfRails = false;

    static std::string name() { return ""; }
};

template <typename Function>
void walk(const Survey& survey, const Function& function, const CallItem* /*type*/) {
    survey.forAnswers([&](const auto& answer) {
        if (answer.outcome == Outcome::kRefused) return;
        constexpr bool kIsOfRails = kIsOfRail<RecordOf<decltype(answer)>>;
        function(CallItem{survey, answer, answer.records.size(), kIsOfRails});
    });
}

/// Calls a function with each record of the answers to requests for everything. Of calls that were
/// made at once nobody knows the order, so these are not compared.
template <typename Function, typename Record>
void walk(const Survey& survey, const Function& function, const Item<Record>* /*type*/) {
    const auto& answers = answersWith<Record>(survey);
    for (auto answer = answers.begin(); answer != answers.end(); ++answer) {
        if (!isForAll(*answer)) continue;
        const auto last =
            std::find_if(std::make_reverse_iterator(answer), answers.rend(), [&](const Call& call) {
                return isForAll(call) &&
                       (call.thread == answer->thread || call.after < answer->before);
            });
        const auto* const before = last != answers.rend() ? &*last : nullptr;
        const auto* const recordsBefore = before != nullptr ? &before->records : nullptr;
        for (const auto& record : answer->records) {
            const auto* const same = find(recordsBefore, record.id);
            if constexpr (kIsOfState<Record>) {
                for (const Record& state : record.states) {
                    function(Item<Record>{survey, *answer, state, &record.states, record.id,
                                          find(same != nullptr ? &same->states : nullptr, state.id),
                                          before});
                }
            } else {
                function(Item<Record>{survey, *answer, record, &answer->records, 0, same, before});
            }
        }
    }
}

template <typename ItemType, typename Function>
void forEach(const Survey& survey, const Function& function) {
    walk(survey, function, static_cast<const ItemType*>(nullptr));
}

// Findings.

/// Turns a time into milliseconds. One that fromMilliseconds() has cut is "at least" as long.
template <typename Argument>
auto toArgument(const Argument& argument) {
    if constexpr (std::is_convertible_v<Argument, Ms>) {
        const Ms time = argument;
        const Ms most = nanoseconds::max();
        const char* const bound = time >= most ? "at least " : time <= -most ? "at most " : "";
        return fmt::format("{}{:.0f}", bound, time.count());
    } else {
        return argument;
    }
}

/// @param found, expected [in] format strings, each for all of the arguments.
template <typename... Arguments>
Finding expect(bool isKept, const char* found, const char* expected,
               const Arguments&... arguments) {
    if (isKept) return {Verdict::kKept};
    const auto format = [&](const char* text) {
        return fmt::vformat(text, fmt::make_format_args(toArgument(arguments)...));
    };
    return {Verdict::kBroken, format(found), format(expected)};
}

template <typename ItemType>
void judgeItems(const Survey& survey, Finding (*judge)(const ItemType&), Findings* findings) {
    forEach<ItemType>(survey, [&](const ItemType& item) { findings->add(item, judge(item)); });
}

/// Judges each item of the types that the functions take.
template <auto... kJudges>
void each(const Survey& survey, Findings* findings) {
    (judgeItems(survey, kJudges, findings), ...);
}

// Lists.

template <typename Thing>
Finding idUnique(const Item<Thing>& item) {
    return expect(find(item.siblings, item.record.id) == &item.record,
                  "the id {} again, with the name \"{}\"", "an id of its own", item.record.id,
                  safeName(item.record.name));
}

template <typename Thing>
void namesUnique(const Survey& survey, Findings* findings) {
    std::map<std::pair<const void*, std::string_view>, Item<Thing>> firsts;
    forEach<Item<Thing>>(survey, [&](const Item<Thing>& item) {
        const auto [first, isNew] = firsts.try_emplace({item.siblings, item.record.name}, item);
        findings->add(item, expect(isNew || item.record.name.empty(), "the name of {}",
                                   "a name of its own", isNew ? "" : first->second.name()));
    });
}

template <typename Thing>
Finding namePresent(const Item<Thing>& item) {
    return expect(!item.record.name.empty(), "an empty name", "a name");
}

Finding subsystemPresent(const Item<Rail>& rail) {
    return expect(!rail.record.subsystem.empty(), "an empty subsystem", "a name");
}

Finding statesPresent(const Item<Entity>& item) {
    const std::vector<State>* const states = statesOf(item.survey, item.record.id);
    if (states == nullptr) return {};
    return expect(!states->empty(), "no state", "at least one state");
}

template <auto kLists, auto... kMore>
void stable(const Survey& survey, Findings* findings) {
    for (const auto& list : survey.*kLists) {
        if (!isForAll(list)) continue;
        const auto& first = *announced(survey.*kLists);
        findings->add(
            CallItem{survey, list},
            expect(list.records == first, "{} entries, not those of the first call",
                   "the {1} entries of the first call", list.records.size(), first.size()));
    }
    (stable<kMore>(survey, findings), ...);
}

template <typename Thing, std::string Thing::*kText>
Finding textUtf8(const Item<Thing>& item) {
    const std::string& text = item.record.*kText;
    size_t end = 0;
    for (size_t size = 1; size > 0 && end < text.size(); end += size) {
        size = decodeUtf8(text, end).size;
    }
    return expect(end == text.size(), "the text \"{}\"", "UTF-8", safeName(text));
}

// Requests and answers.

std::string countOf(size_t records) {
    return records == 1 ? "1 record" : fmt::format("{} records", records);
}

/// Whether a method fails when one client asks for everything.
bool fails(const Survey& survey, const std::string& method) {
    bool isFailing = false;
    survey.forAnswers([&](const Call& call) {
        const bool isAlone = call.thread == 0 && call.request == Request::kAll;
        if (isAlone && call.outcome == Outcome::kFailed && call.method == method) isFailing = true;
    });
    return isFailing;
}

/// Judges the answers that clients need: everything, and some.
/// @tparam kAtOnce whether to judge the calls that were made at once, of those methods that answer
///     when they are called alone.
template <bool kAtOnce>
Finding answered(const CallItem& item) {
    const Call& call = item.call;
    const bool isHidl = item.survey.hal == Hal::kHidl;
    const bool isNeeded = call.request == Request::kAll || call.request == Request::kSome ||
                          (isHidl && call.request == Request::kUnknown);
    if (!isNeeded || (call.thread != 0) != kAtOnce) return {};
    if (kAtOnce && fails(item.survey, call.method)) return {};
    const bool isFailed = call.outcome == Outcome::kFailed;
    const bool isRefused =
        call.outcome == Outcome::kOtherStatus ||
        (call.outcome == Outcome::kIllegalArgument && call.request != Request::kUnknown);
    Finding finding = expect(!isFailed && !(isHidl && isRefused), "{}", "an answer",
                             safeName(call.error, kMostTextBytes));
    if (finding.verdict == Verdict::kBroken && !isFailed) finding.verdict = Verdict::kLegal;
    if (isHidl) finding.consequence = kLibraryEnds;
    return finding;
}

/// Judges that an answer has the requested ids, each once. An answer may lack some of them.
template <auto kAnswers>
void requestExact(const Survey& survey, Findings* findings) {
    for (const auto& answer : survey.*kAnswers) {
        using Record = RecordOf<decltype(answer)>;
        const auto* const list = announcedFor<Record>(survey);
        const bool isWanted = isForAll(answer) || answer.request == Request::kSome;
        if (list == nullptr || !isWanted || answer.outcome != Outcome::kAnswered) continue;
        std::set<int64_t> asked(answer.ids.begin(), answer.ids.end());
        if (isForAll(answer)) {
            for (const auto& known : *list) asked.insert(known.id);
        }
        std::set<int64_t> missing = asked;
        for (const Record& record : answer.records) {
            // An id that was never announced is the matter of another rule.
            if (find(list, record.id) == nullptr) continue;
            findings->add(Item<Record>{survey, answer, record},
                          expect(missing.erase(record.id) != 0,
                                 asked.count(record.id) != 0 ? "a second record"
                                                             : "a record that was not asked for",
                                 "one record of each id that was asked for"));
        }
        for (const int64_t id : missing) {
            Record record;
            record.id = id;
            findings->add(Item<Record>{survey, answer, record},
                          {Verdict::kLegal, "no record", "a record of each id that was asked for"});
        }
    }
}

Finding unknownRefused(const CallItem& item) {
    const Call& call = item.call;
    if (call.request != Request::kUnknown || fails(item.survey, call.method)) return {};
    Finding finding = expect(call.outcome == Outcome::kIllegalArgument,
                             call.error.empty() ? "an answer with {}" : "{1}",
                             "EX_ILLEGAL_ARGUMENT, on a bus org.freedesktop.DBus.Error.InvalidArgs",
                             item.records, safeName(call.error, kMostTextBytes));
    finding.thing = fmt::format("id {}, which is not announced", call.ids.front());
    return finding;
}

Finding knownAccepted(const CallItem& item) {
    const Call& call = item.call;
    if (call.request != Request::kAll && call.request != Request::kSome) return {};
    Finding finding = expect(call.outcome != Outcome::kIllegalArgument, "{}", "an answer",
                             safeName(call.error, kMostTextBytes));
    finding.thing = call.ids.empty() ? "all ids" : fmt::format("{} known ids", call.ids.size());
    return finding;
}

template <auto kAnswers, auto... kMore>
void announcedOnly(const Survey& survey, Findings* findings) {
    for (const auto& answer : survey.*kAnswers) {
        using Record = RecordOf<decltype(answer)>;
        const auto* const list = announcedFor<Record>(survey);
        if (list == nullptr || answer.request == Request::kUnknown) continue;
        for (const Record& record : answer.records) {
            findings->add(Item<Record>{survey, answer, record},
                          expect(find(list, record.id) != nullptr, "an id that is not in the list",
                                 "only ids that are announced"));
        }
    }
    (announcedOnly<kMore>(survey, findings), ...);
}

Finding stateAnnounced(const Item<StateResult>& item) {
    const std::vector<State>* const states = statesOf(item.survey, item.entity);
    if (states == nullptr) return {};
    return expect(find(states, item.record.id) != nullptr, "a state that is not in the list",
                  "only states that are announced");
}

void statesComplete(const Survey& survey, Findings* findings) {
    forEach<Item<EntityResult>>(survey, [&](const Item<EntityResult>& item) {
        const EntityResult& entity = item.record;
        const std::vector<State>* const states = statesOf(survey, entity.id);
        if (states == nullptr) return;
        for (const State& state : *states) {
            findings->add(
                Item<State>{survey, item.call, state, nullptr, entity.id},
                expect(find(&entity.states, state.id) != nullptr, "no record", "every state"));
        }
    });
}

std::string statusOf(const Call& call) {
    return call.outcome == Outcome::kAnswered ? "SUCCESS" : call.error;
}

Finding statusMatches(const CallItem& item) {
    if (item.call.outcome == Outcome::kFailed) return {};
    return expect((item.call.outcome == Outcome::kAnswered) == (item.records > 0), "{} with {}",
                  "SUCCESS with records, or another status without any", statusOf(item.call),
                  countOf(item.records));
}

Finding railsNotSupported(const CallItem& item) {
    const bool hasRails = announced(item.survey.rails) != nullptr;
    if (hasRails || !item.isOfRails || item.call.outcome == Outcome::kFailed) return {};
    return expect(item.call.outcome == Outcome::kNotSupported, "{}", "NOT_SUPPORTED",
                  statusOf(item.call));
}

// Values.

/// Names the mistake that turns a time of an interval into this stamp; empty when none does.
std::string describeMistake(Ms stamp, nanoseconds from, nanoseconds to, nanoseconds suspended) {
    const auto matches = [&](Ms time) {
        return time > from - kClockTolerance && time < to + kClockTolerance;
    };
    if (stamp >= nanoseconds::max()) return "; it may be microseconds or nanoseconds";
    if (suspended > kClockTolerance && matches(stamp + suspended)) {
        return fmt::format(
            "; it looks like CLOCK_MONOTONIC: off by the {} s this machine was suspended",
            std::chrono::floor<std::chrono::seconds>(suspended).count());
    }
    if (matches(stamp * 1000)) return "; it looks like seconds";
    if (matches(stamp / 1000)) return "; it looks like microseconds";
    if (matches(stamp / 1e6)) return "; it looks like nanoseconds";
    constexpr Ms k2017{1.5e12};
    constexpr Ms k2096{4e12};
    return stamp > k2017 && stamp < k2096 ? "; it looks like the time since 1970" : "";
}

std::string describeMistake(nanoseconds stamp, const Call& call) {
    return describeMistake(stamp, call.before, call.after, call.suspended);
}

/// Judges that a value does not fall from one reading to the next.
template <typename Record, const char* kName, auto kValue>
Finding noFall(const Item<Record>& item) {
    if (item.before == nullptr) return {};
    return expect(item.record.*kValue >= item.before->*kValue, "{} {}",
                  "at least {2}, as read at {3} ms", kName, item.record.*kValue,
                  item.before->*kValue, item.callBefore->before);
}

// Residencies.

Finding residencyNotNegative(const Item<StateResult>& item) {
    const StateResult& state = item.record;
    return expect(state.totalTime.count() >= 0 && state.entryCount >= 0,
                  "totalTimeInStateMs {} and totalStateEntryCount {}", "0 and more",
                  state.totalTime, state.entryCount);
}

/// The sign of the entries since the reading before; std::nullopt, which is less than any number,
/// when there is none.
std::optional<int> entriesSince(const Item<StateResult>& item) {
    if (item.before == nullptr) return std::nullopt;
    const int64_t before = item.before->entryCount;
    return item.record.entryCount < before ? -1 : item.record.entryCount > before ? 1 : 0;
}

Finding lastEntryMonotonic(const Item<StateResult>& item) {
    // 0 is a time that is not known. A HIDL entity may be reset.
    const bool isReset = item.survey.hal == Hal::kHidl && entriesSince(item) < 0;
    if (item.record.lastEntry == nanoseconds::zero() || isReset) return {};
    return noFall<StateResult, kLastEntry, &Residency::lastEntry>(item);
}

Finding timeWithinUptime(const Item<EntityResult>& item) {
    const Call& call = item.call;
    Ms sum{0};
    for (const StateResult& state : item.record.states) sum += state.totalTime;
    const Ms most = call.after + item.record.states.size() * kRounding;
    return expect(sum <= most, "{} ms in its states{}", "at most the uptime, {2} ms", sum,
                  describeMistake(sum, call.before, call.after, {}), most);
}

Finding timeWithinInterval(const Item<EntityResult>& item) {
    if (item.before == nullptr) return {};
    Ms sum{0};
    Ms most = item.call.after - item.callBefore->before;
    for (const StateResult& state : item.record.states) {
        const StateResult* const before = find(&item.before->states, state.id);
        if (before == nullptr) continue;
        sum += std::max(Ms{0}, Ms(state.totalTime) - Ms(before->totalTime));
        most += kRounding;
    }
    return expect(sum <= most, "{} ms in its states since the reading at {} ms",
                  "at most {2} ms, the time since then", sum, item.callBefore->before, most);
}

Finding lastEntryNotFuture(const Item<StateResult>& item) {
    const nanoseconds stamp = item.record.lastEntry;
    return expect(stamp.count() >= 0 && stamp <= item.call.after + kRounding,
                  "lastEntryTimestampMs {}{}", "0 to {2}, milliseconds since boot", stamp,
                  describeMistake(stamp, item.call), item.call.after);
}

/// Judges the entries that happened between two readings.
Finding lastEntryClock(const Item<StateResult>& item) {
    const nanoseconds stamp = item.record.lastEntry;
    if (entriesSince(item) <= 0 || stamp.count() <= 0) return {};
    const nanoseconds from = item.callBefore->before;
    const nanoseconds to = item.call.after;
    const std::string mistake = describeMistake(stamp, from, to, item.call.suspended);
    return expect(stamp >= from - kStale || mistake.empty(),
                  "lastEntryTimestampMs {} of a new entry{}", "{2} to {3}, milliseconds since boot",
                  stamp, mistake, from, to);
}

Finding lastEntryMoves(const Item<StateResult>& item) {
    if (entriesSince(item) != 0) return {};
    // A step back is the matter of another rule.
    return expect(item.record.lastEntry <= item.before->lastEntry,
                  "lastEntryTimestampMs {} and totalStateEntryCount {}",
                  "lastEntryTimestampMs {2}, as read at {3} ms with that count",
                  item.record.lastEntry, item.record.entryCount, item.before->lastEntry,
                  item.callBefore->before);
}

// Energy.

Finding energyStampBoottime(const Item<EnergyResult>& item) {
    const Call& call = item.call;
    const nanoseconds stamp = item.record.time;
    const bool isFresh = item.survey.isReplay || stamp >= call.before - kStale;
    return expect(isFresh && stamp <= call.after + kRounding, "timestampMs {}{}",
                  "{2} to {3}, CLOCK_BOOTTIME in milliseconds", stamp, describeMistake(stamp, call),
                  call.before, call.after);
}

Finding energyNotNegative(const Item<EnergyResult>& item) {
    return expect(item.record.energyUWs >= 0, "energyUWs {}", "0 and more", item.record.energyUWs);
}

Finding durationWithinStamp(const Item<EnergyResult>& item) {
    const EnergyResult& energy = item.record;
    return expect(energy.duration.count() >= 0 && energy.duration <= energy.time, "durationMs {}",
                  "0 to timestampMs, {1}", energy.duration, energy.time);
}

Finding durationGrows(const Item<EnergyResult>& item) {
    if (item.before == nullptr) return {};
    const Ms passed = Ms(item.record.time) - item.before->time;
    const Ms grown = Ms(item.record.duration) - item.before->duration;
    if (passed <= kRounding) return {};
    return expect(grown > Ms{0} && grown <= passed + kRounding,
                  "durationMs {}, {} ms more than at {} ms", "about {3} ms more, as timestampMs",
                  item.record.duration, grown, item.callBefore->before, passed);
}

/// Judges the power since boot, and that of the longest interval: a meter that counts in large
/// steps shows any power in a short one.
template <bool kSinceBoot>
Finding powerPlausible(const Item<EnergyResult>& item) {
    constexpr double kMostWatts = 10'000;  // no rail of a machine carries more
    const auto& readings = item.survey.energies;
    const auto last = std::find_if(readings.rbegin(), readings.rend(), isForAll);
    const EnergyResult* const first = find(announced(readings), item.record.id);
    if (&item.call != &*last || first == nullptr) return {};
    const Ms time = kSinceBoot ? item.record.duration : Ms(item.record.time) - first->time;
    if (time < Ms(kSinceBoot ? 1000 : 100)) return {};
    const double before = kSinceBoot ? 0 : static_cast<double>(first->energyUWs);
    const double watts =
        (static_cast<double>(item.record.energyUWs) - before) / time.count() / 1000;
    return expect(watts <= kMostWatts,
                  kSinceBoot ? "{:.0f} W on average over durationMs"
                             : "{:.0f} W on average since timestampMs {}",
                  "at most {2:.0f} W", watts, first->time, kMostWatts);
}

void libraryGoesOn(const Survey& survey, Findings* findings) {
    const Survey::Library& library = survey.library;
    if (!library.wasCalled) return;
    findings->add(
        CallItem{survey, {"the library"}},
        expect(library.signal == 0, "signal {} ({}) ended its process: {}", "both calls return",
               library.signal, strsignal(library.signal), safeName(library.log, kMostTextBytes)));
}

constexpr auto kBoth = std::nullopt;
constexpr Hal kAidl = Hal::kAidl;
constexpr Hal kHidl = Hal::kHidl;
constexpr bool kPublished = true;
constexpr bool kOwn = false;

/// Whether the bus refused the list, or the readings, of the things that a rule is about. Its name
/// tells these: rails and their energy, or power entities.
bool lacksThings(const Rule& rule, const Survey& survey) {
    const std::string_view name = rule.name;
    const bool isOfRails = name.rfind("rail-", 0) == 0 || name.rfind("energy-", 0) == 0;
    bool lacks = false;
    survey.forAnswers([&](const auto& answer) {
        using Record = RecordOf<decltype(answer)>;
        const auto* const list = announcedFor<Record>(survey);
        if (kIsOfRail<Record> == isOfRails && answer.outcome == Outcome::kRefused) {
            lacks |= list == nullptr || !list->empty();
        }
    });
    return lacks;
}

}  // namespace

const std::vector<Rule> kRules = {
    // Lists.
    {"rail-ids-unique", kBoth, kPublished, "Every rail has an id of its own.",
     "readings of two rails are mixed up", each<idUnique<Rail>>},
    {"rail-names-unique", kBoth, kPublished, "Every rail has a name of its own.",
     "clients cannot tell two rails apart", namesUnique<Rail>},
    {"rail-names-present", kBoth, kPublished, "No rail's name is empty.",
     "clients show a rail without a name", each<namePresent<Rail>>},
    {"rail-subsystems-present", kBoth, kPublished, "No rail's subsystem name is empty.",
     "clients cannot group the rails", each<subsystemPresent>},
    {"rail-list-stable", kBoth, kOwn, "The list of rails is the same in every call.",
     "clients read the list once, and give readings to the wrong rail", stable<&Survey::rails>},
    {"entity-ids-unique", kBoth, kPublished, "Every power entity has an id of its own.",
     "residencies of two entities are mixed up", each<idUnique<Entity>>},
    {"entity-names-unique", kBoth, kPublished, "Every power entity has a name of its own.",
     "clients cannot tell two entities apart", namesUnique<Entity>},
    {"entity-names-present", kBoth, kPublished, "No power entity's name is empty.",
     "clients show an entity without a name", each<namePresent<Entity>>},
    {"entity-states-present", kBoth, kPublished, "Every power entity has at least one state.",
     "the entity has nothing to report", each<statesPresent>},
    {"state-ids-unique", kBoth, kPublished,
     "Every state has an id of its own within its power entity.",
     "residencies of two states are mixed up", each<idUnique<State>>},
    {"state-names-unique", kBoth, kPublished,
     "Every state has a name of its own within its power entity.",
     "clients cannot tell two states apart", namesUnique<State>},
    {"entity-list-stable", kBoth, kOwn,
     "The lists of power entities and their states are the same in every call.",
     "clients read the lists once, and give residencies to the wrong state",
     stable<&Survey::entities, &Survey::stateLists>},
    {"names-utf8", kAidl, kOwn, "Every name is UTF-8.", "the transport may refuse the whole list",
     each<textUtf8<Rail, &Rail::name>, textUtf8<Rail, &Rail::subsystem>,
          textUtf8<Entity, &Entity::name>, textUtf8<State, &State::name>>},

    // Requests and answers.
    {"calls-answered", kBoth, kPublished, "Every call is answered.", "Java receives null",
     each<answered<false>>},
    {"calls-at-once-answered", kBoth, kOwn, "Calls of several clients at once are answered.",
     "Java receives null now and then", each<answered<true>>},
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
     "a client with old ids does not notice its mistake", each<unknownRefused>},
    {"known-ids-accepted", kAidl, kOwn,
     "A request for known ids, or for all, never gives EX_ILLEGAL_ARGUMENT.", "Java receives null",
     each<knownAccepted>},
    {"rail-ids-announced", kBoth, kPublished, "Every rail in an answer is in the list of rails.",
     kLibraryEnds, announcedOnly<&Survey::energies>},
    {"entity-ids-announced", kBoth, kPublished,
     "Every power entity in an answer is in the list of power entities.", kLibraryEnds,
     announcedOnly<&Survey::residencies, &Survey::stateLists>},
    {"state-ids-announced", kBoth, kPublished,
     "Every state in an answer is in the list of its power entity's states.", kLibraryEnds,
     each<stateAnnounced>},
    {"states-complete", kBoth, kPublished, "A residency has every state of its power entity.",
     "the shares do not add up", statesComplete},
    {"status-matches-records", kHidl, kPublished,
     "The status is SUCCESS with records, or another one without any.",
     "clients take a failure for an answer", each<statusMatches>},
    {"rails-not-supported", kHidl, kOwn, "Without rails both calls for rails answer NOT_SUPPORTED.",
     "clients take a device without meters for a faulty one", each<railsNotSupported>},

    // Residencies.
    {"residency-not-negative", kBoth, kOwn, "No total of a state is negative.",
     "shares and rates are wrong", each<residencyNotNegative>},
    {"state-time-monotonic", kAidl, kOwn, "The time in a state never goes backwards.",
     "shares are wrong", each<noFall<StateResult, kTotalTime, &Residency::totalTime>>},
    {"state-entries-monotonic", kAidl, kOwn,
     "The count of entries into a state never goes backwards.", "rates of entries are wrong",
     each<noFall<StateResult, kEntryCount, &Residency::entryCount>>},
    {"state-time-within-uptime", kAidl, kOwn,
     "The times in the states of a power entity add up to the uptime at most.",
     "shares since boot exceed 100 %", each<timeWithinUptime>},
    {"state-time-within-interval", kBoth, kOwn,
     "Between two readings the times in the states of a power entity grow by the time between them "
     "at most.",
     "shares exceed 100 %", each<timeWithinInterval>},
    {"last-entry-not-future", kBoth, kOwn,
     "The last entry into a state is milliseconds since boot, and not in the future.",
     "clients show a time that has not come", each<lastEntryNotFuture>},
    {"last-entry-clock", kBoth, kOwn,
     "The last entry into a state has the unit and the clock of the other stamps.",
     "clients show a wrong time", each<lastEntryClock>},
    {"last-entry-monotonic", kBoth, kOwn, "The last entry into a state never goes backwards.",
     "clients show a wrong time", each<lastEntryMonotonic>},
    {"last-entry-moves-with-entries", kBoth, kOwn,
     "The last entry into a state moves only when the count of entries does.",
     "entries are missed, or the time is not that of an entry", each<lastEntryMoves>},

    // Energy.
    {"energy-stamp-boottime", kBoth, kOwn,
     "An energy's time stamp is CLOCK_BOOTTIME in milliseconds when it was read.",
     "powers computed from it are wrong", each<energyStampBoottime>},
    {"energy-stamp-monotonic", kBoth, kOwn, "An energy's time stamp never goes backwards.",
     "powers computed from it are wrong", each<noFall<EnergyResult, kTimestamp, &Energy::time>>},
    {"energy-duration-within-stamp", kAidl, kOwn, "An energy's duration is at most its time stamp.",
     "this library leaves the rail out", each<durationWithinStamp>},
    {"energy-duration-grows", kAidl, kOwn, "An energy's duration grows as its time stamp does.",
     "this library leaves the rail out", each<durationGrows>},
    {"energy-not-negative", kBoth, kOwn, "No energy is negative.", "powers are wrong",
     each<energyNotNegative>},
    {"energy-monotonic", kBoth, kOwn, "An energy is neither reset nor wraps.",
     "powers are negative, or energy is lost",
     each<noFall<EnergyResult, kEnergy, &Energy::energyUWs>>},
    {"energy-power-plausible", kBoth, kOwn,
     "An energy is in microwatt-seconds: no rail carries more than 10 kW.",
     "sums over rails are of no use", each<powerPlausible<true>, powerPlausible<false>>},

    {"library-goes-on", kBoth, kOwn, "The library calls the service, and its process goes on.",
     kLibraryEnds, libraryGoesOn},
};

void Findings::addFault(Finding fault) {
    List& list = fault.verdict == Verdict::kBroken ? broken : legal;
    ++list.count;
    constexpr size_t kMostKept = 3;
    const auto isSame = [&](const Finding& one) {
        return one.method == fault.method && one.thing == fault.thing;
    };
    if (list.first.size() == kMostKept ||
        std::any_of(list.first.begin(), list.first.end(), isSame)) {
        return;
    }
    list.first.push_back(std::move(fault));
}

Verdict judge(const Rule& rule, const Survey& survey, Findings* findings) {
    *findings = {};
    const bool applies = rule.hal.value_or(survey.hal) == survey.hal;
    if (applies) rule.judge(survey, findings);
    if (findings->broken.count > 0) return Verdict::kBroken;
    if (findings->legal.count > 0) return Verdict::kLegal;
    if (findings->judged > 0) return Verdict::kKept;
    return applies && lacksThings(rule, survey) ? Verdict::kNotJudged : Verdict::kNotApplicable;
}

std::vector<std::string> takeNotes(const Survey& survey) {
    std::set<std::string> notes;
    survey.forAnswers([&](const auto& answer) {
        const std::string& method = answer.method;
        const bool isRefused = answer.outcome == Outcome::kRefused;
        if (answer.request == Request::kRepeated && !isRefused && !fails(survey, method)) {
            notes.insert(method + " with an id twice: " +
                         (answer.error.empty()
                              ? countOf(answer.records.size())
                              : "refused, " + safeName(answer.error, kMostTextBytes)));
        }
        if (answer.outcome == Outcome::kNotSupported || isRefused) {
            notes.insert(method + ": " + answer.error);
        }
    });
    // One note for all things of a kind names the first of them, by the ids of entity and thing.
    std::map<std::string, std::map<std::pair<int64_t, int64_t>, std::string>> things;
    const auto add = [&](const char* text, const auto& item) {
        things[text].try_emplace({item.entity, item.record.id}, item.name());
    };
    forEach<Item<StateResult>>(survey, [&](const Item<StateResult>& item) {
        if (item.before == nullptr) return;
        if (survey.hal == Hal::kHidl && item.record.totalTime < item.before->totalTime) {
            add("the total fell, so the entity was reset", item);
        }
        if (item.record.lastEntry == nanoseconds::zero() && entriesSince(item) > 0) {
            add("the service does not know the last entry", item);
        }
    });
    forEach<Item<EnergyResult>>(survey, [&](const Item<EnergyResult>& item) {
        if (item.record.isSinceBoot()) return;
        add("left out by this library, because durationMs is not timestampMs", item);
    });
    for (const auto& [text, names] : things) {
        const std::string others =
            names.size() > 1 ? fmt::format(" and {} more", names.size() - 1) : "";
        notes.insert(fmt::format("{}{}: {}", names.begin()->second, others, text));
    }
    return {notes.begin(), notes.end()};
}

}  // namespace powerstats
