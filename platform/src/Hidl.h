// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <hidl/Status.h>
#include <host/ServiceControl.h>

namespace host {

/// The transport status that a failure shows a HIDL client.
::android::hardware::Status toTransportStatus(const Failure& failure);

}  // namespace host
