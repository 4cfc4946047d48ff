// SPDX-License-Identifier: Apache-2.0

#include "power/text/Json.h"

#include <nlohmann/json.hpp>

namespace powerstats {

using nlohmann::ordered_json;

Json::Json(double number) : mText(ordered_json(number).dump()) {}

Json::Json(std::string_view text)
    : mText(ordered_json(text).dump(-1, ' ', false, ordered_json::error_handler_t::replace)) {}

Json::Json(const Array& array) : mText("[") {
    for (const Json& element : array) mText += (mText.size() > 1 ? "," : "") + element.mText;
    mText += ']';
}

Json::Json(const Object& object) : mText("{") {
    for (const auto& [name, value] : object) {
        mText += (mText.size() > 1 ? "," : "") + Json(name).mText + ':' + value.mText;
    }
    mText += '}';
}

std::string Json::print(int indent) const {
    return indent < 0 ? mText : ordered_json::parse(mText).dump(indent);
}

std::optional<std::map<std::string, size_t>> arraySizes(const std::string& text) {
    const auto json = nlohmann::json::parse(text, nullptr, false);
    if (!json.is_object()) return std::nullopt;
    std::map<std::string, size_t> sizes;
    for (const auto& [name, value] : json.items()) {
        if (value.is_array()) sizes.emplace(name, value.size());
    }
    return sizes;
}

}  // namespace powerstats
