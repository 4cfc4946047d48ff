// SPDX-License-Identifier: Apache-2.0

#include "tests/support/PlatformCalls.h"

#include <android/binder_manager.h>
#include <android/set_abort_message.h>
#include <dlfcn.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

namespace support {

std::function<void(const char* event)> onReference;

namespace {

struct Request {
    const char* name;
    std::atomic<int64_t> count{0};
    std::atomic<bool> fails{false};
    Failure failure = {};
};

/// Never destroyed: the library's destructors make requests too.
auto& requests() {
    static auto& all = *new std::array<Request, 15>{{
        {"aidl:lookup"},
        {"aidl:link"},
        {"aidl:unlink"},
        {"aidl:getEnergyMeterInfo"},
        {"aidl:readEnergyMeter"},
        {"aidl:getPowerEntityInfo"},
        {"aidl:getStateResidency"},
        {"hidl:lookup"},
        {"hidl:link"},
        {"hidl:unlink"},
        {"hidl:getPowerEntityInfo"},
        {"hidl:getPowerEntityStateInfo"},
        {"hidl:getRailInfo"},
        {"hidl:getEnergyData"},
        {"hidl:getPowerEntityStateResidencyData"},
    }};
    return all;
}

Request& find(const char* name) {
    for (Request& request : requests()) {
        if (std::strcmp(request.name, name) == 0) return request;
    }
    std::fprintf(stderr, "no request is called %s\n", name);
    std::abort();
}

/// Counts a request.
/// @return how it fails, if a test wants that.
std::optional<Failure> begin(const char* name) {
    Request& request = find(name);
    ++request.count;
    if (!request.fails.exchange(false)) return std::nullopt;
    return request.failure;
}

void tell(const char* event) {
    if (onReference) onReference(event);
}

/// Returns the platform's function that one of this program is in place of.
template <typename Function>
Function* platforms(Function* own) {
    Dl_info info{};
    dladdr(reinterpret_cast<void*>(own), &info);
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, info.dli_sname));
}

std::atomic<int> gProxies[2];

/// Counts the proxies of a backend.
template <Backend kBackend>
class Counted {
  public:
    Counted() { ++gProxies[static_cast<int>(kBackend)]; }
    ~Counted() {
        --gProxies[static_cast<int>(kBackend)];
        tell(kBackend == Backend::kAidl ? "AIDL proxy destroyed" : "HIDL proxy destroyed");
    }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
};

class AidlProxy : public stats::IPowerStats {
  public:
    using Status = ndk::ScopedAStatus;
    using Ids = std::vector<int32_t>;

    explicit AidlProxy(std::shared_ptr<stats::IPowerStats> platforms)
        : mPlatforms(std::move(platforms)) {}

    ndk::SpAIBinder asBinder() override { return mPlatforms->asBinder(); }

    Status getPowerEntityInfo(std::vector<stats::PowerEntity>* answer) override {
        return pass<&IPowerStats::getPowerEntityInfo>("aidl:getPowerEntityInfo", answer);
    }
    Status getStateResidency(const Ids& ids,
                             std::vector<stats::StateResidencyResult>* answer) override {
        return pass<&IPowerStats::getStateResidency>("aidl:getStateResidency", ids, answer);
    }
    Status getEnergyConsumerInfo(std::vector<stats::EnergyConsumer>* answer) override {
        return mPlatforms->getEnergyConsumerInfo(answer);
    }
    Status getEnergyConsumed(const Ids& ids,
                             std::vector<stats::EnergyConsumerResult>* answer) override {
        return mPlatforms->getEnergyConsumed(ids, answer);
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
        const auto failure = begin(request);
        if (!failure) return ((*mPlatforms).*kMethod)(arguments...);
        if (failure->withoutStatus) return Status();
        if (failure->exceptionCode == EX_TRANSACTION_FAILED) {
            return Status::fromStatus(failure->transactionError);
        }
        return Status::fromExceptionCode(failure->exceptionCode);
    }

