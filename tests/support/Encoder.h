// SPDX-License-Identifier: Apache-2.0
//
// Writes the bytes of an expected result by hand. This encoder is apart from the library's, so that
// the two cannot be wrong together.

#pragma once

#include <aidl/android/hardware/power/stats/StateResidency.h>

#include <cstdint>
#include <string>
#include <vector>

namespace support {

/// The boot clock's time in a scenario, milliseconds.
inline constexpr int64_t kNowMs = 123456789;

/// Seven bits a byte, least significant first.
inline std::string varint(uint64_t value) {
    std::string bytes;
    for (; value >= 0x80; value >>= 7) bytes += static_cast<char>(0x80 | (value & 0x7f));
    return bytes + static_cast<char>(value);
}

/// One field, with its tag.
inline std::string field(int number, uint64_t value) {
    return varint(static_cast<uint64_t>(number) << 3) + varint(value);
}
inline std::string field(int number, const std::string& content) {
    return varint(static_cast<uint64_t>(number) << 3 | 2) + varint(content.size()) + content;
}

/// One element of a result.
inline std::string element(uint64_t kind, const std::string& name, int64_t timestampMs,
                           const std::string& data) {
    const std::string id =
        field(1, kind) + field(2, name) + field(3, static_cast<uint64_t>(timestampMs));
    return field(2, field(1, id) + field(2, data));
}

/// One rail, as an element of a result.
inline std::string rail(const std::string& name, int64_t millijoules, int64_t atMs = kNowMs) {
    return element(1, name, atMs, field(1, field(1, static_cast<uint64_t>(millijoules))));
}

/// One power entity, as an element of a result, and its states: a name, and the service's record.
inline std::string entity(const std::string& name, const std::vector<std::string>& residencies,
                          int64_t atMs = kNowMs) {
    std::string data;
    for (const auto& state : residencies) data += state;
    return element(2, name, atMs, data);
}
inline std::string residency(const std::string& name,
                             const aidl::android::hardware::power::stats::StateResidency& record) {
    return field(2, field(1, name) + field(2, static_cast<uint64_t>(record.totalTimeInStateMs)) +
                        field(3, static_cast<uint64_t>(record.totalStateEntryCount)));
}

}  // namespace support
