// SPDX-License-Identifier: Apache-2.0

#include "hal/Recording.h"

#include <algorithm>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "hal/NamesAndIds.h"
#include "hal/TraceFile.h"
#include "proto/power_trace.pb.h"

namespace powerstats {

namespace {

using com::tavrel::android::ferrolith::powertrace::EntityStateResidency;
using com::tavrel::android::ferrolith::powertrace::PowerRails;
using com::tavrel::android::ferrolith::powertrace::TracePacket;

constexpr uint64_t kNanosecondsPerMillisecond = 1000000;
/// Readings that are further apart belong to two samples. The common recorder takes a sample every
/// 100 ms at most.
constexpr int64_t kSampleSpanMs = 100;

/// A rail, an entity or a state, as a packet sequence tells of it.
struct Source {
    uint32_t sequence = 0;
    int64_t index = 0;
    /// Of the packet that first tells of it.
    uint64_t offset = 0;
    /// Empty until a packet tells.
    std::string name;
};

template <typename Reading>
struct Readings : Source {
    std::vector<Reading> readings;
};

struct RecordedRail : Readings<Recording::Energy> {
    std::string subsystem;
};

using RecordedState = Readings<Recording::StateTime>;

struct RecordedEntity : Source {
    /// Places in the list of all states.
    std::vector<size_t> states;
};

/// A time at which a packet has readings.
struct Moment {
    int64_t timeMs;
    uint64_t packetOffset;
    uint32_t sequence;
    bool isOfRails;
};

uint64_t makeKey(uint32_t high, uint32_t low) {
    return uint64_t{high} << 32 | low;
}

/// Gives keys their places in a list, in order of first appearance.
class Places {
  public:
    /// @return the size of the list for a new key, which the caller has to add.
    size_t find(uint64_t key) {
        // Most packets have the same things in the same order.
        for (const size_t guess : {mLatest, mLatest + 1}) {
            if (guess < mKeys.size() && mKeys[guess] == key) return mLatest = guess;
        }
        mLatest = mPlaces.emplace(key, mKeys.size()).first->second;
        if (mLatest == mKeys.size()) mKeys.push_back(key);
        return mLatest;
    }

  private:
    std::unordered_map<uint64_t, size_t> mPlaces;
    /// By place.
    std::vector<uint64_t> mKeys;
    size_t mLatest = 0;
};

/// The totals that never go backwards.
std::pair<int64_t, int64_t> totals(const Recording::Energy& reading) {
    return {reading.energyUWs, 0};
}
std::pair<int64_t, int64_t> totals(const Recording::StateTime& reading) {
    return {reading.residency.totalTimeMs, reading.residency.entryCount};
}

/// Gives each thing an id: `indices` are those that were recorded.
template <typename Thing>
void setIds(std::vector<Thing>* things, const std::vector<int64_t>& indices) {
    const auto ids = distinctNumbers(indices, std::numeric_limits<int32_t>::max());
    for (size_t i = 0; i < ids.size(); ++i) (*things)[i].id = static_cast<int32_t>(ids[i]);
}

/// Collects the power data of a file packet by packet. A function that returns false has set the
/// error.
class Collector {
  public:
    Collector(const TraceFile& file, const WarningCallback& warn, std::string* error)
        : mFile(file), mWarn(warn), mError(error) {}

    bool add(const TraceFile::Packet& encoded);
    bool finish(uint64_t fileSize, Recording* recording);

  private:
    bool fail(uint64_t offset, const std::string& text) const {
        *mError = mFile.at(offset, text);
        return false;
    }
    static std::string describe(const Source& source, const char* kind);

    Source makeSource(int64_t index) const { return {mSequence, index, mOffset, ""}; }
    RecordedRail* rail(uint32_t index);
    RecordedEntity* entity(int32_t index);
    RecordedState* state(int32_t entityIndex, int32_t index);
    bool setName(Source* source, const char* kind, const std::string& name) const;
    template <typename Reading>
    bool append(Readings<Reading>* readings, const char* kind, const Reading& reading);
    bool addRails(const PowerRails& packet);
    bool addResidencies(const EntityStateResidency& packet, int64_t timestampMs);

