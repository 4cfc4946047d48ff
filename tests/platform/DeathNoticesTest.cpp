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
#include <memory>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/FakeServices.h"

namespace support {
namespace {

using android::sp;
using android::wp;
using android::hidl::base::V1_0::IBase;
using stats_V1_0::IPowerStats;

/// What a recipient does, beside being counted. Its cookie tells which one it is.
struct Notice {
    std::function<void()> onDied;
    std::atomic<int> died{0};
    std::atomic<int> unlinked{0};
    std::thread::id thread;

    static void died_(void* cookie) { static_cast<Notice*>(cookie)->run(); }
    static void unlinked_(void* cookie) { ++static_cast<Notice*>(cookie)->unlinked; }
    void run() {
        thread = std::this_thread::get_id();
        if (onDied) onDied();
        ++died;
    }
};

class AidlNotices : public testing::Test {
  protected:
    AidlNotices() {
        host::setBusLookups({});
        AServiceManager_addService(mBinder.get(), host::kAidlPowerStats);
        AIBinder_DeathRecipient_setOnUnlinked(mRecipient.get(), Notice::unlinked_);
    }

    binder_status_t link(Notice* notice) {
        return AIBinder_linkToDeath(mBinder.get(), mRecipient.get(), notice);
    }
    binder_status_t unlink(Notice* notice) {
        return AIBinder_unlinkToDeath(mBinder.get(), mRecipient.get(), notice);
    }
    static void kill() {
        EXPECT_TRUE(host::killService(host::kAidlPowerStats));
        EXPECT_TRUE(host::waitForDeathNotices());
    }

    ndk::SpAIBinder mBinder = ndk::SharedRefBase::make<FakeAidl>()->asBinder();
    ndk::ScopedAIBinder_DeathRecipient mRecipient{AIBinder_DeathRecipient_new(Notice::died_)};
};

TEST_F(AidlNotices, OncePerLinkOnAnotherThread) {
    Notice twice, once, unlinked;
    for (Notice* notice : {&twice, &once, &twice, &unlinked}) EXPECT_EQ(link(notice), STATUS_OK);
    EXPECT_EQ(unlink(&unlinked), STATUS_OK);
    EXPECT_EQ(unlink(&unlinked), STATUS_NAME_NOT_FOUND);
    EXPECT_EQ(unlinked.unlinked, 1);
    kill();
    EXPECT_EQ(twice.died, 2);
    EXPECT_EQ(twice.unlinked, 2);
    EXPECT_EQ(once.died, 1);
    EXPECT_NE(once.thread, std::this_thread::get_id());
    EXPECT_EQ(unlinked.died, 0);
    EXPECT_EQ(unlink(&once), STATUS_DEAD_OBJECT);
    EXPECT_EQ(link(&once), STATUS_DEAD_OBJECT);
    EXPECT_TRUE(host::waitForDeathNotices());
    EXPECT_EQ(once.died, 1);
    EXPECT_FALSE(host::killService(host::kAidlPowerStats));
}

TEST_F(AidlNotices, LateLinkIsToldAtOnceAndTheNextOneRefused) {
    kill();
    Notice late, later;
    EXPECT_EQ(link(&late), STATUS_OK);
    EXPECT_TRUE(host::waitForDeathNotices());
    EXPECT_EQ(late.died, 1);
    EXPECT_EQ(link(&later), STATUS_DEAD_OBJECT);
    EXPECT_EQ(later.died, 0);
}

TEST_F(AidlNotices, UnlinkingAndLettingGoInsideANotice) {
    Notice first, second;
    first.onDied = [&] {
        unlink(&first);
        unlink(&second);
        mBinder.set(nullptr);
    };
    link(&first);
    link(&second);
    kill();
    EXPECT_EQ(first.died, 1);
    EXPECT_EQ(first.unlinked, 1);
    EXPECT_EQ(second.died, 0);
    EXPECT_EQ(second.unlinked, 1);
}

TEST_F(AidlNotices, GoWithTheBinder) {
    Notice notice;
    link(&notice);
    host::unregisterService(host::kAidlPowerStats);
    EXPECT_EQ(notice.unlinked, 0);
    mBinder.set(nullptr);
    EXPECT_EQ(notice.unlinked, 1);
    EXPECT_EQ(notice.died, 0);
}

TEST_F(AidlNotices, DeletingTheRecipientWaitsForItsCallbackAndEndsTheOthers) {
    std::promise<void> running, release;
    Notice held, never;
    held.onDied = [&] {
        running.set_value();
        release.get_future().wait();
    };
    link(&held);
    link(&never);
    host::killService(host::kAidlPowerStats);
    running.get_future().wait();
    auto deleted = std::async(std::launch::async, [this] { mRecipient.set(nullptr); });
    EXPECT_EQ(deleted.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    EXPECT_FALSE(host::waitForDeathNotices(0));
    release.set_value();
    deleted.wait();
    EXPECT_EQ(held.died, 1);
    EXPECT_TRUE(host::waitForDeathNotices());
    EXPECT_EQ(never.died, 0);
}

TEST_F(AidlNotices, RecipientDeletedInItsOwnCallback) {
    Notice notice;
    notice.onDied = [&] { mRecipient.set(nullptr); };
    link(&notice);
    kill();
    EXPECT_EQ(notice.died, 1);
}

struct HidlRecipient : android::hardware::hidl_death_recipient {
    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        cookies.push_back(cookie);
        thread = std::this_thread::get_id();
        if (onDied) onDied(who);
    }
    std::function<void(const wp<IBase>& who)> onDied;
    std::vector<uint64_t> cookies;
    std::thread::id thread;
};

class HidlNotices : public testing::Test {
  protected:
    HidlNotices() {
        host::setBusLookups({});
        const sp<FakeHidl> service = new FakeHidl;
        EXPECT_EQ(service->registerAsService(), android::OK);
        mClient = IPowerStats::getService();
    }

