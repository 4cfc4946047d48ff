// SPDX-License-Identifier: Apache-2.0
//
// Turns a service's records into the bytes that Java receives. Both backends build the same message
// with these functions.

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

/// Returns the time of a call: milliseconds since boot including suspend; 0 when the clock cannot
/// be read.
static int64_t bootTimeMs() {
    timespec now;
    if (clock_gettime(CLOCK_BOOTTIME, &now) != 0) return 0;
    // Widen first: with a 32-bit time_t the product would overflow after 24 days.
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

/// Returns the energy that a result carries.
/// @param microwattSeconds [in] the service's energy. Each backend converts it to a float, because
///     one interface has signed energies and the other unsigned ones.
/// @return millijoules, truncated toward zero and clamped to 32 bits, 0 for NaN. Keep these limits:
///     consumers have stored values that were computed with them.
static int64_t toMillijoules(float microwattSeconds) {
    static_assert(FLT_EVAL_METHOD == 0, "the division must be rounded to a 32-bit float");
    const float millijoules = microwattSeconds / 1000.0f;
    // Compare first: converting a float that does not fit is undefined, and processors differ.
    // The largest int32_t is not a float; the first float above the range is 2^31.
    if (std::isnan(millijoules)) return 0;
    if (millijoules >= 2147483648.0f) return std::numeric_limits<int32_t>::max();
    if (millijoules < -2147483648.0f) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(millijoules);
}

/// Appends an element with its id and with data, which is present even if it stays empty.
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
/// @return the message for its states, with room for `states` of them.
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
///     null and an exception is pending. Neither is checked: the runtime handles both.
static jbyteArray toJavaArray(JNIEnv* env, const std::string& bytes) {
    const auto length = static_cast<jsize>(bytes.size());
    jbyteArray array = env->NewByteArray(length);
    env->SetByteArrayRegion(array, 0, length, reinterpret_cast<const jbyte*>(bytes.data()));
    return array;
}

/// Hands a rail result to Java. A result without elements becomes an empty array.
static jbyteArray railsToJava(JNIEnv* env, const proto::PowerDataResult& result) {
    std::string bytes;
    result.SerializeToString(&bytes);  // cannot fail: no field is required
    return toJavaArray(env, bytes);
}

/// Hands a serialized residency result to Java. No bytes means no entities: that is logged, and
/// the array is empty rather than null.
/// @param collector [in] the name of the calling function, for the log.
/// @param service [in] the name of the service, for the log.
static jbyteArray residenciesToJava(JNIEnv* env, const std::string& bytes, const char* collector,
                                    const char* service) {
    if (!bytes.empty()) return toJavaArray(env, bytes);
    __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                        "%s failed: No residences were obtained from PowerStats %s.", collector,
                        service);
    return env->NewByteArray(0);
}

}  // namespace ferrolith
