// SPDX-License-Identifier: Apache-2.0

#include "tools/check/Rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "power/text/Names.h"

namespace powerstats {

/// That of an item which is a whole answer.
const Record kNoRecord = {};

/// Something to be judged.
struct Item {
    const Survey& survey;
    /// The list of the survey that has the answer.
    Answers Survey::*list;
    const Answer& answer;
    const Record* record = &kNoRecord;
    /// The records of the answer, or the states of its entity, which are its siblings. Null for a
    /// whole answer.
    const Records* siblings = nullptr;
    /// The first one with its name.
    const Record* namesake = nullptr;
    /// The record that has this state; otherwise null.
    const Record* entity = nullptr;
    /// The one of the same id in the answer before, or null.
    const Record* before = nullptr;
    const Answer* answerBefore = nullptr;
};

namespace {

/// A reading may be this old: meters have buffers.
constexpr int64_t kStaleMs = 1000;
/// A stamp that is off by less than this has no wrong unit, and is of the clock that it matches.
constexpr double kClockToleranceMs = 2000;
/// Rounding of a stamp or a total.
constexpr int64_t kRoundingMs = 1;

struct Figure {
    const char* name;
    int64_t Record::*value;
};
constexpr Figure kTotalTime{"totalTimeInStateMs", &Record::durationMs};
constexpr Figure kEntryCount{"totalStateEntryCount", &Record::count};
constexpr Figure kLastEntry{"lastEntryTimestampMs", &Record::stampMs};
constexpr Figure kTimestamp{"timestampMs", &Record::stampMs};
constexpr Figure kEnergy{"energyUWs", &Record::count};
constexpr char kLibraryEnds[] = "this library's process would end";

// The things of a survey.

const Subject kCalls = {{&Survey::entities, &Survey::stateLists, &Survey::residencies,
                         &Survey::rails, &Survey::energies},
                        true};
const Subject kCallsForRails = {{&Survey::rails, &Survey::energies}, true};
const Subject kRailLists = {{&Survey::rails}, true};
const Subject kEntityLists = {{&Survey::entities, &Survey::stateLists}, true};
const Subject kRails = {{&Survey::rails}};
const Subject kEntities = {{&Survey::entities}};
// Either has the states, by the interface.
const Subject kStates = {{&Survey::entities, &Survey::stateLists}, false, false, true};
const Subject kNames = {{&Survey::rails, &Survey::entities}, false, true, true};
const Subject kEnergies = {{&Survey::energies}};
const Subject kResidencies = {{&Survey::residencies}};
const Subject kStateResidencies = {{&Survey::residencies}, false, false, true};
const Subject kEntityAnswers = {{&Survey::residencies, &Survey::stateLists}};
const Subject kRequestedRails = {{&Survey::energies}, false, true, false, true};
const Subject kRequestedEntities = {{&Survey::residencies}, false, true, false, true};
const Subject kRequestedStateLists = {{&Survey::stateLists}, false, true, false, true};
const Subject kRequestedStates = {{&Survey::residencies}, false, false, true, true};
const Subject kLibrary = {};

/// Returns the first record with the id; null when there is none, or no list.
const Record* find(const Records* sorted, int64_t id) {
    if (sorted == nullptr) return nullptr;
    const auto found =
        std::lower_bound(sorted->begin(), sorted->end(), id,
                         [](const Record& record, int64_t wanted) { return record.id < wanted; });
    return found != sorted->end() && found->id == id ? &*found : nullptr;
}

constexpr auto isForAll = [](const Answer& answer) { return answer.isForAll(); };

/// Returns the records of the first list that was answered; null when none was.
const Records* announced(const Answers& lists) {
    const auto first = std::find_if(lists.begin(), lists.end(), isForAll);
    return first != lists.end() ? &first->records : nullptr;
}

bool isOfRails(const Answers Survey::*list) {
    return list == &Survey::rails || list == &Survey::energies;
}

/// Returns the list that announces an item or, for a state, that of its entity's states; null when
/// there is none.
const Records* listOf(const Survey& survey, Answers Survey::*list, const Record* entity = nullptr) {
    if (entity == nullptr) return announced(isOfRails(list) ? survey.rails : survey.entities);
    const Record* const known =
        find(announced(survey.hal == Hal::kAidl ? survey.entities : survey.stateLists), entity->id);
    return known != nullptr ? &known->states : nullptr;
}

/// Returns the name of an item, or of a sibling of it.
std::string nameOf(const Item& item, const Record& record) {
    if (item.siblings == nullptr) return "";
    const auto named = [&](const char* kind, const Record& thing, const Record* entity) {
        const Record* const known = find(listOf(item.survey, item.list, entity), thing.id);
        return fmt::format("{} {}", kind, thing.id) +
               (known != nullptr ? " \"" + safeName(known->name) + '"' : "");
    };
    if (isOfRails(item.list)) return named("rail", record, nullptr);
    if (item.entity == nullptr) return named("power entity", record, nullptr);
    return named("power entity", *item.entity, nullptr) + ", " +
           named("state", record, item.entity);
}

/// Calls a function with each item of a subject. A call that the bus refused is none, because it
/// says nothing about the service. Of calls that were made at once nobody knows the order, so these
/// are not compared.
template <typename Function>
void forEach(const Survey& survey, const Subject& subject, const Function& function) {
    static const Answer library{"the library"};
    if (subject.lists.empty()) function(Item{survey, nullptr, library});
    for (const auto list : subject.lists) {
        const Answers& answers = survey.*list;
        for (auto answer = answers.begin(); answer != answers.end(); ++answer) {
            if (answer->outcome == Outcome::kRefused) continue;
            Item item{survey, list, *answer};
            if (subject.isOfAnswers) function(item);
            if (subject.isOfAnswers || answer->outcome != Outcome::kAnswered ||
                answer->request == Request::kUnknown) {
                continue;
            }
            const auto last = std::find_if(
                std::make_reverse_iterator(answer), answers.rend(), [&](const Answer& one) {
                    return one.isForAll() && answer->isForAll() &&
                           (one.thread == answer->thread || one.afterMs < answer->beforeMs);
                });
            if (last != answers.rend()) item.answerBefore = &*last;
            const auto visit = [&](const Records& siblings, const Records* before) {
                std::unordered_map<std::string_view, const Record*> names;
                item.siblings = &siblings;
                for (const Record& record : siblings) {
                    item.record = &record;
                    item.namesake = names.emplace(record.name, &record).first->second;
                    item.before = find(before, record.id);
                    function(item);
                }
                const Records* const listed = listOf(survey, list, item.entity);
                if (!subject.isOfMissing || listed == nullptr) return;
                for (const Record& record : *listed) {
                    item.record = &record;
                    if (find(&siblings, record.id) == nullptr) function(item);
                }
            };
            const Records* const before =
                item.answerBefore != nullptr ? &item.answerBefore->records : nullptr;
            if (subject.isOfRecords) visit(answer->records, before);
            if (!subject.isOfStates) continue;
            for (const Record& entity : answer->records) {
                item.entity = &entity;
                const Record* const same = find(before, entity.id);
                visit(entity.states, same != nullptr ? &same->states : nullptr);
            }
        }
    }
}

/// @param found, expected [in] format strings, each for all of the arguments.
template <typename... Arguments>
Finding expect(bool isKept, const char* found, const char* expected,
               const Arguments&... arguments) {
    if (isKept) return {Verdict::kKept};
    const auto format = [&](const char* text) {
        return fmt::vformat(text, fmt::make_format_args(arguments...));
    };
    return {Verdict::kBroken, format(found), format(expected)};
}

// Lists.

Finding idUnique(const Item& item) {
    return expect(item.record == find(item.siblings, item.record->id),
                  "the id {} again, with the name \"{}\"", "an id of its own", item.record->id,
                  safeName(item.record->name));
}

Finding nameUnique(const Item& item) {
    const bool isKept = item.namesake == item.record || item.record->name.empty();
    return expect(isKept, "the name of {}", "a name of its own",
                  isKept ? "" : nameOf(item, *item.namesake));
}

template <std::string Record::*kText>
Finding textPresent(const Item& item) {
    return expect(!(item.record->*kText).empty(), "an empty text", "a name");
}

Finding statesPresent(const Item& item) {
    const Records* const states = listOf(item.survey, item.list, item.record);
    if (states == nullptr) return {};
    return expect(!states->empty(), "no state", "at least one state");
}

Finding stable(const Item& item) {
    if (!item.answer.isForAll()) return {};
    const Records& first = *announced(item.survey.*item.list);
    return expect(item.answer.records == first, "{} entries, not those of the first call",
                  "the {1} entries of the first call", item.answer.records.size(), first.size());
}

Finding textsUtf8(const Item& item) {
    for (const std::string* const text : {&item.record->name, &item.record->subsystem}) {
        for (size_t i = 0, size; i < text->size(); i += size) {
            size = decodeUtf8(*text, i).size;
            if (size == 0) return expect(false, "the text \"{}\"", "UTF-8", safeName(*text));
        }
    }
    return {Verdict::kKept};
}

// Requests and answers.

std::string countOf(size_t records) {
    return records == 1 ? "1 record" : fmt::format("{} records", records);
}

/// Whether a method fails when one client asks for everything.
bool fails(const Survey& survey, const std::string& method) {
    bool isFailing = false;
    survey.forAnswers([&](const Answer& answer) {
        isFailing |= answer.thread == 0 && answer.request == Request::kAll &&
                     answer.outcome == Outcome::kFailed && answer.method == method;
    });
    return isFailing;
}

bool isForKnownIds(const Answer& answer) {
    return answer.request == Request::kAll || answer.request == Request::kSome;
}

/// Judges the answers that clients need: everything, and some.
/// @tparam kAtOnce whether to judge the calls that were made at once, of those methods that answer
///     when they are called alone.
template <bool kAtOnce>
Finding answered(const Item& item) {
    const Answer& answer = item.answer;
    const bool isHidl = item.survey.hal == Hal::kHidl;
    const bool isUnknown = answer.request == Request::kUnknown;
    if (!isForKnownIds(answer) && !(isHidl && isUnknown)) return {};
    if ((answer.thread != 0) != kAtOnce || (kAtOnce && fails(item.survey, answer.method)))
        return {};
    const bool isRefused = answer.outcome == Outcome::kOtherStatus ||
                           (answer.outcome == Outcome::kIllegalArgument && !isUnknown);
    Finding finding = {Verdict::kKept, answer.error, "an answer"};
    if (isHidl && isRefused) finding.verdict = Verdict::kLegal;
    if (answer.outcome == Outcome::kFailed) finding.verdict = Verdict::kBroken;
    if (isHidl) finding.consequence = kLibraryEnds;
    return finding;
}

Finding requestExact(const Item& item) {
    const int64_t id = item.record->id;
    const Record* const first = find(item.siblings, id);
    // An id that was never announced is the matter of another rule.
    const bool isKnown = find(listOf(item.survey, item.list), id) != nullptr;
    if (!isKnown || !isForKnownIds(item.answer)) return {};
    const std::vector<int64_t>& ids = item.answer.ids;
    const bool isAsked = ids.empty() || std::binary_search(ids.begin(), ids.end(), id);
    if (first == nullptr && !isAsked) return {};
    if (first == nullptr) {
        return {Verdict::kLegal, "no record", "a record of each id that was asked for"};
    }
    return expect(isAsked && item.record == first,
                  isAsked ? "a second record" : "a record that was not asked for",
                  "one record of each id that was asked for");
}

Finding statePresent(const Item& item) {
    return expect(find(item.siblings, item.record->id) != nullptr, "no record", "every state");
}

Finding unknownRefused(const Item& item) {
    const Answer& answer = item.answer;
    if (answer.request != Request::kUnknown || fails(item.survey, answer.method)) return {};
    Finding finding = expect(answer.outcome == Outcome::kIllegalArgument,
                             answer.error.empty() ? "an answer with {}" : "{1}",
                             "EX_ILLEGAL_ARGUMENT, on a bus org.freedesktop.DBus.Error.InvalidArgs",
                             countOf(answer.records.size()), answer.error);
    finding.thing = fmt::format("id {}, which is not announced", answer.ids.front());
    return finding;
}

Finding knownAccepted(const Item& item) {
    const Answer& answer = item.answer;
    if (!isForKnownIds(answer)) return {};
    Finding finding =
        expect(answer.outcome != Outcome::kIllegalArgument, "{}", "an answer", answer.error);
    finding.thing = answer.ids.empty() ? "all ids" : fmt::format("{} known ids", answer.ids.size());
    return finding;
}

Finding isAnnounced(const Item& item) {
    const Records* const list = listOf(item.survey, item.list, item.entity);
    if (list == nullptr) return {};
    return expect(find(list, item.record->id) != nullptr, "an id that is not in the list",
                  "only ids that are announced");
}

std::string statusOf(const Answer& answer) {
    return answer.outcome == Outcome::kAnswered ? "SUCCESS" : answer.error;
}

Finding statusMatches(const Item& item) {
    const Answer& answer = item.answer;
    if (answer.outcome == Outcome::kFailed) return {};
    return expect((answer.outcome == Outcome::kAnswered) == !answer.records.empty(), "{} with {}",
                  "SUCCESS with records, or another status without any", statusOf(answer),
                  countOf(answer.records.size()));
}

Finding railsNotSupported(const Item& item) {
    const bool hasRails = announced(item.survey.rails) != nullptr;
    if (hasRails || item.answer.outcome == Outcome::kFailed) return {};
    return expect(item.answer.outcome == Outcome::kNotSupported, "{}", "NOT_SUPPORTED",
                  statusOf(item.answer));
}

// Values.

/// Sums and differences are floating-point, because a service may report any number.
double minus(double a, double b) {
    return a - b;
}

/// Names the mistake that turns a time until the end of a call into this stamp; empty when none
/// does.
std::string describeMistake(double stamp, int64_t from, const Answer& answer) {
    const auto matches = [&](double time) {
        return time > from - kClockToleranceMs && time < answer.afterMs + kClockToleranceMs;
    };
    if (answer.suspendedMs > kClockToleranceMs && matches(stamp + answer.suspendedMs)) {
        return fmt::format(
            "; it looks like CLOCK_MONOTONIC: off by the {} s this machine was suspended",
            answer.suspendedMs / 1000);
    }
    if (matches(stamp * 1000)) return "; it looks like seconds";
    if (matches(stamp / 1000)) return "; it looks like microseconds";
    if (matches(stamp / 1e6)) return "; it looks like nanoseconds";
    constexpr double k2017 = 1.5e12;
    constexpr double k2096 = 4e12;
    return stamp > k2017 && stamp < k2096 ? "; it looks like the time since 1970" : "";
}

/// Judges that a value does not fall from one reading to the next.
template <const Figure& kFigure>
Finding noFall(const Item& item) {
    if (item.before == nullptr) return {};
    const int64_t value = item.record->*kFigure.value;
    const int64_t before = item.before->*kFigure.value;
    return expect(value >= before, "{} {}", "at least {2}, as read at {3} ms", kFigure.name, value,
                  before, item.answerBefore->beforeMs);
}

// Residencies.

/// 0 when there is no reading before.
double entriesSince(const Item& item) {
    return item.before != nullptr ? minus(item.record->count, item.before->count) : 0;
}

Finding residencyNotNegative(const Item& item) {
    return expect(item.record->durationMs >= 0 && item.record->count >= 0,
                  "totalTimeInStateMs {} and totalStateEntryCount {}", "0 and more",
                  item.record->durationMs, item.record->count);
}

Finding lastEntryMonotonic(const Item& item) {
    // 0 is a time that is not known. A HIDL entity may be reset.
    const bool isReset = item.survey.hal == Hal::kHidl && entriesSince(item) < 0;
    if (item.record->stampMs == 0 || isReset) return {};
    return noFall<kLastEntry>(item);
}

Finding timeWithinUptime(const Item& item) {
    const Answer& answer = item.answer;
    double sum = 0;
    for (const Record& state : item.record->states) sum += state.durationMs;
    const double most = answer.afterMs + item.record->states.size() * kRoundingMs;
    return expect(sum <= most, "{:.0f} ms in its states{}", "at most the uptime, {2:.0f} ms", sum,
                  describeMistake(sum, answer.beforeMs, answer), most);
}

Finding timeWithinInterval(const Item& item) {
    if (item.before == nullptr) return {};
    double sum = 0;
    double most = item.answer.afterMs - item.answerBefore->beforeMs;
    for (const Record& state : item.record->states) {
        const Record* const before = find(&item.before->states, state.id);
        if (before == nullptr) continue;
        sum += std::max(0.0, minus(state.durationMs, before->durationMs));
        most += kRoundingMs;
    }
    return expect(sum <= most, "{:.0f} ms in its states since the reading at {} ms",
                  "at most {2:.0f} ms, the time since then", sum, item.answerBefore->beforeMs,
                  most);
}

Finding lastEntryNotFuture(const Item& item) {
    const int64_t stamp = item.record->stampMs;
    const Answer& answer = item.answer;
    return expect(stamp >= 0 && stamp <= answer.afterMs + kRoundingMs, "lastEntryTimestampMs {}{}",
                  "0 to {2}, milliseconds since boot", stamp,
                  describeMistake(stamp, answer.beforeMs, answer), answer.afterMs);
}

/// Judges the entries that happened between two readings.
Finding lastEntryClock(const Item& item) {
    const int64_t stamp = item.record->stampMs;
    if (entriesSince(item) <= 0 || stamp <= 0) return {};
    const int64_t from = item.answerBefore->beforeMs;
    const std::string mistake = describeMistake(stamp, from, item.answer);
    return expect(stamp >= from - kStaleMs || mistake.empty(),
                  "lastEntryTimestampMs {} of a new entry{}", "{2} to {3}, milliseconds since boot",
                  stamp, mistake, from, item.answer.afterMs);
}

Finding lastEntryMoves(const Item& item) {
    if (item.before == nullptr || entriesSince(item) != 0) return {};
    // A step back is the matter of another rule.
    return expect(item.record->stampMs <= item.before->stampMs,
                  "lastEntryTimestampMs {} and totalStateEntryCount {}",
                  "lastEntryTimestampMs {2}, as read at {3} ms with that count",
                  item.record->stampMs, item.record->count, item.before->stampMs,
                  item.answerBefore->beforeMs);
}

// Energy.

Finding energyStampBoottime(const Item& item) {
    const Answer& answer = item.answer;
    const int64_t stamp = item.record->stampMs;
    const bool isFresh = item.survey.isReplay || stamp >= answer.beforeMs - kStaleMs;
    return expect(isFresh && stamp <= answer.afterMs + kRoundingMs, "timestampMs {}{}",
                  "{2} to {3}, CLOCK_BOOTTIME in milliseconds", stamp,
                  describeMistake(stamp, answer.beforeMs, answer), answer.beforeMs, answer.afterMs);
}

Finding energyNotNegative(const Item& item) {
    return expect(item.record->count >= 0, "energyUWs {}", "0 and more", item.record->count);
}

Finding durationWithinStamp(const Item& item) {
    const Record& energy = *item.record;
    return expect(energy.durationMs >= 0 && energy.durationMs <= energy.stampMs, "durationMs {}",
                  "0 to timestampMs, {1}", energy.durationMs, energy.stampMs);
}

Finding durationGrows(const Item& item) {
    if (item.before == nullptr) return {};
    const double passed = minus(item.record->stampMs, item.before->stampMs);
    const double grown = minus(item.record->durationMs, item.before->durationMs);
    if (passed <= kRoundingMs) return {};
    return expect(grown > 0 && grown <= passed + kRoundingMs,
                  "durationMs {}, {:.0f} ms more than at {} ms",
                  "about {3:.0f} ms more, as timestampMs", item.record->durationMs, grown,
                  item.answerBefore->beforeMs, passed);
}

/// Judges the power since boot, and that of the longest interval: a meter that counts in large
/// steps shows any power in a short one.
Finding powerPlausible(const Item& item) {
    constexpr double kMostWatts = 10'000;  // no rail of a machine carries more
    constexpr double kLeastMs = 100;
    const Answers& readings = item.survey.energies;
    const auto last = std::find_if(readings.rbegin(), readings.rend(), isForAll);
    const Record* const first = find(announced(readings), item.record->id);
    if (first == nullptr || &item.answer != &*last) return {};
    Finding finding;
    for (const auto& [ms, before] : {std::pair<double, int64_t>(item.record->durationMs, 0),
                                     {minus(item.record->stampMs, first->stampMs), first->count}}) {
        if (ms < kLeastMs) continue;
        const double watts = minus(item.record->count, before) / ms / 1000;
        finding = expect(watts <= kMostWatts, "{:.0f} W on average over {:.0f} ms",
                         "at most {2:.0f} W", watts, ms, kMostWatts);
        if (finding.verdict == Verdict::kBroken) break;
    }
    return finding;
}

Finding libraryGoesOn(const Item& item) {
    const Survey::Library& library = item.survey.library;
    if (!library.wasCalled) return {};
    return expect(library.signal == 0, "{}", "both calls return", library.text);
}

constexpr Hal kAidl = Hal::kAidl;
constexpr Hal kHidl = Hal::kHidl;
constexpr bool kPublished = true;
constexpr bool kOwn = false;

/// Whether the bus refused a list, or a reading, of the things that a rule is about.
bool lacksThings(const Rule& rule, const Survey& survey) {
    const bool isAboutRails = !rule.subject.lists.empty() && isOfRails(rule.subject.lists.front());
    const Records* const known = announced(isAboutRails ? survey.rails : survey.entities);
    bool lacks = false;
    for (const auto list : kCalls.lists) {
        for (const Answer& answer : survey.*list) {
            lacks |= isOfRails(list) == isAboutRails && answer.outcome == Outcome::kRefused;
        }
    }
    return lacks && (known == nullptr || !known->empty());
}

}  // namespace

const std::vector<Rule> kRules = {
    // Lists.
    {"rail-ids-unique", "Every rail has an id of its own.", "readings of two rails are mixed up",
     kRails, idUnique, kPublished},
    {"rail-names-unique", "Every rail has a name of its own.",
     "clients cannot tell two rails apart", kRails, nameUnique, kPublished},
    {"rail-names-present", "No rail's name is empty.", "clients show a rail without a name", kRails,
     textPresent<&Record::name>, kPublished},
    {"rail-subsystems-present", "No rail's subsystem name is empty.",
     "clients cannot group the rails", kRails, textPresent<&Record::subsystem>, kPublished},
    {"rail-list-stable", "The list of rails is the same in every call.",
     "clients read the list once, and give readings to the wrong rail", kRailLists, stable},
    {"entity-ids-unique", "Every power entity has an id of its own.",
     "residencies of two entities are mixed up", kEntities, idUnique, kPublished},
    {"entity-names-unique", "Every power entity has a name of its own.",
     "clients cannot tell two entities apart", kEntities, nameUnique, kPublished},
    {"entity-names-present", "No power entity's name is empty.",
     "clients show an entity without a name", kEntities, textPresent<&Record::name>, kPublished},
    {"entity-states-present", "Every power entity has at least one state.",
     "the entity has nothing to report", kEntities, statesPresent, kPublished},
    {"state-ids-unique", "Every state has an id of its own within its power entity.",
     "residencies of two states are mixed up", kStates, idUnique, kPublished},
    {"state-names-unique", "Every state has a name of its own within its power entity.",
     "clients cannot tell two states apart", kStates, nameUnique, kPublished},
    {"entity-list-stable",
     "The lists of power entities and their states are the same in every call.",
     "clients read the lists once, and give residencies to the wrong state", kEntityLists, stable},
    {"names-utf8", "Every name is UTF-8.", "the transport may refuse the whole list", kNames,
     textsUtf8, kOwn, kAidl},

    // Requests and answers.
    {"calls-answered", "Every call is answered.", "Java receives null", kCalls, answered<false>,
     kPublished},
    {"calls-at-once-answered", "Calls of several clients at once are answered.",
     "Java receives null now and then", kCalls, answered<true>},
    {"rail-request-exact",
     "A request for rails returns one record of each, and no other; an empty list asks for all.",
     "clients miss rails, or count them twice", kRequestedRails, requestExact, kPublished},
    {"entity-request-exact",
     "A request for entities returns one record of each, and no other; an empty list asks for all.",
     "clients miss entities, or count them twice", kRequestedEntities, requestExact, kPublished},
    {"state-list-request-exact",
     "A request for states returns a list of each entity, and no other; an empty list asks for "
     "all.",
     "the states of an entity have no names", kRequestedStateLists, requestExact, kPublished,
     kHidl},
    {"unknown-id-refused", "A request for an unknown id gives EX_ILLEGAL_ARGUMENT.",
     "a client with old ids does not notice its mistake", kCalls, unknownRefused, kOwn, kAidl},
    {"known-ids-accepted", "A request for known ids, or for all, never gives EX_ILLEGAL_ARGUMENT.",
     "Java receives null", kCalls, knownAccepted, kOwn, kAidl},
    {"rail-ids-announced", "Every rail in an answer is in the list of rails.", kLibraryEnds,
     kEnergies, isAnnounced, kPublished},
    {"entity-ids-announced", "Every power entity in an answer is in the list of power entities.",
     kLibraryEnds, kEntityAnswers, isAnnounced, kPublished},
    {"state-ids-announced", "Every state in an answer is in the list of its power entity's states.",
     kLibraryEnds, kStateResidencies, isAnnounced, kPublished},
    {"states-complete", "A residency has every state of its power entity.",
     "the shares do not add up", kRequestedStates, statePresent, kPublished},
    {"status-matches-records", "The status is SUCCESS with records, or another one without any.",
     "clients take a failure for an answer", kCalls, statusMatches, kPublished, kHidl},
    {"rails-not-supported", "Without rails both calls for rails answer NOT_SUPPORTED.",
     "clients take a device without meters for a faulty one", kCallsForRails, railsNotSupported,
     kOwn, kHidl},

    // Residencies.
    {"residency-not-negative", "No total of a state is negative.", "shares and rates are wrong",
     kStateResidencies, residencyNotNegative},
    {"state-time-monotonic", "The time in a state never goes backwards.", "shares are wrong",
     kStateResidencies, noFall<kTotalTime>, kOwn, kAidl},
    {"state-entries-monotonic", "The count of entries into a state never goes backwards.",
     "rates of entries are wrong", kStateResidencies, noFall<kEntryCount>, kOwn, kAidl},
    {"state-time-within-uptime",
     "The times in the states of a power entity add up to the uptime at most.",
     "shares since boot exceed 100 %", kResidencies, timeWithinUptime, kOwn, kAidl},
    {"state-time-within-interval",
     "Between two readings the times in an entity's states grow by the time between them at most.",
     "shares exceed 100 %", kResidencies, timeWithinInterval},
    {"last-entry-not-future",
     "The last entry into a state is milliseconds since boot, and not in the future.",
     "clients show a time that has not come", kStateResidencies, lastEntryNotFuture},
    {"last-entry-clock",
     "The last entry into a state has the unit and the clock of the other stamps.",
     "clients show a wrong time", kStateResidencies, lastEntryClock},
    {"last-entry-monotonic", "The last entry into a state never goes backwards.",
     "clients show a wrong time", kStateResidencies, lastEntryMonotonic},
    {"last-entry-moves-with-entries",
     "The last entry into a state moves only when the count of entries does.",
     "entries are missed, or the time is not that of an entry", kStateResidencies, lastEntryMoves},

    // Energy.
    {"energy-stamp-boottime",
     "An energy's time stamp is CLOCK_BOOTTIME in milliseconds when it was read.",
     "powers computed from it are wrong", kEnergies, energyStampBoottime},
    {"energy-stamp-monotonic", "An energy's time stamp never goes backwards.",
     "powers computed from it are wrong", kEnergies, noFall<kTimestamp>},
    {"energy-duration-within-stamp", "An energy's duration is at most its time stamp.",
     "this library leaves the rail out", kEnergies, durationWithinStamp, kOwn, kAidl},
    {"energy-duration-grows", "An energy's duration grows as its time stamp does.",
     "this library leaves the rail out", kEnergies, durationGrows, kOwn, kAidl},
    {"energy-not-negative", "No energy is negative.", "powers are wrong", kEnergies,
     energyNotNegative},
    {"energy-monotonic", "An energy is neither reset nor wraps.",
     "powers are negative, or energy is lost", kEnergies, noFall<kEnergy>},
    {"energy-power-plausible",
     "An energy is in microwatt-seconds: no rail carries more than 10 kW.",
     "sums over rails are of no use", kEnergies, powerPlausible},

    {"library-goes-on", "The library calls the service, and its process goes on.", kLibraryEnds,
     kLibrary, libraryGoesOn},
};

Findings judge(const Rule& rule, const Survey& survey) {
    Findings findings;
    if (rule.hal.value_or(survey.hal) != survey.hal) return findings;
    forEach(survey, rule.subject, [&](const Item& item) {
        Finding finding = rule.judge(item);
        if (finding.verdict > findings.verdict) return;
        if (finding.verdict < findings.verdict) findings = {finding.verdict};
        if (finding.verdict >= Verdict::kKept) return;
        ++findings.count;
        if (finding.verdict == Verdict::kBroken && finding.consequence.empty()) {
            finding.consequence = rule.consequence;
        }
        finding.answer = &item.answer;
        if (finding.thing.empty()) finding.thing = nameOf(item, *item.record);
        const auto isSame = [&](const Finding& one) {
            return one.answer->method == finding.answer->method && one.thing == finding.thing;
        };
        constexpr size_t kMostKept = 3;
        std::vector<Finding>& first = findings.first;
        if (first.size() < kMostKept && std::none_of(first.begin(), first.end(), isSame)) {
            first.push_back(std::move(finding));
        }
    });
    if (findings.verdict == Verdict::kNotApplicable && lacksThings(rule, survey)) {
        findings.verdict = Verdict::kNotJudged;
    }
    return findings;
}

std::vector<std::string> takeNotes(const Survey& survey) {
    std::set<std::string> notes;
    survey.forAnswers([&](const Answer& answer) {
        const bool isRefused = answer.outcome == Outcome::kRefused;
        if (answer.request == Request::kRepeated && !isRefused && !fails(survey, answer.method)) {
            notes.insert(answer.method + " with an id twice: " +
                         (answer.error.empty() ? countOf(answer.records.size())
                                               : "refused, " + answer.error));
        }
        if (answer.outcome == Outcome::kNotSupported || isRefused) {
            notes.insert(answer.method + ": " + answer.error);
        }
    });
    // One note for all things of a kind names one of them.
    std::map<std::string, std::set<std::string>> things;
    const auto add = [&](const char* text, const Item& item) {
        things[text].insert(nameOf(item, *item.record));
    };
    forEach(survey, kStateResidencies, [&](const Item& item) {
        if (item.before == nullptr) return;
        if (survey.hal == Hal::kHidl && item.record->durationMs < item.before->durationMs) {
            add("the total fell, so the entity was reset", item);
        }
        if (item.record->stampMs == 0 && entriesSince(item) > 0) {
            add("the service does not know the last entry", item);
        }
    });
    forEach(survey, kEnergies, [&](const Item& item) {
        if (item.record->durationMs == item.record->stampMs) return;
        add("left out by this library, because durationMs is not timestampMs", item);
    });
    for (const auto& [text, names] : things) {
        const std::string others =
            names.size() > 1 ? fmt::format(" and {} more", names.size() - 1) : "";
        notes.insert(fmt::format("{}{}: {}", *names.begin(), others, text));
    }
    return {notes.begin(), notes.end()};
}

}  // namespace powerstats
