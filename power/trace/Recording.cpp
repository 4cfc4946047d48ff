// SPDX-License-Identifier: Apache-2.0

#include "power/trace/Recording.h"

#include <algorithm>
#include <limits>
#include <set>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "power/Ids.h"
#include "power/text/Names.h"
#include "power/trace/TraceFile.h"

namespace powerstats {

namespace {

using com::tavrel::android::ferrolith::powertrace::EntityStateResidency;
using com::tavrel::android::ferrolith::powertrace::PowerRails;
using com::tavrel::android::ferrolith::powertrace::TracePacket;

/// Readings that are further apart belong to two samples. The common recorder takes a sample every
/// 100 ms at most.
constexpr std::chrono::milliseconds kSampleSpan{100};

/// A rail, an entity or a state, as a packet sequence tells of it.
struct Thing {
    uint32_t sequence = 0;
    int64_t index = 0;
    /// Of the packet that first tells of it.
    uint64_t offset = 0;
    /// Empty until a packet tells.
    std::string name = {};
};

struct RecordedRail : Thing {
    std::string subsystem = {};
    Recording::Energies readings = {};
};

struct RecordedState : Thing {
    Recording::Stays readings = {};
};

struct RecordedEntity : Thing {
    /// Places in the list of all states.
    std::vector<size_t> states = {};
};

/// A time at which a packet has readings.
struct Moment {
    nanoseconds time;
    uint64_t packetOffset;
    uint32_t sequence;
    bool isOfRails;
};

/// The places of things in a list, in order of first appearance.
using Places = std::unordered_map<uint64_t, size_t>;

/// Whether a total is less than before, which never happens within a recording.
bool isLess(int64_t energyUWs, int64_t before) {
    return energyUWs < before;
}
bool isLess(const Residency& residency, const Residency& before) {
    return residency.isLessThan(before);
}

/// Negative for a number that does not fit.
nanoseconds toTime(uint64_t milliseconds) {
    const nanoseconds time = fromMilliseconds(static_cast<int64_t>(milliseconds));
    return time == nanoseconds::max() ? nanoseconds::min() : time;
}

/// Gives each thing an id from its recorded index.
template <typename Listed>
void setIds(std::vector<Listed>* things) {
    const auto ids = distinctNumbers(*things);
    for (size_t i = 0; i < ids.size(); ++i) (*things)[i].id = ids[i];
}

/// Collects the power data of a file packet by packet. A function that returns false has set the
/// error.
class Collector {
  public:
    Collector(const std::string& file, const WarningCallback& warn, std::string* error)
        : mFile(file), mWarn(warn), mError(error) {}

    bool add(uint64_t offset, const TracePacket& packet) {
        mOffset = offset;
        mSequence = packet.trusted_packet_sequence_id();
        const nanoseconds time(static_cast<int64_t>(packet.timestamp()));
        return addRails(packet.power_rails(), time) &&
               addResidencies(packet.entity_state_residency(), time);
    }

    bool finish(uint64_t fileSize, Recording* recording) {
        if (mMoments.empty()) {
            return fail(fileSize, "no power data up to here (record rails or power entities)");
        }
        std::vector<Rail> rails;
        std::vector<Entity> entities;
        if (!finishRails(recording, &rails) || !finishEntities(recording, &entities)) return false;
        recording->lists = nameLists(std::move(rails), std::move(entities), true);
        if (mTwins != 0) {
            mWarn(mFirstTwin +
                  (mTwins == 1 ? "" : ", the first of " + std::to_string(mTwins) + " such names") +
                  " (only the first sequence's is shown; record one service at a time)");
        }
        findSamples(recording);
        return true;
    }

  private:
    bool fail(uint64_t offset, const std::string& text) const {
        *mError = atByte(mFile, offset, text);
        return false;
    }

    static std::string describe(const Thing& thing, const char* kind) {
        const std::string name = thing.name.empty() ? "" : " (" + safeName(thing.name) + ")";
        return std::string(kind) + " " + std::to_string(thing.index) + name +
               " of packet sequence " + std::to_string(thing.sequence);
    }

