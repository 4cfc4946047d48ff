// SPDX-License-Identifier: Apache-2.0
//
// The message of a process that aborts, for its crash report.

#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Keeps the reason for an abort that follows. The first message of a process stays.
/// @param msg [in] copied.
void android_set_abort_message(const char* msg);

#ifdef __cplusplus
}  // extern "C"
#endif
