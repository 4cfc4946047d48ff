// SPDX-License-Identifier: Apache-2.0

#include <algorithm>
#include <limits>
#include <utility>

#include "power/linux/Counters.h"

namespace powerstats {

namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;

/// More than any zone draws on average over a sampling interval: the largest processor packages are
/// rated at 500 W, and draw twice that for moments only. Memory and parts of a package draw less.
/// The platform zone of a machine with several such packages may draw more; its wrap then passes
/// for a reset, so that it shows too little energy and not too much.
constexpr int64_t kGreatestZonePowerWatts = 1000;
/// In the shortest possible wrap. So a lower value after one interval is a wrap only if the counter
/// was in the last quarter of its range, which keeps most resets apart from wraps, and readings may
/// come late.
constexpr int64_t kReadingsPerWrap = 4;
/// A range that calls for more than this is not one of real hardware.
constexpr milliseconds kShortestInterval{10};
/// How long the counters may have run before the kernel's clock started.
constexpr std::chrono::seconds kFirmwareTime{10};

/// The least time in which a zone draws this much; a microjoule is a watt for a microsecond.
microseconds leastTimeFor(int64_t energyUWs) {
    return microseconds(energyUWs / kGreatestZonePowerWatts);
}

const std::string kPowercap = "class/powercap/";

/// "intel-rapl:0:1" is a part of "intel-rapl:0", which is a zone of the control type "intel-rapl".
std::string parentOf(const std::string& zone) {
    return zone.substr(0, zone.rfind(':'));
}

std::string controlTypeOf(const std::string& zone) {
    return zone.substr(0, zone.find(':'));
}

std::string qualifiedZoneName(const Sysfs& sysfs, const std::string& zone) {
    std::string name = sysfs.readName(kPowercap + zone + "/name").value_or(zone);
    const std::string parent = parentOf(zone);
    if (parent == zone || parent == controlTypeOf(zone)) return name;
    return qualifiedZoneName(sysfs, parent) + "/" + name;
}

std::vector<std::string> namesOf(const Sysfs& sysfs, const std::string& zone) {
    const std::string name = qualifiedZoneName(sysfs, zone);
    const std::string byControlType = controlTypeOf(zone) + "/" + name;
    return {name, byControlType, byControlType + " (" + zone + ")"};
}

std::shared_ptr<EnergyCounter> makeCounter(const std::shared_ptr<const Sysfs>& sysfs,
                                           const std::string& path, std::optional<int64_t> rangeUWs,
                                           const RailOptions& options) {
    const auto file = std::make_shared<NumberFile>(sysfs, path);
    const auto warn = [sysfs, path] {
        sysfs->warn(
            path, "the counter started again at 0",
            "the energy since its last reading is lost; a suspend or a reload of the driver "
            "does this");
    };
    return std::make_shared<EnergyCounter>(
        EnergyCounter::Options{[file] { return file->read(); }, rangeUWs, options, warn});
}

const std::string kHwmon = "class/hwmon/";
const std::string kInput = "_input";

/// @param chip [in] the chip's name.
/// @param device [in] the part of the chip's identity that stays the same in every boot.
RailSource makeRail(const std::shared_ptr<const Sysfs>& sysfs, const std::string& chipFolder,
                    const std::string& chip, const std::string& device, const std::string& sensor,
                    const RailOptions& options) {
    const std::string path = kHwmon + chipFolder + "/" + sensor;
    const std::optional<std::string> label = sysfs->readName(path + "_label");
    const std::string name = label.value_or(sensor);
    const std::string byChip = chip + "/" + name;
    const std::string byFolder = chip + "/" + chipFolder + "/" + name;
    return {kHwmon + device + "/" + sensor,
            {label ? name : byChip, byChip, byFolder},
            "hwmon",
            makeCounter(sysfs, path + kInput, std::nullopt, options)};
}

}  // namespace

std::optional<Energy> EnergyCounter::read() {
    // Locked while reading: two readings that overtake each other would look like a wrap.
    std::unique_lock<std::mutex> lock(mMutex);
    const std::optional<int64_t> counter = mOptions.readCounter();
    if (!counter) return std::nullopt;
    const nanoseconds time = mOptions.ofRails.readClock(CLOCK_BOOTTIME);
    const nanoseconds runningTime = mOptions.ofRails.readClock(CLOCK_MONOTONIC);
    const bool isReset = mLast && advance(*counter, runningTime, time);
    if (!mLast) start(*counter, time);
    mLast = {*counter, runningTime, time};
    if (isReset) ++mResets;
    const Energy energy{time, time - mUncovered, mEnergyUWs, mResets};
    lock.unlock();
    if (isReset && mOptions.warnOfReset) mOptions.warnOfReset();
    return energy;
}

