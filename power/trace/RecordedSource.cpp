// SPDX-License-Identifier: Apache-2.0

#include "power/trace/RecordedSource.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <optional>
#include <utility>
#include <vector>

#include "power/trace/Recording.h"

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

nanoseconds addTimes(nanoseconds value, int64_t count, nanoseconds step) {
    return nanoseconds(addTimes(value.count(), count, step.count()));
}

class RecordedSource : public Source {
  public:
    RecordedSource(Recording recording, PlayingTime playingTime, bool loop)
        : mRecording(std::move(recording)), mPlayingTime(std::move(playingTime)), mLoop(loop) {
        const std::vector<nanoseconds>& samples = mRecording.samples;
        if (samples.size() < 2) return;
        std::vector<nanoseconds> gaps(samples.size());
        std::adjacent_difference(samples.begin(), samples.end(), gaps.begin());
        gaps.erase(gaps.begin());
        // The median, which an outage does not widen.
        std::vector<nanoseconds> sorted = gaps;
        std::sort(sorted.begin(), sorted.end());
        const nanoseconds spacing = sorted[sorted.size() / 2];
        if (loop) {
            // The first reading of a round is later than the last of the round before.
            const nanoseconds step = std::max<nanoseconds>(
                spacing, samples.front() - mRecording.first + std::chrono::milliseconds(1));
            const nanoseconds length = samples.back() - samples.front();
            mPeriod = addTimes(length, 1, step);
            gaps.push_back(mPeriod - length);
        }
        nanoseconds time{};
        for (const nanoseconds gap : gaps) {
            time += gap;
            mEnds.push_back(time - std::min((gap - nanoseconds(1)) / 2, spacing / 2));
        }
    }

    Reading read(const Positions& rails, const Positions& entities) override {
        const View now = view();
        Reading reading;
        reading.lists = mRecording.lists;
        reading.time = addTimes(now.time, now.round, mPeriod);
        reading.stampUnit = std::chrono::milliseconds(1);
        reading.rails.resize(mRecording.rails.size());
        forPositions(rails, reading.rails.size(), [&](size_t i) {
            const auto energy = find(mRecording.rails[i], now);
            if (energy) reading.rails[i] = {energy->time, energy->time, energy->totals.entryCount};
        });
        reading.entities.resize(mRecording.entities.size());
        forPositions(entities, reading.entities.size(), [&](size_t i) {
            reading.entities[i] = readEntity(mRecording.entities[i], now);
        });
        return reading;
    }

    bool isOver() const override { return !mLoop && view().time == mRecording.samples.back(); }

  private:
    /// A moment of the recording, and how often the recording has ended before.
    struct View {
        int64_t round;
        nanoseconds time;
    };

    View view() const {
        const std::vector<nanoseconds>& samples = mRecording.samples;
        const nanoseconds played =
            std::clamp(mPlayingTime(), nanoseconds::zero(), nanoseconds::max() - nanoseconds(1));
        const auto sample = static_cast<size_t>(
            std::upper_bound(mEnds.begin(), mEnds.end(), played % mPeriod) - mEnds.begin());
        const int64_t round = played / mPeriod;
        if (sample == samples.size()) return {round + 1, samples.front()};
        return {round, samples[sample]};
    }

    /// Finds the latest totals that are not later than the view, and carries them on into the
    /// round.
    std::optional<Recording::Timed> find(const Recording::Series& series, View view) const {
        const auto next = std::upper_bound(
            series.begin(), series.end(), view.time,
            [](nanoseconds time, const Recording::Timed& item) { return time < item.time; });
        const bool isOfRoundBefore = next == series.begin();
        const int64_t round = isOfRoundBefore ? view.round - 1 : view.round;
        if (round < 0) return std::nullopt;
        Recording::Timed found = isOfRoundBefore ? series.back() : *std::prev(next);
        if (round == 0) return found;
        const Residency& first = series.front().totals;
        const Residency& last = series.back().totals;
        auto& [totalTime, entryCount, lastEntry] = found.totals;
        // The stamp of the last entry moves with the count of entries only. Before a round has an
        // entry it is that of the latest round that had one.
        const bool isEntered = entryCount > first.entryCount;
        const int64_t before = last.entryCount > first.entryCount ? round - 1 : 0;
        if (!isEntered) lastEntry = last.lastEntry;
        if (lastEntry > nanoseconds::zero()) {
            lastEntry = addTimes(lastEntry, isEntered ? round : before, mPeriod);
        }
        totalTime = addTimes(totalTime, round, last.totalTime - first.totalTime);
        entryCount = addTimes(entryCount, round, last.entryCount - first.entryCount);
        found.time = addTimes(found.time, round, mPeriod);
        return found;
    }

    std::optional<Residencies> readEntity(const Recording::EntitySeries& entity, View view) const {
        const auto packet = find(*entity.packets, view);
        if (!packet) return std::nullopt;
        Residencies residencies{packet->time, 0, {}};
        for (const Recording::Series& series : entity.states) {
            const auto state = find(series, view);
            if (!state || state->time != packet->time) return std::nullopt;
            residencies.states.push_back(state->totals);
        }
        return residencies;
    }

    const Recording mRecording;
    const PlayingTime mPlayingTime;
    const bool mLoop;
    /// The playing time at which each sample gives way to the next one; not that of the last sample
    /// of a recording that ends.
    std::vector<nanoseconds> mEnds;
    /// How long a round takes.
    nanoseconds mPeriod = nanoseconds::max();
};

}  // namespace

std::shared_ptr<Source> playRecording(const std::string& file, const PlayingTime& playingTime,
                                      bool loop, const WarningCallback& warn, std::string* error) {
    std::optional<Recording> recording = Recording::read(file, warn, error);
    if (!recording) return nullptr;
    return std::make_shared<RecordedSource>(*std::move(recording), playingTime, loop);
}

}  // namespace powerstats
