// SPDX-License-Identifier: Apache-2.0

#include "power/trace/Recording.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/wire_format_lite.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <map>
#include <set>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "power/Ids.h"
#include "power/text/Names.h"
#include "power/trace/power_trace.pb.h"

namespace powerstats {

namespace {

using com::tavrel::android::ferrolith::powertrace::Trace;
using com::tavrel::android::ferrolith::powertrace::TracePacket;
using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;

/// Readings that are further apart belong to two samples. The common recorder takes a sample every
/// 100 ms at most.
constexpr std::chrono::milliseconds kSampleSpan{100};

/// Fewer reads cost less: a trace of 1 GB opens 4 % sooner than with a quarter of this, and no
/// sooner with twice as much (measured).
constexpr int kBlockSize = 1 << 20;
/// Thousands of rails take less, and a message in memory is many times its encoding.
constexpr uint64_t kMaxPowerPacketSize = 1 << 20;
constexpr uint64_t kMaxVarintSize = 10;

constexpr uint32_t kPacketTag =
    WireFormatLite::MakeTag(Trace::kPacketFieldNumber, WireFormatLite::WIRETYPE_LENGTH_DELIMITED);

constexpr uint32_t bytesTag(int field) {
    return WireFormatLite::MakeTag(field, WireFormatLite::WIRETYPE_LENGTH_DELIMITED);
}

constexpr uint32_t numberTag(int field) {
    return WireFormatLite::MakeTag(field, WireFormatLite::WIRETYPE_VARINT);
}

/// Reads the power data of a packet, and skips its other fields.
/// @return false when the packet is damaged.
bool readFields(CodedInputStream* stream, uint64_t size, TracePacket* packet) {
    // Protobuf has no larger messages.
    constexpr uint64_t kMaxSize = std::numeric_limits<int>::max();
    if (size > kMaxSize - static_cast<uint64_t>(stream->CurrentPosition())) return false;
    stream->PushLimit(static_cast<int>(size));
    // Read whole, because protobuf cuts a message that is longer than its packet.
    std::string bytes;
    while (const uint32_t tag = stream->ReadTag()) {
        uint64_t number = 0;
        bool isRead = size <= kMaxPowerPacketSize;
        switch (tag) {
            case bytesTag(TracePacket::kPowerRailsFieldNumber):
                isRead = isRead && WireFormatLite::ReadBytes(stream, &bytes) &&
                         packet->mutable_power_rails()->MergeFromString(bytes);
                break;
            case bytesTag(TracePacket::kEntityStateResidencyFieldNumber):
                isRead = isRead && WireFormatLite::ReadBytes(stream, &bytes) &&
                         packet->mutable_entity_state_residency()->MergeFromString(bytes);
                break;
            case numberTag(TracePacket::kTimestampFieldNumber):
                isRead = stream->ReadVarint64(&number);
                packet->set_timestamp(number);
                break;
            case numberTag(TracePacket::kTrustedPacketSequenceIdFieldNumber):
                isRead = stream->ReadVarint64(&number);
                packet->set_trusted_packet_sequence_id(static_cast<uint32_t>(number));
                break;
            default:
                isRead = WireFormatLite::SkipField(stream, tag);
        }
        if (!isRead) return false;
    }
    return stream->ConsumedEntireMessage();
}

enum Kind { kRail, kEntity, kState };
constexpr const char* kKinds[] = {"rail", "entity", "state"};

/// A rail, an entity or a state, as a packet sequence tells of it.
struct Thing {
    Kind kind;
    uint32_t sequence;
    int64_t index;
    /// Of the packet that first tells of it.
    uint64_t offset;
    /// Empty until a packet tells.
    std::string name = {};
    std::string subsystem = {};
    Recording::Series readings = {};
    /// The places of an entity's states. A rail has itself.
    std::vector<size_t> states = {};
};

/// Negative for a number that does not fit.
nanoseconds toTime(uint64_t milliseconds) {
    const nanoseconds time = fromMilliseconds(static_cast<int64_t>(milliseconds));
    return time == nanoseconds::max() ? nanoseconds::min() : time;
}

/// Gives each thing an id in place of its recorded index.
template <typename Listed>
void setIds(std::vector<Listed>* things) {
    const auto ids = distinctNumbers(*things);
    for (size_t i = 0; i < ids.size(); ++i) (*things)[i].id = ids[i];
}

/// Collects the power data of a file packet by packet, until there is an error.
class Collector {
  public:
    Collector(const std::string& file, const WarningCallback& warn, std::string* error)
        : mFile(file), mWarn(warn), mError(error) {
        mError->clear();
    }

