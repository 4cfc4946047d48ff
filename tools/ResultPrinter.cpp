// SPDX-License-Identifier: Apache-2.0

#include "tools/ResultPrinter.h"

#include <fmt/format.h>

#include <cstdint>

#include "tools/Json.h"
#include "tools/TextTable.h"

namespace powerstats {

namespace {

namespace proto = com::tavrel::android::ferrolith::poweranomalyservice::proto;

std::string railRows(const PowerDataResult& result) {
    std::string text = tableRow(kIndent, "rail", {"energy (mJ)"});
    for (const proto::KeyedPowerData& rail : result.keyed_power_data()) {
        text += tableRow(kIndent, rail.id().name(), {fmt::to_string(rail.data().scalar().value())});
    }
    return text;
}

std::string entityRows(const PowerDataResult& result) {
    std::string text = tableRow(kIndent, "entity and state", {"time (ms)", "entries"});
    for (const proto::KeyedPowerData& entity : result.keyed_power_data()) {
        text += tableRow(kIndent, entity.id().name(), {});
        for (const proto::Residency& state : entity.data().residency()) {
            text += tableRow(2 * kIndent, state.name(),
                             {fmt::to_string(state.total_time_in_state_ms()),
                              fmt::to_string(state.total_state_entry_count())});
        }
    }
    return text;
}

std::string table(const Section& section) {
    const bool isRails = section.kind == Section::Kind::kRails;
    const char* title = isRails ? "Rails" : "Power entities";
    if (!section.result) return fmt::format("{}: not available\n", title);
    const PowerDataResult& result = *section.result;
    if (result.keyed_power_data().empty()) return fmt::format("{}: none reported\n", title);
    return fmt::format("{} at {}\n{}", title,
                       afterBoot(result.keyed_power_data(0).id().timestamp_ms()),
                       isRails ? railRows(result) : entityRows(result));
}

Json toJson(const proto::KeyedPowerData& element, Section::Kind kind) {
    std::vector<Json::Member> members = {{"name", element.id().name()},
                                         {"timestamp_ms", element.id().timestamp_ms()}};
    if (kind == Section::Kind::kRails) {
        members.emplace_back("energy_mj", element.data().scalar().value());
        return Json::object(members);
    }
    std::vector<Json> states;
    for (const proto::Residency& state : element.data().residency()) {
        states.push_back(Json::object({{"name", state.name()},
                                       {"time_ms", state.total_time_in_state_ms()},
                                       {"entries", state.total_state_entry_count()}}));
    }
    members.emplace_back("states", Json::array(states));
    return Json::object(members);
}

}  // namespace

std::string formatTable(const std::vector<Section>& sections) {
    std::string text;
    for (const Section& section : sections) {
        if (!text.empty()) text += '\n';
        text += table(section);
    }
    return text;
}

std::string formatJson(const std::vector<Section>& sections) {
    std::vector<Json::Member> members;
    for (const Section& section : sections) {
        Json& list =
            members
                .emplace_back(section.kind == Section::Kind::kRails ? "rails" : "entities", nullptr)
                .second;
        if (!section.result) continue;
        std::vector<Json> elements;
        for (const proto::KeyedPowerData& element : section.result->keyed_power_data()) {
            elements.push_back(toJson(element, section.kind));
        }
        list = Json::array(elements);
    }
    return Json::object(members).toText(2) + '\n';
}

}  // namespace powerstats
