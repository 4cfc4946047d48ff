// SPDX-License-Identifier: Apache-2.0
//
// Tables for people, within 80 characters.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace powerstats {

constexpr size_t kIndent = 2;

/// Formats one row: a name, and right-aligned columns after it. A name that is too long goes on in
/// further lines. It may come from anybody's service, so safeName() makes it safe for a terminal.
/// Every character is taken to be one column wide.
std::string tableRow(size_t indent, const std::string& name,
                     const std::vector<std::string>& columns);

/// A time since boot, such as "01:11:41.211 after boot (4301211 ms)".
std::string afterBoot(int64_t timestampMs);

}  // namespace powerstats
