// SPDX-License-Identifier: Apache-2.0

#pragma once

namespace android::hardware {

/// The description of a fast message queue. The host has no such queues; the signature of
/// streamEnergyData needs the type.
template <typename T>
struct MQDescriptorSync {};

}  // namespace android::hardware
