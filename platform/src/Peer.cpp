// SPDX-License-Identifier: Apache-2.0

#include "Peer.h"

#include <algorithm>
#include <utility>

namespace host {

void Peer::die() {
    bool linked;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mAlive.exchange(false)) return;
        linked = !mLinks.empty();
    }
    if (linked) deliverNotices(shared_from_this());
}

android::status_t Peer::link(const void* owner, const void* recipient, uint64_t cookie,
                             std::function<void()> deliver) {
    expectNotices();
    std::lock_guard<std::mutex> watchLock(mWatchMutex);
    bool late;
    if (!startWatching()) return android::FAILED_TRANSACTION;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mReported) return android::DEAD_OBJECT;
        mLinks.emplace_back(new DeathLink{owner, recipient, cookie, std::move(deliver)});
        late = !mAlive;
    }
    if (late) deliverNotices(shared_from_this());
    return android::OK;
}

size_t Peer::end(const Matches& matches, size_t most) {
    std::vector<std::shared_ptr<DeathLink>> ended;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (auto& link : mLinks) {
            if (ended.size() < most && matches(*link)) ended.push_back(std::move(link));
        }
        mLinks.erase(std::remove(mLinks.begin(), mLinks.end(), nullptr), mLinks.end());
    }
    for (const auto& link : ended) link->ended = true;  // its notice may be on its way
    if (!ended.empty()) stopWatchingUnlessLinked();
    return ended.size();
}

android::status_t Peer::unlink(const void* owner, const void* recipient,
                               std::optional<uint64_t> cookie) {
    auto matches = [=](const DeathLink& link) {
        return link.owner == owner && link.recipient == recipient &&
               link.cookie == cookie.value_or(link.cookie);
    };
    const bool found = end(matches, 1) != 0;
    std::lock_guard<std::mutex> lock(mMutex);
    if (mReported) return android::DEAD_OBJECT;
    return found ? android::OK : android::NAME_NOT_FOUND;
}

void Peer::unlinkAll(const void* owner) {
    end([=](const DeathLink& link) { return link.owner == owner; }, SIZE_MAX);
}

void Peer::report() {
    std::vector<std::shared_ptr<DeathLink>> links;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mReported = true;
        links = mLinks;
    }
    for (const auto& link : links) {
        if (!link->ended.exchange(true)) link->deliver();
    }
    links.clear();
    {
        std::lock_guard<std::mutex> lock(mMutex);
        links.swap(mLinks);
    }
    stopWatchingUnlessLinked();
}

void Peer::stopWatchingUnlessLinked() {
    std::lock_guard<std::mutex> watchLock(mWatchMutex);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mLinks.empty()) return;
    }
    stopWatching();
}

}  // namespace host