    /// Reads the whole file, whose descriptor it closes.
    bool read(int descriptor, uint64_t fileSize) {
        google::protobuf::io::FileInputStream input(descriptor, kBlockSize);
        input.SetCloseOnDelete(true);
        const auto refuse = [&](const std::string& text) {
            const int problem = input.GetErrno();
            fail(mOffset, problem == 0 ? text
                                       : std::generic_category().message(problem) +
                                             " (copy it to another disk)");
            return false;
        };
        TracePacket packet;
        while (mOffset < fileSize) {
            packet.Clear();
            const uint64_t available = fileSize - mOffset;
            CodedInputStream stream(&input);
            uint64_t size = 0;
            const bool isPacket = stream.ReadTag() == kPacketTag;
            const bool isSized = isPacket && stream.ReadVarint64(&size);
            const auto headerSize = static_cast<uint64_t>(stream.CurrentPosition());
            if (!isPacket || (!isSized && available > kMaxVarintSize)) {
                return refuse("not a packet of a trace (give an uncompressed protobuf trace)");
            }
            if (!isSized || size > available - headerSize) {
                mWarn(at(mOffset, "the last packet is cut off (it is left out)"));
                break;
            }
            if (!readFields(&stream, size, &packet)) {
                return refuse(
                    "a malformed packet, or one of more than 1 MiB with power data (the file is "
                    "damaged: copy or record it again)");
            }
            if (!add(packet)) return false;
            mOffset += headerSize + size;
        }
        return true;
    }

    bool finish(Recording* recording) {
        std::vector<Rail> rails;
        std::vector<Entity> entities;
        std::map<std::pair<Kind, std::string>, uint32_t> sequences;
        std::map<PacketKind, std::shared_ptr<Recording::Series>> packets;
        bool hasTwins = false;
        for (const Thing& thing : mThings) {
            std::vector<State> states;
            std::vector<Recording::Series> readings;
            for (const size_t place : thing.states) {
                Thing& state = mThings[place];
                if (state.readings.empty()) continue;
                checkName(state);
                checkName(thing);
                states.push_back({state.index, state.name});
                readings.push_back(std::move(state.readings));
            }
            if (readings.empty()) continue;
            const uint32_t first =
                sequences.emplace(std::pair(thing.kind, thing.name), thing.sequence).first->second;
            if (first != thing.sequence) {
                if (!std::exchange(hasTwins, true)) {
                    mWarn(at(thing.offset,
                             fmt::format("packet sequences {} and {} both have {} (of such names "
                                         "only the first sequence's is shown; record one service "
                                         "at a time)",
                                         first, thing.sequence, safeName(thing.name))));
                }
                continue;
            }
            for (const auto& series : readings) {
                recording->first = std::min(recording->first, series.front().time);
            }
            auto& ofSequence = packets[{thing.kind, thing.sequence}];
            if (ofSequence == nullptr) ofSequence = std::make_shared<Recording::Series>();
            if (thing.kind == kRail) {
                rails.push_back({thing.index, thing.name, thing.subsystem});
                recording->rails.push_back(std::move(readings.front()));
                continue;
            }
            setIds(&states);
            entities.push_back({thing.index, thing.name, EntityType::kDevice, std::move(states)});
            recording->entities.push_back({ofSequence, std::move(readings)});
        }
        if (mPackets.empty())
            fail(mOffset, "no power data up to here (record rails or power entities)");
        if (!mError->empty()) return false;
        setIds(&rails);
        setIds(&entities);
        recording->lists = nameLists(std::move(rails), std::move(entities), true);

        std::sort(mPackets.begin(), mPackets.end());
        std::vector<nanoseconds>& samples = recording->samples;
        std::set<PacketKind> sample;
        nanoseconds start{};
        for (const auto& [time, kind] : mPackets) {
            const auto shown = packets.find(kind);
            if (shown == packets.end()) continue;
            shown->second->push_back({time});
            if (samples.empty() || (!sample.insert(kind).second && time != samples.back()) ||
                time - start >= kSampleSpan) {
                samples.push_back(time);
                start = time;
                sample = {kind};
            }
            samples.back() = time;
        }
        return true;
    }

  private:
    /// Of packets, by whether they have rails or entities, and their sequence.
    using PacketKind = std::pair<Kind, uint32_t>;

    std::string at(uint64_t offset, const std::string& text) const {
        return fmt::format("{}: at byte {}: {}", mFile, offset, text);
    }

    /// Keeps the first error.
    void fail(uint64_t offset, const std::string& text) {
        if (mError->empty()) *mError = at(offset, text);
    }

    static std::string describe(const Thing& thing) {
        const std::string name = thing.name.empty() ? "" : " (" + safeName(thing.name) + ")";
        return fmt::format("{} {}{} of packet sequence {}", kKinds[thing.kind], thing.index, name,
                           thing.sequence);
    }

