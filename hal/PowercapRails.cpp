// SPDX-License-Identifier: Apache-2.0

#include <mutex>
#include <utility>

#include "hal/CounterSources.h"

namespace powerstats {

namespace {

const std::string kFolder = "class/powercap/";

/// "intel-rapl:0:1" is a part of "intel-rapl:0", which is a zone of the control type "intel-rapl".
std::string parentOf(const std::string& zone) {
    return zone.substr(0, zone.rfind(':'));
}

std::string controlTypeOf(const std::string& zone) {
    return zone.substr(0, zone.find(':'));
}

std::string qualifiedZoneName(const Sysfs& sysfs, const std::string& zone) {
    std::string name = sysfs.readName(kFolder + zone + "/name").value_or(zone);
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

}  // namespace

std::vector<RailSource> findPowercapRails(const std::shared_ptr<const Sysfs>& sysfs) {
    std::vector<RailSource> rails;
    for (const std::string& zone : sysfs->entries(kFolder)) {
        const std::string path = kFolder + zone + "/energy_uj";
        std::optional<int64_t> range = sysfs->readNumber(kFolder + zone + "/max_energy_range_uj");
        if (range == 0) range.reset();
        auto read = makeReader(sysfs, path, range);
        if (!read()) continue;
        rails.push_back({path, namesOf(*sysfs, zone), "powercap", std::move(read), range});
    }
    return rails;
}

}  // namespace powerstats
