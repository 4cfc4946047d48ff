// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "power/Source.h"
#include "power/trace/Recording.h"

namespace powerstats {

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
class RecordedSource : public Source {
  public:
    /// Returns the time since playing started, which never goes backwards. Called on each reading,
    /// on any thread.
    using PlayingTime = std::function<nanoseconds()>;

    struct Options {
        PlayingTime playingTime;
        /// Whether the recording starts again after its end, with the totals and stamps going on.
        /// The step from the last sample to the first takes the spacing of the samples, and adds
        /// nothing to a total. A recording of one sample stands still.
        bool loop = false;
    };

    /// @param warn, error as Recording::read().
    static std::shared_ptr<Source> open(const std::string& file, const Options& options,
                                        const WarningCallback& warn, std::string* error);

    using Source::read;
    Reading read(const Positions& rails, const Positions& entities) override;
    bool isOver() const override;

  private:
    /// A moment of the recording, and how often the recording has ended before.
    struct View {
        int64_t round = 0;
        nanoseconds time{};
    };

    RecordedSource(Recording recording, const Options& options);
    View view() const;
    nanoseconds addRounds(nanoseconds time, int64_t round) const;
    std::optional<Energy> readRail(size_t rail, View view) const;
    std::optional<Residencies> readEntity(size_t entity, View view) const;
    Residency residencyOf(const Recording::Stays& stays, const Residency& recorded,
                          int64_t round) const;

    const Recording mRecording;
    const Options mOptions;
    /// The median time between two samples, which an outage does not widen.
    nanoseconds mSpacing{};
    /// How long a round takes; 0 when there is one only.
    nanoseconds mPeriod{};
};

}  // namespace powerstats
