// SPDX-License-Identifier: Apache-2.0
//
// Writes and reads JSON. Json.cpp alone includes the library's header, which takes long to compile.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace powerstats {

/// A value of JSON, which does not change.
class Json {
  public:
    /// A key and its value. Members keep their order.
    using Member = std::pair<const char*, Json>;

    Json() : Json(nullptr) {}
    Json(std::nullptr_t null);
    Json(double number);
    Json(const char* text);
    Json(const std::string& text);
    template <typename Integer, typename = std::enable_if_t<std::is_integral_v<Integer>>>
    Json(Integer value) {
        if constexpr (std::is_same_v<Integer, bool>) {
            setBool(value);
        } else if constexpr (std::is_signed_v<Integer>) {
            setSigned(value);
        } else {
            setUnsigned(value);
        }
    }
    static Json array(const std::vector<Json>& elements);
    static Json object(const std::vector<Member>& members);

    /// @param indent [in] spaces of each level; below zero the text is one line.
    /// @return the text, in which bytes that are not UTF-8 are replaced with U+FFFD.
    std::string toText(int indent) const;

    /// @return std::nullopt when the text is not JSON.
    static std::optional<Json> parse(const std::string& text);
    /// Returns the number of elements of an object's member; std::nullopt when that is no array.
    std::optional<size_t> arraySize(const char* key) const;

  private:
    struct Value;

    explicit Json(std::shared_ptr<const Value> value) : mValue(std::move(value)) {}
    void setBool(bool value);
    void setSigned(int64_t value);
    void setUnsigned(uint64_t value);

    std::shared_ptr<const Value> mValue;
};

}  // namespace powerstats
