// SPDX-License-Identifier: Apache-2.0
//
// Evidence for judging a power stats service: the calls of one client, and all that they returned.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "power/Reading.h"
#include "power/Source.h"
#include "tools/SourceOptions.h"

namespace powerstats {

/// The figures of a thing as the service answers them. An answer may repeat ids and lack some, so
/// nothing is by position.
template <typename Figures>
struct Identified : Figures {
    int64_t id = 0;
};
using EnergyResult = Identified<Energy>;
using StateResult = Identified<Residency>;
struct EntityResult {
    int64_t id = 0;
    std::vector<StateResult> states;
};

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
struct Call {
    std::string method = {};
    Request request = Request::kAll;
    std::vector<int64_t> ids = {};
    /// 0 for the first thread, which calls alone; 1 and above for those that call at once.
    int thread = 0;
    /// The start and the end since boot, rounded down and up to milliseconds as the service's
    /// stamps are. For a recording in this process, the recorded time.
    nanoseconds before{};
    nanoseconds after{};
    /// How long the machine had been suspended since boot.
    nanoseconds suspended{};
    nanoseconds took{};
    Outcome outcome = Outcome::kAnswered;
    /// The failure in the words of the transport or the service; empty when it answered.
    std::string error = {};
    /// The numbers and texts of the answer, without the framing of a transport.
    size_t bytes = 0;
};

template <typename Record>
struct Answer : Call {
    /// Sorted by id, and so are the states of a record.
    std::vector<Record> records;
};
template <typename Record>
using Answers = std::vector<Answer<Record>>;

/// The calls of a power stats service in the order of their end, in one form for both interfaces.
/// Ids and numbers are the service's own; so are texts, which safeName() makes fit for output.
struct Survey {
    Hal hal = Hal::kAidl;
    /// Whether the stamps are those of a recording: they stand still between its samples.
    bool isReplay = false;
    /// Whether a call was not answered in time, or found the service gone. No call followed it.
    bool isGone = false;
    /// Whether calls were left out, because the answers are slow or large.
    bool isCut = false;
    Answers<Rail> rails;
    /// HIDL answers the names of entities and those of their states in two calls. The states are
    /// empty in the first and the names in the second.
    Answers<Entity> entities;
    Answers<Entity> stateLists;
    Answers<EnergyResult> energies;
    Answers<EntityResult> residencies;

    /// Calls a function with each answer, of whatever records.
    template <typename Function>
    void forAnswers(const Function& function) const {
        for (const auto& answer : rails) function(answer);
        for (const auto& answer : entities) function(answer);
        for (const auto& answer : stateLists) function(answer);
        for (const auto& answer : energies) function(answer);
        for (const auto& answer : residencies) function(answer);
    }

    /// What the library of this project does with the service, in a process of its own.
    struct Library {
        bool wasCalled = false;
        /// The signal that ended the process; 0 when it went on.
        int signal = 0;
        /// What Java receives, or why nothing was called.
        std::string result = {};
        /// The messages of the process, or its last line when it was ended.
        std::string log = {};
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
