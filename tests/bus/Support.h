// SPDX-License-Identifier: Apache-2.0
//
// Real parts for tests of services in other processes: programs that are started and killed, and a
// bus that nobody else is on.

#pragma once

#include <host/ServiceControl.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/Scenario.h"

namespace support {

/// A program that was started here. It is killed with this object, and with the process that made
/// it.
class Process {
  public:
    /// Starts a program whose standard error, or output too, is read here.
    explicit Process(const std::vector<std::string>& arguments, bool takeOutput = false);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Reads until the text has come, or nothing more comes, or `seconds` have passed.
    /// @return whether it came.
    bool waitFor(const std::string& text, double seconds = 30);
    /// Reads all that is left and waits for the end.
    /// @return the exit code, or the negative number of the signal that ended it.
    int wait(double seconds = 50);
    void signal(int number) const;
    /// SIGKILL, and waits until it is gone.
    void kill();

    /// What has been read so far.
    const std::string& text() const { return mText; }
    pid_t pid() const { return mPid; }

  private:
    bool readMore(double seconds);

    pid_t mPid = -1;
    int mPipe = -1;
    int mStatus = 0;
    bool mEnded = false;
    std::string mText;
};

/// A bus of this test's own, in place of the session's or the system's bus. The latter has the rules
/// and limits of a system bus, and the policy that is installed.
class PrivateBus {
  public:
    explicit PrivateBus(host::Bus bus = host::Bus::kSession);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /// Ends the bus, as a crash would.
    void kill() { mDaemon->kill(); }
    const std::string& address() const { return mAddress; }

  private:
    const char* const mVariable;
    std::string mFolder;
    std::string mAddress;
    std::unique_ptr<Process> mDaemon;
};

/// A power stats service of its own process, over one interface or "both", reading a tree of
/// counters. It can be called once it has written kServing.
std::unique_ptr<Process> launchDaemon(const std::string& hal, const std::string& sysfs,
                                      host::Bus bus = host::Bus::kSession);
inline constexpr char kServing[] = "powerstatsd: serving";

/// The same, and it can be called when this returns.
std::unique_ptr<Process> startDaemon(const std::string& hal, const std::string& sysfs,
                                     host::Bus bus = host::Bus::kSession);

/// A scenario whose services are on a bus.
class BusScenario : public Scenario {
  public:
    BusScenario() { host::setBusLookups({host::Bus::kSession, host::Bus::kSystem}); }
};

/// Starts bus_peer, and waits until it has written "ready".
std::unique_ptr<Process> startPeer(const std::vector<std::string>& arguments);

}  // namespace support
