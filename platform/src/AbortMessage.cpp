// SPDX-License-Identifier: Apache-2.0

#include <android/set_abort_message.h>

extern "C" void android_set_abort_message(const char* /*msg*/) {
    // A Linux process leaves no crash report that could carry the message.
}
