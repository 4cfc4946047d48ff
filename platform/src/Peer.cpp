// SPDX-License-Identifier: Apache-2.0

#include "Peer.h"

#include <algorithm>
#include <utility>

namespace host {

void Peer::die() {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mAlive.exchange(false) && !mLinks.empty()) deliverNotices(shared_from_this());
}

android::status_t Peer::link(const LinkKey& key, std::function<void()> deliver) {
    expectNotices();
    std::lock_guard<std::mutex> lock(mMutex);
    if (mReported) return android::DEAD_OBJECT;
    mLinks.emplace_back(key, std::move(deliver));
    if (!mAlive) deliverNotices(shared_from_this());
    return android::OK;
}

android::status_t Peer::unlink(const LinkKey& key) {
    std::lock_guard<std::mutex> lock(mMutex);
    const auto link = std::find_if(mLinks.begin(), mLinks.end(),
                                   [&](const auto& entry) { return entry.first == key; });
    const bool found = link != mLinks.end();
    if (found) mLinks.erase(link);  // its notice may be due
    if (mReported) return android::DEAD_OBJECT;
    return found ? android::OK : android::NAME_NOT_FOUND;
}

void Peer::unlinkAll(const void* proxy) {
    std::lock_guard<std::mutex> lock(mMutex);
    mLinks.remove_if([=](const auto& link) { return std::get<0>(link.first) == proxy; });
}

void Peer::report() {
    std::unique_lock<std::mutex> lock(mMutex);
    mReported = true;
    while (!mLinks.empty()) {
        const auto deliver = std::move(mLinks.front().second);
        mLinks.pop_front();
        lock.unlock();
        deliver();
        lock.lock();
    }
}

}  // namespace host