    template <typename Recorded>
    Recorded* findOrAdd(std::vector<Recorded>* things, Places* places, uint32_t owner,
                        int64_t index) const {
        const uint64_t key = uint64_t{owner} << 32 | static_cast<uint32_t>(index);
        const size_t place = places->try_emplace(key, things->size()).first->second;
        if (place == things->size()) things->push_back({{mSequence, index, mOffset}});
        return &(*things)[place];
    }

    RecordedRail* rail(uint32_t index) {
        return findOrAdd(&mRails, &mRailPlaces, mSequence, index);
    }

    RecordedEntity* entity(int32_t index) {
        return findOrAdd(&mEntities, &mEntityPlaces, mSequence, index);
    }

    RecordedState* state(int32_t entityIndex, int32_t index) {
        RecordedEntity* const owner = entity(entityIndex);
        const auto entityPlace = static_cast<uint32_t>(owner - mEntities.data());
        const size_t count = mStates.size();
        RecordedState* const found = findOrAdd(&mStates, &mStatePlaces, entityPlace, index);
        if (mStates.size() > count) owner->states.push_back(count);
        return found;
    }

    bool setName(Thing* thing, const char* kind, const std::string& name) const {
        if (!thing->name.empty() && name != thing->name) {
            return fail(mOffset, describe(*thing, kind) + " is also called " + safeName(name) +
                                     " (the file is damaged: record it again)");
        }
        thing->name = name;
        return true;
    }

    template <typename Recorded, typename Value>
    bool append(Recorded* thing, const char* kind, nanoseconds time, const Value& value) {
        if (time < nanoseconds::zero() || isLess(value, {})) {
            return fail(mOffset,
                        describe(*thing, kind) +
                            " has a value above 2^63 - 1, or a time above 292 years (check "
                            "the service that it was recorded from)");
        }
        auto& readings = thing->readings;
        if (!readings.empty()) {
            const bool isEarlier = time < readings.back().time;
            if (isEarlier || isLess(value, readings.back().value)) {
                return fail(mOffset, std::string(isEarlier ? "the time" : "a total") + " of " +
                                         describe(*thing, kind) +
                                         " goes backwards (record again, without a restart of the "
                                         "service)");
            }
            // Of several readings at one time the last one counts.
            if (time == readings.back().time) {
                readings.back().value = value;
                return true;
            }
        }
        readings.push_back({time, value});
        constexpr bool kIsOfRails = std::is_same_v<Recorded, RecordedRail>;
        if (mMoments.empty() || mMoments.back().time != time ||
            mMoments.back().packetOffset != mOffset || mMoments.back().isOfRails != kIsOfRails) {
            mMoments.push_back({time, mOffset, mSequence, kIsOfRails});
        }
        return true;
    }

    bool addRails(const PowerRails& packet, nanoseconds time) {
        for (const auto& descriptor : packet.rail_descriptor()) {
            RecordedRail* named = rail(descriptor.index());
            if (!setName(named, "rail", descriptor.rail_name())) return false;
            named->subsystem = descriptor.subsys_name();
        }
        return std::all_of(
            packet.energy_data().begin(), packet.energy_data().end(), [&](const auto& energy) {
                return append(rail(energy.index()), "rail",
                              energy.has_timestamp_ms() ? toTime(energy.timestamp_ms()) : time,
                              static_cast<int64_t>(energy.energy()));
            });
    }

    bool addResidencies(const EntityStateResidency& packet, nanoseconds time) {
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
                const nanoseconds lastEntry =
                    std::max(toTime(residency.last_entry_timestamp_ms()), nanoseconds::zero());
                return append(state(residency.entity_index(), residency.state_index()), "state",
                              time,
                              Residency{toTime(residency.total_time_in_state_ms()),
                                        static_cast<int64_t>(residency.total_state_entry_count()),
                                        lastEntry});
            });
    }

