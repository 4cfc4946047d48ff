// SPDX-License-Identifier: Apache-2.0
//
// The names of the two interfaces on the bus. Other programs depend on them.

#pragma once

namespace host::dbus {

inline constexpr const char* kAidlBusName = "android.hardware.power.stats.IPowerStats";
inline constexpr const char* kHidlBusName = "android.hardware.power.stats.V1_0.IPowerStats";
/// The object of the instance "default", the only one that look-ups ask for.
inline constexpr const char* kObjectPath = "/default";

}  // namespace host::dbus
