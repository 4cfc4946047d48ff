// SPDX-License-Identifier: Apache-2.0

#include "power/text/Json.h"

#include <nlohmann/json.hpp>

namespace powerstats {

namespace {

using nlohmann::ordered_json;

ordered_json convert(const Json& json);

struct Converter {
    template <typename Value>
    ordered_json operator()(const Value& value) const {
        return value;
    }
    ordered_json operator()(const Json::Array& array) const {
        ordered_json converted = ordered_json::array();
        for (const Json& element : array) converted.push_back(convert(element));
        return converted;
    }
    ordered_json operator()(const Json::Object& object) const {
        ordered_json::object_t converted;
        for (const auto& [name, value] : object) {
            // Not by the operator that looks for the name.
            converted.ordered_json::object_t::Container::emplace_back(std::string(name),
                                                                      convert(value));
        }
        return converted;
    }
};

ordered_json convert(const Json& json) {
    return std::visit(Converter(), json.value());
}

}  // namespace

std::string Json::print(int indent) const {
    return convert(*this).dump(indent, ' ', false, ordered_json::error_handler_t::replace);
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
