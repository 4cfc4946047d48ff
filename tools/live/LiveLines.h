// SPDX-License-Identifier: Apache-2.0
//
// The text of the live view. Nothing here knows of a terminal.

#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "power/Interval.h"

namespace powerstats {

/// The number of intervals that a rail's history has.
constexpr size_t kHistory = 20;

/// The figures that are on the screen.
struct Figures {
    std::optional<Interval> interval;
    /// The rails' milliwatts by position in `lists`, the latest last; NAN where there was none.
    std::vector<std::deque<double>> histories;
    std::shared_ptr<const Lists> lists = std::make_shared<const Lists>();
};

/// Takes an interval over into the figures. Rails that are gone lose their histories, unless all
/// are.
void update(Figures* figures, Interval interval);

enum class Order { kService, kName, kGreatest };

/// The user's choices.
struct Choices {
    Order order = Order::kService;
    /// Only rails and entities whose names contain this are shown.
    std::string filter;
    bool isHelp = false;
};

struct Look {
    /// In columns.
    int width = 80;
    /// Whether the terminal shows UTF-8; otherwise all text is ASCII.
    bool isUtf8 = true;
};

enum class Style { kPlain, kHeading, kEdge, kBar, kHistory, kTrouble };

struct Span {
    Style style;
    std::string text;
};
using Line = std::vector<Span>;

/// Returns all lines between the first and the last row of the screen, however many they are. The
/// width of characters is that of the current locale.
/// @param notice [in] stands above all others; may be empty.
std::vector<Line> makeLines(const Figures& figures, const Choices& choices, const Look& look,
                            const std::string& notice);

/// Makes a text of any bytes fit for the terminal, at most 4096 bytes of it: escapes control
/// characters, and replaces a character that the terminal cannot show with "?".
std::string printable(const std::string& bytes, const Look& look);

/// Returns the end, in bytes, of the part of a printable text that starts at `start` and fits.
/// @param columns [in, out] the columns that may be used, then those that are left.
size_t findEnd(const std::string& text, size_t start, int* columns);

/// Makes a text of any bytes printable, and cuts it, or fills it with spaces, to a number of
/// columns. A text that is cut ends in "~".
std::string fit(const std::string& bytes, int columns, const Look& look);

}  // namespace powerstats
