// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "proto/power_trace.pb.h"
#include "tools/Interval.h"
#include "tools/Snapshot.h"

namespace powerstats {

/// Writes snapshots as a protobuf trace, which trace viewers open and Recording reads.
///
/// A sample is the readings as they are and, for viewers, counters: the average power of each rail
/// in milliwatts and the share of each state in percent. A viewer draws a counter's value up to the
/// next one, so the value has the time at which its interval began.
///
/// A rail or entity keeps its id as its index, or gets a free number when that does not fit. The
/// format allows names only at the start of a packet sequence. So things that come later, or whose
/// totals started again at a lower value, begin a sequence of their own. Names are safe
/// (safeName()); a thing without a name is named by its id.
class TraceWriter {
  public:
    /// Creates the file, for its owner only (mode 0600). Refuses a path that exists, whether a file
    /// or a link, so it never changes a file that somebody put there.
    /// @param error [out] one line, when the result is null.
    static std::unique_ptr<TraceWriter> create(const std::string& path, std::string* error);
    ~TraceWriter();
    TraceWriter(const TraceWriter&) = delete;
    TraceWriter& operator=(const TraceWriter&) = delete;

    /// Appends a sample with one write(), so that the file of a program that was killed ends with a
    /// whole sample. Leaves out readings that the format cannot carry: negative values, and those
    /// with an earlier time than the rail's or the entities' last ones.
    /// @param since [in] the interval from the snapshot before; null for the first one, which then
    ///     has no counters.
    /// @param error [out] one line, when the result is false: the file has all samples up to this
    ///     one, and nothing more may be written.
    bool write(const Snapshot& snapshot, const Interval* since, std::string* error);

  private:
    using Trace = com::tavrel::android::ferrolith::powertrace::Trace;
    using TracePacket = com::tavrel::android::ferrolith::powertrace::TracePacket;
    using Name = std::pair<int64_t, std::string>;

    struct RailSeries {
        uint32_t sequence = 0;
        uint32_t index = 0;
        Snapshot::Energy last;
    };
    struct EntitySeries {
        uint32_t sequence = 0;
        int32_t index = 0;
        std::vector<int32_t> stateIndices;
        std::vector<Snapshot::Residency> last;
    };

    TraceWriter(std::string path, int descriptor);
    /// Packets of one sample with readings of one kind, by sequence.
    struct Packets {
        Trace* const trace;
        std::map<uint32_t, TracePacket*> bySequence;

        /// The packet of a sequence, added to the trace when it is new.
        TracePacket* of(uint32_t sequence);
    };
    std::vector<RailSeries*> nameRails(const Snapshot& snapshot, Packets* packets);
    std::vector<EntitySeries*> nameEntities(const Snapshot& snapshot, Packets* packets);
    void addRails(const Snapshot& snapshot, const std::vector<RailSeries*>& all, Packets* packets);
    void addEntities(const Snapshot& snapshot, const std::vector<EntitySeries*>& all,
                     Packets* packets);
    void addCounters(const Interval& interval, Trace* trace);
    void addCounter(uint64_t track, int64_t timestampMs, double value, Trace* trace);
    /// The uuid of the parent, or 0, and the id and name of the thing.
    using TrackKey = std::tuple<uint64_t, int64_t, std::string>;
    using TrackView = std::tuple<uint64_t, int64_t, std::string_view>;
    uint64_t findTrack(const TrackView& key, const char* unit, Trace* trace);
    bool append(const std::string& bytes, std::string* error);

    static Name keyOf(const Snapshot::Rail& rail) { return {rail.id, rail.name}; }
    using EntityKey = std::pair<Name, std::vector<Name>>;
    static EntityKey keyOf(const Snapshot::Entity& entity);

    const std::string mPath;
    const int mDescriptor;
    int64_t mSize = 0;
    /// The latest sequence in use.
    uint32_t mSequence;
    std::map<Name, RailSeries> mRails;
    std::map<EntityKey, EntitySeries> mEntities;
    int64_t mResidenciesMs = 0;
    /// Their uuids, which count from 1.
    std::map<TrackKey, uint64_t, std::less<>> mTracks;
    /// The keys by uuid, and the uuid of the track found last.
    std::vector<const TrackKey*> mTrackKeys;
    uint64_t mLatestTrack = 0;
};

}  // namespace powerstats
