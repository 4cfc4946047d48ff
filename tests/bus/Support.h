// SPDX-License-Identifier: Apache-2.0
//
// Real parts for tests of services in other processes: programs to start and kill, and a bus that
// nobody else uses.

#pragma once

#include "tests/support/Scenario.h"

namespace support {

#ifdef POWERSTATS_MEMORY_UNJUDGED
inline constexpr bool kJudgeMemory = false;  // a sanitizer has memory of its own
#else
inline constexpr bool kJudgeMemory = true;
#endif

/// A program that this process started. It is killed with this object, and with this process.
class Process {
  public:
    /// Starts a program and reads its standard output and standard error.
    explicit Process(const std::vector<std::string>& arguments);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Reads until the text arrives, the output ends or nothing comes for 300 s.
    /// @param from [in] where in the output to look for it.
    /// @return whether the text arrived.
    bool waitFor(const std::string& text, size_t from = 0);
    /// Reads the rest of the output and waits for the end.
    /// @return the exit code, or the negative number of the signal that ended it.
    int wait();
    void signal(int number) const;
    /// SIGKILL, and waits until it is gone.
    void kill();

    /// The output read so far.
    const std::string& text() const { return mText; }
    pid_t pid() const { return mPid; }

  private:
    pid_t mPid = -1;
    int mPipe = -1;
    int mStatus = 0;
    bool mEnded = false;
    std::string mText;
};

/// A bus of this test's own, in place of the session's or the system's bus. The latter has the
/// rules and limits of a system bus, and the policy that is installed, with this user in the place
/// of root.
class PrivateBus {
  public:
    explicit PrivateBus(host::Bus bus = host::Bus::kSession);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /// Ends the bus, as a crash would.
    void kill() { mDaemon->kill(); }
    void signal(int number) const { mDaemon->signal(number); }

  private:
    const char* const mVariable;
    std::string mFolder;
    std::string mAddress;
    std::unique_ptr<Process> mDaemon;
};

/// Starts the daemon, which serves a tree of counters over one interface or "both".
/// @param untilItServes [in] whether clients can call it when this returns.
std::unique_ptr<Process> startDaemon(const std::string& hal, const std::string& sysfs,
                                     host::Bus bus = host::Bus::kSession,
                                     bool untilItServes = true);

/// A scenario whose services are on a bus.
class BusScenario : public Scenario {
  public:
    BusScenario() { host::setBusLookups({host::Bus::kSession, host::Bus::kSystem}); }
};

/// The result of a call that a generation of bus_peer's service answers. Generations share their
/// ids; names and values are each one's own.
/// @param namedAs [in] the generation whose names of entities and states the client knows, if that
///     is another one.
std::string busResult(Call call, int generation, int namedAs = 0);

/// The words of a text without quotes.
std::vector<std::string> wordsOf(const std::string& text);

/// Starts bus_peer.
/// @param untilReady [in] whether to wait until it has written "ready".
std::unique_ptr<Process> startPeer(const std::vector<std::string>& arguments,
                                   bool untilReady = true);

}  // namespace support
