// SPDX-License-Identifier: Apache-2.0
//
// The rules of binders, of their register and of the AIDL proxy that a client relies on.

#include <android/binder_manager.h>
#include <gtest/gtest.h>
#include <host/ServiceControl.h>

#include <memory>

#include "tests/support/FakeServices.h"

namespace support {
namespace {

using ndk::SpAIBinder;

class Binder : public testing::Test {
  protected:
    Binder() {
        host::setBusLookups({});
        mService->machine = {{{1, "rail", ""}}, {{1, 5000, 5000, 1000}}, {}, {}};
        AServiceManager_addService(mService->asBinder().get(), host::kAidlPowerStats);
    }

    static std::shared_ptr<stats::IPowerStats> connect() {
        return stats::IPowerStats::fromBinder(
            SpAIBinder(AServiceManager_getService(host::kAidlPowerStats)));
    }

    std::shared_ptr<FakeAidl> mService = ndk::SharedRefBase::make<FakeAidl>();
};

TEST_F(Binder, IsTheSameForTheSameServiceAndKeepsItAlive) {
    SpAIBinder binder = mService->asBinder();
    EXPECT_EQ(binder, mService->asBinder());
    EXPECT_EQ(binder.get(), SpAIBinder(AServiceManager_getService(host::kAidlPowerStats)).get());
    const std::weak_ptr<FakeAidl> service = mService;
    mService.reset();
    EXPECT_TRUE(host::unregisterService(host::kAidlPowerStats));
    EXPECT_EQ(AServiceManager_checkService(host::kAidlPowerStats), nullptr);
    EXPECT_EQ(AIBinder_debugGetRefCount(binder.get()), 1);
    EXPECT_FALSE(service.expired());
    const ndk::ScopedAIBinder_Weak weak(AIBinder_Weak_new(binder.get()));
    EXPECT_EQ(SpAIBinder(AIBinder_Weak_promote(weak.get())), binder);
    binder.set(nullptr);
    EXPECT_EQ(stats::IPowerStats::fromBinder(binder), nullptr);
    EXPECT_TRUE(service.expired());
    EXPECT_EQ(AIBinder_Weak_promote(weak.get()), nullptr);
}

TEST_F(Binder, DeathDuringACallFailsItAndEveryClient) {
    const SpAIBinder binder(AServiceManager_getService(host::kAidlPowerStats));
    const auto first = connect(), second = connect();
    EXPECT_NE(first, second);
    mService->onCall = [](const std::string&) { host::killService(host::kAidlPowerStats); };
    std::vector<stats::EnergyMeasurement> measurements;
    EXPECT_EQ(first->readEnergyMeter({}, &measurements).getStatus(), STATUS_DEAD_OBJECT);
    EXPECT_TRUE(measurements.empty());
    EXPECT_EQ(second->readEnergyMeter({}, &measurements).getStatus(), STATUS_DEAD_OBJECT);
    EXPECT_EQ(stats::IPowerStats::fromBinder(binder), nullptr);
    EXPECT_EQ(AServiceManager_addService(first->asBinder().get(), host::kAidlPowerStats),
              STATUS_BAD_VALUE);
}

}  // namespace
}  // namespace support
