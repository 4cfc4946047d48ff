// SPDX-License-Identifier: Apache-2.0

#include "tools/TraceWriter.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <google/protobuf/arena.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>

#include "hal/NamesAndIds.h"

namespace powerstats {

namespace {

using com::tavrel::android::ferrolith::powertrace::TrackEvent;

constexpr uint32_t kTrackSequence = 1;
constexpr int64_t kNanosecondsPerMillisecond = 1000000;

std::string nameOf(const std::string& name, int64_t id) {
    return name.empty() ? fmt::format("id {}", id) : safeName(name);
}

bool isSmaller(const Snapshot::Residency& a, const Snapshot::Residency& b) {
    return a.totalTimeMs < b.totalTimeMs || a.entryCount < b.entryCount;
}

template <typename Thing>
std::vector<int64_t> idsOf(const std::vector<Thing>& things) {
    std::vector<int64_t> ids;
    ids.reserve(things.size());
    for (const Thing& thing : things) ids.push_back(thing.id);
    return ids;
}

uint64_t toNanoseconds(int64_t timestampMs) {
    return static_cast<uint64_t>(timestampMs) * kNanosecondsPerMillisecond;
}

}  // namespace

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

TraceWriter::TracePacket* TraceWriter::Packets::of(uint32_t sequence) {
    TracePacket*& packet = bySequence[sequence];
    if (packet == nullptr) {
        packet = trace->add_packet();
        packet->set_trusted_packet_sequence_id(sequence);
    }
    return packet;
}

bool TraceWriter::write(const Snapshot& snapshot, const Interval* since, std::string* error) {
    // A sample has hundreds of small messages, which are released together.
    google::protobuf::Arena arena;
    Trace* const trace = google::protobuf::Arena::CreateMessage<Trace>(&arena);
    Packets rails{trace, {}};
    Packets entities{trace, {}};
    const std::vector<RailSeries*> railSeries = nameRails(snapshot, &rails);
    const std::vector<EntitySeries*> entitySeries = nameEntities(snapshot, &entities);
    addRails(snapshot, railSeries, &rails);
    addEntities(snapshot, entitySeries, &entities);
    for (const Packets* packets : {&rails, &entities}) {
        for (const auto& [sequence, packet] : packets->bySequence) {
            packet->set_timestamp(toNanoseconds(snapshot.timestampMs));
            mSequence = std::max(mSequence, sequence);
        }
    }
    if (since != nullptr) addCounters(*since, trace);
    return append(trace->SerializeAsString(), error);
}

/// Gives the new rails their indices, in a new sequence.
/// @return the series of all, in the order of the snapshot.
std::vector<TraceWriter::RailSeries*> TraceWriter::nameRails(const Snapshot& snapshot,
                                                             Packets* packets) {
    std::vector<RailSeries*> all;
    std::vector<Snapshot::Rail> newRails;
    for (const Snapshot::Rail& rail : snapshot.rails) {
        RailSeries& known = mRails[keyOf(rail)];
        all.push_back(&known);
        const bool isReset = rail.energy && rail.energy->energyUWs >= 0 &&
                             rail.energy->energyUWs < known.last.energyUWs;
        if (known.sequence == 0 || isReset) newRails.push_back(rail);
    }
    const auto indices = distinctNumbers(idsOf(newRails), std::numeric_limits<uint32_t>::max());
    for (size_t i = 0; i < newRails.size(); ++i) {
        const Snapshot::Rail& rail = newRails[i];
        const auto index = static_cast<uint32_t>(indices[i]);
        mRails[keyOf(rail)] = {mSequence + 1, index, {}};
        auto* descriptor = packets->of(mSequence + 1)->mutable_power_rails()->add_rail_descriptor();
        descriptor->set_index(index);
        descriptor->set_rail_name(nameOf(rail.name, rail.id));
        descriptor->set_subsys_name(safeName(rail.subsystem));
    }
    return all;
}

void TraceWriter::addRails(const Snapshot& snapshot, const std::vector<RailSeries*>& all,
                           Packets* packets) {
    for (size_t place = 0; place < all.size(); ++place) {
        const Snapshot::Rail& rail = snapshot.rails[place];
        RailSeries& series = *all[place];
        if (!rail.energy || rail.energy->energyUWs < 0 ||
            rail.energy->timestampMs < series.last.timestampMs) {
            continue;
        }
        series.last = *rail.energy;
        auto* data = packets->of(series.sequence)->mutable_power_rails()->add_energy_data();
        data->set_index(series.index);
        data->set_timestamp_ms(static_cast<uint64_t>(rail.energy->timestampMs));
        data->set_energy(static_cast<uint64_t>(rail.energy->energyUWs));
    }
}

TraceWriter::EntityKey TraceWriter::keyOf(const Snapshot::Entity& entity) {
    EntityKey key{{entity.id, entity.name}, {}};
    for (const Snapshot::State& state : entity.states)
        key.second.emplace_back(state.id, state.name);
    return key;
}

/// Gives the new entities and their states their indices, in a new sequence.
/// @return the series of all, in the order of the snapshot.
std::vector<TraceWriter::EntitySeries*> TraceWriter::nameEntities(const Snapshot& snapshot,
                                                                  Packets* packets) {
    std::vector<EntitySeries*> all;
    std::vector<Snapshot::Entity> newEntities;
    for (const Snapshot::Entity& entity : snapshot.entities) {
        EntitySeries& known = mEntities[keyOf(entity)];
        all.push_back(&known);
        bool isNew = known.sequence == 0;
        for (size_t i = 0; !isNew && i < entity.states.size(); ++i) {
            const auto& residency = entity.states[i].residency;
            isNew = residency && isSmaller(*residency, known.last[i]);
        }
        if (isNew) newEntities.push_back(entity);
    }
    constexpr int64_t kGreatest = std::numeric_limits<int32_t>::max();
    const auto indices = distinctNumbers(idsOf(newEntities), kGreatest);
    for (size_t i = 0; i < newEntities.size(); ++i) {
        const Snapshot::Entity& entity = newEntities[i];
        EntitySeries series{mSequence + 1, static_cast<int32_t>(indices[i]), {}, {}};
        series.last.resize(entity.states.size());
        for (const int64_t index : distinctNumbers(idsOf(entity.states), kGreatest)) {
            const Snapshot::State& state = entity.states[series.stateIndices.size()];
            series.stateIndices.push_back(static_cast<int32_t>(index));
            auto* names = packets->of(series.sequence)
                              ->mutable_entity_state_residency()
                              ->add_power_entity_state();
            names->set_entity_index(series.index);
            names->set_state_index(series.stateIndices.back());
            names->set_entity_name(nameOf(entity.name, entity.id));
            names->set_state_name(nameOf(state.name, state.id));
        }
        mEntities[keyOf(entity)] = std::move(series);
    }
    return all;
}

void TraceWriter::addEntities(const Snapshot& snapshot, const std::vector<EntitySeries*>& all,
                              Packets* packets) {
    if (snapshot.timestampMs < mResidenciesMs) return;
    mResidenciesMs = snapshot.timestampMs;
    for (size_t place = 0; place < all.size(); ++place) {
        const Snapshot::Entity& entity = snapshot.entities[place];
        EntitySeries& series = *all[place];
        for (size_t i = 0; i < entity.states.size(); ++i) {
            const auto& residency = entity.states[i].residency;
            if (!residency || isSmaller(*residency, {})) continue;
            series.last[i] = *residency;
            auto* data =
                packets->of(series.sequence)->mutable_entity_state_residency()->add_residency();
            data->set_entity_index(series.index);
            data->set_state_index(series.stateIndices[i]);
            data->set_total_time_in_state_ms(static_cast<uint64_t>(residency->totalTimeMs));
            data->set_total_state_entry_count(static_cast<uint64_t>(residency->entryCount));
            data->set_last_entry_timestamp_ms(
                static_cast<uint64_t>(std::max<int64_t>(residency->lastEntryMs, 0)));
        }
    }
}

void TraceWriter::addCounters(const Interval& interval, Trace* trace) {
    const uint64_t allRails = findTrack({0, 0, "Power rails"}, nullptr, trace);
    for (const Interval::Rail& rail : interval.rails) {
        if (rail.trouble != Trouble::kNone) continue;
        addCounter(findTrack({allRails, rail.id, rail.name}, "mW", trace),
                   rail.timestampMs - rail.elapsedMs, rail.milliwatts, trace);
    }
    const uint64_t allEntities = findTrack({0, 0, "Power entities"}, nullptr, trace);
    for (const Interval::Entity& entity : interval.entities) {
        if (entity.trouble != Trouble::kNone) continue;
        const uint64_t parent = findTrack({allEntities, entity.id, entity.name}, nullptr, trace);
        for (const Interval::State& state : entity.states) {
            addCounter(findTrack({parent, state.id, state.name}, "%", trace),
                       interval.timestampMs - interval.elapsedMs, 100 * state.share, trace);
        }
    }
}

void TraceWriter::addCounter(uint64_t track, int64_t timestampMs, double value, Trace* trace) {
    TracePacket* packet = trace->add_packet();
    packet->set_timestamp(toNanoseconds(timestampMs));
    packet->set_trusted_packet_sequence_id(kTrackSequence);
    packet->mutable_track_event()->set_type(TrackEvent::TYPE_COUNTER);
    packet->mutable_track_event()->set_track_uuid(track);
    packet->mutable_track_event()->set_double_counter_value(value);
}

/// Finds a track, and describes it when it is new.
/// @param unit [in] of a counter; null for a track that others are below.
uint64_t TraceWriter::findTrack(const TrackView& key, const char* unit, Trace* trace) {
    // Nearly always the tracks of a sample have the order of the sample before, in which they were
    // new.
    if (mLatestTrack == mTrackKeys.size()) mLatestTrack = 0;
    if (mLatestTrack < mTrackKeys.size() && *mTrackKeys[mLatestTrack] == key) return ++mLatestTrack;
    const auto known = mTracks.find(key);
    if (known != mTracks.end()) return mLatestTrack = known->second;
    const uint64_t uuid = mTracks.size() + 1;
    const auto& [parent, id, name] = key;
    mTrackKeys.push_back(&mTracks.emplace(TrackKey(parent, id, name), uuid).first->first);
    mLatestTrack = uuid;
    TracePacket* packet = trace->add_packet();
    packet->set_timestamp(toNanoseconds(mResidenciesMs));
    packet->set_trusted_packet_sequence_id(kTrackSequence);
    auto* descriptor = packet->mutable_track_descriptor();
    descriptor->set_uuid(uuid);
    descriptor->set_name(nameOf(std::string(name), id));
    if (parent != 0) descriptor->set_parent_uuid(parent);
    if (unit != nullptr) descriptor->mutable_counter()->set_unit_name(unit);
    return uuid;
}

bool TraceWriter::append(const std::string& bytes, std::string* error) {
    ssize_t count = 0;
    do {
        count = ::write(mDescriptor, bytes.data(), bytes.size());
    } while (count < 0 && errno == EINTR);
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
