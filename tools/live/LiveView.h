// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <memory>

#include "tools/Sampler.h"

namespace powerstats {

/// Whether standard input and output are a terminal whose cursor can be moved.
bool canShowLive();

/// Shows the intervals of a sampler on the terminal until the user quits or `count` of them were
/// shown. The keys are in its help, which `?` shows. When a recording that is played ends, or the
/// one that is written fails, the view says so and keeps its last figures. For one call in a
/// process, on its main thread, while all others but the sampler's block SIGTSTP, SIGCONT and
/// SIGWINCH.
///
/// Gives the terminal back on every way out, also when a signal ends the process; such a signal is
/// raised again, so that the process dies by it. Where standard error is a terminal, keeps the last
/// 64 KiB written to it and prints them afterwards.
///
/// @param intervalSeconds [in] that of the sampler.
/// @param count [in] the last interval stands for an interval too, and its table is printed after
///     the view. HUGE_VAL: no end.
/// @param sampler [in] runs on a thread of its own, for which the view does not wait. A reading
///     that blocks may still be in progress when this function returns; that thread then shares
///     the sampler.
/// @return exit status: 0, or kFailed when no interval had a figure or, after a message on standard
///     error, when the readings cannot be recorded or the terminal cannot be drawn on.
int showLive(double intervalSeconds, double count, const std::shared_ptr<Sampler>& sampler);

}  // namespace powerstats
