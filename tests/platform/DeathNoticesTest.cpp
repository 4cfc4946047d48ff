// SPDX-License-Identifier: Apache-2.0
//
// When death notices come, and when they do not, through both interfaces.

#include <android/binder_manager.h>
#include <gtest/gtest.h>
#include <host/ServiceControl.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <thread>

#include "tests/support/ChildProcess.h"
#include "tests/support/FakeServices.h"

namespace support {
namespace {

using android::sp;
using android::wp;
using android::hidl::base::V1_0::IBase;
using stats_V1_0::IPowerStats;

/// Counts the notices of one recipient.
struct Notice {
    std::function<void()> onDied;
    std::atomic<int> died{0};
    std::thread::id thread;

    void run() {
        thread = std::this_thread::get_id();
        if (onDied) onDied();
        ++died;
    }
};

/// A service and its client, through AIDL.
struct Aidl {
    static constexpr const char* kName = host::kAidlPowerStats;

    Aidl() { AServiceManager_addService(binder.get(), kName); }
    bool link(Notice* notice) {
        return AIBinder_linkToDeath(binder.get(), recipient.get(), notice) == STATUS_OK;
    }
    bool unlink(Notice* notice) {
        return AIBinder_unlinkToDeath(binder.get(), recipient.get(), notice) == STATUS_OK;
    }

    ndk::SpAIBinder binder = ndk::SharedRefBase::make<FakeAidl>()->asBinder();
    ndk::ScopedAIBinder_DeathRecipient recipient{
        AIBinder_DeathRecipient_new([](void* cookie) { static_cast<Notice*>(cookie)->run(); })};
};

struct HidlRecipient : android::hardware::hidl_death_recipient {
    void serviceDied(uint64_t cookie, const wp<IBase>& /*who*/) override {
        reinterpret_cast<Notice*>(cookie)->run();  // NOLINT(performance-no-int-to-ptr)
    }
};

/// A service and its client, through HIDL.
struct Hidl {
    static constexpr const char* kName = host::kHidlPowerStats;

    Hidl() {
        EXPECT_EQ(sp<FakeHidl>(new FakeHidl)->registerAsService(), android::OK);
        client = IPowerStats::getService();
    }
    bool link(Notice* notice) {
        auto& recipient = recipients[notice];
        if (recipient == nullptr) recipient = new HidlRecipient;
        return client->linkToDeath(recipient, reinterpret_cast<uint64_t>(notice));
    }
    bool unlink(Notice* notice) { return client->unlinkToDeath(recipients.at(notice)); }

    sp<IPowerStats> client;
    std::map<Notice*, sp<HidlRecipient>> recipients;
};

template <typename Hal>
class Notices : public testing::Test {
  protected:
    Notices() { host::setBusLookups({}); }

    static void kill() {
        EXPECT_TRUE(host::killService(Hal::kName));
        EXPECT_TRUE(host::waitForDeathNotices());
    }

    Hal mHal;
};
using Hals = testing::Types<Aidl, Hidl>;
TYPED_TEST_SUITE(Notices, Hals, );

TYPED_TEST(Notices, ComeOncePerLinkOnAnotherThread) {
    Notice twice, once, unlinked;
    for (Notice* notice : {&twice, &once, &twice, &unlinked}) EXPECT_TRUE(this->mHal.link(notice));
    EXPECT_TRUE(this->mHal.unlink(&unlinked));
    EXPECT_FALSE(this->mHal.unlink(&unlinked));
    this->kill();
    EXPECT_EQ(twice.died, 2);
    EXPECT_EQ(once.died, 1);
    EXPECT_NE(once.thread, std::this_thread::get_id());
    EXPECT_EQ(unlinked.died, 0);
    EXPECT_FALSE(this->mHal.unlink(&once));
}

TYPED_TEST(Notices, ComeAtOnceToALinkAfterTheDeathAndTheNextLinkIsRefused) {
    this->kill();
    Notice late;
    EXPECT_TRUE(this->mHal.link(&late));
    EXPECT_TRUE(host::waitForDeathNotices());
    EXPECT_EQ(late.died, 1);
    EXPECT_FALSE(this->mHal.link(&late));
}

using AidlNotices = Notices<Aidl>;
using HidlNotices = Notices<Hidl>;

TEST_F(AidlNotices, EndWhenTheRecipientIsDeletedWhichWaitsForARunningOne) {
    std::promise<void> running, release;
    Notice held, never;
    held.onDied = [&] {
        running.set_value();
        release.get_future().wait();
    };
    mHal.link(&held);
    mHal.link(&never);
    host::killService(host::kAidlPowerStats);
    running.get_future().wait();
    auto deleted = std::async(std::launch::async, [this] { mHal.recipient.set(nullptr); });
    EXPECT_EQ(deleted.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    EXPECT_FALSE(host::waitForDeathNotices(0));
    release.set_value();
    deleted.wait();
    EXPECT_EQ(held.died, 1);
    EXPECT_TRUE(host::waitForDeathNotices());
    EXPECT_EQ(never.died, 0);
}

TEST_F(HidlNotices, AreNotForARecipientThatIsGone) {
    Notice forgotten;
    EXPECT_TRUE(mHal.link(&forgotten));
    mHal.recipients.clear();
    kill();
    EXPECT_EQ(forgotten.died, 0);
}

// A name in DeathTest makes it run first, before the program starts a thread.
TEST(ExitDeathTest, NoRecipientIsToldWhileDestructorsRun) {
    for (const bool diesBeforeExit : {true, false}) {
        SCOPED_TRACE(diesBeforeExit);
        const Ended ended = runInChild([&] {
            host::setBusLookups({});
            Hidl hal;
            // Runs among the destructors of static objects, as those of a library do.
            std::atexit([] {
                std::fputs("destroyed\n", stderr);
                host::killService(host::kHidlPowerStats);
                host::waitForDeathNotices();
            });
            std::promise<void> running;
            Notice notice;
            notice.onDied = [&] {
                running.set_value();
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                std::fputs("told\n", stderr);
            };
            EXPECT_TRUE(hal.link(&notice));
            if (diesBeforeExit) {
                host::killService(host::kHidlPowerStats);
                running.get_future().wait();
            }
            std::exit(3);
        });
        EXPECT_EQ(ended.exitCode, 3);
        EXPECT_EQ(ended.errors, diesBeforeExit ? "told\ndestroyed\n" : "destroyed\n");
    }
}

}  // namespace
}  // namespace support
