// SPDX-License-Identifier: Apache-2.0

#include "power/trace/TraceWriter.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <google/protobuf/arena.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>

#include "power/Ids.h"
#include "power/Source.h"
#include "power/trace/power_trace.pb.h"

namespace powerstats {

using com::tavrel::android::ferrolith::powertrace::Trace;
using com::tavrel::android::ferrolith::powertrace::TracePacket;
using com::tavrel::android::ferrolith::powertrace::TrackEvent;

namespace {

constexpr uint32_t kTrackSequence = 1;

/// Gives things their indices, which are their ids where possible.
template <typename Thing>
std::vector<int64_t> makeIndices(const std::vector<Thing>& things, const Positions& positions,
                                 int64_t greatest) {
    std::vector<int64_t> ids;
    forPositions(positions, things.size(), [&](size_t i) { ids.push_back(things[i].id); });
    return distinctNumbers(ids, greatest);
}

uint64_t toNumber(nanoseconds time) {
    return static_cast<uint64_t>(std::max(time, nanoseconds::zero()).count());
}

uint64_t toNumber(int64_t count) {
    return static_cast<uint64_t>(std::max<int64_t>(count, 0));
}

bool isNegative(const Energy& energy) {
    return energy.energyUWs < 0;
}

bool isNegative(const Residencies& residencies) {
    return std::any_of(residencies.states.begin(), residencies.states.end(),
                       [](const Residency& state) { return state.isLessThan({}); });
}

bool isReset(const Energy& before, const Energy& after) {
    return after.energyUWs < before.energyUWs || after.resets != before.resets;
}

bool isReset(const Residencies& before, const Residencies& after) {
    bool isLess = false;
    for (size_t i = 0; i < before.states.size(); ++i) {
        isLess |= after.states[i].isLessThan(before.states[i]);
    }
    return isLess || after.resets != before.resets;
}

/// The positions of the things that begin a sequence: new ones, and those that were reset.
template <typename Series, typename Figures>
std::vector<size_t> findNew(const std::vector<Series*>& series,
                            const std::vector<std::optional<Figures>>& figures) {
    std::vector<size_t> positions;
    for (size_t i = 0; i < series.size(); ++i) {
        if (series[i]->sequence == 0 ||
            (figures[i] && !isNegative(*figures[i]) && isReset(series[i]->last, *figures[i]))) {
            positions.push_back(i);
        }
    }
    return positions;
}

}  // namespace

/// The packets of one reading.
struct TraceWriter::Sample {
    Trace* const trace;
    const nanoseconds time;
    /// The sequence that new things begin, and whether there are any.
    const uint32_t next;
    bool isBegun = false;
    /// With readings of one kind, by sequence.
    std::map<uint32_t, TracePacket*> bySequence = {};

    TracePacket* add(uint32_t sequence, nanoseconds packetTime) const {
        TracePacket* const packet = trace->add_packet();
        packet->set_timestamp(toNumber(packetTime));
        packet->set_trusted_packet_sequence_id(sequence);
        return packet;
    }
    TracePacket* of(uint32_t sequence) {
        TracePacket*& packet = bySequence[sequence];
        if (packet == nullptr) packet = add(sequence, time);
        return packet;
    }
};

std::unique_ptr<TraceWriter> TraceWriter::create(const std::string& path, std::string* error) {
    // O_EXCL refuses links too.
    const int descriptor =
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        *error = fmt::format("{}: {} (name a new file, in a folder that you may write to)", path,
                             std::generic_category().message(errno));
        return nullptr;
    }
    return std::unique_ptr<TraceWriter>(new TraceWriter(path, descriptor));
}

TraceWriter::TraceWriter(std::string path, int descriptor)
    : mPath(std::move(path)), mDescriptor(descriptor), mSequence(kTrackSequence) {}

TraceWriter::~TraceWriter() {
    close(mDescriptor);
}