    static void kill() {
        EXPECT_TRUE(host::killService(host::kHidlPowerStats));
        EXPECT_TRUE(host::waitForDeathNotices());
    }

    sp<IPowerStats> mClient;
    sp<HidlRecipient> mRecipient = new HidlRecipient;
};

TEST_F(HidlNotices, OncePerLinkOnAnotherThread) {
    sp<IBase> who;
    mRecipient->onDied = [&](const wp<IBase>& dead) { who = dead.promote(); };
    const sp<HidlRecipient> unlinked = new HidlRecipient;
    EXPECT_TRUE(mClient->linkToDeath(mRecipient, 3));
    EXPECT_TRUE(mClient->linkToDeath(mRecipient, 1ull << 63));
    EXPECT_TRUE(mClient->linkToDeath(unlinked, 0));
    EXPECT_TRUE(mClient->unlinkToDeath(unlinked));
    EXPECT_FALSE(mClient->unlinkToDeath(unlinked));
    kill();
    EXPECT_EQ(mRecipient->cookies, (std::vector<uint64_t>{3, 1ull << 63}));
    EXPECT_NE(mRecipient->thread, std::this_thread::get_id());
    EXPECT_EQ(who.get(), mClient.get());
    EXPECT_TRUE(unlinked->cookies.empty());
    // The death has been reported: refused, though the transport result is OK.
    const auto late = mClient->linkToDeath(mRecipient, 4);
    EXPECT_TRUE(late.isOk());
    EXPECT_FALSE(late);
    const auto unlink = mClient->unlinkToDeath(mRecipient);
    EXPECT_TRUE(unlink.isOk());
    EXPECT_FALSE(unlink);
    EXPECT_EQ(mRecipient->cookies.size(), 2u);
    EXPECT_EQ(host::unlinks(host::kHidlPowerStats), 3);
}

TEST_F(HidlNotices, LateLinkIsToldAtOnce) {
    kill();
    EXPECT_TRUE(mClient->linkToDeath(mRecipient, 5));
    EXPECT_TRUE(host::waitForDeathNotices());
    EXPECT_EQ(mRecipient->cookies, (std::vector<uint64_t>{5}));
}

TEST_F(HidlNotices, RecipientIsHeldWeakly) {
    EXPECT_TRUE(mClient->linkToDeath(mRecipient, 0));
    EXPECT_EQ(mRecipient->getStrongCount(), 1);
    const wp<HidlRecipient> weak = mRecipient;
    mRecipient.clear();
    EXPECT_EQ(weak.promote(), nullptr);
    kill();
}

TEST_F(HidlNotices, UnlinkingAndLettingGoInsideANotice) {
    int proxiesDestroyed = 0;
    host::setObserver([&](host::Event event) {
        if (event == host::Event::kHidlProxyDestroyed) ++proxiesDestroyed;
    });
    mRecipient->onDied = [&](const wp<IBase>& who) {
        EXPECT_NE(who.promote(), nullptr);
        mClient->unlinkToDeath(mRecipient);
        mClient.clear();
        EXPECT_EQ(who.promote(), nullptr);
    };
    EXPECT_TRUE(mClient->linkToDeath(mRecipient, 0));
    EXPECT_TRUE(mClient->linkToDeath(mRecipient, 1));
    kill();
    host::setObserver(nullptr);
    EXPECT_EQ(mRecipient->cookies, (std::vector<uint64_t>{0}));
    EXPECT_EQ(proxiesDestroyed, 1);
}

TEST_F(HidlNotices, LinksGoWithTheirProxyAndNoOther) {
    const sp<HidlRecipient> other = new HidlRecipient;
    sp<IPowerStats> second = IPowerStats::getService();
    EXPECT_TRUE(second->linkToDeath(other, 0));
    EXPECT_TRUE(mClient->linkToDeath(mRecipient, 0));
    EXPECT_FALSE(mClient->unlinkToDeath(other)) << "linked through another proxy";
    second.clear();
    kill();
    EXPECT_TRUE(other->cookies.empty());
    EXPECT_EQ(mRecipient->cookies.size(), 1u);
}

/// Runs when a process exits, as the destructors of a library do.
struct AtExit {
    std::function<void()> run;
    ~AtExit() { run(); }
};

// The name has it run first, when no thread has been started yet.
TEST(ExitDeathTest, NoRecipientIsToldWhileDestructorsRun) {
    for (const bool diesBeforeExit : {true, false}) {
        SCOPED_TRACE(diesBeforeExit);
        const Ended ended = runInChild([&] {
            host::setBusLookups({});
            const sp<FakeHidl> service = new FakeHidl;
            EXPECT_EQ(service->registerAsService(), android::OK);
            static AtExit destructors;
            destructors.run = [] {
                std::fputs("destroyed\n", stderr);
                host::killService(host::kHidlPowerStats);
                host::waitForDeathNotices();
            };
            std::promise<void> running;
            const sp<HidlRecipient> recipient = new HidlRecipient;
            recipient->onDied = [&](const wp<IBase>&) {
                running.set_value();
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                std::fputs("told\n", stderr);
            };
            const sp<IPowerStats> client = IPowerStats::getService();
            EXPECT_TRUE(client->linkToDeath(recipient, 0));
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
