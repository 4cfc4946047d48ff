// SPDX-License-Identifier: Apache-2.0
//
// A service in a process of its own, on the session bus.

#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include "bench/Workload.h"

namespace bench {

/// Serves a workload from another process of this program while this exists. The platform finds
/// services on the bus as long.
class BusService {
  public:
    explicit BusService(const Workload& workload);
    ~BusService();
    BusService(const BusService&) = delete;
    BusService& operator=(const BusService&) = delete;

    /// The bare calls of a collection, whose replies are dropped unread.
    void call() const;

  private:
    const Workload mWorkload;
    pid_t mProcess = -1;
    sd_bus* mBus = nullptr;
};

}  // namespace bench