    const std::shared_ptr<stats::IPowerStats> mPlatforms;
    const Counted<Backend::kAidl> mCounted;  // last, so that its event comes first
};

android::hardware::Status transportStatus(const Failure& failure) {
    using android::hardware::Status;
    return failure.exceptionCode == Status::EX_TRANSACTION_FAILED
               ? Status::fromStatusT(failure.transactionError, failure.message.c_str())
               : Status::fromExceptionCode(failure.exceptionCode, failure.message.c_str());
}

/// The links of a test are those of the platform's proxy, which is also the one that their notices
/// name.
class HidlProxy : public stats_V1_0::IPowerStats {
  public:
    using Recipient = android::sp<android::hardware::hidl_death_recipient>;
    using Result = android::hardware::Return<void>;
    using Ids = android::hardware::hidl_vec<uint32_t>;

    explicit HidlProxy(const android::sp<stats_V1_0::IPowerStats>& platforms)
        : mPlatforms(platforms) {}

    android::hardware::Return<bool> linkToDeath(const Recipient& recipient,
                                                uint64_t cookie) override {
        if (const auto failure = begin("hidl:link")) return transportStatus(*failure);
        return mPlatforms->linkToDeath(recipient, cookie);
    }
    android::hardware::Return<bool> unlinkToDeath(const Recipient& recipient) override {
        begin("hidl:unlink");
        return mPlatforms->unlinkToDeath(recipient);
    }

    Result getRailInfo(getRailInfo_cb callback) override {
        return pass<&IPowerStats::getRailInfo>("hidl:getRailInfo", callback);
    }
    Result getEnergyData(const Ids& ids, getEnergyData_cb callback) override {
        return pass<&IPowerStats::getEnergyData>("hidl:getEnergyData", ids, callback);
    }
    Result streamEnergyData(uint32_t timeMs, uint32_t rate, streamEnergyData_cb callback) override {
        return mPlatforms->streamEnergyData(timeMs, rate, callback);
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
        if (const auto failure = begin(request)) return transportStatus(*failure);
        return ((*mPlatforms).*kMethod)(arguments...);
    }

    const android::sp<stats_V1_0::IPowerStats> mPlatforms;
    const Counted<Backend::kHidl> mCounted;  // last, so that its event comes first
};

}  // namespace

void failNext(const std::string& request, const Failure& failure) {
    Request& next = find(request.c_str());
    next.failure = failure;
    next.fails = true;
}

std::vector<RequestCount> requestCounts() {
    std::vector<RequestCount> counts;
    for (const Request& request : requests()) counts.push_back({request.name, request.count});
    return counts;
}

int64_t requestCount(const std::string& request) {
    return find(request.c_str()).count;
}

std::string requestOf(Backend backend, const std::string& name) {
    return (backend == Backend::kAidl ? "aidl:" : "hidl:") + name;
}

int proxies(Backend backend) {
    return gProxies[static_cast<int>(backend)];
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
    if (const auto failure = support::begin("aidl:link")) return failure->transactionError;
    return support::platforms(&AIBinder_linkToDeath)(binder, recipient, cookie);
}

binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie) {
    support::begin("aidl:unlink");
    return support::platforms(&AIBinder_unlinkToDeath)(binder, recipient, cookie);
}

AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(
    AIBinder_DeathRecipient_onBinderDied onBinderDied) {
    support::tell("AIDL recipient created");
    return support::platforms(&AIBinder_DeathRecipient_new)(onBinderDied);
}

void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient) {
    if (recipient != nullptr) support::tell("AIDL recipient deleted");
    support::platforms (&AIBinder_DeathRecipient_delete)(recipient);
}

void AIBinder_decStrong(AIBinder* binder) {
    if (binder != nullptr) support::tell("binder released");
    static const auto release = support::platforms(&AIBinder_decStrong);
    release(binder);
}

void android_set_abort_message(const char* message) {
    std::fprintf(stderr, "abort message: %s\n", message);
}

}  // extern "C"
