// SPDX-License-Identifier: Apache-2.0

#include "hal/RecordedCounters.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <optional>
#include <utility>

namespace powerstats {

namespace {

/// `value + count * step` of numbers that are not negative, at most the greatest int64_t.
int64_t addTimes(int64_t value, int64_t count, int64_t step) {
    int64_t sum = 0;
    if (__builtin_mul_overflow(count, step, &sum) || __builtin_add_overflow(value, sum, &sum)) {
        return std::numeric_limits<int64_t>::max();
    }
    return sum;
}

int64_t findPeriodMs(const Recording& recording) {
    const std::vector<int64_t>& samples = recording.samplesMs;
    if (samples.size() < 2) return 0;
    const auto gaps = static_cast<int64_t>(samples.size() - 1);
    const int64_t meanMs = (samples.back() - samples.front()) / gaps;
    return samples.back() - recording.firstMs + meanMs;
}

}  // namespace

RecordedCounters::RecordedCounters(Recording recording, Options options)
    : mRecording(std::move(recording)),
      mPlayingTime(std::move(options.playingTime)),
      mPeriodMs(options.loop ? findPeriodMs(mRecording) : 0),
      mTimestampMs(mRecording.samplesMs.front()) {
    setLists(std::move(mRecording.rails), std::move(mRecording.entities));
}

RecordedCounters::Position RecordedCounters::position() const {
    using std::chrono::milliseconds;
    const auto played = std::chrono::duration_cast<milliseconds>(mPlayingTime());
    int64_t playedMs = std::max<int64_t>(played.count(), 0);
    int64_t round = 0;
    if (mPeriodMs > 0) {
        round = playedMs / mPeriodMs;
        playedMs %= mPeriodMs;
    }
    const std::vector<int64_t>& samples = mRecording.samplesMs;
    const auto next = std::upper_bound(
        samples.begin(), samples.end(), playedMs,
        [&](int64_t played, int64_t sample) { return played < sample - samples.front(); });
    const auto sample = std::prev(next);
    return {round, *sample, static_cast<size_t>(sample - samples.begin())};
}

/// Finds the reading in view.
/// @param position [in,out] the round goes back by one when the reading is of the round before.
/// @return null when there has been none.
template <typename Reading>
const Reading* RecordedCounters::find(const std::vector<Reading>& readings,
                                      Position* position) const {
    const auto isLater = [timeMs = position->timeMs](const Reading& reading) {
        return reading.timestampMs > timeMs;
    };
    // Nearly always each sample has a reading of each thing, so the indices are the same.
    auto next =
        readings.begin() + static_cast<ptrdiff_t>(std::min(position->sample + 1, readings.size()));
    const bool isFound = next != readings.begin() && !isLater(*std::prev(next)) &&
                         (next == readings.end() || isLater(*next));
    if (!isFound) {
        next = std::partition_point(readings.begin(), readings.end(), std::not_fn(isLater));
    }
    if (next != readings.begin()) return &*std::prev(next);
    if (position->round == 0) return nullptr;
    --position->round;
    return &readings.back();
}

int64_t RecordedCounters::addRounds(int64_t stampMs, int64_t round) const {
    return addTimes(stampMs, round, mPeriodMs);
}

std::vector<RailEnergy> RecordedCounters::readRailsAt(const std::vector<size_t>& indices) const {
    const Position now = position();
    std::vector<RailEnergy> records;
    for (const size_t index : indices) {
        const auto& readings = mRecording.energies[index];
        Position found = now;
        const Recording::Energy* reading = find(readings, &found);
        if (reading == nullptr) continue;
        const int64_t energyOfRound = readings.back().energyUWs - readings.front().energyUWs;
        const int64_t timestampMs = addRounds(reading->timestampMs, found.round);
        records.push_back({rails()[index].id,
                           {addTimes(reading->energyUWs, found.round, energyOfRound), timestampMs,
                            timestampMs, 0}});
    }
    return records;
}

/// @param times [in] all of the state, and `time` is one of them.
Residency RecordedCounters::residencyOf(const std::vector<Recording::StateTime>& times,
                                        const Recording::StateTime& time, int64_t round) const {
    const Residency& first = times.front().residency;
    const Residency& last = times.back().residency;
    Residency residency = time.residency;
    residency.totalTimeMs =
        addTimes(residency.totalTimeMs, round, last.totalTimeMs - first.totalTimeMs);
    residency.entryCount =
        addTimes(residency.entryCount, round, last.entryCount - first.entryCount);
    // Before the first entry of a round the last one is that of the round before.
    const auto isRecorded = [&](int64_t entryMs) { return entryMs >= mRecording.firstMs; };
    if (isRecorded(residency.lastEntryMs)) {
        residency.lastEntryMs = addRounds(residency.lastEntryMs, round);
    } else if (round > 0 && isRecorded(last.lastEntryMs)) {
        residency.lastEntryMs = addRounds(last.lastEntryMs, round - 1);
    }
    return residency;
}

std::vector<EntityResidency> RecordedCounters::readEntitiesAt(
    const std::vector<size_t>& indices) const {
    const Position now = position();
    std::optional<int64_t> latestMs;
    std::vector<EntityResidency> records;
    for (const size_t index : indices) {
        const Entity& entity = entities()[index];
        EntityResidency record{entity.id, {}};
        for (size_t i = 0; i < entity.states.size(); ++i) {
            const auto& times = mRecording.stateTimes[index][i];
            Position found = now;
            const Recording::StateTime* time = find(times, &found);
            if (time == nullptr) break;
            record.states.push_back({entity.states[i].id, residencyOf(times, *time, found.round)});
            latestMs = std::max(latestMs.value_or(0), addRounds(time->timestampMs, found.round));
        }
        if (record.states.size() == entity.states.size()) records.push_back(std::move(record));
    }
    mTimestampMs = latestMs.value_or(addRounds(now.timeMs, now.round));
    return records;
}

}  // namespace powerstats
