// SPDX-License-Identifier: Apache-2.0
//
// The subject of a measurement, and its service.

#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <string>

#include "tests/support/FakeServices.h"

namespace bench {

using support::Backend;
using support::Call;
using support::Machine;

struct Workload {
    Backend backend;
    Call call;
    int elements;    ///< rails, or power entities
    int states;      ///< of each entity; 0 for rails
    int nameLength;  ///< of every name, in bytes

    /// "aidl/residencies/50x8/12", as in the names of benchmarks.
    std::string text() const;
    /// The number of items: rails, or states of all entities.
    int size() const { return call == Call::kRails ? elements : elements * states; }
    /// The content of the service: values of the sizes that a device has after a day.
    Machine machine() const;
};

/// A service for the workload, in the register of this process while this exists.
class RegisteredService {
  public:
    explicit RegisteredService(const Workload& workload);
    ~RegisteredService() { kill(); }
    RegisteredService(const RegisteredService&) = delete;
    RegisteredService& operator=(const RegisteredService&) = delete;

    /// Kills it, waits until its clients have been told, and registers another.
    void restart();

  private:
    void serve() const;
    void kill() const;

    const Backend mBackend;
    const Machine mMachine;
};

/// A service for the workload, in another process of this program on the session bus, while this
/// exists. The platform finds services on the bus as long.
class BusService {
  public:
    explicit BusService(const Workload& workload);
    ~BusService();
    BusService(const BusService&) = delete;
    BusService& operator=(const BusService&) = delete;

    /// Makes the bare calls of a collection, and drops the replies unread.
    void call() const;

  private:
    const Workload mWorkload;
    pid_t mProcess = -1;
    sd_bus* mBus = nullptr;
};

/// Serves the workload to other processes, on the session bus, until the program is ended.
/// @return the exit code of a program that does only this.
int serveOnBus(const Workload& workload);

/// Ends the program with a line on standard error.
[[noreturn]] void fail(const std::string& text);

}  // namespace bench
