// SPDX-License-Identifier: Apache-2.0

#include <android/set_abort_message.h>
#include <host/ServiceControl.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

std::atomic<char*> gMessage{nullptr};

}  // namespace

extern "C" void android_set_abort_message(const char* msg) {
    char* const copy = strdup(msg);
    char* none = nullptr;
    if (!gMessage.compare_exchange_strong(none, copy)) free(copy);
}

const char* host::abortMessage() {
    return gMessage;
}
