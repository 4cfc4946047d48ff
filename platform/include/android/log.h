// SPDX-License-Identifier: Apache-2.0
//
// The device's log, as the NDK declares it. On the host a message goes to standard error in the
// brief form of logcat, "E/Tag(12345): text". A program can take the messages itself with
// `__android_log_set_logger`.

#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

typedef enum log_id { LOG_ID_DEFAULT = 0x7FFFFFFF } log_id_t;

/// Formats and logs one message.
/// @param prio [in] an android_LogPriority.
/// @param tag [in] the name of the program's part that logs; null means the empty string.
/// @param fmt [in] a printf format; the text is cut at 1023 bytes, as on a device.
/// @return 1 when the message was passed on, a negative errno when it was dropped.
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((__format__(printf, 3, 4)));

/// One message, as a logger gets it.
struct __android_log_message {
    size_t struct_size;   ///< sizeof(struct __android_log_message)
    int32_t buffer_id;    ///< a log_id_t
    int32_t priority;     ///< an android_LogPriority
    const char* tag;      ///< may be null
    const char* file;     ///< may be null
    uint32_t line;        ///< 0 where file is null
    const char* message;  ///< the text, without a line end
};

typedef void (*__android_logger_function)(const struct __android_log_message* log_message);

/// Sends every later message of the process to `logger`; null restores the default.
/// The logger runs on the thread that logs; many threads may call it at once.
void __android_log_set_logger(__android_logger_function logger);

/// Drops messages below a priority. A device logs all messages; on the host a fresh process drops
/// those below ANDROID_LOG_INFO.
/// @param priority [in] an android_LogPriority.
/// @return the previous priority.
int32_t __android_log_set_minimum_priority(int32_t priority);

}  // extern "C"
