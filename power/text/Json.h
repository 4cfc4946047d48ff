// SPDX-License-Identifier: Apache-2.0
//
// JSON to be written. The library's header, which takes long to compile, is in Json.cpp alone.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace powerstats {

/// A value of JSON. Members of an object keep their order.
class Json {
  public:
    using Array = std::vector<Json>;
    using Object = std::vector<std::pair<std::string_view, Json>>;

    /// Null.
    Json() = default;
    template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number>>>
    Json(Number number) {
        if constexpr (std::is_same_v<Number, bool>) {
            mValue = number;
        } else if constexpr (std::is_integral_v<Number>) {
            mValue = static_cast<int64_t>(number);
        } else {
            mValue = static_cast<double>(number);
        }
    }
    Json(std::string text) : mValue(std::move(text)) {}
    Json(std::string_view text) : mValue(std::string(text)) {}
    Json(const char* text) : mValue(std::string(text)) {}
    Json(Array array) : mValue(std::move(array)) {}
    /// Names must outlive the value; literals do.
    Json(Object object) : mValue(std::move(object)) {}

    const auto& value() const { return mValue; }

    /// Returns the text in one line, or with an indent in many. Bytes that are not UTF-8 become
    /// U+FFFD, and numbers that are not finite become null.
    std::string print(int indent = -1) const;

  private:
    std::variant<std::nullptr_t, bool, int64_t, double, std::string, Array, Object> mValue =
        nullptr;
};

/// Reads the text of an object.
/// @return the sizes of its members that are arrays, by name; std::nullopt when it is no object.
std::optional<std::map<std::string, size_t>> arraySizes(const std::string& text);

}  // namespace powerstats
