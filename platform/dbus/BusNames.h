// SPDX-License-Identifier: Apache-2.0
//
// What the two interfaces are called on the bus. Other programs are written against these names.

#pragma once

namespace host::dbus {

inline constexpr const char* kAidlBusName = "android.hardware.power.stats.IPowerStats";
inline constexpr const char* kHidlBusName = "android.hardware.power.stats.V1_0.IPowerStats";
/// Of the instance "default", the only one that is looked for.
inline constexpr const char* kObjectPath = "/default";

}  // namespace host::dbus
