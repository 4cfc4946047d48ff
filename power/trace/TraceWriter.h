// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "power/Interval.h"
#include "power/Reading.h"

namespace powerstats {

/// Writes readings as a protobuf trace, which trace viewers open and RecordedSource plays.
///
/// A sample is the readings as they are and, for viewers, counters: the average power of each rail
/// in milliwatts and the share of each state in percent. A viewer draws a counter's value up to the
/// next one, so the value has the time at which its interval began.
///
/// A rail has its own stamp in milliseconds. All residencies of a sample have the time of the
/// reading, because the format has one time for them.
///
/// A rail or entity keeps its id as its index, or gets a free number when that does not fit. The
/// format allows names only at the start of a packet sequence. So things that come later, or that
/// were reset, begin a sequence of their own.
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
    /// whole sample. Leaves out things without figures, negative values, figures from before the
    /// last ones, and residencies that are the last ones.
    /// @param since [in] the interval that ends with this reading; null for the first one, which
    ///     then has no counters.
    /// @param error [out] one line, when the result is false: the file has all samples up to this
    ///     one, and nothing more may be written.
    bool write(const Reading& reading, const Interval* since, std::string* error);

  private:
    using Name = std::pair<int64_t, std::string>;
    /// What the file has of a rail or an entity.
    template <typename Figures>
    struct Series {
        /// 0 when it has nothing yet.
        uint32_t sequence = 0;
        int64_t index = 0;
        Figures last = {};
        /// The uuid of its line in a viewer, or 0.
        uint64_t track = 0;
        /// Of each state.
        std::vector<int64_t> stateIndices = {};
        std::vector<uint64_t> stateTracks = {};
    };
    using RailSeries = Series<Energy>;
    using EntitySeries = Series<Residencies>;
    struct Sample;

    TraceWriter(std::string path, int descriptor);
    void setLists(const std::shared_ptr<const Lists>& lists);
    void addRails(const Reading& reading, Sample* sample);
    void addEntities(const Reading& reading, Sample* sample);
    void addCounters(const Interval& interval, Sample* sample);
    uint64_t describe(uint64_t* track, uint64_t parent, const std::string& name, const char* unit,
                      Sample* sample);
    bool append(const std::string& bytes, std::string* error);

    const std::string mPath;
    const int mDescriptor;
    int64_t mSize = 0;
    /// The latest sequence in use.
    uint32_t mSequence;
    /// By id and name, an entity also by its states'.
    std::map<Name, RailSeries> mAllRails;
    std::map<std::pair<Name, std::vector<Name>>, EntitySeries> mAllEntities;
    /// Those of the latest reading, by position in its lists.
    std::shared_ptr<const Lists> mLists;
    std::vector<RailSeries*> mRails;
    std::vector<EntitySeries*> mEntities;
    nanoseconds mResidenciesTime{};
    /// The uuids of the groups in a viewer, and the number of all.
    uint64_t mRailsTrack = 0;
    uint64_t mEntitiesTrack = 0;
    uint64_t mTracks = 0;
};

}  // namespace powerstats
