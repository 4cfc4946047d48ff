// SPDX-License-Identifier: Apache-2.0

#include "tools/Source.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <optional>
#include <system_error>
#include <utility>

#include "hal/LinuxCounters.h"

namespace powerstats {

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

/// Returns the counter of energy that a warning says this user may not read; empty for other
/// warnings.
std::string deniedCounter(const std::string& warning) {
    const size_t end = warning.find(": " + std::generic_category().message(EACCES));
    if (end == std::string::npos) return "";
    std::string file = warning.substr(0, end);
    const bool isEnergy = file.find("energy", file.rfind('/') + 1) != std::string::npos;
    return isEnergy ? file : "";
}

/// The playing time at another speed. It stops before it overflows, after 290 years.
nanoseconds scale(nanoseconds time, double speed) {
    constexpr double kMax = 9.2e18;
    return nanoseconds(std::llround(std::min(static_cast<double>(time.count()) * speed, kMax)));
}

}  // namespace

void addSourceOptions(CommandLine command, SourceOptions* options) {
    const Option sysfs =
        command.addOption("--sysfs", "Folder of the kernel's counters", folder(&options->sysfs));
    const Option replay =
        command
            .addOption("--replay",
                       "Play a recording back instead of reading this machine's counters",
                       text(&options->replay, "FILE"))
            .excludes(sysfs);
    command
        .addOption("--speed", "Times as fast as it was recorded",
                   number(&options->speed, {0.001, 1e6}))
        .needs(replay);
    command
        .addFlag("--loop", "Start the recording again after its end",
                 [options] { options->loop = true; })
        .needs(replay);
    options->isGiven = [sysfs, replay] { return sysfs.isGiven() || replay.isGiven(); };
}

std::shared_ptr<const Counters> openSource(const SourceOptions& options,
                                           RecordedCounters::PlayingTime playingTime,
                                           Replay* replay, std::vector<std::string>* denied) {
    if (options.replay.empty()) {
        LinuxCounters::Options counterOptions;
        counterOptions.root = options.sysfs;
        const auto isOpening = std::make_shared<std::atomic<bool>>(true);
        counterOptions.warn = [isOpening, denied](const std::string& text) {
            std::string file = deniedCounter(text);
            if (*isOpening && denied != nullptr && !file.empty()) {
                denied->push_back(std::move(file));
            } else {
                say(text);
            }
        };
        auto counters = std::make_shared<const LinuxCounters>(counterOptions);
        *isOpening = false;
        return counters;
    }
    std::string error;
    std::optional<Recording> recording = Recording::read(
        options.replay, [](const std::string& text) { say(text); }, &error);
    if (!recording) {
        say(error);
        return nullptr;
    }
    replay->length = milliseconds(recording->samplesMs.back() - recording->samplesMs.front());
    if (!playingTime) {
        playingTime = [start = steady_clock::now()] { return steady_clock::now() - start; };
    }
    RecordedCounters::Options playing;
    playing.loop = options.loop;
    playing.playingTime = [playingTime = std::move(playingTime), speed = options.speed] {
        return scale(playingTime(), speed);
    };
    replay->counters =
        std::make_shared<const RecordedCounters>(std::move(*recording), std::move(playing));
    return replay->counters;
}

}  // namespace powerstats
