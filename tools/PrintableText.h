// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace powerstats {

struct PrintableLine {
    std::string text;
    /// In columns of a terminal; every character is taken to be one wide.
    size_t width = 0;
};

/// Makes any bytes fit for a terminal: bytes of control characters and bytes that are not UTF-8
/// become "\x1b", a backslash becomes "\\".
/// @param maxWidth [in] columns, at least 4; longer text is broken into lines.
/// @return at least one line.
std::vector<PrintableLine> printableLines(const std::string& bytes, size_t maxWidth);

}  // namespace powerstats
