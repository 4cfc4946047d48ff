// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <utils/RefBase.h>

#include <cstdint>

namespace android::hidl::base::V1_0 {

/// Base of every HIDL interface. A service need not override any of these: linking is done by the
/// proxy that a client holds.
struct IBase : public virtual ::android::RefBase {
    /// Has the recipient told, once, on a thread of the platform's own, when the service's process
    /// dies; at once when it is dead already and that has not been reported yet. The recipient is
    /// held weakly.
    /// @return whether the link was made; false once the death has been reported. The transport
    ///     result is OK also when the peer is dead.
    virtual ::android::hardware::Return<bool> linkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient, uint64_t cookie);

    /// Ends one link of the recipient.
    /// @return whether there was one to end. The transport result is OK also when the peer is dead.
    virtual ::android::hardware::Return<bool> unlinkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient);
};

}  // namespace android::hidl::base::V1_0
