// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "hal/Counters.h"
#include "hal/Recording.h"

namespace powerstats {

/// Plays a recording back.
///
/// A reading shows the last sample that is not later than the playing time, which starts with 0 at
/// the first sample. Values and stamps are the recorded ones, so the speed of playing changes no
/// power. A rail missing from a sample has its last value. A rail that no sample has had yet is
/// left out, and so is an entity with such a state. All energy counts as since boot, because a
/// recording does not tell otherwise.
class RecordedCounters : public Counters {
  public:
    /// Returns the time since playing started, which never goes backwards. Called on each reading,
    /// on any thread.
    using PlayingTime = std::function<std::chrono::nanoseconds()>;

    struct Options {
        PlayingTime playingTime;
        /// Whether the recording starts again after its end, with the totals and stamps going on.
        /// The step from the last sample to the first takes the mean time between two samples, and
        /// adds nothing to a total. A recording of one sample stands still.
        bool loop = false;
    };

    RecordedCounters(Recording recording, Options options);

    bool isSinceBoot(size_t /*index*/) const override { return true; }

    /// The time of the residencies that the latest readEntities() returned, in milliseconds since
    /// the recorded device's boot: the service interfaces carry no such stamp. Before that, the
    /// time of the first sample.
    int64_t timestampMs() const { return mTimestampMs; }

  private:
    /// A moment of the recording, and how often the recording has ended before.
    struct Position {
        int64_t round;
        int64_t timeMs;
        size_t sample;  ///< the index of the sample at that time
    };
    Position position() const;
    template <typename Reading>
    const Reading* find(const std::vector<Reading>& readings, Position* position) const;
    int64_t addRounds(int64_t stampMs, int64_t round) const;
    Residency residencyOf(const std::vector<Recording::StateTime>& times,
                          const Recording::StateTime& time, int64_t round) const;

    std::vector<RailEnergy> readRailsAt(const std::vector<size_t>& indices) const override;
    std::vector<EntityResidency> readEntitiesAt(const std::vector<size_t>& indices) const override;

    /// Without the rails and entities, which the base has.
    Recording mRecording;
    const PlayingTime mPlayingTime;
    /// How long a round takes; 0 when there is one only.
    int64_t mPeriodMs = 0;
    mutable std::atomic<int64_t> mTimestampMs;
};

}  // namespace powerstats
