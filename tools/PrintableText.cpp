// SPDX-License-Identifier: Apache-2.0

#include "tools/PrintableText.h"

#include <fmt/format.h>

#include <cstdint>

namespace powerstats {

namespace {

struct Character {
    uint32_t codePoint = 0;
    size_t size = 0;
};

/// The UTF-8 character at `position`; its size is 0 when there is no valid one.
Character decode(const std::string& bytes, size_t position) {
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

bool isControl(uint32_t codePoint) {
    return codePoint < 0x20 || (codePoint >= 0x7f && codePoint < 0xa0);
}

void append(const std::string& text, size_t width, size_t maxWidth,
            std::vector<PrintableLine>* lines) {
    if (lines->back().width + width > maxWidth) lines->emplace_back();
    lines->back().text += text;
    lines->back().width += width;
}

}  // namespace

std::vector<PrintableLine> printableLines(const std::string& bytes, size_t maxWidth) {
    std::vector<PrintableLine> lines(1);
    for (size_t position = 0; position < bytes.size();) {
        const Character character = decode(bytes, position);
        const size_t size = character.size == 0 ? 1 : character.size;
        if (character.codePoint == '\\') {
            append("\\\\", 2, maxWidth, &lines);
        } else if (character.size == 0 || isControl(character.codePoint)) {
            for (size_t i = position; i < position + size; ++i) {
                const auto byte = static_cast<unsigned char>(bytes[i]);
                append(fmt::format("\\x{:02x}", byte), 4, maxWidth, &lines);
            }
        } else {
            append(bytes.substr(position, size), 1, maxWidth, &lines);
        }
        position += size;
    }
    return lines;
}

}  // namespace powerstats
