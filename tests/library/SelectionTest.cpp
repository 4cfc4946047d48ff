// SPDX-License-Identifier: Apache-2.0
//
// The choice of a backend, made once in a process, and the connection that follows it.

#include <android/binder_manager.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "tests/support/Scenario.h"

namespace support {
namespace {

class Selection : public testing::Test, public Scenario {};

Outcome noAidl(Call call) {
    return nothing({"E: Unable to get power stats AIDL service!",
                    call == Call::kRails ? "I: Power stats rail energy init failed"
                                         : "I: Power stats residencies init failed"},
                   "aidl:lookup");
}

const Outcome kNoHidl = nothing(
    {"E: Unable to get power stats HAL service!", "E: Power stats HAL not loaded!"}, "hidl:lookup");

TEST_F(Selection, AidlWinsAndIsLoggedOnceAndHidlStaysWhenAidlComesLater) {
    for (const Backend backend : kBackends) {
        serve(Backend::kHidl, smallMachine());
        if (backend == Backend::kAidl) serve(backend, smallMachine());
        EXPECT_EQ(call(Call::kRails),
                  asFirst(backend, array(smallResult(Call::kRails),
                                         reconnectTraffic(backend, Call::kRails))));
        serve(Backend::kAidl, smallMachine());
        EXPECT_EQ(call(Call::kResidencies), array(smallResult(Call::kResidencies),
                                                  connectedTraffic(backend, Call::kResidencies)));
        for (const Call which : kCalls) {
            EXPECT_EQ(call(which), array(smallResult(which), steadyTraffic(backend, which)));
        }
        if (backend == Backend::kHidl) {
            kill(backend);
            EXPECT_EQ(call(Call::kRails), kNoHidl);
        }
        unload();
        kill(Backend::kAidl);
    }
}

TEST_F(Selection, AidlNeverFallsBackToHidl) {
    serve(Backend::kAidl, smallMachine());
    serve(Backend::kHidl, smallMachine());
    call(Call::kResidencies);
    kill(Backend::kAidl);
    for (int i = 0; i < 2; ++i) {
        for (const Call which : kCalls) EXPECT_EQ(call(which), noAidl(which));
    }
    serve(Backend::kAidl, smallMachine());
    EXPECT_EQ(call(Call::kRails),
              array(smallResult(Call::kRails), reconnectTraffic(Backend::kAidl, Call::kRails)));
}

TEST_F(Selection, WithoutServiceTakesHidl) {
    EXPECT_EQ(call(Call::kRails), asFirst(Backend::kHidl, kNoHidl));
    EXPECT_EQ(call(Call::kResidencies), kNoHidl);
    serve(Backend::kHidl, smallMachine());
    EXPECT_EQ(call(Call::kResidencies),
              array(smallResult(Call::kResidencies),
                    reconnectTraffic(Backend::kHidl, Call::kResidencies)));
}

TEST_F(Selection, BinderOfAnotherInterfaceIsChosenAndNotUsed) {
    struct Lights : ndk::ICInterface {};
    const ndk::SpAIBinder binder = ndk::SharedRefBase::make<Lights>()->asBinder();
    AServiceManager_addService(binder.get(), host::kAidlPowerStats);
    serve(Backend::kHidl, smallMachine());
    EXPECT_EQ(call(Call::kRails), asFirst(Backend::kAidl, noAidl(Call::kRails)));
    for (const Call which : kCalls) EXPECT_EQ(call(which), noAidl(which));
    // The test, the register and the choice of backend hold one reference each.
    EXPECT_EQ(AIBinder_debugGetRefCount(binder.get()), 3);
}

TEST_F(Selection, KeepsOneReferenceOfItsOwn) {
    serve(Backend::kAidl, smallMachine());
    const ndk::SpAIBinder binder = aidl->asBinder();
    ASSERT_EQ(AIBinder_debugGetRefCount(binder.get()), 2) << "this test's and the register's";
    for (int i = 0; i < 3; ++i) {
        call(Call::kRails);
        call(Call::kResidencies);
        EXPECT_EQ(AIBinder_debugGetRefCount(binder.get()), 4) << "and the choice's and the proxy's";
    }
    kill(Backend::kAidl);
    EXPECT_EQ(AIBinder_debugGetRefCount(binder.get()), 2) << "this test's and the choice's";
    unload();
    EXPECT_EQ(AIBinder_debugGetRefCount(binder.get()), 2);
}

TEST_F(Selection, RacingCallsChooseOnceAndCollectInTurn) {
    for (const Backend backend : kBackends) {
        SCOPED_TRACE(chosenLine(backend));
        serve(backend, smallMachine());
        std::atomic<int> inside{0};
        std::atomic<int> most{0};
        service(backend).onCall = [&](const std::string&) {
            most = std::max<int>(most, ++inside);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            --inside;
        };
        // The other thread arrives while the choice is being logged.
        onEvent = [](const std::string&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        };
        load();
        takeEvents();
        takeRequests();
        std::atomic<int> ready{0};
        std::optional<std::string> results[2];
        const auto run = [&](Call call) {
            for (++ready; ready < 2;) std::this_thread::yield();
            results[static_cast<int>(call)] = toText(callBare(call));
        };
        std::thread rails(run, Call::kRails);
        std::thread residencies(run, Call::kResidencies);
        rails.join();
        residencies.join();
        for (const Call call : kCalls) {
            EXPECT_EQ(results[static_cast<int>(call)], smallResult(call));
        }
        const Lines events = takeEvents();
        EXPECT_EQ(std::count(events.begin(), events.end(), chosenLine(backend)), 1);
        const auto traffic = [&](Call first, Call second) {
            return "aidl:lookup " + reconnectTraffic(backend, first) + " " +
                   connectedTraffic(backend, second);
        };
        EXPECT_THAT(takeRequests(), testing::AnyOf(traffic(Call::kRails, Call::kResidencies),
                                                   traffic(Call::kResidencies, Call::kRails)));
        EXPECT_EQ(most, 1);
        unload();
        kill(backend);
    }
}

}  // namespace
}  // namespace support
