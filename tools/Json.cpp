// SPDX-License-Identifier: Apache-2.0

#include "tools/Json.h"

#include <nlohmann/json.hpp>

namespace powerstats {

using nlohmann::ordered_json;

struct Json::Value {
    ordered_json json;
};

Json::Json(std::nullptr_t null) : mValue(std::make_shared<Value>(Value{null})) {}
Json::Json(double number) : mValue(std::make_shared<Value>(Value{number})) {}
Json::Json(const char* text) : mValue(std::make_shared<Value>(Value{text})) {}
Json::Json(const std::string& text) : mValue(std::make_shared<Value>(Value{text})) {}

void Json::setBool(bool value) {
    mValue = std::make_shared<Value>(Value{value});
}

void Json::setSigned(int64_t value) {
    mValue = std::make_shared<Value>(Value{value});
}

void Json::setUnsigned(uint64_t value) {
    mValue = std::make_shared<Value>(Value{value});
}

Json Json::array(const std::vector<Json>& elements) {
    ordered_json array = ordered_json::array();
    for (const Json& element : elements) array.push_back(element.mValue->json);
    return Json(std::make_shared<Value>(Value{std::move(array)}));
}

Json Json::object(const std::vector<Member>& members) {
    ordered_json object = ordered_json::object();
    for (const auto& [key, value] : members) object[key] = value.mValue->json;
    return Json(std::make_shared<Value>(Value{std::move(object)}));
}

std::string Json::toText(int indent) const {
    return mValue->json.dump(indent, ' ', false, ordered_json::error_handler_t::replace);
}

std::optional<Json> Json::parse(const std::string& text) {
    ordered_json json = ordered_json::parse(text, nullptr, false);
    if (json.is_discarded()) return std::nullopt;
    return Json(std::make_shared<Value>(Value{std::move(json)}));
}

std::optional<size_t> Json::arraySize(const char* key) const {
    const ordered_json& json = mValue->json;
    if (!json.is_object() || !json.contains(key) || !json[key].is_array()) return std::nullopt;
    return json[key].size();
}

}  // namespace powerstats
