// SPDX-License-Identifier: Apache-2.0
//
// Ways through a survey: its lists and their names, its records, and the steps from one reading of
// a thing to the next. Of no use outside Rules.cpp.

#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>
#include <type_traits>
#include <vector>

#include "hal/NamesAndIds.h"
#include "tools/Survey.h"

/// Has short names of its own for the records of a survey.
namespace powerstats::rules {

using Call = Survey::Call;
using Energy = Survey::Energy;
using Entity = Survey::Entity;
using Hal = Survey::Hal;
using Outcome = Survey::Outcome;
using Rail = Survey::Rail;
using Request = Survey::Request;
using Residency = Survey::Residency;
using State = Survey::State;
using StateTime = Survey::StateTime;
template <typename Record>
using Answers = std::vector<Survey::Answer<Record>>;

// Differences and sums are floating-point, because a service may report any number.
inline double difference(int64_t first, int64_t second) {
    return static_cast<double>(second) - static_cast<double>(first);
}

/// Returns a record with the id, or null.
template <typename Record>
const Record* find(const std::vector<Record>& sorted, int64_t id) {
    const auto found =
        std::lower_bound(sorted.begin(), sorted.end(), id,
                         [](const Record& record, int64_t wanted) { return record.id < wanted; });
    return found != sorted.end() && found->id == id ? &*found : nullptr;
}

inline bool isForAll(const Call& call) {
    return call.outcome == Outcome::kAnswered && call.request == Request::kAll;
}

/// Returns the records of the first list that was answered; null when none was.
template <typename Record>
const std::vector<Record>* announced(const Answers<Record>& lists) {
    const auto first = std::find_if(lists.begin(), lists.end(), isForAll);
    return first != lists.end() ? &first->records : nullptr;
}

/// Returns the answers that tell the states of entities.
inline const Answers<Entity>& listsOfStates(const Survey& survey) {
    return survey.hal == Hal::kAidl ? survey.entities : survey.stateLists;
}

inline const std::vector<State>* statesOf(const Survey& survey, int64_t entity) {
    const auto* const lists = announced(listsOfStates(survey));
    const Entity* const known = lists != nullptr ? find(*lists, entity) : nullptr;
    return known != nullptr ? &known->states : nullptr;
}

template <typename Record>
constexpr bool kIsOfRail = std::is_same_v<Record, Rail> || std::is_same_v<Record, Energy>;

/// Returns the list that announces the ids of such records; null when there is none.
template <typename Record>
const auto* announcedFor(const Survey& survey) {
    if constexpr (kIsOfRail<Record>) {
        return announced(survey.rails);
    } else {
        return announced(survey.entities);
    }
}

// Names for evidence.

inline std::string textOf(const std::string& bytes) {
    constexpr size_t kMostBytes = 400;
    return safeName(bytes, kMostBytes);
}

template <typename Record>
std::string nameIn(const std::vector<Record>* list, int64_t id) {
    const Record* const known = list != nullptr ? find(*list, id) : nullptr;
    return known != nullptr ? fmt::format("{} \"{}\"", id, safeName(known->name))
                            : std::to_string(id);
}

template <typename Record>
std::string nameOf(const Survey& survey, int64_t id) {
    return (kIsOfRail<Record> ? "rail " : "power entity ") +
           nameIn(announcedFor<Record>(survey), id);
}

inline std::string nameOfState(const Survey& survey, int64_t entity, int64_t state) {
    return nameOf<Entity>(survey, entity) + ", state " + nameIn(statesOf(survey, entity), state);
}

// Walks over a survey.

/// Calls a function with each answer of each method. A call that the bus refused has none, and says
/// nothing about the service.
template <typename Function>
void forCalls(const Survey& survey, const Function& function) {
    const auto forAll = [&](const auto& answers) {
        for (const auto& answer : answers) {
            if (answer.outcome != Outcome::kRefused) function(answer, answer.records.size());
        }
    };
    forAll(survey.rails);
    forAll(survey.entities);
    forAll(survey.stateLists);
    forAll(survey.energies);
    forAll(survey.residencies);
}

/// Calls a function with each record of the answers to requests for everything.
template <typename Record, typename Function>
void forRecords(const Answers<Record>& answers, const Function& function) {
    for (const auto& answer : answers) {
        if (!isForAll(answer)) continue;
        for (const Record& record : answer.records) function(answer, record);
    }
}

template <typename Function>
void forStates(const Survey& survey, const Function& function) {
    forRecords(survey.residencies, [&](const Call& call, const Residency& entity) {
        for (const StateTime& state : entity.states) function(call, entity.id, state);
    });
}

/// Two readings of one thing.
template <typename Record>
struct Step {
    const Call& firstCall;
    const Call& secondCall;
    const Record& first;
    const Record& second;
};

/// Calls a function with each record and the one of the same id in an answer before it. Of calls
/// that were made at once nobody knows the order, so these are not compared.
template <typename Record, typename Function>
void forSteps(const Answers<Record>& answers, const Function& function) {
    for (auto second = answers.begin(); second != answers.end(); ++second) {
        if (!isForAll(*second)) continue;
        const auto first = std::find_if(
            std::make_reverse_iterator(second), answers.rend(), [&](const auto& before) {
                return isForAll(before) &&
                       (before.thread == second->thread || before.afterMs < second->beforeMs);
            });
        if (first == answers.rend()) continue;
        for (const Record& record : second->records) {
            const Record* const before = find(first->records, record.id);
            if (before != nullptr) function(Step<Record>{*first, *second, *before, record});
        }
    }
}

template <typename Function>
void forStateSteps(const Survey& survey, const Function& function) {
    forSteps(survey.residencies, [&](const Step<Residency>& step) {
        for (const StateTime& state : step.second.states) {
            const StateTime* const before = find(step.first.states, state.id);
            if (before == nullptr) continue;
            function(step.second.id,
                     Step<StateTime>{step.firstCall, step.secondCall, *before, state});
        }
    });
}

}  // namespace powerstats::rules