    /// @param owner [in] a sequence, or the place of a state's entity.
    /// @return the place of the thing.
    size_t find(Kind kind, size_t owner, int64_t index) {
        const uint64_t key = uint64_t{owner} << 32 | static_cast<uint32_t>(index);
        const auto [found, isNew] = mPlaces[kind].try_emplace(key, mThings.size());
        const size_t place = found->second;
        if (isNew) {
            mThings.push_back({kind, mSequence, index, mOffset});
            if (kind != kEntity) mThings[kind == kRail ? place : owner].states.push_back(place);
        }
        return place;
    }

    void setName(size_t place, const std::string& name) {
        Thing& thing = mThings[place];
        if (!thing.name.empty() && name != thing.name) {
            fail(mOffset, describe(thing) + " is also called " + safeName(name) +
                              " (the file is damaged: record it again)");
        }
        thing.name = name;
    }

    void checkName(const Thing& thing) {
        if (!thing.name.empty()) return;
        fail(thing.offset, describe(thing) +
                               " has no name (names are in the first packet of a sequence: record "
                               "from the start)");
    }

    void append(size_t place, nanoseconds time, const Residency& totals) {
        Thing& thing = mThings[place];
        if (time < nanoseconds::zero() || totals.isLessThan({})) {
            fail(mOffset, describe(thing) +
                              " has a value above 2^63 - 1, or a time above 292 years (check the "
                              "service that it was recorded from)");
        }
        if (!thing.readings.empty()) {
            const Recording::Timed& before = thing.readings.back();
            const bool isEarlier = time < before.time;
            if (isEarlier || totals.isLessThan(before.totals)) {
                fail(mOffset, std::string(isEarlier ? "the time" : "a total") + " of " +
                                  describe(thing) +
                                  " goes backwards (record again, without a restart of the "
                                  "service)");
            }
            // Of several readings at one time the last one counts.
            if (time == before.time) thing.readings.pop_back();
        }
        thing.readings.push_back({time, totals});
    }

    bool add(const TracePacket& packet) {
        mSequence = packet.trusted_packet_sequence_id();
        const nanoseconds time(static_cast<int64_t>(packet.timestamp()));
        for (const auto& names : packet.power_rails().rail_descriptor()) {
            const size_t rail = find(kRail, mSequence, names.index());
            setName(rail, names.rail_name());
            mThings[rail].subsystem = names.subsys_name();
        }
        nanoseconds latest{};
        for (const auto& energy : packet.power_rails().energy_data()) {
            const nanoseconds read =
                energy.has_timestamp_ms() ? toTime(energy.timestamp_ms()) : time;
            append(find(kRail, mSequence, energy.index()), read,
                   {{}, static_cast<int64_t>(energy.energy()), {}});
            latest = std::max(latest, read);
        }
        if (packet.power_rails().energy_data_size() != 0) {
            mPackets.push_back({latest, {kRail, mSequence}});
        }
        const auto& states = packet.entity_state_residency();
        for (const auto& names : states.power_entity_state()) {
            const size_t entity = find(kEntity, mSequence, names.entity_index());
            setName(entity, names.entity_name());
            setName(find(kState, entity, names.state_index()), names.state_name());
        }
        for (const auto& residency : states.residency()) {
            const size_t entity = find(kEntity, mSequence, residency.entity_index());
            // A huge number is no time, so the time is not known.
            append(find(kState, entity, residency.state_index()), time,
                   {toTime(residency.total_time_in_state_ms()),
                    static_cast<int64_t>(residency.total_state_entry_count()),
                    std::max(toTime(residency.last_entry_timestamp_ms()), nanoseconds::zero())});
        }
        if (states.residency_size() != 0) mPackets.push_back({time, {kEntity, mSequence}});
        return mError->empty();
    }

    const std::string& mFile;
    const WarningCallback& mWarn;
    std::string* const mError;
    /// Of the packet that is being added.
    uint64_t mOffset = 0;
    uint32_t mSequence = 0;

    /// In order of first appearance.
    std::vector<Thing> mThings;
    /// By kind; by sequence and index, of a state by its entity's place and its index.
    std::unordered_map<uint64_t, size_t> mPlaces[3];
    /// Packets with readings, and the time of their latest one.
    std::vector<std::pair<nanoseconds, PacketKind>> mPackets;
};

}  // namespace

std::optional<Recording> Recording::read(const std::string& file, const WarningCallback& warn,
                                         std::string* error) {
    std::error_code problem;
    const uint64_t fileSize = std::filesystem::file_size(file, problem);
    // Opening a pipe, put in the place of the file, would wait for its writer.
    const int descriptor =
        problem ? -1 : open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0) {
        if (!problem) problem.assign(errno, std::generic_category());
        *error = file + ": " + problem.message() + " (name a trace, a file that you may read)";
        return std::nullopt;
    }
    Collector collector(file, warn, error);
    Recording recording;
    if (!collector.read(descriptor, fileSize) || !collector.finish(&recording)) return std::nullopt;
    return recording;
}

}  // namespace powerstats
