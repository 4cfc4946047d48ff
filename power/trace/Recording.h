// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "power/Source.h"

namespace powerstats {

/// The power data of a trace, such as `powerstats record` or a phone's standard recorder writes.
///
/// A rail, an entity or a state has its recorded index as id. An index belongs to the packet
/// sequence of its writer, so one that is not free, and one that does not fit an int32_t or is
/// negative, gets another number. A name that two sequences have is that of the first. Rails and
/// states that have a name and no reading are left out.
struct Recording {
    template <typename Value>
    struct Timed {
        nanoseconds time{};
        Value value{};

        friend bool operator<(nanoseconds time, const Timed& reading) {
            return time < reading.time;
        }
    };
    /// In microwatt-seconds.
    using Energies = std::vector<Timed<int64_t>>;
    /// Of one state. The time is that of the packet.
    using Stays = std::vector<Timed<Residency>>;

    /// In order of first appearance.
    std::shared_ptr<const Lists> lists;
    /// The readings of each rail, and of each state of each entity; at least one. Times ascend.
    std::vector<Energies> energies;
    std::vector<std::vector<Stays>> stays;
    /// The packet sequence of each entity, and the times of each sequence's packets with
    /// residencies, ascending.
    std::vector<uint32_t> sequences;
    std::map<uint32_t, std::vector<nanoseconds>> packets;
    /// The time of each sample, ascending; at least one. A sample is what was read together:
    /// packets less than 100 ms apart, at most one of rails and one of residencies of a sequence.
    /// Its time is that of its latest reading.
    std::vector<nanoseconds> samples;
    /// The time of the earliest reading.
    nanoseconds first{};

    /// Reads a file. Memory is bounded by the power data in it.
    /// @param warn [in] receives a line when the file is cut off, and one when a name is in two
    ///     sequences.
    /// @param error [out] one line, when there is no result: the file cannot be read, is no trace
    ///     or is damaged; it has no power data; a thing has no name, or two; a reading is from
    ///     before the one above it in the file, or its total is less; a number is too large.
    static std::optional<Recording> read(const std::string& file, const WarningCallback& warn,
                                         std::string* error);
};

}  // namespace powerstats
