// SPDX-License-Identifier: Apache-2.0
//
// A test of the library is a scenario: services are scripted, an entry point is called, and all
// that the call shows outside is compared with an expected outcome.

#pragma once

#include <host/JavaRuntime.h>
#include <host/ServiceControl.h>

#include <time.h>

#include <memory>
#include <optional>
#include <ostream>

#include "tests/support/Encoder.h"
#include "tests/support/FakeServices.h"
#include "tests/support/PlatformCalls.h"

namespace support {

// As they appear in the names of tests.
std::ostream& operator<<(std::ostream& out, Backend backend);
std::ostream& operator<<(std::ostream& out, Call call);

using Lines = std::vector<std::string>;

/// All that one call did.
struct Outcome {
    std::optional<std::string> bytes;  ///< that Java receives; nothing for null
    /// Log lines ("E: text" under the library's own tag), readings of the boot clock ("clock") and
    /// JNI calls, in order.
    Lines events;
    /// Look-ups, links, unlinks and transactions of both services: "aidl:lookup aidl:link".
    std::string traffic;

    bool operator==(const Outcome& other) const {
        return bytes == other.bytes && events == other.events && traffic == other.traffic;
    }
};
std::ostream& operator<<(std::ostream& out, const Outcome& outcome);

/// A call that returned null, and did not read the clock.
Outcome nothing(Lines log, std::string traffic);
/// A call that returned these bytes through the ordinary hand-off.
Outcome array(const std::string& bytes, std::string traffic, Lines log = {});

/// The log line about the choice of backend.
std::string chosenLine(Backend backend);
/// What a call after a death does, if it is the process's first instead: it chooses, too.
Outcome asFirst(Backend backend, Outcome outcome);
/// The traffic of a good call: the first after a death, the first of this kind over a connection
/// that the other kind has made, and any other.
std::string reconnectTraffic(Backend backend, Call call);
std::string connectedTraffic(Backend backend, Call call);
std::string steadyTraffic(Backend backend, Call call);

/// The reading of the one state of the small machine.
inline constexpr stats::StateResidency kSmallState{0, 5000, 12, 777};
/// A machine with one rail and one entity, and the bytes of its results at kNowMs.
Machine smallMachine();
std::string smallResult(Call call);

/// A boot clock that a test sets: this program's own `clock_gettime`, which the library finds
/// before the C library's. Other clocks are passed through.
struct BootClock {
    /// The clock's time. Without a value, reading it fails.
    std::optional<timespec> now;
    /// Called at every reading.
    std::function<void()> onRead;
};

/// The clock of this process. It fails until it is set.
BootClock& bootClock();

class Scenario {
  public:
    /// Turns bus look-ups off, sets the boot clock to kNowMs, and takes the log.
    Scenario();
    ~Scenario();

    /// Registers a new service.
    void serve(Backend backend, const Machine& machine);
    /// Changes the answers of the backend's last service.
    void tell(Backend backend, const Machine& machine);
    /// That service.
    FakeService& service(Backend backend) {
        return backend == Backend::kAidl ? static_cast<FakeService&>(*aidl) : *hidl;
    }
    /// Kills the registered service and waits until its clients have been told.
    static void kill(Backend backend);
    /// Kills it in a method, whose call holds back the notice.
    static Hook dieIn(Backend backend, const std::string& fatalMethod);

    void load();
    void unload() { library.reset(); }
    /// Calls an entry point, and loads the library first if necessary.
    Outcome call(Call call);
    /// Calls an entry point of the loaded library, and no more.
    host::JavaBytes callBare(Call call) {
        return call == Call::kRails ? library->railEnergy(&env) : library->residencies(&env);
    }
    /// Calls it in a program that is about to end: all events go to standard error, line by line,
    /// and last the size of Java's array.
    void callAloud(Call call);

    std::shared_ptr<FakeAidl> aidl;  ///< the last that was served
    android::sp<FakeHidl> hidl;
    host::HostJniEnv env;
    std::unique_ptr<host::LoadedLibrary> library;
};

/// Java's bytes as an outcome has them.
std::optional<std::string> toText(const host::JavaBytes& bytes);

/// Returns all events since the last call of this, and forgets them.
Lines takeEvents();
/// Adds an event.
void record(const std::string& event);
/// Called with every event before it is recorded.
extern Hook onEvent;

}  // namespace support
