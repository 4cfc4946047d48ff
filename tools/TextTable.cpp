// SPDX-License-Identifier: Apache-2.0

#include "tools/TextTable.h"

#include <fmt/format.h>

#include "hal/NamesAndIds.h"

namespace powerstats {

namespace {

constexpr size_t kLineWidth = 80;
constexpr size_t kNumberWidth = 16;

}  // namespace

std::string tableRow(size_t indent, const std::string& name,
                     const std::vector<std::string>& columns) {
    const size_t nameWidth = kLineWidth - indent - columns.size() * (kNumberWidth + 1);
    const std::string safe = safeName(name, SIZE_MAX);
    std::string text(indent, ' ');
    size_t width = 0;
    for (size_t i = 0, size; i < safe.size(); i += size, ++width) {
        size = decodeUtf8(safe, i).size;
        if (width == nameWidth) {
            text += '\n' + std::string(indent, ' ');
            width = 0;
        }
        text += safe.substr(i, size);
    }
    if (!columns.empty()) text += std::string(nameWidth - width, ' ');
    for (const std::string& column : columns) text += fmt::format(" {:>{}}", column, kNumberWidth);
    return text.erase(text.find_last_not_of(' ') + 1) + '\n';
}

std::string afterBoot(int64_t timestampMs) {
    if (timestampMs == 0) return "an unknown time";  // the clock could not be read
    const int64_t seconds = timestampMs / 1000;
    const int64_t days = seconds / 86400;
    return fmt::format("{}{:02}:{:02}:{:02}.{:03} after boot ({} ms)",
                       days == 0 ? "" : fmt::format("{} d ", days), seconds / 3600 % 24,
                       seconds / 60 % 60, seconds % 60, timestampMs % 1000, timestampMs);
}

}  // namespace powerstats
