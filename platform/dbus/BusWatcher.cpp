// SPDX-License-Identifier: Apache-2.0

#include "BusWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "BusConnection.h"
#include "Register.h"

namespace host::dbus {
namespace {

struct ReleaseSlot {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using UniqueSlot = std::unique_ptr<sd_bus_slot, ReleaseSlot>;

class BusWatcher {
  public:
    static BusWatcher& get() {
        // Never destroyed: the thread may outlive the destructors that run at exit.
        static auto* const watcher = new BusWatcher;
        return *watcher;
    }

    /// Runs a piece of work on the watching thread, which starts with the first one.
    void post(std::function<void()> work) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mWork.push_back(std::move(work));
            if (!mStarted) {
                mStarted = true;
                std::thread([this] { run(); }).detach();
            }
        }
        eventfd_write(mWakeUp, 1);
    }

    // The rest is for the watching thread only.

    bool watch(const std::shared_ptr<Peer>& peer, const BusPeer* key) {
        if (!connect() || !isBus(key->busId)) {
            peer->die();
            return true;
        }
        auto watched = std::make_unique<Watched>(Watched{peer, key->owner, nullptr});
        const std::string match =
            "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
            "member='NameOwnerChanged',arg0='" +
            key->owner + "'";
        sd_bus_slot* slot = nullptr;
        if (sd_bus_add_match(mBus.get(), &slot, match.c_str(), ownerChanged, watched.get()) < 0) {
            // A bus allows a connection only so many matches.
            return !isStillOpen(mBus.get()) ? watch(peer, key) : false;
        }
        watched->slot.reset(slot);
        mWatched[key] = std::move(watched);
        // Only now can no death be missed, so only now is it worth asking.
        if (!isOwned(key->owner)) peer->die();
        return true;
    }

    void unwatch(const BusPeer* key) { mWatched.erase(key); }

    /// Asks after every watched process.
    void check() {
        if (mBus == nullptr) return;
        // Whoever is found dead is forgotten, here too if its notice comes at once.
        std::vector<std::shared_ptr<Peer>> dead;
        for (const auto& entry : mWatched) {
            if (isOwned(entry.second->owner)) continue;
            if (auto peer = entry.second->peer.lock()) dead.push_back(std::move(peer));
        }
        for (const auto& peer : dead) peer->die();
    }

  private:
    struct Watched {
        std::weak_ptr<Peer> peer;
        std::string owner;  // kept here, since the peer may be going while it is still in the list
        UniqueSlot slot;
    };

    BusWatcher() : mWakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    /// A unique name that changes its owner has lost it.
    static int ownerChanged(sd_bus_message* /*message*/, void* userData, sd_bus_error* /*error*/) {
        if (auto peer = static_cast<Watched*>(userData)->peer.lock()) peer->die();
        return 0;
    }

    bool connect() {
        if (mBus != nullptr && !isStillOpen(mBus.get())) disconnected();
        if (mBus == nullptr) mBus = connectToBus();
        return mBus != nullptr;
    }

    bool isBus(const sd_id128_t& wanted) {
        sd_id128_t id;
        return sd_bus_get_bus_id(mBus.get(), &id) >= 0 && sd_id128_equal(id, wanted) != 0;
    }

    bool isOwned(const std::string& name) {
        return sd_bus_call_method(mBus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                  "org.freedesktop.DBus", "GetNameOwner", nullptr, nullptr, "s",
                                  name.c_str()) >= 0;
    }

    /// With the bus all services on it are gone.
    void disconnected() {
        auto watched = std::move(mWatched);
        mWatched.clear();
        for (const auto& entry : watched) {
            if (auto peer = entry.second->peer.lock()) peer->die();
        }
        watched.clear();
        mBus.reset();
    }

    [[noreturn]] void run() {
        while (true) {
            std::deque<std::function<void()>> work;
            {
                std::lock_guard<std::mutex> lock(mMutex);
                work.swap(mWork);
            }
            for (auto& piece : work) piece();
            work.clear();
            if (mBus != nullptr && !isStillOpen(mBus.get())) disconnected();
            wait();
        }
    }

    void wait() {
        pollfd fds[2] = {{mWakeUp, POLLIN, 0}, {-1, 0, 0}};
        int timeoutMs = -1;
        if (mBus != nullptr) {
            fds[1].fd = sd_bus_get_fd(mBus.get());
            fds[1].events = static_cast<int16_t>(sd_bus_get_events(mBus.get()));
            // What is queued already makes no file descriptor readable.
            uint64_t untilUs = UINT64_MAX;
            if (sd_bus_get_timeout(mBus.get(), &untilUs) > 0 && untilUs == 0) timeoutMs = 0;
        }
        poll(fds, 2, timeoutMs);
        eventfd_t count = 0;
        eventfd_read(mWakeUp, &count);
    }

    const int mWakeUp;
    std::mutex mMutex;
    std::deque<std::function<void()>> mWork;  // guarded by mMutex
    bool mStarted = false;                    // guarded by mMutex

    UniqueBus mBus;
    std::unordered_map<const BusPeer*, std::unique_ptr<Watched>> mWatched;
};

/// Runs work on the watching thread and waits for what it returns.
template <typename Work>
auto runOnWatcher(Work work) {
    // Shared with the other thread, which may still be in set_value when the value is there.
    auto result = std::make_shared<std::promise<decltype(work())>>();
    BusWatcher::get().post([result, work] { result->set_value(work()); });
    return result->get_future();
}

}  // namespace

BusPeer::~BusPeer() {
    if (mWatched) BusPeer::stopWatching();
}

bool BusPeer::startWatching() {
    if (mWatched || !isAlive()) return true;
    mWatched = runOnWatcher([this, peer = shared_from_this()] {
                   return BusWatcher::get().watch(peer, this);
               }).get();
    return mWatched;
}

void BusPeer::stopWatching() {
    if (!mWatched) return;
    mWatched = false;
    BusWatcher::get().post([this] { BusWatcher::get().unwatch(this); });
}

}  // namespace host::dbus

void host::noticeDeathsOnBus(double seconds) {
    using dbus::BusWatcher;
    dbus::runOnWatcher([] {
        BusWatcher::get().check();
        return true;
    }).wait_for(std::chrono::duration<double>(seconds));
}
