// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace powerstats {

/// A value of JSON. Members of an object keep their order.
using Json = nlohmann::ordered_json;

/// Returns the text in one line, or with an indent in many. Bytes that are not UTF-8 become U+FFFD,
/// and numbers that are not finite become null.
inline std::string printJson(const Json& json, int indent = -1) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace powerstats
