// SPDX-License-Identifier: Apache-2.0
//
// The message of a process that aborts, for its crash report.

#pragma once

extern "C" {

/// Gives the crash report the reason for an abort that follows. The host makes no such report, and
/// drops the message.
void android_set_abort_message(const char* msg);

}  // extern "C"
