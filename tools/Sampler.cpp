// SPDX-License-Identifier: Apache-2.0

#include "tools/Sampler.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace powerstats {

using std::chrono::steady_clock;

void addSamplerOptions(CommandLine* command, SamplerOptions* options) {
    addSourceOptions(command, &options->source);
    command->addOption("--interval", "Seconds from reading to reading",
                       number(&options->intervalSeconds, {0.05, 86400}));
}

std::shared_ptr<Sampler> Sampler::open(SamplerOptions options, int* status) {
    std::shared_ptr<Sampler> sampler(new Sampler);
    sampler->mStep = nanoseconds(std::llround(options.intervalSeconds * 1e9));
    PlayingTime playingTime;
    if (options.intervalSeconds > 0) {
        playingTime = [own = sampler.get()] { return own->mReadings * own->mStep; };
    }
    sampler->mSource = openSource(&options.source, playingTime, status);
    if (sampler->mSource == nullptr) return nullptr;
    sampler->mTitle = describe(options.source);
    sampler->mLatest = sampler->mSource->read();
    if (!sampler->record(options.record)) {
        *status = kUsage;
        return nullptr;
    }
    sayWhyNoRails(sampler->mLatest);
    return sampler;
}

bool Sampler::record(const std::string& file) {
    if (file.empty()) return true;
    std::string error;
    mWriter = TraceWriter::create(file, &error);
    if (mWriter == nullptr) {
        say(error);
        return false;
    }
    mWriter->write(mLatest, &mFailure);
    return true;
}

Interval Sampler::next(Reading* asRead) {
    ++mReadings;
    Reading reading = mSource->read();
    Reading toRecord;
    if (asRead == nullptr) asRead = &toRecord;
    if (mWriter != nullptr || asRead != &toRecord) *asRead = reading;
    keepFigures(mLatest, &reading);
    Interval interval = subtract(mLatest, reading);
    mLatest = std::move(reading);
    if (mWriter != nullptr && mFailure.empty()) mWriter->write(*asRead, &mFailure);
    return interval;
}

Sampler::End Sampler::run(const std::function<bool(Interval interval)>& take) {
    auto tick = steady_clock::now();
    while (mFailure.empty()) {
        if (mSource->isOver()) return End::kOver;
        // Readings that took too long leave ticks out, and the others stay where they are.
        tick += (std::max(steady_clock::now() - tick, steady_clock::duration::zero()) / mStep + 1) *
                mStep;
        {
            std::unique_lock<std::mutex> lock(mMutex);
            if (mStopped.wait_until(lock, tick, [this] { return mIsStopping; })) return End::kTaken;
        }
        if (!take(next()) && mFailure.empty()) return End::kTaken;
    }
    return End::kFailed;
}

void Sampler::stop() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mIsStopping = true;
    mStopped.notify_all();
}

}  // namespace powerstats
