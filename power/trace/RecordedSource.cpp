// SPDX-License-Identifier: Apache-2.0

#include "power/trace/RecordedSource.h"

#include <algorithm>
#include <limits>
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

nanoseconds addTimes(nanoseconds value, int64_t count, nanoseconds step) {
    return nanoseconds(addTimes(value.count(), count, step.count()));
}

/// Finds the latest item that is not later than the view.
/// @param view [in,out] the round goes back by one when the item is of the round before.
/// @return null when there has been none.
template <typename Item, typename View>
const Item* find(const std::vector<Item>& items, View* view) {
    const auto next = std::upper_bound(items.begin(), items.end(), view->time);
    if (next != items.begin()) return &*std::prev(next);
    if (view->round == 0) return nullptr;
    --view->round;
    return &items.back();
}

nanoseconds findSpacing(const std::vector<nanoseconds>& samples) {
    if (samples.size() < 2) return {};
    std::vector<nanoseconds> gaps;
    for (size_t i = 1; i < samples.size(); ++i) gaps.push_back(samples[i] - samples[i - 1]);
    const auto middle = gaps.begin() + static_cast<ptrdiff_t>(gaps.size() / 2);
    std::nth_element(gaps.begin(), middle, gaps.end());
    return *middle;
}

}  // namespace

std::shared_ptr<Source> RecordedSource::open(const std::string& file, const Options& options,
                                             const WarningCallback& warn, std::string* error) {
    std::optional<Recording> recording = Recording::read(file, warn, error);
    if (!recording) return nullptr;
    return std::shared_ptr<Source>(new RecordedSource(*std::move(recording), options));
}

RecordedSource::RecordedSource(Recording recording, const Options& options)
    : mRecording(std::move(recording)),
      mOptions(options),
      mSpacing(findSpacing(mRecording.samples)) {
    const std::vector<nanoseconds>& samples = mRecording.samples;
    if (!options.loop || samples.size() < 2) return;
    // The first reading of a round is later than the last of the round before.
    const nanoseconds step = std::max<nanoseconds>(
        mSpacing, samples.front() - mRecording.first + std::chrono::milliseconds(1));
    mPeriod = addTimes(samples.back() - samples.front(), 1, step);
}

RecordedSource::View RecordedSource::view() const {
    nanoseconds played = std::max(mOptions.playingTime(), nanoseconds::zero());
    int64_t round = 0;
    if (mPeriod > nanoseconds::zero()) {
        round = played / mPeriod;
        played %= mPeriod;
    }
    const std::vector<nanoseconds>& samples = mRecording.samples;
    const nanoseconds start = samples.front();
    const auto next = std::upper_bound(
        samples.begin(), samples.end(), played,
        [start](nanoseconds played, nanoseconds sample) { return played < sample - start; });
    const nanoseconds since = played - (*std::prev(next) - start);
    const auto isNearest = [&](nanoseconds until) {
        return until < since && until <= mSpacing / 2;
    };
    if (next != samples.end()) {
        return {round, isNearest(*next - start - played) ? *next : *std::prev(next)};
    }
    if (mPeriod > nanoseconds::zero() && isNearest(mPeriod - played)) return {round + 1, start};
    return {round, samples.back()};
}

bool RecordedSource::isOver() const {
    return !mOptions.loop && view().time == mRecording.samples.back();
}

nanoseconds RecordedSource::addRounds(nanoseconds time, int64_t round) const {
    return addTimes(time, round, mPeriod);
}

Reading RecordedSource::read(const Positions& rails, const Positions& entities) {
    const View now = view();
    Reading reading;
    reading.lists = mRecording.lists;
    reading.time = addRounds(now.time, now.round);
    reading.rails.resize(mRecording.energies.size());
    forPositions(rails, reading.rails.size(),
                 [&](size_t i) { reading.rails[i] = readRail(i, now); });
    reading.entities.resize(mRecording.stays.size());
    forPositions(entities, reading.entities.size(),
                 [&](size_t i) { reading.entities[i] = readEntity(i, now); });
    return reading;
}

std::optional<Energy> RecordedSource::readRail(size_t rail, View view) const {
    const Recording::Energies& energies = mRecording.energies[rail];
    const auto* const energy = find(energies, &view);
    if (energy == nullptr) return std::nullopt;
    const nanoseconds time = addRounds(energy->time, view.round);
    const int64_t energyOfRound = energies.back().value - energies.front().value;
    return Energy{time, time, addTimes(energy->value, view.round, energyOfRound)};
}

std::optional<Residencies> RecordedSource::readEntity(size_t entity, View view) const {
    const nanoseconds* const packet =
        find(mRecording.packets.at(mRecording.sequences[entity]), &view);
    if (packet == nullptr) return std::nullopt;
    view.time = *packet;
    Residencies residencies;
    residencies.time = addRounds(*packet, view.round);
    for (const Recording::Stays& stays : mRecording.stays[entity]) {
        const auto* const stay = find(stays, &view);
        if (stay == nullptr || stay->time != *packet) return std::nullopt;
        residencies.states.push_back(residencyOf(stays, stay->value, view.round));
    }
    return residencies;
}

/// Carries a residency on into a round.
Residency RecordedSource::residencyOf(const Recording::Stays& stays, const Residency& recorded,
                                      int64_t round) const {
    if (round == 0) return recorded;
    const Residency& first = stays.front().value;
    const Residency& last = stays.back().value;
    Residency residency;
    residency.totalTime = addTimes(recorded.totalTime, round, last.totalTime - first.totalTime);
    residency.entryCount = addTimes(recorded.entryCount, round, last.entryCount - first.entryCount);
    // The stamp of the last entry moves with the count of entries only. Before a round has an entry
    // it is that of the latest round that had one.
    const int64_t before = last.entryCount > first.entryCount ? round - 1 : 0;
    if (last.lastEntry > nanoseconds::zero()) {
        residency.lastEntry = addRounds(last.lastEntry, before);
    }
    if (recorded.entryCount > first.entryCount && recorded.lastEntry > nanoseconds::zero()) {
        residency.lastEntry = std::max(residency.lastEntry, addRounds(recorded.lastEntry, round));
    }
    return residency;
}

}  // namespace powerstats
