// SPDX-License-Identifier: Apache-2.0

#include "tools/Sampler.h"

#include <algorithm>
#include <cmath>
#include <thread>
#include <utility>

#include "tools/NoEnergy.h"

namespace powerstats {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

void addSamplerOptions(CommandLine command, SamplerOptions* options) {
    addServiceOptions(command, &options->service);
    command.addOption("--interval", "Seconds from reading to reading",
                      number(&options->intervalSeconds, {0.05, 86400}));
}

std::shared_ptr<Sampler> Sampler::open(const SamplerOptions& options, int* status) {
    std::shared_ptr<Sampler> sampler(new Sampler(options));
    const auto playingTime = [readings = sampler->mReadings,
                              interval = options.intervalSeconds * 1e9] {
        return nanoseconds(std::llround(static_cast<double>(*readings) * interval));
    };
    *status = openService(options.service, playingTime);
    if (*status != 0) return nullptr;
    if (!options.record.empty()) {
        std::string error;
        sampler->mWriter = TraceWriter::create(options.record, &error);
        if (sampler->mWriter == nullptr) {
            say(error);
            *status = kUsage;
            return nullptr;
        }
    }
    sampler->mLatest = sampler->mReader.read();
    sayWhyNoEnergy(options.service, sampler->mLatest);
    sampler->record(nullptr);
    return sampler;
}

bool Sampler::wait() {
    if (!mError.empty()) return false;
    const SourceOptions& source = mOptions.service.source;
    const double playedMs = static_cast<double>(*mReadings) * mOptions.intervalSeconds * 1000;
    if (ownReplay() != nullptr && !source.loop &&
        playedMs * source.speed >= static_cast<double>(ownReplay()->length.count())) {
        return false;
    }
    const auto step = std::chrono::duration_cast<steady_clock::duration>(
        std::chrono::duration<double>(mOptions.intervalSeconds));
    mNext = std::max(mNext + step, steady_clock::now());
    std::this_thread::sleep_until(mNext);
    return true;
}

Interval Sampler::read() {
    ++*mReadings;
    Snapshot after = mReader.read();
    Interval interval = subtract(mLatest, after);
    mLatest = std::move(after);
    record(&interval);
    return interval;
}

void Sampler::record(const Interval* since) {
    if (mWriter != nullptr && !mWriter->write(mLatest, since, &mError)) mWriter.reset();
}

bool Sampler::check() {
    if (mError.empty()) return true;
    say(std::exchange(mError, {}));
    return false;
}

std::string Sampler::title() const {
    return describe(mOptions.service) + " over " + mReader.interfaceName();
}

}  // namespace powerstats
