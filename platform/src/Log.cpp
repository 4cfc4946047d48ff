// SPDX-License-Identifier: Apache-2.0

#include <android/log.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace {

// A device's log cuts the text of __android_log_print at this size, with the NUL.
constexpr size_t kTextBytes = 1024;

/// Writes "E/Tag( 1234): text" for every line of the message. One write does it all, so that the
/// messages of several threads do not mix.
void writeBrief(const __android_log_message* message) {
    static constexpr char kLetters[] = "??VDIWEF?";
    const int32_t priority = message->priority;
    const char letter = priority >= 0 && priority <= ANDROID_LOG_SILENT ? kLetters[priority] : '?';
    char prefix[128];
    std::snprintf(prefix, sizeof(prefix), "%c/%.80s(%5d): ", letter, message->tag,
                  static_cast<int>(getpid()));
    std::string lines = prefix;
    for (const char* text = message->message; *text != '\0'; ++text) {
        lines += *text;
        if (*text == '\n' && text[1] != '\0') lines += prefix;
    }
    if (lines.back() != '\n') lines += '\n';
    std::fwrite(lines.data(), 1, lines.size(), stderr);
}

std::atomic<__android_logger_function> gLogger{writeBrief};
std::atomic<int32_t> gMinimumPriority{ANDROID_LOG_INFO};

}  // namespace

extern "C" {

void __android_log_set_logger(__android_logger_function logger) {
    gLogger = logger != nullptr ? logger : writeBrief;
}

int32_t __android_log_set_minimum_priority(int32_t priority) {
    return gMinimumPriority.exchange(priority);
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    if (prio < gMinimumPriority) return -EPERM;
    char text[kTextBytes];
    va_list arguments;
    va_start(arguments, fmt);
    std::vsnprintf(text, sizeof(text), fmt, arguments);
    va_end(arguments);

    __android_log_message message = {};
    message.struct_size = sizeof(message);
    message.buffer_id = LOG_ID_DEFAULT;
    message.priority = prio;
    message.tag = tag != nullptr ? tag : "";
    message.message = text;
    gLogger.load()(&message);
    return 1;
}

}  // extern "C"
