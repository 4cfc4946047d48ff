// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <hidl/HidlSupport.h>

#include <cstdint>

namespace android::hardware::power::stats::V1_0 {

/// The service's own status of a call. The transport result says whether the call reached it.
enum class Status : uint32_t {
    SUCCESS = 0,
    NOT_SUPPORTED = 1,
    INVALID_INPUT = 2,
    FILESYSTEM_ERROR = 3,
    INSUFFICIENT_RESOURCES = 4,
};

enum class PowerEntityType : uint32_t {
    SUBSYSTEM = 0,
    PERIPHERAL = 1,
    POWER_DOMAIN = 2,
};

/// One rail whose energy is measured.
struct RailInfo {
    uint32_t index = 0;         ///< named by energy records; unique in the device
    hidl_string railName;       ///< the rail's
    hidl_string subsysName;     ///< the part of the device that the rail feeds
    uint32_t samplingRate = 0;  ///< hertz
};

/// The energy of one rail since boot.
struct EnergyData {
    uint32_t index = 0;      ///< of the RailInfo
    uint64_t timestamp = 0;  ///< milliseconds since boot
    uint64_t energy = 0;     ///< microwatt-seconds
};

/// A part of the device whose power states are accounted.
struct PowerEntityInfo {
    uint32_t powerEntityId = 0;  ///< unique in the device
    hidl_string powerEntityName;
    PowerEntityType type = PowerEntityType::SUBSYSTEM;
};

/// One state that a power entity can be in.
struct PowerEntityStateInfo {
    uint32_t powerEntityStateId = 0;  ///< unique within the entity
    hidl_string powerEntityStateName;
};

/// All states of one power entity.
struct PowerEntityStateSpace {
    uint32_t powerEntityId = 0;
    hidl_vec<PowerEntityStateInfo> states;
};

/// How long a power entity has been in one of its states since boot.
struct PowerEntityStateResidencyData {
    uint32_t powerEntityStateId = 0;
    uint64_t totalTimeInStateMs = 0;    ///< milliseconds
    uint64_t totalStateEntryCount = 0;  ///< times that the state was entered
    uint64_t lastEntryTimestampMs = 0;  ///< when it was last entered, milliseconds since boot
};

/// The residencies of one power entity.
struct PowerEntityStateResidencyResult {
    uint32_t powerEntityId = 0;
    hidl_vec<PowerEntityStateResidencyData> stateResidencyData;
};

}  // namespace android::hardware::power::stats::V1_0