bool TraceWriter::write(const Reading& reading, const Interval* since, std::string* error) {
    // A sample has hundreds of small messages, which are released together.
    google::protobuf::Arena arena;
    Sample sample{google::protobuf::Arena::CreateMessage<Trace>(&arena), reading.time,
                  mSequence + 1};
    if (reading.lists != mLists) setLists(reading.lists);
    addRails(reading, &sample);
    sample.bySequence.clear();
    addEntities(reading, &sample);
    if (sample.isBegun) mSequence = sample.next;
    if (since != nullptr) addCounters(*since, &sample);
    return append(sample.trace->SerializeAsString(), error);
}

void TraceWriter::setLists(const std::shared_ptr<const Lists>& lists) {
    mLists = lists;
    mRails.clear();
    for (const Rail& rail : lists->rails) mRails.push_back(&mAllRails[{rail.id, rail.name}]);
    mEntities.clear();
    for (const Entity& entity : lists->entities) {
        std::vector<Name> states;
        for (const State& state : entity.states) states.emplace_back(state.id, state.name);
        mEntities.push_back(&mAllEntities[{{entity.id, entity.name}, states}]);
    }
}

void TraceWriter::addRails(const Reading& reading, Sample* sample) {
    const std::vector<size_t> begun = findNew(mRails, reading.rails);
    const auto indices = makeIndices(mLists->rails, begun, std::numeric_limits<uint32_t>::max());
    sample->isBegun |= !begun.empty();
    for (size_t i = 0; i < begun.size(); ++i) {
        const Rail& rail = mLists->rails[begun[i]];
        RailSeries& series = *mRails[begun[i]];
        series = {sample->next, indices[i], {}, series.track};
        auto* const descriptor =
            sample->of(sample->next)->mutable_power_rails()->add_rail_descriptor();
        descriptor->set_index(static_cast<uint32_t>(series.index));
        descriptor->set_rail_name(rail.name);
        descriptor->set_subsys_name(rail.subsystem);
    }
    for (size_t i = 0; i < mRails.size(); ++i) {
        const std::optional<Energy>& energy = reading.rails[i];
        RailSeries& series = *mRails[i];
        if (!energy || isNegative(*energy) || energy->time < series.last.time) continue;
        series.last = *energy;
        auto* const data = sample->of(series.sequence)->mutable_power_rails()->add_energy_data();
        data->set_index(static_cast<uint32_t>(series.index));
        data->set_timestamp_ms(toNumber(toMilliseconds(energy->time)));
        data->set_energy(toNumber(energy->energyUWs));
    }
}

void TraceWriter::addEntities(const Reading& reading, Sample* sample) {
    const std::vector<size_t> begun = findNew(mEntities, reading.entities);
    constexpr int64_t kGreatest = std::numeric_limits<int32_t>::max();
    const auto indices = makeIndices(mLists->entities, begun, kGreatest);
    sample->isBegun |= !begun.empty();
    for (size_t i = 0; i < begun.size(); ++i) {
        const auto& [id, name, type, states] = mLists->entities[begun[i]];
        EntitySeries& series = *mEntities[begun[i]];
        series.sequence = sample->next;
        series.index = indices[i];
        series.last = {};
        series.stateIndices = makeIndices(states, std::nullopt, kGreatest);
        series.stateTracks.resize(states.size());
        for (size_t state = 0; state < states.size(); ++state) {
            auto* const names = sample->of(sample->next)
                                    ->mutable_entity_state_residency()
                                    ->add_power_entity_state();
            names->set_entity_index(static_cast<int32_t>(series.index));
            names->set_state_index(static_cast<int32_t>(series.stateIndices[state]));
            names->set_entity_name(name);
            names->set_state_name(states[state].name);
        }
    }
    if (reading.time < mResidenciesTime) return;
    mResidenciesTime = reading.time;
    for (size_t i = 0; i < mEntities.size(); ++i) {
        const std::optional<Residencies>& residencies = reading.entities[i];
        EntitySeries& series = *mEntities[i];
        // Residencies with the same stamp are the last ones, and the time of this reading would be
        // wrong for them.
        if (!residencies || isNegative(*residencies) ||
            (!series.last.states.empty() && residencies->time <= series.last.time)) {
            continue;
        }
        series.last = *residencies;
        for (size_t state = 0; state < residencies->states.size(); ++state) {
            const Residency& residency = residencies->states[state];
            auto* const data =
                sample->of(series.sequence)->mutable_entity_state_residency()->add_residency();
            data->set_entity_index(static_cast<int32_t>(series.index));
            data->set_state_index(static_cast<int32_t>(series.stateIndices[state]));
            data->set_total_time_in_state_ms(toNumber(toMilliseconds(residency.totalTime)));
            data->set_total_state_entry_count(toNumber(residency.entryCount));
            data->set_last_entry_timestamp_ms(toNumber(toMilliseconds(residency.lastEntry)));
        }
    }
}

