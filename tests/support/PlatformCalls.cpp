// SPDX-License-Identifier: Apache-2.0

#include "tests/support/PlatformCalls.h"

#include <android/binder_manager.h>
#include <android/set_abort_message.h>
#include <dlfcn.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

namespace support {

std::function<void(const char* event)> onReference;

std::atomic<bool> recordsRequests{true};

namespace {

struct Requests {
    std::mutex mutex;
    std::string recorded;
    std::map<std::string, Failure> failures;
};

/// Never destroyed: the library's destructors make requests too.
Requests& requests() {
    static auto* const all = new Requests;
    return *all;
}

/// Records a request.
/// @return how it fails, if a test wants that.
std::optional<Failure> begin(const std::string& name) {
    Requests& all = requests();
    std::lock_guard<std::mutex> lock(all.mutex);
    if (recordsRequests) all.recorded += (all.recorded.empty() ? "" : " ") + name;
    const auto failure = all.failures.extract(name);
    return failure ? std::optional(failure.mapped()) : std::nullopt;
}

void announce(const char* event) {
    if (onReference) onReference(event);
}

/// Returns the platform's function that one of this program is in place of.
template <typename Function>
Function* platforms(Function* own) {
    Dl_info info{};
    dladdr(reinterpret_cast<void*>(own), &info);
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, info.dli_sname));
}

// The proxies are fake services for the sake of the methods that the library never calls.

class AidlProxy : public FakeAidl {
  public:
    explicit AidlProxy(std::shared_ptr<stats::IPowerStats> platforms)
        : mPlatforms(std::move(platforms)) {}
    ~AidlProxy() override { announce("Aidl proxy destroyed"); }

    ndk::SpAIBinder asBinder() override { return mPlatforms->asBinder(); }

    Status getPowerEntityInfo(std::vector<stats::PowerEntity>* answer) override {
        return pass<&IPowerStats::getPowerEntityInfo>("aidl:getPowerEntityInfo", answer);
    }
    Status getStateResidency(const Ids& ids,
                             std::vector<stats::StateResidencyResult>* answer) override {
        return pass<&IPowerStats::getStateResidency>("aidl:getStateResidency", ids, answer);
    }
    Status getEnergyMeterInfo(std::vector<stats::Channel>* answer) override {
        return pass<&IPowerStats::getEnergyMeterInfo>("aidl:getEnergyMeterInfo", answer);
    }
    Status readEnergyMeter(const Ids& ids, std::vector<stats::EnergyMeasurement>* answer) override {
        return pass<&IPowerStats::readEnergyMeter>("aidl:readEnergyMeter", ids, answer);
    }

  private:
    template <auto kMethod, typename... Arguments>
    Status pass(const char* request, const Arguments&... arguments) {
        const auto failure = support::begin(request);
        return failure ? Status::fromStatus(failure->error)
                       : ((*mPlatforms).*kMethod)(arguments...);
    }

    const std::shared_ptr<stats::IPowerStats> mPlatforms;
};

android::hardware::Status transportStatus(const Failure& failure) {
    return android::hardware::Status::fromStatusT(failure.error, failure.message.c_str());
}

/// The links of a test are those of the platform's proxy, which is also the one that their notices
/// name.
class HidlProxy : public FakeHidl {
  public:
    using Recipient = android::sp<android::hardware::hidl_death_recipient>;

    explicit HidlProxy(const android::sp<stats_V1_0::IPowerStats>& platforms)
        : mPlatforms(platforms) {}
    ~HidlProxy() override { announce("Hidl proxy destroyed"); }

    android::hardware::Return<bool> linkToDeath(const Recipient& recipient,
                                                uint64_t cookie) override {
        if (const auto failure = support::begin("hidl:link")) return transportStatus(*failure);
        return mPlatforms->linkToDeath(recipient, cookie);
    }
    android::hardware::Return<bool> unlinkToDeath(const Recipient& recipient) override {
        support::begin("hidl:unlink");
        return mPlatforms->unlinkToDeath(recipient);
    }

    Result getRailInfo(getRailInfo_cb callback) override {
        return pass<&IPowerStats::getRailInfo>("hidl:getRailInfo", callback);
    }
    Result getEnergyData(const Ids& ids, getEnergyData_cb callback) override {
        return pass<&IPowerStats::getEnergyData>("hidl:getEnergyData", ids, callback);
    }
    Result getPowerEntityInfo(getPowerEntityInfo_cb callback) override {
        return pass<&IPowerStats::getPowerEntityInfo>("hidl:getPowerEntityInfo", callback);
    }
    Result getPowerEntityStateInfo(const Ids& ids, getPowerEntityStateInfo_cb callback) override {
        return pass<&IPowerStats::getPowerEntityStateInfo>("hidl:getPowerEntityStateInfo", ids,
                                                           callback);
    }
    Result getPowerEntityStateResidencyData(const Ids& ids,
                                            getPowerEntityStateResidencyData_cb callback) override {
        return pass<&IPowerStats::getPowerEntityStateResidencyData>(
            "hidl:getPowerEntityStateResidencyData", ids, callback);
    }

  private:
    template <auto kMethod, typename... Arguments>
    Result pass(const char* request, const Arguments&... arguments) {
        if (const auto failure = support::begin(request)) return transportStatus(*failure);
        return ((*mPlatforms).*kMethod)(arguments...);
    }

    const android::sp<stats_V1_0::IPowerStats> mPlatforms;
};

}  // namespace

void failNext(const std::string& request, const Failure& failure) {
    std::lock_guard<std::mutex> lock(requests().mutex);
    requests().failures[request] = failure;
}

std::string takeRequests() {
    std::lock_guard<std::mutex> lock(requests().mutex);
    return std::exchange(requests().recorded, {});
}

std::string requestOf(Backend backend, const std::string& name) {
    return (backend == Backend::kAidl ? "aidl:" : "hidl:") + name;
}

}  // namespace support

// Functions of the platform. Each finds the platform's own one, which is the next of its name.

std::shared_ptr<support::stats::IPowerStats> support::stats::IPowerStats::fromBinder(
    const ndk::SpAIBinder& binder) {
    auto made = support::platforms(&fromBinder)(binder);
    if (made == nullptr) return nullptr;
    return ndk::SharedRefBase::make<support::AidlProxy>(std::move(made));
}

// Weak, because a program of tests may have a look-up of its own.
__attribute__((weak)) android::sp<support::stats_V1_0::IPowerStats>
support::stats_V1_0::IPowerStats::getService(const std::string& serviceName, bool getStub) {
    support::begin("hidl:lookup");
    const auto made = support::platforms(&getService)(serviceName, getStub);
    return made != nullptr ? new support::HidlProxy(made) : nullptr;
}

extern "C" {

AIBinder* AServiceManager_getService(const char* instance) {
    support::begin("aidl:lookup");
    return support::platforms(&AServiceManager_getService)(instance);
}

binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie) {
    if (const auto failure = support::begin("aidl:link")) return failure->error;
    return support::platforms(&AIBinder_linkToDeath)(binder, recipient, cookie);
}

void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient) {
    if (recipient != nullptr) support::announce("AIDL recipient deleted");
    support::platforms (&AIBinder_DeathRecipient_delete)(recipient);
}

void AIBinder_decStrong(AIBinder* binder) {
    if (binder != nullptr) support::announce("binder released");
    static const auto release = support::platforms(&AIBinder_decStrong);
    release(binder);
}

void android_set_abort_message(const char* message) {
    std::fprintf(stderr, "abort message: %s\n", message);
}

}  // extern "C"
