// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "tools/Interval.h"
#include "tools/Service.h"
#include "tools/Snapshot.h"
#include "tools/TraceWriter.h"

namespace powerstats {

struct SamplerOptions {
    ServiceOptions service;
    double intervalSeconds = 1;
    std::string record;  ///< the file to write snapshots to; empty: none
};

/// Adds `--interval` and the options of the service.
void addSamplerOptions(CommandLine command, SamplerOptions* options);

/// Reads a service at equal intervals, and records what it reads.
class Sampler {
  public:
    /// Opens the service and the file, and takes the first snapshot. A recording plays by the
    /// number of readings and not by the clock, so its output repeats exactly.
    /// @param status [out] the exit status, after one line, when the result is null.
    static std::shared_ptr<Sampler> open(const SamplerOptions& options, int* status);

    /// Waits for the next tick. A reading that took longer than an interval makes no burst of
    /// readings after it.
    /// @return false, at once, when the recording that is played back has ended or the file cannot
    ///     be written.
    bool wait();

    /// Takes a snapshot.
    /// @return the interval since the one before.
    Interval read();

    /// Whether the file could be written. If not, one line says why, once.
    bool check();
    /// Such as "this machine over AIDL".
    std::string title() const;

  private:
    explicit Sampler(const SamplerOptions& options) : mOptions(options) {}
    void record(const Interval* since);

    const SamplerOptions mOptions;
    /// The number of readings after the first, which the playing time of a recording follows.
    const std::shared_ptr<std::atomic<int64_t>> mReadings =
        std::make_shared<std::atomic<int64_t>>(0);
    std::unique_ptr<TraceWriter> mWriter;
    std::string mError;
    SnapshotReader mReader;
    Snapshot mLatest;
    std::chrono::steady_clock::time_point mNext = std::chrono::steady_clock::now();
};

}  // namespace powerstats
