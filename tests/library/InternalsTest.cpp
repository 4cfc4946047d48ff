// SPDX-License-Identifier: Apache-2.0
//
// States that no caller of the two entry points can bring about. The library's source is part of
// this program, and its globals are the program's.

// NOLINTNEXTLINE(bugprone-suspicious-include): the source is part of this program
#include "jni/TavrelPowerStatsHalDataProviderNative.cpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <cmath>
#include <limits>

#include "tests/support/ChildProcess.h"
#include "tests/support/Scenario.h"

namespace {

/// The service that this program's look-up of HIDL finds.
::android::sp<support::stats_V1_0::IPowerStats> gServiceItself;

}  // namespace

::android::sp<support::stats_V1_0::IPowerStats> support::stats_V1_0::IPowerStats::getService(
    const std::string& serviceName, bool getStub) {
    EXPECT_EQ(serviceName, "default");
    EXPECT_FALSE(getStub);
    return gServiceItself;
}

namespace ferrolith {
namespace {

using support::Backend;

TEST(Internals, EnergyThatIsNaNOrInfinite) {
    const float infinity = std::numeric_limits<float>::infinity();
    const volatile float notANumber = std::nanf("");  // a compiler folds a constant to 0
    EXPECT_EQ(toMillijoules(notANumber), 0);
    EXPECT_EQ(toMillijoules(infinity), 2147483647);
    EXPECT_EQ(toMillijoules(-infinity), -2147483648LL);
}

TEST(Internals, CallOfAnUnboundCollectorEndsTheProcess) {
    const support::Ended ended = support::runInChild([] {
        support::Scenario scenario;
        collect({}, scenario.env.get(), nullptr);
    });
    EXPECT_EQ(ended.signal, SIGABRT);
    EXPECT_EQ(ended.errors,
              "bad_function_call was thrown in -fno-exceptions mode\n"
              "abort message: bad_function_call was thrown in -fno-exceptions mode\n");
}

class AidlInternals : public testing::Test, public support::Scenario {
  protected:
    AidlInternals() { serve(Backend::kAidl, support::smallMachine()); }

    std::string residencies() {
        const auto bytes = support::toText(env.take(getResidenciesAidl(env.get(), nullptr)));
        return bytes.value_or("null");
    }
};

TEST_F(AidlInternals, MissingNamesAreAskedFor) {
    const auto result = [](const char* entity, const char* state) {
        return support::entity(entity, {support::residency(state, support::kSmallState)});
    };
    gEntityNames = {{7, "old"}};
    EXPECT_EQ(residencies(), result("old", "S0"));
    gEntityNames.clear();
    gStateNames = {{7, {{0, "old"}}}};
    EXPECT_EQ(residencies(), result("SOC", "old"));
    aidl->machine.entities.clear();
    gEntityNames.clear();
    EXPECT_EQ(residencies(), "null");
    gEntityNames = {{7, "old"}};
    gStateNames.clear();
    EXPECT_EQ(residencies(), "null");
}

// The platform's own proxy never writes to the answer of a failed query.
TEST_F(AidlInternals, AnswerOfAFailedQueryIsNotUsed) {
    gPowerStatsHalAidl = aidl;
    for (const char* method : {"getPowerEntityInfo", "getEnergyMeterInfo"}) {
        aidl->statuses[method] = support::FakeHidl::Status::INVALID_INPUT;
    }
    EXPECT_FALSE(initNamesAidl());
    EXPECT_FALSE(initChannelsAidl());
    EXPECT_TRUE(gEntityNames.empty() && gStateNames.empty() && gChannels.empty());
    aidl->statuses.clear();
    EXPECT_TRUE(initNamesAidl());
    EXPECT_TRUE(initChannelsAidl());
}

class HidlInternals : public testing::Test, public support::Scenario {
  protected:
    HidlInternals() { serve(Backend::kHidl, support::smallMachine()); }
};

// A failed name query drops the connection in any case; a dead object does so before the query
// ends.
TEST_F(HidlInternals, OnlyADeadObjectDisconnectsAtOnce) {
    using TransportStatus = ::android::hardware::Status;
    gPowerStatsHalV1_0 = hidl;
    EXPECT_TRUE(checkResultV1_0(TransportStatus::ok()));
    EXPECT_FALSE(checkResultV1_0(TransportStatus::fromStatusT(::android::FAILED_TRANSACTION)));
    EXPECT_FALSE(checkResultV1_0(TransportStatus::fromExceptionCode(-32)));
    EXPECT_EQ(gPowerStatsHalV1_0, hidl);
    EXPECT_FALSE(checkResultV1_0(TransportStatus::fromStatusT(::android::DEAD_OBJECT)));
    EXPECT_EQ(gPowerStatsHalV1_0, nullptr);
}

// Only a service that is not reached through the platform's proxy refuses a first link.
TEST_F(HidlInternals, RefusedLinkIsIgnored) {
    gServiceItself = hidl;
    EXPECT_TRUE(initPowerStatsV1_0());
    EXPECT_EQ(gPowerStatsHalV1_0, hidl);
    EXPECT_EQ(support::takeEvents(), support::Lines{});
    gServiceItself = nullptr;
}

struct SilentEnergy : support::FakeHidl {
    Result getEnergyData(const Ids&, getEnergyData_cb) override {
        return ::android::hardware::Void();
    }
};

// The platform's proxy turns a missing answer into a failure.
TEST_F(HidlInternals, MissingEnergyIsAnEmptyResult) {
    const ::android::sp<SilentEnergy> silent = new SilentEnergy;
    silent->tell(support::smallMachine());
    gPowerStatsHalV1_0 = silent;
    const auto bytes = env.take(getRailEnergyV1_0(env.get(), nullptr));
    EXPECT_EQ(bytes, host::JavaBytes(std::vector<uint8_t>()));
    EXPECT_EQ(support::takeEvents(),
              (support::Lines{"clock", "NewByteArray(0)", "SetByteArrayRegion(0, 0)"}));
}

}  // namespace
}  // namespace ferrolith
