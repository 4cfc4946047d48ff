// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hal/Counters.h"
#include "hal/Sysfs.h"

namespace powerstats {

/// The power data of a trace, such as `powerstats record` or a phone's standard recorder writes.
///
/// A rail, an entity or a state has its recorded index as id. An index belongs to the packet
/// sequence of its writer, so one that is not free, and one that does not fit an int32_t or is
/// negative, gets another number. A name that two sequences have is that of the first. Rails and
/// states that have a name and no reading are left out.
struct Recording {
    struct Energy {
        int64_t timestampMs = 0;
        int64_t energyUWs = 0;
    };
    struct StateTime {
        /// That of the packet.
        int64_t timestampMs = 0;
        Residency residency;
    };

    /// In order of first appearance. Names are the file's own bytes.
    std::vector<Rail> rails;
    std::vector<Entity> entities;
    /// The readings of each rail, and of each state of each entity; at least one. Times ascend.
    std::vector<std::vector<Energy>> energies;
    std::vector<std::vector<std::vector<StateTime>>> stateTimes;
    /// The time of each sample, ascending; at least one. A sample is what was read together:
    /// packets less than 100 ms apart, at most one of rails and one of residencies of a sequence.
    /// Its time is that of its latest reading.
    std::vector<int64_t> samplesMs;
    /// The time of the earliest reading.
    int64_t firstMs = 0;

    /// Reads a file. Memory is bounded by the power data in it.
    /// @param warn [in] receives a line when the file is cut off, and one when a name is in two
    ///     sequences.
    /// @param error [out] one line, when there is no result: the file cannot be read, is no trace
    /// or
    ///     is damaged; it has no power data; a thing has no name, or two; a reading is from before
    ///     the one above it in the file, or its total is less.
    static std::optional<Recording> read(const std::string& file, const WarningCallback& warn,
                                         std::string* error);
};

}  // namespace powerstats
