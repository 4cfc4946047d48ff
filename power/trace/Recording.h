// SPDX-License-Identifier: Apache-2.0

#pragma once

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
    /// Totals at a time. Those of a rail are its microwatt-seconds, as a number of entries.
    struct Timed {
        nanoseconds time{};
        Residency totals = {};
    };
    /// At least one; times ascend.
    using Series = std::vector<Timed>;
    struct EntitySeries {
        /// The packets with residencies of the entity's sequence, which have no totals here.
        std::shared_ptr<const Series> packets;
        std::vector<Series> states;
    };

    /// In order of first appearance.
    std::shared_ptr<const Lists> lists;
    /// By position in the lists. The time of a residency is that of its packet.
    std::vector<Series> rails;
    std::vector<EntitySeries> entities;
    /// The time of each sample, ascending; at least one. A sample is what was read together:
    /// packets less than 100 ms apart, at most one of rails and one of residencies of a sequence.
    /// Its time is that of its latest reading.
    std::vector<nanoseconds> samples;
    /// The time of the earliest reading.
    nanoseconds first = nanoseconds::max();

    /// Reads a file. Memory is bounded by the power data in it: of gigabytes of packets of hundreds
    /// of other kinds it reads no more than the field headers. It holds one block of the file,
    /// because a mapped file that shrinks ends the process.
    /// @param warn [in] receives a line when the file is cut off, and one when a name is in two
    ///     sequences.
    /// @param error [out] one line, when there is no result: the file cannot be read, is no trace
    ///     or is damaged; it has no power data; a thing has no name, or two; a reading is from
    ///     before the one above it in the file, or its total is less; a number is too large.
    static std::optional<Recording> read(const std::string& file, const WarningCallback& warn,
                                         std::string* error);
};

}  // namespace powerstats
