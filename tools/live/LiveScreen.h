// SPDX-License-Identifier: Apache-2.0
//
// What the live view shows, and what keys change. Nothing here knows of a terminal.

#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "power/Interval.h"

namespace powerstats {

/// The number of intervals that a history has.
constexpr int kHistory = 20;

enum class Style { kPlain, kHeading, kEdge, kBar, kHistory, kTrouble };

struct Span {
    Style style;
    /// Of characters that the current locale can show.
    std::wstring text;
};
using Line = std::vector<Span>;

enum class Order { kService, kName, kGreatest };

struct LiveScreen {
    /// Where the readings come from.
    std::string title;
    /// Stands above all figures; may be empty.
    std::string notice;
    /// For how many seconds an answer has been missing; 0 while none is late.
    int silence = 0;
    /// The figures that are shown.
    std::optional<Interval> interval;
    /// The milliwatts of each rail, by name, in the latest kHistory intervals; -1 where there was
    /// none.
    std::map<std::string, std::deque<double>> histories;

    Order order = Order::kService;
    /// Only rails and entities whose names contain this are shown.
    std::string filter;
    bool isTyping = false;
    bool isHelp = false;
    bool isPaused = false;
    /// The index of the line shown first, and the number of lines that fit.
    int top = 0;
    int page = 1;
};

/// Takes an interval over. A rail that had no figure for as long as a history tells of loses it.
void take(Interval interval, LiveScreen* screen);

/// Does as a key says.
/// @param key [in] the character that it types, or the name of another one in ncurses: "KEY_UP", or
///     "^M" for a control character.
/// @return false when the user quits.
bool press(const std::string& key, LiveScreen* screen);

/// Returns the rows of the screen, with characters as wide as in the current locale. Only a name
/// that is being typed, and figures on fewer than 12 columns, go beyond the width. The cursor is
/// after the last row.
std::vector<Line> makeRows(int height, int width, LiveScreen* screen);

}  // namespace powerstats
