// SPDX-License-Identifier: Apache-2.0
//
// The counters that a tool serves: this machine's, or those of a recording that it plays back.

#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hal/RecordedCounters.h"
#include "tools/CommandLine.h"

namespace powerstats {

struct SourceOptions {
    std::string sysfs = "/sys";
    std::string replay;  ///< a file; empty: this machine
    double speed = 1;
    bool loop = false;
    /// Set by addSourceOptions(): whether one of them was given.
    std::function<bool()> isGiven;
};

/// Adds `--sysfs`, and `--replay` with `--speed` and `--loop`.
void addSourceOptions(CommandLine command, SourceOptions* options);

/// A recording that is played back.
struct Replay {
    std::shared_ptr<const RecordedCounters> counters;
    /// From its first sample to its last.
    std::chrono::milliseconds length{0};
};

/// Opens the counters. Says why one of them cannot be read, once for each file.
/// @param playingTime [in] how long a recording has played, before `--speed`; empty: since now, by
///     the clock.
/// @param replay [out] the recording; its counters are null for this machine.
/// @param denied [out] the counters of energy that this user may not read, in place of lines about
///     them; may be null.
/// @return null, after one line, when the recording cannot be used.
std::shared_ptr<const Counters> openSource(const SourceOptions& options,
                                           RecordedCounters::PlayingTime playingTime,
                                           Replay* replay,
                                           std::vector<std::string>* denied = nullptr);

}  // namespace powerstats
