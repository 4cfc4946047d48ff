// SPDX-License-Identifier: Apache-2.0
//
// The thread that delivers death notices. No call of a service waits for it, because a recipient
// may be waiting for a lock that the caller holds. Only AIBinder_DeathRecipient_delete and exit
// wait for a notice that runs.

#include <host/ServiceControl.h>
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "NeverDestroyed.h"
#include "Peer.h"
#include "Register.h"

namespace host {
namespace {

struct DeathNotices {
    [[noreturn]] void run() {
        std::unique_lock<std::mutex> lock(mutex);
        thread = std::this_thread::get_id();
        while (true) {
            changed.wait(lock, [this] { return !peers.empty() && !isStopped; });
            std::shared_ptr<Peer> peer = std::move(peers.front());
            peers.pop_front();
            isReporting = true;
            lock.unlock();
            peer->report();
            peer.reset();
            lock.lock();
            isReporting = false;
            changed.notify_all();
        }
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::shared_ptr<Peer>> peers;
    std::thread::id thread;
    bool isStarted = false;
    bool isReporting = false;
    bool isStopped = false;
};

}  // namespace

bool startThread(std::function<void()> function) {
    // Signals are for the program's own threads, which expect them.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    bool started = true;
    try {
        std::thread(std::move(function)).detach();
    } catch (const std::exception&) {
        started = false;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

bool prepareNotices() {
    auto& notices = neverDestroyed<DeathNotices>();
    std::lock_guard<std::mutex> lock(notices.mutex);
    if (!notices.isStarted) notices.isStarted = startThread([&notices] { notices.run(); });
    return notices.isStarted;
}

void expectNotices() {
    // A recipient must not be called while the destructors of the library that made it run at exit.
    // A link is made after its recipient, so this handler runs before those destructors.
    [[maybe_unused]] static const int registered = std::atexit([] {
        auto& notices = neverDestroyed<DeathNotices>();
        std::unique_lock<std::mutex> lock(notices.mutex);
        notices.isStopped = true;
        // A recipient that ends the process itself must not wait for itself.
        if (std::this_thread::get_id() == notices.thread) return;
        notices.changed.wait(lock, [&] { return !notices.isReporting; });
    });
}

void deliverNotices(std::shared_ptr<Peer> peer) {
    prepareNotices();
    auto& notices = neverDestroyed<DeathNotices>();
    std::lock_guard<std::mutex> lock(notices.mutex);
    if (!notices.isStopped) notices.peers.push_back(std::move(peer));
    notices.changed.notify_all();
}

bool waitForDeathNotices(double seconds) {
    noticeDeathsOnBuses();
    auto& notices = neverDestroyed<DeathNotices>();
    std::unique_lock<std::mutex> lock(notices.mutex);
    return notices.changed.wait_for(lock, std::chrono::duration<double>(seconds),
                                    [&] { return notices.peers.empty() && !notices.isReporting; });
}

}  // namespace host
