// SPDX-License-Identifier: Apache-2.0
//
// The client that the library is measured against. It does only the work that no client can leave
// out.
//
// The floor asks the same questions through the same proxies, builds the same messages from names
// that it has at hand in the order of the answers, serializes them and hands them to Java. The
// limit writes the same bytes by hand, without messages. Neither looks a name up or checks
// anything.

#pragma once

#include <android/binder_auto_utils.h>
#include <host/JavaRuntime.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/Workload.h"

namespace bench {

namespace stats = support::stats;
namespace stats_V1_0 = support::stats_V1_0;

/// How far a collection goes. Each step includes those above it; the limit is in place of the tree.
enum class Step { kTransaction, kTree, kSizes, kBytes, kFloor, kLimit };

/// The names that a service announces, by position, and each a string of its own.
struct Names {
    explicit Names(const Workload& workload);

    std::vector<std::string> elements;
    std::vector<std::vector<std::string>> states;
};

class BareClient {
  public:
    explicit BareClient(const Workload& workload);
    ~BareClient();
    BareClient(const BareClient&) = delete;
    BareClient& operator=(const BareClient&) = delete;

    /// Looks the service up, links to its death, asks for the names that the library would ask for,
    /// and fills caches like the library's. Entries of a cache stay.
    /// @param choose [in] with the look-up by which the library chooses its backend.
    void connect(bool choose);
    /// Drops the connection and, with AIDL, the names, as after a death.
    void disconnect();

    /// One collection. REQUIRES: connect
    /// @return the bytes that Java receives, with Step::kFloor and Step::kLimit; nothing before.
    host::JavaBytes collect(Step step, int64_t timestampMs, host::HostJniEnv* env);

  private:
    template <typename Use>
    void transact(Use use);
    struct Recipient;

    const Workload mWorkload;
    const Names mNames;

    const AIBinder* mChosen = nullptr;  ///< a reference that is never released, like the library's
    std::shared_ptr<stats::IPowerStats> mAidl;
    ::android::sp<stats_V1_0::IPowerStats> mHidl;
    const ::ndk::ScopedAIBinder_DeathRecipient mAidlRecipient;
    const ::android::sp<Recipient> mHidlRecipient;
    std::unordered_map<int, std::string> mEntityNames;
    std::unordered_map<int, std::unordered_map<int, std::string>> mStateNames;
    std::unordered_map<int, stats::Channel> mChannels;
};

/// Milliseconds since boot, as in a result.
int64_t bootTimeMs();

}  // namespace bench
