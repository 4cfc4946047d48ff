// SPDX-License-Identifier: Apache-2.0

#include "power/trace/TraceWriter.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <google/protobuf/arena.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <type_traits>
#include <utility>

#include "power/Ids.h"
#include "power/trace/power_trace.pb.h"

namespace powerstats {

using com::tavrel::android::ferrolith::powertrace::Trace;
using com::tavrel::android::ferrolith::powertrace::TracePacket;

namespace {

uint64_t toNumber(int64_t count) {
    return static_cast<uint64_t>(std::max<int64_t>(count, 0));
}

uint64_t toNumber(nanoseconds time) {
    return toNumber(toMilliseconds(time));
}

std::vector<State> statesOf(const Rail& /*rail*/) {
    return {};
}

const std::vector<State>& statesOf(const Entity& entity) {
    return entity.states;
}

bool isNegative(const Residencies& totals) {
    return std::any_of(totals.states.begin(), totals.states.end(),
                       [](const Residency& state) { return state.isLessThan({}); });
}

bool isReset(const Residencies& before, const Residencies& after) {
    const auto keeps = [](const Residency& a, const Residency& b) { return !b.isLessThan(a); };
    return !before.states.empty() &&
           (after.resets != before.resets ||
            !std::equal(before.states.begin(), before.states.end(), after.states.begin(), keeps));
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

TraceWriter::~TraceWriter() {
    close(mDescriptor);
}

bool TraceWriter::write(const Reading& reading, std::string* error) {
    if (reading.time < mTime) return true;
    mTime = reading.time;
    if (reading.lists != mLists) {
        mLists = reading.lists;
        mRails = findSlots(mLists->rails);
        mEntities = findSlots(mLists->entities);
    }
    // A sample has hundreds of small messages, which are released together.
    google::protobuf::Arena arena;
    auto* const sample = google::protobuf::Arena::CreateMessage<Trace>(&arena);
    add(mLists->rails, mRails, reading.rails, sample);
    add(mLists->entities, mEntities, reading.entities, sample);
    const std::string bytes = sample->SerializeAsString();
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

template <typename Thing>
std::vector<TraceWriter::Slot> TraceWriter::findSlots(const std::vector<Thing>& things) {
    const std::vector<int64_t> indices = distinctNumbers(things);
    std::vector<Slot> slots;
    for (size_t i = 0; i < things.size(); ++i) {
        const std::vector<State>& states = statesOf(things[i]);
        // Names have no control characters, so no two things have the same key.
        std::string key =
            fmt::format("{} {} {}", std::is_same_v<Thing, Rail>, things[i].id, things[i].name);
        for (const State& state : states) key += fmt::format("\n{} {}", state.id, state.name);
        slots.push_back({&mSeries[key], indices[i], distinctNumbers(states)});
    }
    return slots;
}

/// Adds the packets with the names of things that begin a sequence, and with the figures.
template <typename Thing, typename Figures>
void TraceWriter::add(const std::vector<Thing>& things, const std::vector<Slot>& slots,
                      const std::vector<std::optional<Figures>>& figures, Trace* sample) {
    constexpr bool kIsRail = std::is_same_v<Thing, Rail>;
    const uint32_t next = mSequence + 1;
    std::map<uint32_t, TracePacket*> packets;
    const auto packetOf = [&](uint32_t sequence) {
        TracePacket*& packet = packets[sequence];
        if (packet == nullptr) {
            packet = sample->add_packet();
            packet->set_timestamp(static_cast<uint64_t>(mTime.count()));
            packet->set_trusted_packet_sequence_id(sequence);
            mSequence = std::max(mSequence, sequence);
        }
        return packet;
    };
    for (size_t i = 0; i < things.size(); ++i) {
        const auto& [series, index, stateIndices] = slots[i];
        std::optional<Residencies> totals;
        if constexpr (kIsRail) {
            const std::optional<Energy>& energy = figures[i];
            if (energy) totals = {energy->time, energy->resets, {{{}, energy->energyUWs, {}}}};
        } else {
            totals = figures[i];
        }
        if (totals && isNegative(*totals)) totals.reset();
        if (series->sequence == 0 || (totals && isReset(series->last, *totals))) {
            *series = {next, index};
            if constexpr (kIsRail) {
                auto* const names = packetOf(next)->mutable_power_rails()->add_rail_descriptor();
                names->set_index(static_cast<uint32_t>(index));
                names->set_rail_name(things[i].name);
                names->set_subsys_name(things[i].subsystem);
            }
            for (size_t state = 0; state < stateIndices.size(); ++state) {
                auto* const names =
                    packetOf(next)->mutable_entity_state_residency()->add_power_entity_state();
                names->set_entity_index(static_cast<int32_t>(index));
                names->set_state_index(static_cast<int32_t>(stateIndices[state]));
                names->set_entity_name(things[i].name);
                names->set_state_name(statesOf(things[i])[state].name);
            }
        }
        if (!totals || totals->time <= series->last.time) continue;
        series->last = *std::move(totals);
        if constexpr (kIsRail) {
            auto* const data = packetOf(series->sequence)->mutable_power_rails()->add_energy_data();
            data->set_index(static_cast<uint32_t>(series->index));
            data->set_timestamp_ms(toNumber(figures[i]->time));
            data->set_energy(toNumber(figures[i]->energyUWs));
        }
        for (size_t state = 0; state < stateIndices.size(); ++state) {
            const Residency& residency = series->last.states[state];
            auto* const data =
                packetOf(series->sequence)->mutable_entity_state_residency()->add_residency();
            data->set_entity_index(static_cast<int32_t>(series->index));
            data->set_state_index(static_cast<int32_t>(stateIndices[state]));
            data->set_total_time_in_state_ms(toNumber(residency.totalTime));
            data->set_total_state_entry_count(toNumber(residency.entryCount));
            data->set_last_entry_timestamp_ms(toNumber(residency.lastEntry));
        }
    }
}

}  // namespace powerstats
