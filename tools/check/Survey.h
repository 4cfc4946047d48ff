// SPDX-License-Identifier: Apache-2.0
//
// Evidence for judging a power stats service: the calls of one client, and all that they returned.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "power/Source.h"
#include "tools/SourceOptions.h"

namespace powerstats {

/// A thing of a list, or its figures. An answer may repeat ids and lack some, so nothing is by
/// position. Ids, numbers and texts are the service's own; safeName() makes texts fit for output.
struct Record {
    int64_t id = 0;
    std::string name = {};
    std::string subsystem = {};  ///< of a rail
    /// The timestampMs of an energy, the lastEntryTimestampMs of a state.
    int64_t stampMs = 0;
    /// The durationMs of an energy, which over HIDL is its timestamp; the totalTimeInStateMs of a
    /// state.
    int64_t durationMs = 0;
    /// The energyUWs of an energy, the totalStateEntryCount of a state.
    int64_t count = 0;
    /// Sorted by id.
    std::vector<Record> states = {};

    /// Whether both are the same thing of a list.
    bool operator==(const Record& other) const {
        return std::tie(id, name, subsystem, states) ==
               std::tie(other.id, other.name, other.subsystem, other.states);
    }
};
using Records = std::vector<Record>;

enum class Hal { kAidl, kHidl };

enum class Request {
    kAll,       ///< an empty list of ids, or no list
    kSome,      ///< some of the announced ids
    kRepeated,  ///< an announced id twice
    kUnknown,   ///< an id that was not announced
};

enum class Outcome {
    kAnswered,
    kIllegalArgument,  ///< AIDL EX_ILLEGAL_ARGUMENT, HIDL INVALID_INPUT
    kNotSupported,     ///< HIDL
    kOtherStatus,      ///< HIDL
    kRefused,          ///< by the bus's policy, and so not by the service
    kFailed,           ///< no answer of the interface: an exception, or a failed transaction
};

/// What a call asked for, and how it ended.
struct Answer {
    std::string method;
    Request request = Request::kAll;
    /// In ascending order.
    std::vector<int64_t> ids = {};
    /// 0 for the first thread, which calls alone; 1 and above for those that call at once.
    int thread = 0;
    /// The start and the end since boot, rounded down and up as the service's stamps are. For a
    /// recording in this process, the recorded time.
    int64_t beforeMs = 0;
    int64_t afterMs = 0;
    /// How long the machine had been suspended since boot.
    int64_t suspendedMs = 0;
    nanoseconds took{};
    Outcome outcome = Outcome::kAnswered;
    /// The failure in the words of the transport or the service, fit for output; empty when it
    /// answered.
    std::string error = {};
    /// The numbers and texts of the answer, without the framing of a transport.
    size_t bytes = 0;
    /// Sorted by id.
    Records records = {};

    bool isForAll() const { return outcome == Outcome::kAnswered && request == Request::kAll; }
};
using Answers = std::vector<Answer>;

/// The calls of a power stats service in the order of their end, in one form for both interfaces.
struct Survey {
    Hal hal = Hal::kAidl;
    /// Whether the stamps are those of a recording: they stand still between its samples.
    bool isReplay = false;
    /// Whether a call was not answered in time, or found the service gone. No call followed it.
    bool isGone = false;
    /// Whether calls were left out, because the answers are slow or large.
    bool isCut = false;
    Answers rails;
    /// HIDL answers the names of entities and those of their states in two calls. The states are
    /// empty in the first and the names in the second.
    Answers entities;
    Answers stateLists;
    Answers energies;
    Answers residencies;

    /// Calls a function with each answer.
    template <typename Function>
    void forAnswers(const Function& function) const {
        for (const auto* answers : {&rails, &entities, &stateLists, &energies, &residencies}) {
            for (const Answer& answer : *answers) function(answer);
        }
    }

    /// What the library of this project does with the service, in a process of its own.
    struct Library {
        bool wasCalled = false;
        /// The signal that ended the process; 0 when it went on.
        int signal = 0;
        /// What Java receives, how the process ended, or why nothing was called; with the messages
        /// of the process, or its last line when it was ended. Fit for output.
        std::string text = {};
    };
    Library library;
};

/// How many threads call at once.
constexpr int kThreadsAtOnce = 4;

/// Calls the service for so long, and then in ways that no client does every day: for some ids,
/// repeated and unknown ones, and on some threads at once, each with a connection of its own on a
/// bus. Makes no more calls after one that was not answered in time, or that found the service
/// gone, and keeps answers of about 32 MiB. REQUIRES: openService() has returned 0
/// @param own [in] the source that this process serves, which tells the time; null on a bus.
/// @param moreSeconds [in] no call begins later than this after the duration.
Survey takeSurvey(Source* own, double durationSeconds, double moreSeconds);

/// Lets the library call the service in another process, which runs this program.
Survey::Library tryLibrary(const ServiceOptions& options);

}  // namespace powerstats