/// Takes the first reading. REQUIRES: mMutex is held
void EnergyCounter::start(int64_t counterUWs, nanoseconds time) {
    const auto& range = mOptions.rangeUWs;
    const bool mayHaveWrapped = range && time >= leastTimeFor(*range);
    const bool isOlderThanBoot = range && leastTimeFor(counterUWs) > time + kFirmwareTime;
    if (mOptions.ofRails.hasBoot && (mayHaveWrapped || isOlderThanBoot)) {
        skip(nanoseconds::zero(), time);
    } else {
        mEnergyUWs = counterUWs;
    }
}

/// Takes a later reading. Returns whether the counter was reset. REQUIRES: mMutex is held
bool EnergyCounter::advance(int64_t counterUWs, nanoseconds runningTime, nanoseconds time) {
    const auto& range = mOptions.rangeUWs;
    const nanoseconds passed = runningTime - mLast->runningTime;
    const bool mayHaveWrappedUnseen = range && passed >= leastTimeFor(*range);
    if (mayHaveWrappedUnseen && mOptions.ofRails.hasBoot) skip(mLast->time, time);
    if (counterUWs >= mLast->counterUWs) {
        add(counterUWs - mLast->counterUWs);
        return false;
    }
    if (range && !mayHaveWrappedUnseen) {
        const int64_t untilWrap = std::max<int64_t>(0, *range - mLast->counterUWs);
        if (leastTimeFor(untilWrap + counterUWs) <= passed) {
            add(untilWrap + counterUWs);
            return false;
        }
    }
    add(counterUWs);
    return !mayHaveWrappedUnseen;
}

/// Notes a time that is not covered. REQUIRES: mMutex is held
void EnergyCounter::skip(nanoseconds from, nanoseconds to) {
    mUncovered += std::chrono::floor<milliseconds>(to) - std::chrono::floor<milliseconds>(from);
}

/// Adds energy up to the greatest number. REQUIRES: mMutex is held
void EnergyCounter::add(int64_t energyUWs) {
    mEnergyUWs += std::min(energyUWs, std::numeric_limits<int64_t>::max() - mEnergyUWs);
}

std::optional<milliseconds> EnergyCounter::samplingInterval() const {
    if (!mOptions.rangeUWs) return std::nullopt;
    const auto interval =
        duration_cast<milliseconds>(leastTimeFor(*mOptions.rangeUWs) / kReadingsPerWrap);
    return std::max(interval, kShortestInterval);
}

void addPowercapRails(const std::shared_ptr<const Sysfs>& sysfs, const RailOptions& options,
                      std::vector<RailSource>* rails) {
    for (const std::string& zone : sysfs->entries(kPowercap)) {
        const std::string path = kPowercap + zone + "/energy_uj";
        std::optional<int64_t> range =
            NumberFile(sysfs, kPowercap + zone + "/max_energy_range_uj").read();
        if (range == 0) range.reset();
        const auto counter = makeCounter(sysfs, path, range, options);
        if (counter->read()) rails->push_back({path, namesOf(*sysfs, zone), "powercap", counter});
    }
}

void addHwmonRails(const std::shared_ptr<const Sysfs>& sysfs, const RailOptions& options,
                   std::vector<RailSource>* rails) {
    for (const std::string& chipFolder : sysfs->entries(kHwmon)) {
        const std::string chip =
            sysfs->readName(kHwmon + chipFolder + "/name").value_or(chipFolder);
        const std::string device =
            sysfs->resolveLink(kHwmon + chipFolder + "/device").value_or(chip);
        for (const std::string& file : sysfs->entries(kHwmon + chipFolder)) {
            if (!numberInName(file, "energy", kInput, std::numeric_limits<int32_t>::max()))
                continue;
            const std::string sensor = file.substr(0, file.size() - kInput.size());
            RailSource rail = makeRail(sysfs, chipFolder, chip, device, sensor, options);
            if (rail.counter->read()) rails->push_back(std::move(rail));
        }
    }
}

}  // namespace powerstats
