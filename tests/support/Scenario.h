// SPDX-License-Identifier: Apache-2.0
//
// A test of the library is a scenario: services are scripted, an entry point is called, and all
// that can be seen of that call from outside is compared with what it should have been.

#pragma once

#include <host/ServiceControl.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/BootClock.h"
#include "tests/support/Encoder.h"
#include "tests/support/FakeServices.h"
#include "tools/HostJavaRuntime.h"

namespace support {

enum class Backend { kAidl, kHidl };
enum class Call { kRails, kResidencies };
inline constexpr Backend kBackends[] = {Backend::kAidl, Backend::kHidl};
inline constexpr Call kCalls[] = {Call::kRails, Call::kResidencies};

// As they appear in the names of tests.
std::ostream& operator<<(std::ostream& out, Backend backend);
std::ostream& operator<<(std::ostream& out, Call call);

using Lines = std::vector<std::string>;

/// What the boot clock shows, and elements that were made then.
inline constexpr int64_t kNowMs = 123456789;
inline std::string rail(const std::string& name, int64_t millijoules) {
    return railElement(name, kNowMs, millijoules);
}
inline std::string entity(const std::string& name, const std::vector<std::string>& residencies) {
    return entityElement(name, kNowMs, residencies);
}

/// What one call did.
struct Outcome {
    std::optional<std::string> bytes;  ///< what Java receives; nothing for null
    /// Log lines ("E: text" under the library's own tag), readings of the boot clock ("clock") and
    /// JNI calls, in order.
    Lines events;
    /// Look-ups, links, unlinks and transactions of both services: "aidl:lookup*2 aidl:link".
    std::string traffic;

    bool operator==(const Outcome& other) const {
        return bytes == other.bytes && events == other.events && traffic == other.traffic;
    }
};
std::ostream& operator<<(std::ostream& out, const Outcome& outcome);

/// A call that returned null, before it came to read the clock.
Outcome nothing(Lines log, std::string traffic);
/// A call that returned these bytes through the ordinary hand-off.
Outcome array(const std::string& bytes, std::string traffic, const Lines& log = {});

/// What the log says about the choice of backend.
std::string chosenLine(Backend backend);
/// The traffic of a good call: the process's first, the first after a death, and any other.
std::string firstTraffic(Backend backend, Call call);
std::string reconnectTraffic(Backend backend, Call call);
std::string steadyTraffic(Backend backend, Call call);

/// A machine with one rail and one entity, and what is returned for it at kNowMs.
Machine smallMachine();
std::string smallResult(Call call);

class Scenario {
  public:
    /// Turns bus look-ups off, sets the boot clock to kNowMs, and takes the log.
    Scenario();
    ~Scenario();

    /// Registers a new service.
    void serve(Backend backend, const Machine& machine);
    /// Kills the registered service and waits until its clients have been told.
    static void kill(Backend backend);
    static const char* nameOf(Backend backend);

    void load();
    void unload();
    /// Calls an entry point, of a library that is loaded if it is not yet.
    Outcome call(Call call);
    /// The same in a program that is about to end: what happens goes to standard error, line by
    /// line, and last what Java received.
    void callAloud(Call call);

    std::shared_ptr<FakeAidl> aidl;  ///< the last that was served
    android::sp<FakeHidl> hidl;
    powerstats::HostJniEnv env;
    std::unique_ptr<powerstats::LoadedLibrary> library;
};

/// What was logged, and what else was recorded, since this was last called.
Lines takeEvents();
void record(const std::string& event);
/// Called with every event before it is recorded.
extern Hook onEvent;

}  // namespace support
