// SPDX-License-Identifier: Apache-2.0

#include <limits>
#include <mutex>
#include <utility>

#include "hal/CounterSources.h"

namespace powerstats {

namespace {

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

/// A counter that starts again at zero once it has passed its range.
class WrappingCounter {
  public:
    WrappingCounter(std::shared_ptr<const Sysfs> sysfs, std::string path, int64_t rangeUWs)
        : mSysfs(std::move(sysfs)), mPath(std::move(path)), mRangeUWs(rangeUWs) {}

    std::optional<int64_t> read() {
        // Locked while reading: two readings that overtake each other would look like a wrap.
        std::lock_guard<std::mutex> lock(mMutex);
        const std::optional<int64_t> counter = mSysfs->readNumber(mPath);
        if (!counter) return std::nullopt;
        if (*counter < mLast) mWrapped += mRangeUWs;
        mLast = *counter;
        return mWrapped + *counter;
    }

  private:
    const std::shared_ptr<const Sysfs> mSysfs;
    const std::string mPath;
    const int64_t mRangeUWs;
    std::mutex mMutex;
    int64_t mLast = 0;
    int64_t mWrapped = 0;
};

std::function<std::optional<int64_t>()> makeReader(const std::shared_ptr<const Sysfs>& sysfs,
                                                   const std::string& path,
                                                   std::optional<int64_t> range) {
    if (!range) return [sysfs, path] { return sysfs->readNumber(path); };
    auto counter = std::make_shared<WrappingCounter>(sysfs, path, *range);
    return [counter] { return counter->read(); };
}

const std::string kHwmon = "class/hwmon/";
const std::string kInput = "_input";

RailSource makeRail(const std::shared_ptr<const Sysfs>& sysfs, const std::string& chipFolder,
                    const std::string& chip, const std::string& sensor) {
    const std::string path = kHwmon + chipFolder + "/" + sensor;
    const std::optional<std::string> label = sysfs->readName(path + "_label");
    const std::string name = label.value_or(sensor);
    const std::string byChip = chip + "/" + name;
    const std::string byFolder = chip + "/" + chipFolder + "/" + name;
    const std::string input = path + kInput;
    return {input,
            {label ? name : byChip, byChip, byFolder},
            "hwmon",
            [sysfs, input] { return sysfs->readNumber(input); },
            std::nullopt};
}

}  // namespace

std::vector<RailSource> findPowercapRails(const std::shared_ptr<const Sysfs>& sysfs) {
    std::vector<RailSource> rails;
    for (const std::string& zone : sysfs->entries(kPowercap)) {
        const std::string path = kPowercap + zone + "/energy_uj";
        std::optional<int64_t> range = sysfs->readNumber(kPowercap + zone + "/max_energy_range_uj");
        if (range == 0) range.reset();
        auto read = makeReader(sysfs, path, range);
        if (!read()) continue;
        rails.push_back({path, namesOf(*sysfs, zone), "powercap", std::move(read), range});
    }
    return rails;
}

std::vector<RailSource> findHwmonRails(const std::shared_ptr<const Sysfs>& sysfs) {
    std::vector<RailSource> rails;
    for (const std::string& chipFolder : sysfs->entries(kHwmon)) {
        const std::string chip =
            sysfs->readName(kHwmon + chipFolder + "/name").value_or(chipFolder);
        for (const std::string& file : sysfs->entries(kHwmon + chipFolder)) {
            if (!numberInName(file, "energy", kInput, std::numeric_limits<int32_t>::max()))
                continue;
            const std::string sensor = file.substr(0, file.size() - kInput.size());
            RailSource rail = makeRail(sysfs, chipFolder, chip, sensor);
            if (rail.read()) rails.push_back(std::move(rail));
        }
    }
    return rails;
}

}  // namespace powerstats
