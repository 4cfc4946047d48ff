// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cmath>
#include <memory>
#include <string>

#include "power/Source.h"
#include "power/trace/RecordedSource.h"
#include "tools/CommandLine.h"

namespace powerstats {

/// Where readings come from, by the options that are the same in every subcommand.
struct SourceOptions {
    std::string sysfs = "/sys";
    std::string replay;  ///< a file; empty: this machine
    double speed = 1;
    bool loop = false;
    std::string bus;  ///< "any", "session" or "system"; empty: within this process
    double waitSeconds = 2;
    double callSeconds = 25;       ///< that each call on a bus may take
    double allSeconds = INFINITY;  ///< that all of them may take, besides `waitSeconds`
};

/// Which service look-ups of this process find: a source that this process serves itself, or a
/// service on a bus.
struct ServiceOptions {
    SourceOptions source;
    std::string hal;  ///< "aidl" or "hidl"; empty: AIDL if it is there
};

/// Adds `--sysfs`, and `--replay` with `--speed` and `--loop`.
void addCounterOptions(CommandLine* command, SourceOptions* options);

/// Adds those, and for clients `--bus`, `--wait` and `--verbose`.
void addSourceOptions(CommandLine* command, SourceOptions* options);

/// Adds `--timeout` to a command that asks a service once: the limit of all calls.
void addTimeout(CommandLine* command, SourceOptions* options);

/// Adds the options of the source, and `--hal`.
void addServiceOptions(CommandLine* command, ServiceOptions* options);

/// Opens a source. Says why a file of this machine cannot be read, once for each. With `--bus`
/// waits until a service is there.
/// @param playingTime [in] how long a recording has played, before `--speed`; empty: since now, by
///     the clock.
/// @param status [out] the exit status, after one line, when the result is null: kFailed when no
///     service is on the bus, kUsage when the recording cannot be used.
/// @param options [in,out] gets the name of the bus that the service is on.
std::shared_ptr<Source> openSource(SourceOptions* options, const PlayingTime& playingTime,
                                   int* status);

/// The playing time of a recording that stays at its first sample.
constexpr auto kAtFirstSample = [] { return nanoseconds::zero(); };

/// Registers a source as a service of this process, or waits until one is on the bus. From then on
/// look-ups find that service, and no other.
/// @param playingTime [in] that of a recording; empty: the clock.
/// @param own [out] the source of this process; null with `--bus`.
/// @return 0, or after one line the exit status, as of openSource().
int openService(ServiceOptions* options, const PlayingTime& playingTime,
                std::shared_ptr<Source>* own);

/// Says in one line which bus or service did not answer in time, if one did not.
/// @return whether one did not.
bool sayUnanswered();

/// Says why no energy can be read here, in one line, if there is such a reason.
void sayWhyNoRails(const Reading& reading);

/// For a title: "this machine", "the session bus", a file.
std::string describe(const SourceOptions& options);

}  // namespace powerstats
