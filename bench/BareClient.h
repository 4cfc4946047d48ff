// SPDX-License-Identifier: Apache-2.0
//
// The client that the library is measured against. It does only the work that no client can leave
// out: it asks the same questions through the same proxies, builds the same messages from names
// that it has at hand in the order of the answers, serializes them and hands them to Java. It
// neither looks a name up nor checks anything.

#pragma once

#include <android/binder_auto_utils.h>
#include <host/JavaRuntime.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/Workload.h"

namespace bench {

namespace stats = support::stats;
namespace stats_V1_0 = support::stats_V1_0;

class BareClient {
  public:
    explicit BareClient(const Workload& workload);
    ~BareClient();
    BareClient(const BareClient&) = delete;
    BareClient& operator=(const BareClient&) = delete;

    /// Looks the service up as the library does in its first call, links to its death, asks for the
    /// names that the library would ask for, and fills caches like the library's.
    void connect();
    /// One collection. REQUIRES: connect
    host::JavaBytes collect(int64_t timestampMs, host::HostJniEnv* env) const;

  private:
    struct Recipient;

    const Workload mWorkload;
    /// The names that the service announces, by position, and each a string of its own.
    std::vector<std::string> mElements;
    std::vector<std::vector<std::string>> mStates;

    ::ndk::SpAIBinder mChosen;  ///< of the look-up by which the library chooses its backend
    std::shared_ptr<stats::IPowerStats> mAidl;
    ::android::sp<stats_V1_0::IPowerStats> mHidl;
    const ::ndk::ScopedAIBinder_DeathRecipient mAidlRecipient;
    const ::android::sp<Recipient> mHidlRecipient;
    std::unordered_map<int, std::string> mEntityNames;
    std::unordered_map<int, std::unordered_map<int, std::string>> mStateNames;
    std::unordered_map<int, stats::Channel> mChannels;
};

}  // namespace bench
