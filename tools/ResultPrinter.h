// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "proto/power_data_result.pb.h"

namespace powerstats {

using PowerDataResult =
    com::tavrel::android::ferrolith::poweranomalyservice::proto::PowerDataResult;

/// The result of one of the library's two methods.
struct Section {
    enum class Kind { kRails, kEntities };

    Kind kind;
    /// std::nullopt when the library returned null.
    std::optional<PowerDataResult> result;
};

/// For people: aligned columns within 80 characters, each section with the time of its call. A name
/// that is too long for its column goes on in further lines. Bytes of a name that are control
/// characters or not UTF-8 are shown as "\x1B".
std::string formatTable(const std::vector<Section>& sections);

/// For programs: one JSON object with a list per section, `rails` of `name`, `timestamp_ms` and
/// `energy_mj`, `entities` of `name`, `timestamp_ms` and `states` of `name`, `time_ms` and
/// `entries`; null instead of a list for a section without a result. Bytes that are not UTF-8 are
/// replaced with U+FFFD.
std::string formatJson(const std::vector<Section>& sections);

}  // namespace powerstats
