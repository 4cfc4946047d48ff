// SPDX-License-Identifier: Apache-2.0
//
// Evidence for judging a power stats service: the calls of one client, and all that they returned.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/Service.h"

namespace powerstats {

/// The calls of a power stats service in the order of their start, in one form for both interfaces.
/// Ids and numbers are the service's own; so are texts, which safeName() makes fit for output.
struct Survey {
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

    struct Call {
        std::string method;
        Request request = Request::kAll;
        std::vector<int64_t> ids;
        /// 0 for the first thread, which calls alone; 1 and above for those that call at once.
        int thread = 0;
        /// Milliseconds since boot at the start and at the end, rounded down and up. For a
        /// recording in this process, the recorded time.
        int64_t beforeMs = 0;
        int64_t afterMs = 0;
        /// How long the machine had been suspended since boot.
        int64_t suspendedMs = 0;
        double tookMs = 0;
        Outcome outcome = Outcome::kAnswered;
        /// The failure in the words of the transport or the service; empty when it answered.
        std::string error;
        /// The numbers and texts of the answer, without the framing of a transport.
        size_t bytes = 0;
    };
    template <typename Record>
    struct Answer : Call {
        /// Sorted by id, and so are the states of a record.
        std::vector<Record> records;
    };

    struct Rail {
        int64_t id = 0;
        std::string name;
        std::string subsystem;
        bool operator==(const Rail& other) const;
    };
    struct State {
        int64_t id = 0;
        std::string name;
        bool operator==(const State& other) const;
    };
    struct Entity {
        int64_t id = 0;
        std::string name;
        std::vector<State> states;
        bool operator==(const Entity& other) const;
    };
    struct Energy {
        int64_t id = 0;
        int64_t timestampMs = 0;
        /// HIDL has none, and then it is `timestampMs`.
        int64_t durationMs = 0;
        int64_t energyUWs = 0;
    };
    struct StateTime {
        int64_t id = 0;
        int64_t totalMs = 0;
        int64_t entries = 0;
        int64_t lastEntryMs = 0;
    };
    struct Residency {
        int64_t id = 0;
        std::vector<StateTime> states;
    };

    Hal hal = Hal::kAidl;
    /// Whether the stamps are those of a recording: they stand still between its samples.
    bool isReplay = false;
    /// Whether a call was not answered in time, or found the service gone. No call followed it.
    bool isGone = false;
    /// Whether calls were left out, because the answers are slow or large.
    bool isCut = false;
    std::vector<Answer<Rail>> rails;
    /// HIDL answers the names of entities and those of their states in two calls. The states are
    /// empty in the first and the names in the second.
    std::vector<Answer<Entity>> entities;
    std::vector<Answer<Entity>> stateLists;
    std::vector<Answer<Energy>> energies;
    std::vector<Answer<Residency>> residencies;

    /// What the library of this project does with the service, in a process of its own.
    struct Library {
        bool wasCalled = false;
        /// The signal that ended the process; 0 when it went on.
        int signal = 0;
        /// What Java receives, or why nothing was called.
        std::string result;
        /// The messages of the process, or its last line when it was ended.
        std::string log;
    };
    Library library;
};

/// How many threads call at once.
constexpr int kThreadsAtOnce = 4;

/// Calls the service for so long, and then in ways that no client does every day: for some ids,
/// repeated and unknown ones, and on some threads at once, each with a connection of its own on a
/// bus. Makes no more calls after one that was not answered in time, or that found the service
/// gone, and keeps answers of about 32 MiB. REQUIRES: openService() has returned 0
/// @param moreSeconds [in] no call begins later than this after the duration.
Survey takeSurvey(double durationSeconds, double moreSeconds);

/// Lets the library call the service in another process, which runs this program.
Survey::Library tryLibrary(const ServiceOptions& options);

}  // namespace powerstats
