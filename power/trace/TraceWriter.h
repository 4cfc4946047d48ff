// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "power/Reading.h"

namespace com::tavrel::android::ferrolith::powertrace {
class Trace;
}

namespace powerstats {

/// Writes readings as a protobuf trace, which trace viewers open and RecordedSource plays.
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
    /// whole sample. Leaves out a reading from before the last one, and of the others the things
    /// without figures, negative values and figures that are not newer than the last ones. After a
    /// reset they may be older, as those of a recording that is served again.
    /// @param error [out] one line, when the result is false: the file has all samples up to this
    ///     one, and nothing more may be written.
    bool write(const Reading& reading, std::string* error);

  private:
    /// What the file has of a rail or an entity.
    struct Series {
        /// 0 when it has nothing yet.
        uint32_t sequence = 0;
        int64_t index = 0;
        /// The latest figures; those of a rail are one state.
        Residencies last = {nanoseconds::min(), 0, {}};
    };
    /// A thing of the latest lists, with its indices for a sequence that it begins.
    struct Slot {
        Series* series;
        int64_t index;
        std::vector<int64_t> stateIndices;
    };

    TraceWriter(std::string path, int descriptor)
        : mPath(std::move(path)), mDescriptor(descriptor) {}
    template <typename Thing>
    std::vector<Slot> findSlots(const std::vector<Thing>& things);
    template <typename Thing, typename Figures>
    void add(const std::vector<Thing>& things, const std::vector<Slot>& slots,
             const std::vector<std::optional<Figures>>& figures,
             com::tavrel::android::ferrolith::powertrace::Trace* trace);

    const std::string mPath;
    const int mDescriptor;
    int64_t mSize = 0;
    /// The latest sequence in use.
    uint32_t mSequence = 0;
    /// By kind, ids and names.
    std::map<std::string, Series> mSeries;
    nanoseconds mTime{};
    /// By position in the latest lists.
    std::shared_ptr<const Lists> mLists;
    std::vector<Slot> mRails;
    std::vector<Slot> mEntities;
};

}  // namespace powerstats
