// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace powerstats {

/// One reading of everything that a power stats service reports, at full precision. Names are the
/// service's own bytes; safeName() makes them fit for output. Ids are those of either interface.
struct Snapshot {
    struct Energy {
        /// Milliseconds since boot, as the service stamps its reading.
        int64_t timestampMs = 0;
        /// The time over which the energy was accumulated; HIDL has none, and then it is
        /// `timestampMs`.
        int64_t durationMs = 0;
        /// Microwatt-seconds.
        int64_t energyUWs = 0;
    };
    struct Rail {
        int64_t id = 0;
        std::string name;
        std::string subsystem;
        /// std::nullopt when the service did not report the rail's energy.
        std::optional<Energy> energy;
    };
    struct Residency {
        int64_t totalTimeMs = 0;
        int64_t entryCount = 0;
        /// Milliseconds since boot; 0 when the service does not know.
        int64_t lastEntryMs = 0;
    };
    struct State {
        int64_t id = 0;
        std::string name;
        /// std::nullopt when the service did not report the state's time.
        std::optional<Residency> residency;
    };
    struct Entity {
        int64_t id = 0;
        std::string name;
        std::vector<State> states;
    };

    std::vector<Rail> rails;
    std::vector<Entity> entities;
    /// Why there are no rails, or no entities; empty when the service answered.
    std::string railsError;
    std::string entitiesError;
    /// The time of the residencies, which carry no stamp of their own: CLOCK_BOOTTIME half-way
    /// through the call, in milliseconds. For a recording in this process, the recorded time.
    int64_t timestampMs = 0;
    /// For how long the machine has been suspended since boot, in milliseconds.
    int64_t suspendedMs = 0;
};

/// The error of both halves when no service is there.
constexpr char kNoService[] = "no power stats service";

/// The error of a half that the bus does not let this user read.
constexpr char kRefusedByBus[] =
    "refused by the bus's policy (join the group: sudo usermod -aG powerstats NAME, and log in "
    "again; or run as root)";
/// The error of a HIDL service without rails.
constexpr char kNotSupported[] = "not supported";

/// Takes snapshots of a power stats service through its client interface: AIDL where it is
/// registered, otherwise HIDL. Finds the service again after its death. For one thread.
class SnapshotReader {
  public:
    SnapshotReader() = default;
    /// Asks this service and no other, unless it is null.
    explicit SnapshotReader(std::shared_ptr<aidl::android::hardware::power::stats::IPowerStats> own)
        : mAidl(std::move(own)) {}

    /// Asks the service for everything. Reads the names once, and again when an answer has an id
    /// that they lack, or when the service is another one.
    Snapshot read();

    /// "AIDL" or "HIDL", as of the latest reading; empty when no service was found.
    const char* interfaceName() const;

  private:
    void connect();
    bool readRails(Snapshot* snapshot);
    bool readEntities(Snapshot* snapshot);
    std::string readRailNames();
    std::string readEntityNames();

    std::shared_ptr<aidl::android::hardware::power::stats::IPowerStats> mAidl;
    android::sp<android::hardware::power::stats::V1_0::IPowerStats> mHidl;
    /// The names, without readings; std::nullopt when they have to be read.
    std::optional<std::vector<Snapshot::Rail>> mRails;
    std::optional<std::vector<Snapshot::Entity>> mEntities;
};

}  // namespace powerstats
