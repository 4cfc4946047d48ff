// SPDX-License-Identifier: Apache-2.0

#include <limits>

#include "hal/CounterSources.h"

namespace powerstats {

namespace {

const std::string kFolder = "class/hwmon/";
const std::string kInput = "_input";

RailSource makeRail(const std::shared_ptr<const Sysfs>& sysfs, const std::string& chipFolder,
                    const std::string& chip, const std::string& sensor) {
    const std::string path = kFolder + chipFolder + "/" + sensor;
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

std::vector<RailSource> findHwmonRails(const std::shared_ptr<const Sysfs>& sysfs) {
    std::vector<RailSource> rails;
    for (const std::string& chipFolder : sysfs->entries(kFolder)) {
        const std::string chip =
            sysfs->readName(kFolder + chipFolder + "/name").value_or(chipFolder);
        for (const std::string& file : sysfs->entries(kFolder + chipFolder)) {
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
