// SPDX-License-Identifier: Apache-2.0

#include "Register.h"

#include <android/log.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "NeverDestroyed.h"

namespace host {
namespace {

struct Register {
    std::mutex mutex;
    std::unordered_map<std::string, RegisteredService> services;
    std::vector<Bus> buses{Bus::kSession, Bus::kSystem};                    // of look-ups
    std::vector<std::string> namesOnBus{kAidlPowerStats, kHidlPowerStats};  // of look-ups
    double waitSeconds = kFreshLookupSeconds;
};

}  // namespace

void logFailure(const char* interface, const char* method, const std::string& reason) {
    __android_log_print(ANDROID_LOG_DEBUG, kLogTag, "%s of %s failed: %s", method, interface,
                        reason.c_str());
}

void registerService(const std::string& name, RegisteredService service) {
    Register& all = neverDestroyed<Register>();
    {
        std::lock_guard<std::mutex> lock(all.mutex);
        std::swap(all.services[name], service);
    }
    // The previous service is released here, without the lock.
}

RegisteredService findService(const std::string& name, bool waits) {
    using std::chrono::steady_clock;
    Register& all = neverDestroyed<Register>();
    const auto start = steady_clock::now();
    for (bool isLast = !waits;;) {
        std::vector<Bus> buses;
        std::vector<std::string> names;
        std::chrono::duration<double> wait{};
        {
            std::lock_guard<std::mutex> lock(all.mutex);
            auto entry = all.services.find(name);
            if (entry != all.services.end()) return entry->second;
            names = all.namesOnBus;
            if (std::find(names.begin(), names.end(), name) != names.end()) buses = all.buses;
            wait = std::chrono::duration<double>(all.waitSeconds);
        }
        if (buses.empty() || isForked()) return {};
        for (const Bus bus : buses) {
            RegisteredService service = findOnBus(bus, name);
            if (service.peer != nullptr) return service;
        }
        if (isLast || steady_clock::now() - start >= wait) return {};
        // A service of the other name ends the waiting, after a last look: its process may be about
        // to own this name too.
        for (const Bus bus : buses) {
            for (const auto& other : names) isLast |= findOnBus(bus, other).peer != nullptr;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

bool isForked() {
    static const pid_t first = getpid();
    return getpid() != first;
}

void setBusLookups(std::vector<Bus> buses, std::vector<std::string> names, double waitSeconds) {
    Register& all = neverDestroyed<Register>();
    std::lock_guard<std::mutex> lock(all.mutex);
    all.buses = std::move(buses);
    all.namesOnBus = std::move(names);
    all.waitSeconds = waitSeconds;
}

bool killService(const std::string& name) {
    Register& all = neverDestroyed<Register>();
    RegisteredService service;  // released without the lock
    {
        std::lock_guard<std::mutex> lock(all.mutex);
        auto entry = all.services.find(name);
        if (entry == all.services.end()) return false;
        service = std::move(entry->second);
        all.services.erase(entry);
    }
    service.peer->die();
    return true;
}

}  // namespace host
