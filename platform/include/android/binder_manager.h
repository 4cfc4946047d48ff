// SPDX-License-Identifier: Apache-2.0
//
// The service manager, as the NDK declares it: the register of AIDL services by instance name.

#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_status.h>

extern "C" {

/// Registers a service and replaces one of the same name. The register takes a strong reference of
/// its own.
binder_status_t AServiceManager_addService(AIBinder* binder, const char* instance);

/// Looks a service up, and waits while it asks a bus that has none: `host/ServiceControl.h` says
/// how long.
/// @return the registered binder with one strong reference owned by the caller, or null when there
///     is no such service.
__attribute__((warn_unused_result)) AIBinder* AServiceManager_getService(const char* instance);

/// Does the same without waiting.
__attribute__((warn_unused_result)) AIBinder* AServiceManager_checkService(const char* instance);

}  // extern "C"
