// SPDX-License-Identifier: Apache-2.0

#include <algorithm>
#include <limits>
#include <map>
#include <mutex>
#include <utility>

#include "power/Ids.h"
#include "power/linux/Counters.h"

namespace powerstats {

namespace {

const std::string kCpus = "devices/system/cpu/";
/// CPU numbers are entity ids; those of other entities start above.
constexpr int32_t kMaxCpuNumber = 0xffff;

/// The entries of a folder that are `prefix` and a number, by number.
std::map<int32_t, std::string> numberedEntries(const Sysfs& sysfs, const std::string& folder,
                                               const std::string& prefix, int32_t max) {
    std::map<int32_t, std::string> numbered;
    for (const std::string& entry : sysfs.entries(folder)) {
        if (const auto number = numberInName(entry, prefix, "", max)) numbered[*number] = entry;
    }
    return numbered;
}

/// std::nullopt when the state cannot be read.
std::optional<StateSource> makeState(const std::shared_ptr<const Sysfs>& sysfs, int32_t id,
                                     const std::string& folder, const std::string& defaultName) {
    auto read = [time = std::make_shared<NumberFile>(sysfs, folder + "/time"),
                 usage = std::make_shared<NumberFile>(
                     sysfs, folder + "/usage")]() -> std::optional<Residency> {
        const std::optional<int64_t> timeUs = time->read();
        const std::optional<int64_t> entries = usage->read();
        if (!timeUs || !entries) return std::nullopt;
        return Residency{fromNumber<std::chrono::microseconds>(*timeUs), *entries, {}};
    };
    const std::optional<Residency> first = read();
    if (!first) return std::nullopt;
    return StateSource{id, sysfs->readName(folder + "/name").value_or(defaultName), read, *first};
}

const std::string kDevices = "devices/";
constexpr int32_t kFirstDeviceId = 0x40000000;
constexpr int kDeviceIdBits = 30;

/// Times in milliseconds; in the order of the state ids.
constexpr struct {
    const char* state;
    const char* file;
} kDeviceStates[] = {{"active", "/power/runtime_active_time"},
                     {"suspended", "/power/runtime_suspended_time"}};
constexpr auto& kSuspended = kDeviceStates[1];

bool canSuspend(const std::shared_ptr<const Sysfs>& sysfs, const std::string& device) {
    const auto status = sysfs->readName(kDevices + device + "/power/runtime_status");
    if (status) return *status != "unsupported";
    return NumberFile(sysfs, kDevices + device + kSuspended.file).read().value_or(0) > 0;
}

/// Adds the paths below `devices` of a folder and those in it, if they are devices that can
/// suspend. Links between devices are not followed: they lead in circles.
void collectDevices(const std::shared_ptr<const Sysfs>& sysfs, const std::string& path,
                    std::vector<std::string>* devices) {
    const std::string prefix = path.empty() ? "" : path + "/";
    for (const std::string& entry : sysfs->entries(kDevices + path, true)) {
        if (entry != "power") {
            collectDevices(sysfs, prefix + entry, devices);
        } else if (canSuspend(sysfs, path)) {
            devices->push_back(path);
        }
    }
}

constexpr int32_t kSystemId = 0x10000;
constexpr char kSuccessfulSuspends[] = "power/suspend_stats/success";

/// The time spent in suspend: CLOCK_BOOTTIME goes on in it and CLOCK_MONOTONIC does not.
class SuspendedTime {
  public:
    explicit SuspendedTime(ReadClock readClock) : mReadClock(std::move(readClock)) {}

    nanoseconds read() {
        nanoseconds least = difference();
        for (int i = 1; i < kReadings; ++i) least = std::min(least, difference());
        std::lock_guard<std::mutex> lock(mMutex);
        mGreatest = std::max(mGreatest, least);
        return mGreatest;
    }

  private:
    /// A thread that is held up between the two clocks sees that time as suspend; it is unlikely
    /// to be held up in every one of a few readings.
    static constexpr int kReadings = 3;

    /// The clock that goes on in suspend is read last, so that the difference is never negative.
    nanoseconds difference() const {
        const nanoseconds running = mReadClock(CLOCK_MONOTONIC);
        return mReadClock(CLOCK_BOOTTIME) - running;
    }

    const ReadClock mReadClock;
    std::mutex mMutex;
    nanoseconds mGreatest{0};
};

}  // namespace

void addIdleCpus(const std::shared_ptr<const Sysfs>& sysfs, std::vector<EntitySource>* entities) {
    for (const auto& [cpuNumber, cpu] : numberedEntries(*sysfs, kCpus, "cpu", kMaxCpuNumber)) {
        EntitySource entity{cpuNumber, cpu, EntityType::kCpu, {}};
        const std::string states = kCpus + cpu + "/cpuidle/";
        for (const auto& [stateNumber, state] :
             numberedEntries(*sysfs, states, "state", std::numeric_limits<int32_t>::max())) {
            auto source = makeState(sysfs, stateNumber, states + state, state);
            if (source) entity.states.push_back(std::move(*source));
        }
        if (!entity.states.empty()) entities->push_back(std::move(entity));
    }
}

void addSuspendingDevices(const std::shared_ptr<const Sysfs>& sysfs,
                          std::vector<EntitySource>* entities) {
    std::vector<std::string> devices;
    collectDevices(sysfs, "", &devices);
    std::sort(devices.begin(), devices.end());

    const std::vector<int32_t> ids = pathIds(devices, kFirstDeviceId, kDeviceIdBits);
    for (size_t i = 0; i < devices.size(); ++i) {
        const std::string& device = devices[i];
        EntitySource entity{ids[i], device, EntityType::kDevice, {}};
        int32_t stateId = 0;
        for (const auto& [state, file] : kDeviceStates) {
            auto time = std::make_shared<NumberFile>(sysfs, kDevices + device + file);
            auto read = [time]() -> std::optional<Residency> {
                const std::optional<int64_t> timeMs = time->read();
                if (!timeMs) return std::nullopt;
                return Residency{fromMilliseconds(*timeMs), 0, {}};
            };
            if (const auto first = read()) {
                entity.states.push_back({stateId, state, read, *first});
            }
            ++stateId;
        }
        if (!entity.states.empty()) entities->push_back(std::move(entity));
    }
}

nanoseconds readKernelClock(clockid_t clock) {
    timespec time{};
    if (clock_gettime(clock, &time) != 0) return nanoseconds(0);
    return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

EntitySource makeSystemEntity(const std::shared_ptr<const Sysfs>& sysfs, ReadClock readClock) {
    const auto suspends = [file = std::make_shared<NumberFile>(sysfs, kSuccessfulSuspends)] {
        return file->read().value_or(0);
    };
    const auto suspendedTime = std::make_shared<SuspendedTime>(readClock);
    // Booting is an entry into `running`, and so is each return from suspend.
    const auto readRunning = [suspends, readClock] {
        return Residency{readClock(CLOCK_MONOTONIC), suspends() + 1, {}};
    };
    const auto readSuspended = [suspends, suspendedTime] {
        return Residency{suspendedTime->read(), suspends(), {}};
    };
    return {kSystemId,
            "system",
            EntityType::kSystem,
            {{0, "running", readRunning}, {1, "suspended", readSuspended}}};
}

}  // namespace powerstats