    /// Whether a rail or an entity is the first with its name. Within a sequence names may repeat.
    bool serves(const Thing& thing, std::map<std::string, uint32_t>* sequences) {
        const auto first = sequences->emplace(thing.name, thing.sequence).first;
        if (first->second == thing.sequence) return true;
        if (mTwins++ == 0) {
            mFirstTwin =
                atByte(mFile, thing.offset,
                       "packet sequences " + std::to_string(first->second) + " and " +
                           std::to_string(thing.sequence) + " both have " + safeName(thing.name));
        }
        return false;
    }

    bool checkName(const Thing& thing, const char* kind) const {
        return !thing.name.empty() ||
               fail(thing.offset, describe(thing, kind) +
                                      " has no name (names are in the first packet of a sequence: "
                                      "record from the start)");
    }

    bool finishRails(Recording* recording, std::vector<Rail>* rails) {
        std::map<std::string, uint32_t> sequences;
        for (RecordedRail& rail : mRails) {
            if (rail.readings.empty()) continue;
            if (!checkName(rail, "rail")) return false;
            if (!serves(rail, &sequences)) continue;
            mRailSequences.insert(rail.sequence);
            rails->push_back({rail.index, std::move(rail.name), std::move(rail.subsystem)});
            recording->energies.push_back(std::move(rail.readings));
        }
        setIds(rails);
        return true;
    }

    bool finishEntities(Recording* recording, std::vector<Entity>* entities) {
        std::map<std::string, uint32_t> sequences;
        for (const RecordedEntity& entity : mEntities) {
            Entity shown{entity.index, entity.name};
            std::vector<Recording::Stays> stays;
            for (const size_t place : entity.states) {
                RecordedState& state = mStates[place];
                if (state.readings.empty()) continue;
                if (!checkName(state, "state") || !checkName(entity, "entity")) return false;
                shown.states.push_back({state.index, std::move(state.name)});
                stays.push_back(std::move(state.readings));
            }
            if (shown.states.empty() || !serves(entity, &sequences)) continue;
            setIds(&shown.states);
            entities->push_back(std::move(shown));
            recording->stays.push_back(std::move(stays));
            recording->sequences.push_back(entity.sequence);
            recording->packets[entity.sequence];
        }
        setIds(entities);
        return true;
    }

    void findSamples(Recording* recording) {
        std::stable_sort(mMoments.begin(), mMoments.end(),
                         [](const Moment& a, const Moment& b) { return a.time < b.time; });
        // The packets of the current sample, by kind and sequence.
        std::map<std::pair<bool, uint32_t>, uint64_t> sample;
        std::vector<nanoseconds>& samples = recording->samples;
        nanoseconds start{};
        for (const Moment& moment : mMoments) {
            const auto packets = recording->packets.find(moment.sequence);
            if (moment.isOfRails ? mRailSequences.count(moment.sequence) == 0
                                 : packets == recording->packets.end()) {
                continue;
            }
            if (!moment.isOfRails) packets->second.push_back(moment.time);
            const std::pair key(moment.isOfRails, moment.sequence);
            const bool isNext =
                sample.emplace(key, moment.packetOffset).first->second != moment.packetOffset;
            if (samples.empty()) recording->first = moment.time;
            if (samples.empty() || (isNext && moment.time != samples.back()) ||
                moment.time - start >= kSampleSpan) {
                samples.push_back(moment.time);
                start = moment.time;
                sample = {{key, moment.packetOffset}};
            }
            samples.back() = moment.time;
        }
    }

    const std::string& mFile;
    const WarningCallback& mWarn;
    std::string* const mError;
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
    /// The sequences with rails that are shown.
    std::set<uint32_t> mRailSequences;
    std::string mFirstTwin;
    size_t mTwins = 0;
};

}  // namespace

std::optional<Recording> Recording::read(const std::string& file, const WarningCallback& warn,
                                         std::string* error) {
    Collector collector(file, warn, error);
    const TraceEnd end = readTrace(
        file,
        [&](uint64_t offset, const TracePacket& packet) { return collector.add(offset, packet); },
        error);
    Recording recording;
    if (!end.isReached || !collector.finish(end.offset, &recording)) return std::nullopt;
    if (end.isCutOff) {
        warn(atByte(file, end.offset, "the last packet is cut off (it is left out)"));
    }
    return recording;
}

}  // namespace powerstats
