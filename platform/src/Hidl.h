// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <hidl/Status.h>
#include <host/ServiceControl.h>

namespace host {

/// Returns the transport status that a HIDL client gets for a failure.
::android::hardware::Status toTransportStatus(const Failure& failure);

}  // namespace host
