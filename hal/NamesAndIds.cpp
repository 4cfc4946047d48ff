// SPDX-License-Identifier: Apache-2.0

#include "hal/NamesAndIds.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace powerstats {

namespace {

uint32_t fnv1a(const std::string& text) {
    uint32_t hash = 2166136261u;
    for (const char character : text) {
        hash = (hash ^ static_cast<unsigned char>(character)) * 16777619u;
    }
    return hash;
}

/// Formats a number into an escape; `format` has one hexadecimal conversion.
std::string escape(const char* format, uint32_t value) {
    char text[16];
    snprintf(text, sizeof(text), format, value);
    return text;
}

/// Noncharacters are valid UTF-8, but validators of texts refuse them. Separators of lines and
/// controls of the direction of writing change the text around them.
bool isUnfit(uint32_t codePoint) {
    const auto isWithin = [codePoint](uint32_t first, uint32_t last) {
        return codePoint >= first && codePoint <= last;
    };
    return (codePoint & 0xfffe) == 0xfffe || isWithin(0xfdd0, 0xfdef) || isWithin(0x2028, 0x202e) ||
           isWithin(0x2066, 0x2069) || isWithin(0x200e, 0x200f);
}

}  // namespace

Utf8Character decodeUtf8(const std::string& bytes, size_t position) {
    const auto byteAt = [&](size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned char lead = byteAt(position);
    if (lead < 0x80) return {lead, 1};

    const size_t size = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc0 || lead >= 0xf8 || size > bytes.size() - position) return {};
    uint32_t codePoint = lead & (0x7fu >> size);
    for (size_t i = position + 1; i < position + size; ++i) {
        if ((byteAt(i) & 0xc0) != 0x80) return {};
        codePoint = codePoint << 6 | (byteAt(i) & 0x3f);
    }
    constexpr uint32_t kLeastOfSize[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = codePoint >= 0xd800 && codePoint <= 0xdfff;
    if (codePoint < kLeastOfSize[size] || codePoint > 0x10ffff || isSurrogate) return {};
    return {codePoint, size};
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
            std::string escaped;
            for (const char byte : text) {
                escaped += escape("\\x%02X", static_cast<unsigned char>(byte));
            }
            text = escaped;
        } else if (isUnfit(character.codePoint)) {
            text = escape("\\u{%X}", character.codePoint);
        }
        if (name.size() + text.size() > maxSize) break;
        name += text;
    }
    return name;
}

PathIds::PathIds(int32_t base, int bits) : mBase(static_cast<uint32_t>(base)), mBits(bits) {}

int32_t PathIds::add(const std::string& path) {
    const uint32_t mask = (uint32_t{1} << mBits) - 1;
    const uint32_t hash = fnv1a(path);
    uint32_t offset = (hash >> mBits) ^ (hash & mask);
    while (!mGiven.insert(offset).second) offset = (offset + 1) & mask;
    return static_cast<int32_t>(mBase + offset);
}

std::vector<int64_t> distinctNumbers(const std::vector<int64_t>& wishes, int64_t max) {
    std::set<int64_t> taken(wishes.begin(), wishes.end());
    std::set<int64_t> given;
    std::vector<int64_t> numbers;
    int64_t next = 0;
    for (const int64_t wish : wishes) {
        if (wish >= 0 && wish <= max && given.insert(wish).second) {
            numbers.push_back(wish);
            continue;
        }
        while (!taken.insert(next).second) ++next;
        numbers.push_back(next);
    }
    return numbers;
}

std::vector<std::string> distinctNames(const std::vector<std::vector<std::string>>& choices) {
    std::vector<size_t> chosen(choices.size(), 0);
    const auto bytes = [&](size_t thing) { return choices[thing][chosen[thing]]; };
    const auto name = [&](size_t thing) { return safeName(bytes(thing)); };

    for (bool moved = true; moved;) {
        moved = false;
        std::map<std::string, std::vector<size_t>> things;
        for (size_t i = 0; i < choices.size(); ++i) things[name(i)].push_back(i);
        for (const auto& [sameName, namesakes] : things) {
            if (namesakes.size() == 1) continue;
            for (const size_t i : namesakes) {
                if (chosen[i] + 1 == choices[i].size()) continue;
                ++chosen[i];
                moved = true;
            }
        }
    }

    std::vector<std::string> names;
    std::set<std::string> taken;
    for (size_t i = 0; i < choices.size(); ++i) taken.insert(name(i));
    std::set<std::string> used;
    for (size_t i = 0; i < choices.size(); ++i) {
        std::string candidate = name(i);
        if (used.count(candidate) != 0) {
            size_t number = 2;
            do {
                const std::string suffix = " #" + std::to_string(number++);
                candidate = safeName(bytes(i), kMaxNameSize - suffix.size()) + suffix;
            } while (taken.count(candidate) != 0);
            taken.insert(candidate);
        }
        used.insert(candidate);
        names.push_back(candidate);
    }
    return names;
}

}  // namespace powerstats
