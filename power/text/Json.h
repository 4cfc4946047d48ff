// SPDX-License-Identifier: Apache-2.0
//
// JSON to be written. The library's header, which takes long to compile, is in Json.cpp alone.

#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace powerstats {

/// A value of JSON. Members of an object keep their order.
class Json {
  public:
    using Array = std::vector<Json>;
    using Object = std::vector<std::pair<std::string_view, Json>>;

    /// Null.
    Json() = default;
    Json(double number);
    template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
    Json(Number number)
        : mText(std::is_same_v<Number, bool> ? number != 0 ? "true" : "false"
                                             : std::to_string(number)) {}
    Json(std::string_view text);
    Json(const std::string& text) : Json(std::string_view(text)) {}
    Json(const char* text) : Json(std::string_view(text)) {}
    Json(const Array& array);
    Json(const Object& object);

    /// Returns the text in one line, or with an indent in many. Bytes that are not UTF-8 become
    /// U+FFFD, and numbers that are not finite become null.
    std::string print(int indent = -1) const;

  private:
    /// In one line.
    std::string mText = "null";
};

/// Reads the text of an object.
/// @return the sizes of its members that are arrays, by name; std::nullopt when it is no object.
std::optional<std::map<std::string, size_t>> arraySizes(const std::string& text);

}  // namespace powerstats
