// SPDX-License-Identifier: Apache-2.0
//
// The steps from what a service answered to the bytes that Java receives. Both backends build the
// same message with them.

#pragma once

#include <jni.h>
#include <time.h>

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "jni/Log.h"
#include "jni/State.h"
#include "jni/Strict.h"
#include "proto/power_data_result.pb.h"

namespace ferrolith {

namespace proto = ::com::tavrel::android::ferrolith::poweranomalyservice::proto;

/// The time of a call: milliseconds since boot including suspend; 0 when the clock cannot be read.
static int64_t bootTimeMs() {
    timespec now;
    if (clock_gettime(CLOCK_BOOTTIME, &now) != 0) return 0;
    // Widened first: where time_t has 32 bits the product would not fit it after 24 days.
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

/// The energy that a result carries.
/// @param microwattSeconds [in] the service's energy. Each backend converts it itself, since one
///     counts signed and the other unsigned.
/// @return millijoules, truncated toward zero and held within 32 bits, 0 for NaN. Readers know the
///     value with these limits; a wider one would not agree with what they have stored.
static int64_t toMillijoules(float microwattSeconds) {
    static_assert(FLT_EVAL_METHOD == 0, "the division must be rounded to a 32-bit float");
    const float millijoules = microwattSeconds / 1000.0f;
    // Written out, since to convert a float that does not fit is undefined and processors differ.
    // The largest int32_t is not a float; the first float above the range is 2^31.
    if (std::isnan(millijoules)) return 0;
    if (millijoules >= 2147483648.0f) return std::numeric_limits<int32_t>::max();
    if (millijoules < -2147483648.0f) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(millijoules);
}

/// Appends an element with its id, and with its data present, if empty.
/// @return the element's data, owned by `result`.
static proto::PowerData* appendElement(proto::PowerDataResult* result, proto::IdKind kind,
                                       std::string_view name, int64_t timestampMs) {
    proto::KeyedPowerData* element = result->add_keyed_power_data();
    proto::Id* id = element->mutable_id();
    id->set_kind(kind);
    id->mutable_name()->assign(name.data(), name.size());  // a setter would make a temporary
    id->set_timestamp_ms(timestampMs);
    return element->mutable_data();
}

/// Appends one rail.
/// @param name [in] taken up to its first NUL.
static void appendRail(proto::PowerDataResult* result, const std::string& name, int64_t timestampMs,
                       int64_t millijoules) {
    appendElement(result, proto::KIND_RAIL, name.c_str(), timestampMs)
        ->mutable_scalar()
        ->set_value(millijoules);
}

/// Appends one power entity under its cached name, which is carried whole.
/// REQUIRES: gPowerStatsMutex is held
/// @return where its states go, with room for that many.
static proto::PowerData* appendEntity(proto::PowerDataResult* result, int entityId,
                                      int64_t timestampMs, size_t states) {
    proto::PowerData* data = appendElement(result, proto::KIND_POWER_ENTITY,
                                           strictAt(gEntityNames, entityId), timestampMs);
    data->mutable_residency()->Reserve(static_cast<int>(states));
    return data;
}

/// Appends one state of a power entity under its cached name, which is carried whole.
/// REQUIRES: gPowerStatsMutex is held
static void appendResidency(proto::PowerData* data, int entityId, int stateId,
                            int64_t totalTimeInStateMs, int64_t totalStateEntryCount) {
    proto::Residency* residency = data->add_residency();
    residency->mutable_name()->assign(strictAt(strictAt(gStateNames, entityId), stateId));
    residency->set_total_time_in_state_ms(totalTimeInStateMs);
    residency->set_total_state_entry_count(totalStateEntryCount);
}

/// @return a new local reference to a Java array of the bytes. When the Java heap is full it is
///     null and an exception is pending; the runtime's own functions know what to do with both.
static jbyteArray toJavaArray(JNIEnv* env, const std::string& bytes) {
    const auto length = static_cast<jsize>(bytes.size());
    jbyteArray array = env->NewByteArray(length);
    env->SetByteArrayRegion(array, 0, length, reinterpret_cast<const jbyte*>(bytes.data()));
    return array;
}

/// Hands a rail result to Java, one without elements included.
static jbyteArray railsToJava(JNIEnv* env, const proto::PowerDataResult& result) {
    std::string bytes;
    result.SerializeToString(&bytes);  // cannot fail: no field is required
    return toJavaArray(env, bytes);
}

/// Hands a serialized residency result to Java. No bytes means no entities, which is worth a line
/// in the log, and an empty array rather than null.
/// @param collector [in] the name of the function that found none.
/// @param service [in] what the log calls the service it asked.
static jbyteArray residenciesToJava(JNIEnv* env, const std::string& bytes, const char* collector,
                                    const char* service) {
    if (!bytes.empty()) return toJavaArray(env, bytes);
    __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                        "%s failed: No residences were obtained from PowerStats %s.", collector,
                        service);
    return env->NewByteArray(0);
}

}  // namespace ferrolith
