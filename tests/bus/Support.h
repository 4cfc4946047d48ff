// SPDX-License-Identifier: Apache-2.0
//
// Real parts for tests of services in other processes: programs that are started and killed, and a
// bus that nobody else is on.

#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

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

/// A bus of this test's own. While it exists DBUS_SESSION_BUS_ADDRESS names it.
class PrivateBus {
  public:
    /// @param configFile [in] of the bus; that of a session bus by default.
    /// @param environment [in] "NAME=value" for the bus's own process.
    explicit PrivateBus(const std::string& configFile = "",
                        const std::vector<std::string>& environment = {});
    ~PrivateBus();

    /// Ends the bus, as a crash would.
    void kill() { mDaemon->kill(); }
    const std::string& address() const { return mAddress; }

  private:
    std::string mFolder;
    std::string mAddress;
    std::unique_ptr<Process> mDaemon;
};

/// A power stats service of its own process, over one interface or "both", reading a tree of
/// counters. It can be called once it has written kServing.
std::unique_ptr<Process> launchDaemon(const std::string& hal, const std::string& sysfs);
inline constexpr char kServing[] = "powerstatsd: serving";

/// The same, and it can be called when this returns.
std::unique_ptr<Process> startDaemon(const std::string& hal, const std::string& sysfs);

}  // namespace support
