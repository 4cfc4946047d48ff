// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <utils/RefBase.h>

#include <cstdint>

namespace android::hidl::base::V1_0 {

/// Base of every HIDL interface. A service need not override these methods, because a client links
/// through its proxy.
struct IBase : public virtual ::android::RefBase {
    /// Links the recipient to the death of the service's process. The platform calls it once, on a
    /// thread of its own; at once if the process is dead and the death is not reported yet. The
    /// link holds the recipient weakly.
    /// @return whether the link was made; false once the death has been reported. The transport
    ///     result is OK even if the peer is dead.
    virtual ::android::hardware::Return<bool> linkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient, uint64_t cookie);

    /// Ends one link of the recipient.
    /// @return whether there was such a link. The transport result is OK even if the peer is dead.
    virtual ::android::hardware::Return<bool> unlinkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient);
};

}  // namespace android::hidl::base::V1_0