/// Adds the figures of an interval, whose lists begin as those of the reading.
void TraceWriter::addCounters(const Interval& interval, Sample* sample) {
    const auto add = [sample](uint64_t track, nanoseconds time, double value) {
        auto* const event = sample->add(kTrackSequence, time)->mutable_track_event();
        event->set_type(TrackEvent::TYPE_COUNTER);
        event->set_track_uuid(track);
        event->set_double_counter_value(value);
    };
    describe(&mRailsTrack, 0, "Power rails", nullptr, sample);
    for (size_t i = 0; i < mRails.size(); ++i) {
        const Interval::RailFigures& rail = interval.rails[i];
        if (rail.trouble != Trouble::kNone) continue;
        add(describe(&mRails[i]->track, mRailsTrack, mLists->rails[i].name, "mW", sample),
            rail.time - rail.elapsed, rail.milliwatts);
    }
    describe(&mEntitiesTrack, 0, "Power entities", nullptr, sample);
    for (size_t i = 0; i < mEntities.size(); ++i) {
        const Interval::EntityFigures& figures = interval.entities[i];
        if (figures.trouble != Trouble::kNone) continue;
        const Entity& entity = mLists->entities[i];
        EntitySeries& series = *mEntities[i];
        describe(&series.track, mEntitiesTrack, entity.name, nullptr, sample);
        for (size_t state = 0; state < entity.states.size(); ++state) {
            add(describe(&series.stateTracks[state], series.track, entity.states[state].name, "%",
                         sample),
                interval.time - figures.elapsed, 100 * figures.states[state].share);
        }
    }
}

/// Describes a track unless the file has it.
/// @param unit [in] of a counter; null for a track that others are below.
uint64_t TraceWriter::describe(uint64_t* track, uint64_t parent, const std::string& name,
                               const char* unit, Sample* sample) {
    if (*track != 0) return *track;
    *track = ++mTracks;
    auto* const descriptor = sample->add(kTrackSequence, sample->time)->mutable_track_descriptor();
    descriptor->set_uuid(*track);
    descriptor->set_name(name);
    if (parent != 0) descriptor->set_parent_uuid(parent);
    if (unit != nullptr) descriptor->mutable_counter()->set_unit_name(unit);
    return *track;
}

bool TraceWriter::append(const std::string& bytes, std::string* error) {
    const ssize_t count = TEMP_FAILURE_RETRY(::write(mDescriptor, bytes.data(), bytes.size()));
    if (count == static_cast<ssize_t>(bytes.size())) {
        mSize += count;
        return true;
    }
    // Only a full disk takes a part.
    *error = fmt::format("{}: {} (free space on the disk, and record to a new file)", mPath,
                         std::generic_category().message(count < 0 ? errno : ENOSPC));
    if (ftruncate(mDescriptor, mSize) != 0) *error += "; the last sample in it is cut off";
    return false;
}

}  // namespace powerstats
