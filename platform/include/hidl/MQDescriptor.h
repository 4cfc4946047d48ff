// SPDX-License-Identifier: Apache-2.0

#pragma once

namespace android::hardware {

/// The description of a fast message queue. The host has no such queues: the type is here for the
/// signature of the one method that hands one out, and describes none.
template <typename T>
struct MQDescriptorSync {};

}  // namespace android::hardware
