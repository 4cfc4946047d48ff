// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <functional>
#include <memory>
#include <string>

#include "power/Source.h"

namespace powerstats {

/// Returns the time since playing started, which never goes backwards. Called on each reading, on
/// any thread.
using PlayingTime = std::function<nanoseconds()>;

/// Plays a recording back.
///
/// A reading shows one sample: the one nearest to the playing time if that is within half the
/// spacing of the samples, otherwise the last one that is not later. The playing time starts with 0
/// at the first sample. Values and stamps are the recorded ones, so the speed of playing changes no
/// power. All energy counts as since boot, because a recording does not tell otherwise.
///
/// An entity has no figures when the latest residencies of its packet sequence are without it or
/// one of its states, as those of a CPU that was offline. A rail has its last energy, with its own
/// stamp.
/// @param loop [in] whether the recording starts again after its end, with the totals and stamps
///     going on. The step from the last sample to the first takes the spacing of the samples, and
///     adds nothing to a total. A recording of one sample stands still.
/// @param warn, error as Recording::read(), with null as the result.
std::shared_ptr<Source> playRecording(const std::string& file, const PlayingTime& playingTime,
                                      bool loop, const WarningCallback& warn, std::string* error);

}  // namespace powerstats
