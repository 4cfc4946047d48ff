// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <functional>
#include <optional>
#include <string>

#include "tools/Interval.h"

namespace powerstats {

struct LiveViewOptions {
    /// Names the service, as in "this machine over AIDL"; any bytes.
    std::string title;
    /// Between two readings, at least a millisecond.
    double intervalSeconds = 1;
    /// The number of intervals to show; the last one stands for an interval too. std::nullopt goes
    /// on until the user quits.
    std::optional<int> count;
};

/// Shows intervals on the terminal until the user quits or `count` of them were shown. The keys are
/// in its help, which `?` shows.
///
/// Gives the terminal back on every way out, also when a signal ends the process; such a signal is
/// raised again, so that the process dies by it. Where standard error is a terminal, keeps the last
/// 64 KiB written to it and prints them afterwards. For one call at a time.
///
/// @param read [in] takes the next reading and returns the interval since the one before. Called on
///     a thread of its own at every tick; a slow call skips ticks. The view does not wait for it,
///     and a call that blocks may still be running when this function returns. So it must own
///     everything it uses.
/// @return exit status: 0, or 1 after a message on standard error when `read` threw or the terminal
///     cannot be drawn on.
int showLive(const LiveViewOptions& options, std::function<Interval()> read);

}  // namespace powerstats