    bool serves(const Source& source, std::map<std::string, uint32_t>* sequences);
    bool checkName(const Source& source, const char* kind) const;
    bool finishRails(Recording* recording);
    bool finishEntities(Recording* recording);
    void findSamples(Recording* recording);

    const TraceFile& mFile;
    const WarningCallback& mWarn;
    std::string* const mError;
    /// Kept for its memory.
    TracePacket mPacket;
    /// Of the packet that is being added.
    uint64_t mOffset = 0;
    uint32_t mSequence = 0;

    std::vector<RecordedRail> mRails;
    std::vector<RecordedEntity> mEntities;
    std::vector<RecordedState> mStates;
    /// By sequence and index; a state by its entity's place and its index.
    Places mRailPlaces;
    Places mEntityPlaces;
    Places mStatePlaces;
    std::vector<Moment> mMoments;
    /// The sequences with rails and those with states that are shown.
    std::set<uint32_t> mRailSequences;
    std::set<uint32_t> mStateSequences;
    std::string mFirstTwin;
    size_t mTwins = 0;
};

std::string Collector::describe(const Source& source, const char* kind) {
    const std::string name = source.name.empty() ? "" : " (" + safeName(source.name) + ")";
    return std::string(kind) + " " + std::to_string(source.index) + name + " of packet sequence " +
           std::to_string(source.sequence);
}

bool Collector::add(const TraceFile::Packet& encoded) {
    mOffset = encoded.offset;
    if (!mPacket.ParseFromArray(encoded.bytes, static_cast<int>(encoded.size))) {
        return fail(mOffset, "malformed power data (the file is damaged: copy or record it again)");
    }
    mSequence = mPacket.trusted_packet_sequence_id();
    return addRails(mPacket.power_rails()) &&
           addResidencies(mPacket.entity_state_residency(),
                          static_cast<int64_t>(mPacket.timestamp() / kNanosecondsPerMillisecond));
}

RecordedRail* Collector::rail(uint32_t index) {
    const size_t place = mRailPlaces.find(makeKey(mSequence, index));
    if (place == mRails.size()) mRails.push_back({{makeSource(index), {}}, ""});
    return &mRails[place];
}

RecordedEntity* Collector::entity(int32_t index) {
    const size_t place = mEntityPlaces.find(makeKey(mSequence, static_cast<uint32_t>(index)));
    if (place == mEntities.size()) mEntities.push_back({makeSource(index), {}});
    return &mEntities[place];
}

RecordedState* Collector::state(int32_t entityIndex, int32_t index) {
    RecordedEntity* const owner = entity(entityIndex);
    const auto entityPlace = static_cast<uint32_t>(owner - mEntities.data());
    const size_t place = mStatePlaces.find(makeKey(entityPlace, static_cast<uint32_t>(index)));
    if (place == mStates.size()) {
        owner->states.push_back(place);
        mStates.push_back({makeSource(index), {}});
    }
    return &mStates[place];
}

bool Collector::setName(Source* source, const char* kind, const std::string& name) const {
    if (!source->name.empty() && name != source->name) {
        return fail(mOffset, describe(*source, kind) + " is also called " + safeName(name) +
                                 " (the file is damaged: record it again)");
    }
    source->name = name;
    return true;
}

template <typename Reading>
bool Collector::append(Readings<Reading>* readings, const char* kind, const Reading& reading) {
    const auto [first, second] = totals(reading);
    if (first < 0 || second < 0 || reading.timestampMs < 0) {
        return fail(mOffset, describe(*readings, kind) +
                                 " has a value above 2^63 - 1 (check the service that it was "
                                 "recorded from)");
    }
    std::vector<Reading>& list = readings->readings;
    if (!list.empty()) {
        const auto [lastFirst, lastSecond] = totals(list.back());
        const bool isEarlier = reading.timestampMs < list.back().timestampMs;
        if (isEarlier || first < lastFirst || second < lastSecond) {
            return fail(mOffset, std::string(isEarlier ? "the time" : "a total") + " of " +
                                     describe(*readings, kind) +
                                     " goes backwards (record again, without a restart of the "
                                     "service)");
        }
        // Of several readings at one time the last one counts.
        if (reading.timestampMs == list.back().timestampMs) {
            list.back() = reading;
            return true;
        }
    }
    list.push_back(reading);
    constexpr bool kIsOfRails = std::is_same_v<Reading, Recording::Energy>;
    if (mMoments.empty() || mMoments.back().timeMs != reading.timestampMs ||
        mMoments.back().packetOffset != mOffset || mMoments.back().isOfRails != kIsOfRails) {
        mMoments.push_back({reading.timestampMs, mOffset, mSequence, kIsOfRails});
    }
    return true;
}

bool Collector::addRails(const PowerRails& packet) {
    for (const auto& descriptor : packet.rail_descriptor()) {
        RecordedRail* named = rail(descriptor.index());
        if (!setName(named, "rail", descriptor.rail_name())) return false;
        named->subsystem = descriptor.subsys_name();
    }
    return std::all_of(
        packet.energy_data().begin(), packet.energy_data().end(), [this](const auto& energy) {
            return append(rail(energy.index()), "rail",
                          Recording::Energy{static_cast<int64_t>(energy.timestamp_ms()),
                                            static_cast<int64_t>(energy.energy())});
        });
}

bool Collector::addResidencies(const EntityStateResidency& packet, int64_t timestampMs) {
    for (const auto& names : packet.power_entity_state()) {
        if (!setName(entity(names.entity_index()), "entity", names.entity_name()) ||
            !setName(state(names.entity_index(), names.state_index()), "state",
                     names.state_name())) {
            return false;
        }
    }
    return std::all_of(
        packet.residency().begin(), packet.residency().end(), [&](const auto& residency) {
            // A huge number is no time, so the time is not known.
            const auto lastEntryMs = static_cast<int64_t>(residency.last_entry_timestamp_ms());
            return append(
                state(residency.entity_index(), residency.state_index()), "state",
                Recording::StateTime{timestampMs,
                                     {static_cast<int64_t>(residency.total_time_in_state_ms()),
                                      static_cast<int64_t>(residency.total_state_entry_count()),
                                      std::max<int64_t>(lastEntryMs, 0)}});
        });
}

bool Collector::finish(uint64_t fileSize, Recording* recording) {
    if (mMoments.empty()) {
        return fail(fileSize, "no power data up to here (record rails or power entities)");
    }
    if (!finishRails(recording) || !finishEntities(recording)) return false;
    if (mTwins != 0) {
        mWarn(mFirstTwin +
              (mTwins == 1 ? "" : ", the first of " + std::to_string(mTwins) + " such names") +
              " (only the first sequence's is shown; record one service at a time)");
    }
    findSamples(recording);
    return true;
}

/// Whether a rail or an entity is the first with its name. Within a sequence names may repeat.
bool Collector::serves(const Source& source, std::map<std::string, uint32_t>* sequences) {
    const auto first = sequences->emplace(source.name, source.sequence).first;
    if (first->second == source.sequence) return true;
    if (mTwins++ == 0) {
        mFirstTwin = mFile.at(source.offset, "packet sequences " + std::to_string(first->second) +
                                                 " and " + std::to_string(source.sequence) +
                                                 " both have " + safeName(source.name));
    }
    return false;
}

bool Collector::checkName(const Source& source, const char* kind) const {
    return !source.name.empty() ||
           fail(source.offset, describe(source, kind) +
                                   " has no name (names are in the first packet of a sequence: "
                                   "record from the start)");
}

bool Collector::finishRails(Recording* recording) {
    std::map<std::string, uint32_t> sequences;
    std::vector<int64_t> indices;
    for (RecordedRail& rail : mRails) {
        if (rail.readings.empty()) continue;
        if (!checkName(rail, "rail")) return false;
        if (!serves(rail, &sequences)) continue;
        mRailSequences.insert(rail.sequence);
        indices.push_back(rail.index);
        recording->rails.push_back({0, std::move(rail.name), std::move(rail.subsystem)});
        recording->energies.push_back(std::move(rail.readings));
    }
    setIds(&recording->rails, indices);
    return true;
}

bool Collector::finishEntities(Recording* recording) {
    std::map<std::string, uint32_t> sequences;
    std::vector<int64_t> indices;
    for (RecordedEntity& entity : mEntities) {
        Entity shown{0, entity.name, EntityType::kDevice, {}};
        std::vector<int64_t> stateIndices;
        std::vector<std::vector<Recording::StateTime>> stateTimes;
        for (const size_t place : entity.states) {
            RecordedState& state = mStates[place];
            if (state.readings.empty()) continue;
            if (!checkName(state, "state") || !checkName(entity, "entity")) return false;
            stateIndices.push_back(state.index);
            shown.states.push_back({0, std::move(state.name)});
            stateTimes.push_back(std::move(state.readings));
        }
        if (shown.states.empty() || !serves(entity, &sequences)) continue;
        mStateSequences.insert(entity.sequence);
        setIds(&shown.states, stateIndices);
        indices.push_back(entity.index);
        recording->entities.push_back(std::move(shown));
        recording->stateTimes.push_back(std::move(stateTimes));
    }
    setIds(&recording->entities, indices);
    return true;
}

void Collector::findSamples(Recording* recording) {
    const auto isEarlier = [](const Moment& a, const Moment& b) { return a.timeMs < b.timeMs; };
    if (!std::is_sorted(mMoments.begin(), mMoments.end(), isEarlier)) {
        std::sort(mMoments.begin(), mMoments.end(), isEarlier);
    }
    // The packets of the current sample, by sequence.
    std::map<uint32_t, uint64_t> rails;
    std::map<uint32_t, uint64_t> states;
    std::vector<int64_t>& samplesMs = recording->samplesMs;
    int64_t startMs = 0;
    for (const Moment& moment : mMoments) {
        const auto& shown = moment.isOfRails ? mRailSequences : mStateSequences;
        if (shown.count(moment.sequence) == 0) continue;
        auto& packets = moment.isOfRails ? rails : states;
        const auto packet = packets.emplace(moment.sequence, moment.packetOffset).first;
        const bool isNext = packet->second != moment.packetOffset;
        if (samplesMs.empty() || isNext || moment.timeMs - startMs >= kSampleSpanMs) {
            if (samplesMs.empty()) recording->firstMs = moment.timeMs;
            samplesMs.push_back(moment.timeMs);
            startMs = moment.timeMs;
            rails.clear();
            states.clear();
            packets[moment.sequence] = moment.packetOffset;
        }
        samplesMs.back() = moment.timeMs;
    }
}

}  // namespace

std::optional<Recording> Recording::read(const std::string& file, const WarningCallback& warn,
                                         std::string* error) {
    const std::unique_ptr<TraceFile> trace = TraceFile::open(file, error);
    if (trace == nullptr) return std::nullopt;
    Collector collector(*trace, warn, error);
    TraceFile::Packet packet;
    TraceFile::Next next;
    while ((next = trace->next(&packet, error)) == TraceFile::Next::kPacket) {
        if (!collector.add(packet)) return std::nullopt;
    }
    if (next == TraceFile::Next::kFailed) return std::nullopt;
    Recording recording;
    if (!collector.finish(packet.offset, &recording)) return std::nullopt;
    if (next == TraceFile::Next::kCutOff) {
        warn(trace->at(packet.offset, "the last packet is cut off (it is left out)"));
    }
    return recording;
}

}  // namespace powerstats
