// SPDX-License-Identifier: Apache-2.0

#include "power/text/Names.h"

#include <fmt/format.h>

#include <algorithm>
#include <cwchar>
#include <locale>
#include <map>
#include <set>
#include <type_traits>
#include <utility>

namespace powerstats {

namespace {

/// Noncharacters are valid UTF-8, but validators of texts refuse them. Separators of lines and
/// controls of the direction of writing change the text around them. Names that differ in
/// characters without width look the same.
bool isUnfit(uint32_t codePoint) {
    const auto isWithin = [codePoint](uint32_t first, uint32_t last) {
        return codePoint >= first && codePoint <= last;
    };
    return (codePoint & 0xfffe) == 0xfffe || isWithin(0xfdd0, 0xfdef) || isWithin(0x2028, 0x202e) ||
           isWithin(0x2060, 0x2069) || isWithin(0x200b, 0x200f) || codePoint == 0x61c ||
           codePoint == 0xfeff;
}

}  // namespace

Utf8Character decodeUtf8(const std::string& bytes, size_t position) {
    static const auto& decoder =
        std::use_facet<std::codecvt<char32_t, char, std::mbstate_t>>(std::locale::classic());
    std::mbstate_t state{};
    const char* const first = bytes.data() + position;
    const char* next = first;
    char32_t character = 0;
    char32_t* end = nullptr;
    decoder.in(state, first, bytes.data() + bytes.size(), next, &character, &character + 1, end);
    const bool isSurrogate = character >= 0xd800 && character <= 0xdfff;
    if (end == &character || isSurrogate) return {};
    return {character, static_cast<size_t>(next - first)};
}

bool isControlCharacter(uint32_t codePoint) {
    return codePoint < 0x20 || (codePoint >= 0x7f && codePoint < 0xa0);
}

std::string safeName(const std::string& bytes, size_t maxSize) {
    std::string name;
    for (size_t position = 0; position < bytes.size();) {
        const Utf8Character character = decodeUtf8(bytes, position);
        std::string text = bytes.substr(position, std::max<size_t>(character.size, 1));
        position += text.size();
        if (character.size == 0 || isControlCharacter(character.codePoint)) {
            const std::vector<unsigned char> escaped(text.begin(), text.end());
            text = fmt::format("\\x{:02X}", fmt::join(escaped, "\\x"));
        } else if (isUnfit(character.codePoint)) {
            text = fmt::format("\\u{{{:X}}}", character.codePoint);
        }
        if (name.size() + text.size() > maxSize) break;
        name += text;
    }
    return name;
}

std::vector<std::string> distinctNames(const std::vector<std::vector<std::string>>& choices) {
    std::vector<size_t> chosen(choices.size(), 0);
    std::vector<std::string> names(choices.size());
    for (bool moved = true; moved;) {
        moved = false;
        std::map<std::string, size_t> namesakes;
        for (size_t i = 0; i < choices.size(); ++i) {
            names[i] = safeName(choices[i][chosen[i]]);
            ++namesakes[names[i]];
        }
        for (size_t i = 0; i < choices.size(); ++i) {
            if (namesakes[names[i]] == 1 || chosen[i] + 1 == choices[i].size()) continue;
            ++chosen[i];
            moved = true;
        }
    }

    std::set<std::string> taken(names.begin(), names.end());
    // The number to go on with for each name, so that many namesakes take no longer than others.
    std::map<std::string, size_t> next;
    for (size_t i = 0; i < names.size(); ++i) {
        size_t& number = next[names[i]];
        if (++number == 1) continue;
        do {
            const std::string suffix = " #" + std::to_string(number);
            names[i] = safeName(choices[i][chosen[i]], kMaxNameSize - suffix.size()) + suffix;
        } while (!taken.insert(names[i]).second && ++number != 0);
    }
    return names;
}

namespace {

template <typename Thing>
void rename(std::vector<Thing>* things, bool isFixed) {
    std::vector<std::vector<std::string>> choices;
    choices.reserve(things->size());
    for (const Thing& thing : *things) {
        const std::string id = "id " + std::to_string(thing.id);
        choices.push_back({thing.name.empty() ? id : thing.name});
        if (thing.name.empty() || isFixed) continue;
        std::string name = thing.name;
        if constexpr (std::is_same_v<Thing, Rail>) {
            if (!thing.subsystem.empty()) name.insert(0, thing.subsystem + "/");
        }
        choices.back().push_back(name);
        choices.back().push_back(fmt::format("{} ({})", name, id));
    }
    std::vector<std::string> names = distinctNames(choices);
    for (size_t i = 0; i < names.size(); ++i) (*things)[i].name = std::move(names[i]);
}

}  // namespace

std::shared_ptr<const Lists> nameLists(std::vector<Rail> rails, std::vector<Entity> entities,
                                       bool isFixed) {
    rename(&rails, isFixed);
    rename(&entities, isFixed);
    for (Rail& rail : rails) rail.subsystem = safeName(rail.subsystem);
    for (Entity& entity : entities) rename(&entity.states, isFixed);
    return std::make_shared<const Lists>(Lists{std::move(rails), std::move(entities)});
}

}  // namespace powerstats
