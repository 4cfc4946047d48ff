// SPDX-License-Identifier: Apache-2.0

#include "Register.h"

#include <android/log.h>

#include <algorithm>
#include <mutex>
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

RegisteredService findService(const std::string& name) {
    Register& all = neverDestroyed<Register>();
    std::vector<Bus> buses;
    {
        std::lock_guard<std::mutex> lock(all.mutex);
        auto entry = all.services.find(name);
        if (entry != all.services.end()) return entry->second;
        const auto& names = all.namesOnBus;
        if (std::find(names.begin(), names.end(), name) != names.end()) buses = all.buses;
    }
    for (const Bus bus : buses) {
        RegisteredService service = findOnBus(bus, name);
        if (service.peer != nullptr) return service;
    }
    return {};
}

void setBusLookups(std::vector<Bus> buses, std::vector<std::string> names) {
    Register& all = neverDestroyed<Register>();
    std::lock_guard<std::mutex> lock(all.mutex);
    all.buses = std::move(buses);
    all.namesOnBus = std::move(names);
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
