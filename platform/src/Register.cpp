// SPDX-License-Identifier: Apache-2.0

#include "Register.h"

#include <android/log.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "NeverDestroyed.h"

namespace host {
namespace {

struct Register {
    std::mutex mutex;
    std::unordered_map<std::string, RegisteredService> services;
    std::unordered_map<std::string, std::unique_ptr<ServiceStats>> stats;
    std::atomic<OtherProcesses*> others{nullptr};
    std::vector<Bus> buses{Bus::kSession, Bus::kSystem};                    // of look-ups
    std::vector<std::string> namesOnBus{kAidlPowerStats, kHidlPowerStats};  // of look-ups
};

struct MethodName {
    std::string_view service;
    std::string_view method;
};

constexpr MethodName kMethodNames[] = {
    {kAidlPowerStats, "getPowerEntityInfo"},
    {kAidlPowerStats, "getStateResidency"},
    {kAidlPowerStats, "getEnergyMeterInfo"},
    {kAidlPowerStats, "readEnergyMeter"},
    {kHidlPowerStats, "getRailInfo"},
    {kHidlPowerStats, "getEnergyData"},
    {kHidlPowerStats, "getPowerEntityInfo"},
    {kHidlPowerStats, "getPowerEntityStateInfo"},
    {kHidlPowerStats, "getPowerEntityStateResidencyData"},
};
static_assert(std::size(kMethodNames) == static_cast<size_t>(Method::kCount));

Method methodOf(const std::string& service, const std::string& method) {
    for (size_t i = 0; i < std::size(kMethodNames); ++i) {
        if (kMethodNames[i].service == service && kMethodNames[i].method == method) {
            return static_cast<Method>(i);
        }
    }
    std::fprintf(stderr, "host: %s has no method %s that can be counted or scripted\n",
                 service.c_str(), method.c_str());
    std::abort();
}

/// Takes a service out of the register.
/// @return the service; its object is null when there was none.
RegisteredService remove(const std::string& name) {
    Register& all = neverDestroyed<Register>();
    std::lock_guard<std::mutex> lock(all.mutex);
    auto entry = all.services.find(name);
    if (entry == all.services.end()) return {};
    RegisteredService service = std::move(entry->second);
    all.services.erase(entry);
    return service;
}

}  // namespace

void ServiceStats::scriptTransaction(Method method, const Failure& failure, int times) {
    std::lock_guard<std::mutex> lock(mMutex);
    Script& script = mTransactionScripts[static_cast<size_t>(method)];
    script.failure = failure;
    script.times = times;
}

void ServiceStats::scriptLink(const Failure& failure, int times) {
    std::lock_guard<std::mutex> lock(mMutex);
    mLinkScript.failure = failure;
    mLinkScript.times = times;
}

std::optional<Failure> ServiceStats::nextTransaction(Method method) {
    return next(&mTransactionScripts[static_cast<size_t>(method)]);
}

std::optional<Failure> ServiceStats::nextLink() {
    return next(&mLinkScript);
}

std::optional<Failure> ServiceStats::next(Script* script) {
    if (script->times == 0) return std::nullopt;  // no lock in the usual case
    std::lock_guard<std::mutex> lock(mMutex);
    if (script->times == 0) return std::nullopt;
    --script->times;
    return script->failure;
}

ServiceStats& ServiceStats::of(const std::string& name) {
    Register& all = neverDestroyed<Register>();
    std::lock_guard<std::mutex> lock(all.mutex);
    auto& stats = all.stats[name];
    if (stats == nullptr) stats = std::make_unique<ServiceStats>();
    return *stats;
}

void logFailure(Method method, const std::string& reason) {
    const MethodName& name = kMethodNames[static_cast<size_t>(method)];
    __android_log_print(ANDROID_LOG_DEBUG, kLogTag, "%s of %s failed: %s", name.method.data(),
                        name.service.data(), reason.c_str());
}

void registerService(const std::string& name, RegisteredService service) {
    service.peer->setStats(&ServiceStats::of(name));
    Register& all = neverDestroyed<Register>();
    {
        std::lock_guard<std::mutex> lock(all.mutex);
        std::swap(all.services[name], service);
    }
    // The previous service is released here, without the lock.
}

RegisteredService findService(const std::string& name) {
    ServiceStats::of(name).lookups++;
    Register& all = neverDestroyed<Register>();
    std::vector<Bus> buses;
    {
        std::lock_guard<std::mutex> lock(all.mutex);
        auto entry = all.services.find(name);
        if (entry != all.services.end()) return entry->second;
        const auto& names = all.namesOnBus;
        if (std::find(names.begin(), names.end(), name) != names.end()) buses = all.buses;
    }
    if (otherProcesses() == nullptr) return {};
    for (const Bus bus : buses) {
        RegisteredService service = otherProcesses()->find(bus, name);
        if (service.peer == nullptr) continue;
        service.peer->setStats(&ServiceStats::of(name));
        return service;
    }
    return {};
}

void plugIn(OtherProcesses* others) {
    neverDestroyed<Register>().others = others;
}

OtherProcesses* otherProcesses() {
    return neverDestroyed<Register>().others;
}

std::string findBusTrouble(Bus bus) {
    OtherProcesses* const others = otherProcesses();
    return others != nullptr ? others->findTrouble(bus)
                             : "this program is built without D-Bus (set POWERSTATS_DBUS)";
}

std::vector<std::string> listBusNames(Bus bus) {
    OtherProcesses* const others = otherProcesses();
    return others != nullptr ? others->listNames(bus) : std::vector<std::string>();
}

void useOwnBusConnections() {
    if (OtherProcesses* others = otherProcesses()) others->useOwnConnections();
}

void setBusTimeLimit(double seconds) {
    if (OtherProcesses* others = otherProcesses()) others->setTimeLimit(seconds);
}

void setBusLookups(std::vector<Bus> buses, std::vector<std::string> names) {
    Register& all = neverDestroyed<Register>();
    std::lock_guard<std::mutex> lock(all.mutex);
    all.buses = std::move(buses);
    all.namesOnBus = std::move(names);
}

bool unregisterService(const std::string& name) {
    return remove(name).object != nullptr;
}

bool killService(const std::string& name) {
    RegisteredService service = remove(name);
    if (service.object == nullptr) return false;
    service.peer->die();
    return true;
}

Failure deadObject() {
    Failure failure;
    failure.transactionError = -32;
    return failure;
}

void failTransactions(const std::string& name, const std::string& method, const Failure& failure,
                      int times) {
    ServiceStats::of(name).scriptTransaction(methodOf(name, method), failure, times);
}

void failLinks(const std::string& name, const Failure& failure, int times) {
    ServiceStats::of(name).scriptLink(failure, times);
}

int64_t lookups(const std::string& name) {
    return ServiceStats::of(name).lookups;
}

int64_t links(const std::string& name) {
    return ServiceStats::of(name).links;
}

int64_t unlinks(const std::string& name) {
    return ServiceStats::of(name).unlinks;
}

int64_t transactions(const std::string& name, const std::string& method) {
    return ServiceStats::of(name).transactions[static_cast<size_t>(methodOf(name, method))];
}

int64_t transactions(const std::string& name) {
    int64_t sum = 0;
    for (const auto& count : ServiceStats::of(name).transactions) sum += count;
    return sum;
}

namespace {

struct Observer {
    std::mutex mutex;
    std::shared_ptr<const std::function<void(Event)>> function;
};

}  // namespace

void setObserver(std::function<void(Event)> observer) {
    auto function = observer
                        ? std::make_shared<const std::function<void(Event)>>(std::move(observer))
                        : nullptr;
    auto& current = neverDestroyed<Observer>();
    std::lock_guard<std::mutex> lock(current.mutex);
    current.function = std::move(function);
}

void observe(Event event) {
    auto& current = neverDestroyed<Observer>();
    std::shared_ptr<const std::function<void(Event)>> function;
    {
        std::lock_guard<std::mutex> lock(current.mutex);
        function = current.function;
    }
    if (function != nullptr) (*function)(event);
}

}  // namespace host
