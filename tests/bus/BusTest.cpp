// SPDX-License-Identifier: Apache-2.0
//
// The library with services in other processes, which die between calls and during one; and with a
// bus that dies. All processes, buses and kills are real.

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/binder_manager.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>

#include "tests/bus/Support.h"
#include "tests/support/ChildProcess.h"

namespace support {
namespace {

bool isOnBus(Backend backend) {
    if (backend == Backend::kHidl) return stats_V1_0::IPowerStats::getService() != nullptr;
    return ndk::SpAIBinder(AServiceManager_checkService(host::kAidlPowerStats)).get() != nullptr;
}

/// Waits until the bus knows that a killed service is gone, and then until its clients know.
void awaitDeath(Backend backend) {
    while (isOnBus(backend)) usleep(1000);
    EXPECT_TRUE(host::waitForDeathNotices());
}

class BusTest : public testing::TestWithParam<Backend> {
  protected:
    std::unique_ptr<Process> serve(int generation) {
        return startPeer(
            {"serve", GetParam() == Backend::kAidl ? "aidl" : "hidl", std::to_string(generation)});
    }

    // The bus and the service outlive the library, because the notice of their death must not run
    // in the library while it is unloaded.
    std::unique_ptr<PrivateBus> mBus = std::make_unique<PrivateBus>();
    std::unique_ptr<Process> mService;
};
INSTANTIATE_TEST_SUITE_P(Test, BusTest, testing::ValuesIn(kBackends),
                         testing::PrintToStringParamName());

TEST_P(BusTest, NextCallAfterADeathOfTheServiceOrTheBusFindsTheNewService) {
    BusScenario scenario;
    mService = serve(1);
    for (const Call call : kCalls) EXPECT_EQ(scenario.call(call).bytes, busResult(call, 1));
    // A client over HIDL keeps the names of entities and states that it knows.
    const int namedAs = GetParam() == Backend::kHidl ? 1 : 2;
    for (const Call first : kCalls) {
        mService->kill();
        awaitDeath(GetParam());
        mService = serve(2);
        EXPECT_EQ(scenario.call(first),
                  array(busResult(first, 2, namedAs), reconnectTraffic(GetParam(), first)));
        for (const Call call : kCalls) {
            EXPECT_EQ(scenario.call(call).bytes, busResult(call, 2, namedAs));
        }
        EXPECT_EQ(scenario.call(first),
                  array(busResult(first, 2, namedAs), steadyTraffic(GetParam(), first)));
    }
    mBus->kill();
    ASSERT_TRUE(host::waitForDeathNotices());
    for (const Call call : kCalls) {
        EXPECT_NE(scenario.call(call).events.front().find("E: Unable to get power stats "),
                  std::string::npos);
    }
    mBus = std::make_unique<PrivateBus>();
    mService = serve(2);
    for (const Call call : kCalls) {
        EXPECT_EQ(scenario.call(call).bytes, busResult(call, 2, namedAs));
    }
}

constexpr char kInitFailed[] =
    "E: Failed to init state info: requested HAL service not available. "
    "Description: Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT";
/// The platform's message about a call that did not reach a dead service, as the library leaves it.
/// The process ends.
constexpr char kUnexamined[] =
    "F/HidlStatus: Failed HIDL return status not checked. Error is: Status(EX_TRANSACTION_FAILED): "
    "'DEAD_OBJECT";

TEST(ServiceKilledInACall, FailsThatCallAndTheNextOneFindsTheNewServiceOrEndsTheProcess) {
    const struct {
        const char* hal;
        const char* lastMethod;
        Call call;
        const char* line;
    } cases[] = {
        {"aidl", "getEnergyMeterInfo", Call::kRails, "I: Power stats rail energy init failed"},
        {"aidl", "readEnergyMeter", Call::kRails, "E: Error reading energy meter"},
        {"aidl", "getPowerEntityInfo", Call::kResidencies,
         "I: Power stats residencies init failed"},
        {"aidl", "getStateResidency", Call::kResidencies,
         "E: Error reading getting state residency"},
        {"hidl", "getPowerEntityInfo", Call::kRails, kInitFailed},
        {"hidl", "getPowerEntityStateInfo", Call::kRails, kInitFailed},
        {"hidl", "getRailInfo", Call::kRails, kUnexamined},
        {"hidl", "getEnergyData", Call::kRails, kUnexamined},
        {"hidl", "getPowerEntityStateResidencyData", Call::kResidencies, kUnexamined},
    };
    const PrivateBus bus;
    for (const auto& row : cases) {
        SCOPED_TRACE(row.lastMethod);
        auto service = startPeer({"serve", row.hal, "1", row.lastMethod});
        const Ended ended = runInChild([&] {
            BusScenario scenario;
            scenario.callAloud(row.call);
            awaitDeath(row.hal == std::string("aidl") ? Backend::kAidl : Backend::kHidl);
            service = startPeer({"serve", row.hal, "2"});
            EXPECT_EQ(scenario.call(row.call).bytes, busResult(row.call, 2));
        });
        const bool ends = row.line == kUnexamined;
        EXPECT_EQ(ends ? ended.signal : ended.exitCode, ends ? SIGABRT : kReturned);
        EXPECT_NE(ended.errors.find(row.line), std::string::npos) << ended.errors;
        EXPECT_EQ(ended.errors.find("returned null\n") == std::string::npos, ends) << ended.errors;
        EXPECT_EQ(service->wait(), -SIGKILL);
    }
}

TEST(AidlBus, LinkToAProcessThatIsGoneIsToldAtOnceAndOnce) {
    const PrivateBus bus;
    const auto service = startPeer({"serve", "aidl", "1"});
    const ndk::SpAIBinder binder(AServiceManager_getService(host::kAidlPowerStats));
    ASSERT_NE(binder.get(), nullptr);
    service->kill();
    while (isOnBus(Backend::kAidl)) usleep(1000);
    // A second notice would set the promise a second time, which throws.
    std::promise<void> told;
    const ndk::ScopedAIBinder_DeathRecipient recipient(AIBinder_DeathRecipient_new(
        [](void* cookie) { static_cast<std::promise<void>*>(cookie)->set_value(); }));
    EXPECT_EQ(AIBinder_linkToDeath(binder.get(), recipient.get(), &told), STATUS_OK);
    EXPECT_EQ(told.get_future().wait_for(std::chrono::seconds(300)), std::future_status::ready);
    EXPECT_TRUE(host::waitForDeathNotices());
    EXPECT_EQ(AIBinder_linkToDeath(binder.get(), recipient.get(), &told), STATUS_DEAD_OBJECT);
    EXPECT_EQ(stats::IPowerStats::fromBinder(binder), nullptr);
}

TEST(HidlBus, EveryProxyOfADeadServiceIsTold) {
    struct Recipient : android::hardware::hidl_death_recipient {
        void serviceDied(uint64_t /*cookie*/,
                         const android::wp<android::hidl::base::V1_0::IBase>& /*who*/) override {
            ++died;
        }
        std::atomic<int> died{0};
    };
    const PrivateBus bus;
    const auto service = startPeer({"serve", "hidl", "1"});
    const android::sp<Recipient> recipient = new Recipient;
    const auto first = stats_V1_0::IPowerStats::getService();
    const auto second = stats_V1_0::IPowerStats::getService();
    for (const auto& proxy : {first, second}) EXPECT_TRUE(proxy->linkToDeath(recipient, 0));
    service->kill();
    awaitDeath(Backend::kHidl);
    EXPECT_EQ(recipient->died, 2);
}

TEST(Lookup, OfTheFirstCallWaitsForAServiceThatStartsLater) {
    const PrivateBus bus;
    BusScenario scenario;
    host::setBusLookups({host::Bus::kSystem, host::Bus::kSession}, {host::kAidlPowerStats}, 300);
    auto call = std::async(std::launch::async, [&] { return scenario.call(Call::kRails).bytes; });
    usleep(200'000);
    const auto service = startPeer({"serve", "aidl", "1"});
    EXPECT_EQ(call.get(), busResult(Call::kRails, 1));
}

TEST(Fork, ChildThatCallsFailsAtOnceAndWritesNowhereAndTheParentGoesOn) {
    const PrivateBus bus;
    const auto aidlService = startPeer({"serve", "aidl", "1"});
    const auto hidlService = startPeer({"serve", "hidl", "1"});
    // As in a fresh process.
    host::setBusLookups({host::Bus::kSession}, {host::kAidlPowerStats, host::kHidlPowerStats}, 300);
    const ndk::SpAIBinder binder(AServiceManager_getService(host::kAidlPowerStats));
    const auto aidl = stats::IPowerStats::fromBinder(binder);
    const auto hidl = stats_V1_0::IPowerStats::getService();
    ASSERT_TRUE(aidl != nullptr && hidl != nullptr);
    const auto expectStatus = [&](binder_status_t expected) {
        std::vector<stats::Channel> channels;
        EXPECT_EQ(aidl->getEnergyMeterInfo(&channels).getStatus(), expected);
        const auto result = hidl->getRailInfo([](const auto&, auto) {});
        EXPECT_EQ(result.isOk(), expected == STATUS_OK);
        EXPECT_EQ(result.isDeadObject(), expected != STATUS_OK);
    };
    expectStatus(STATUS_OK);
    const Ended ended = runInChild([&] {
        closefrom(STDERR_FILENO + 1);
        std::vector<int> files(32);  // they get the numbers of the connection's
        for (int& file : files) file = memfd_create("file", 0);
        expectStatus(STATUS_DEAD_OBJECT);
        EXPECT_EQ(AServiceManager_getService(host::kAidlPowerStats), nullptr);
        EXPECT_EQ(stats_V1_0::IPowerStats::getService(), nullptr);
        for (const int file : files) EXPECT_EQ(lseek(file, 0, SEEK_END), 0);
    });
    EXPECT_EQ(ended.exitCode, kReturned) << ended.signal << ended.errors;
    expectStatus(STATUS_OK);
}

TEST(AidlBus, BadAnswersAreFailedTransactions) {
    const struct {
        const char* how;
        const char* text;
        binder_status_t status = STATUS_FAILED_TRANSACTION;
    } cases[] = {
        {"long", "com.example.No: \\x1B[31m\\xE2\\x80\\xA8\u00e4xxx"},
        {"never", "", STATUS_TIMED_OUT},
    };
    const PrivateBus bus;
    for (const auto& row : cases) {
        SCOPED_TRACE(row.how);
        const auto peer = startPeer({"answer", row.how});
        host::setBusTimeLimit(row.status == STATUS_TIMED_OUT ? 0.2 : 300);
        const auto client = stats::IPowerStats::fromBinder(
            ndk::SpAIBinder(AServiceManager_getService(host::kAidlPowerStats)));
        ASSERT_NE(client, nullptr);
        std::vector<stats::Channel> channels{{5, "untouched", ""}};
        const ndk::ScopedAStatus status = client->getEnergyMeterInfo(&channels);
        EXPECT_EQ(status.getStatus(), row.status);
        EXPECT_NE(std::string(status.getMessage()).find(row.text), std::string::npos)
            << status.getDescription();
        EXPECT_LE(std::strlen(status.getMessage()), 300u);
        EXPECT_EQ(channels.size(), 1u);
    }
}

}  // namespace
}  // namespace support
