// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "power/Interval.h"
#include "power/Source.h"
#include "power/trace/TraceWriter.h"
#include "tools/SourceOptions.h"

namespace powerstats {

struct SamplerOptions {
    SourceOptions source;
    double intervalSeconds = 1;  ///< 0: a recording plays by the clock, for next() only
    std::string record = {};     ///< the file to write readings to; empty: none
};

/// Adds `--interval` and the options of the source.
void addSamplerOptions(CommandLine* command, SamplerOptions* options);

/// Reads a source over time for every subcommand that does, records, and has the loop that waits
/// for a tick and hands over the interval since the reading before.
class Sampler {
  public:
    /// Opens the source and the file, and takes the first reading. A recording plays by the number
    /// of readings and not by the clock, so its output repeats exactly.
    /// @param status [out] the exit status, after one line, when the result is null.
    static std::shared_ptr<Sampler> open(SamplerOptions options, int* status);

    /// Records from now on, beginning with the latest reading.
    /// @param file [in] empty: nothing is recorded.
    /// @return whether the file was created. Otherwise one line says why.
    bool record(const std::string& file);

    /// Reads and records.
    /// @param asRead [out] the reading, without figures of earlier ones; may be null.
    /// @return the interval since the reading before, as run() hands it over.
    Interval next(Reading* asRead = nullptr);

    enum class End {
        kTaken,   ///< `take` returned false, or stop() was called
        kOver,    ///< the recording that is played back has ended
        kFailed,  ///< the file cannot be written; failure() says why
    };

    /// Runs the loop. Ticks are multiples of the interval after the first reading; those that pass
    /// during a slow reading are left out. When a rail or entity cannot be read, its next figures
    /// are those since its last reading.
    /// @param take [in] gets each interval; false ends the loop.
    End run(const std::function<bool(Interval interval)>& take);

    /// Ends the loop from another thread, at once if it waits. A reading in progress goes on.
    void stop();

    /// One line that says why the file cannot be written; empty when it can.
    const std::string& failure() const { return mFailure; }

    /// The latest reading, with the last figures of everything.
    const Reading& latest() const { return mLatest; }

    /// Such as "this machine" or "the session bus".
    const std::string& title() const { return mTitle; }

  private:
    Sampler() = default;

    std::string mTitle;
    nanoseconds mStep{};
    /// The number of readings after the first, which the playing time of a recording follows.
    int64_t mReadings = 0;
    std::shared_ptr<Source> mSource;
    std::unique_ptr<TraceWriter> mWriter;
    std::string mFailure;
    Reading mLatest;
    std::mutex mMutex;
    std::condition_variable mStopped;
    bool mIsStopping = false;
};

}  // namespace powerstats
