// SPDX-License-Identifier: Apache-2.0

#include "tools/LiveLines.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cwchar>

#include "hal/NamesAndIds.h"

namespace powerstats {

namespace {

constexpr const char* kHelp[] = {
    "q      quit",
    "Space  pause, or go on",
    "s      sort: as the service, by name, greatest first",
    "/      filter names: Enter accepts, Esc clears",
    "?      help, or back",
    "Arrows, PgUp, PgDn, Home and End scroll.",
    "A rail's figure is its average power in the interval. Rails overlap, so they have no sum.",
    "The bars of rails have the scale above them; each history has a scale of its own.",
    "An entity that spent the whole interval in one state has one line.",
    "Greatest first: rails by power, entities by entries per second.",
};

/// Adds a text of any length as lines of the screen's width, broken at spaces where there are some.
void addWrapped(std::vector<Line>* lines, Style style, const std::string& bytes, const Look& look) {
    const std::string text = printable(bytes, look);
    for (size_t start = 0; start < text.size();) {
        int columns = std::max(look.width, 2);  // the widest character has two columns
        size_t end = findEnd(text, start, &columns);
        if (end < text.size()) {
            const size_t space = text.rfind(' ', end);
            if (space != std::string::npos && space > start) end = space;
        }
        lines->push_back({{style, text.substr(start, end - start)}});
        start = end < text.size() && text[end] == ' ' ? end + 1 : end;
    }
}

/// Returns a bar of a number of columns.
/// @param share [in] from 0 to 1.
std::string makeBar(double share, int columns, bool isUtf8) {
    if (columns <= 0) return "";
    static const char* const kEighths[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
    const int eighths = static_cast<int>(std::lround(std::clamp(share, 0.0, 1.0) * columns * 8));
    const int full = isUtf8 ? eighths / 8 : (eighths + 4) / 8;
    const int rest = isUtf8 ? eighths % 8 : 0;
    std::string bar;
    for (int i = 0; i < full; ++i) bar += isUtf8 ? "█" : "#";
    return bar + kEighths[rest] +
           std::string(static_cast<size_t>(columns - full - (rest > 0)), ' ');
}

/// Returns the latest values of a history, one a column; a gap where there was none. The greatest
/// value has the highest mark, so that small changes of a small rail show too.
std::string makeSparkline(const std::deque<double>& values, size_t columns, bool isUtf8) {
    static const char* const kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    static const char* const kAscii[] = {".", ":", "-", "=", "+", "*", "#", "@"};
    double greatest = 0;
    for (const double value : values) greatest = std::fmax(greatest, value);
    std::string line(columns - std::min(columns, values.size()), ' ');
    for (size_t i = values.size() - std::min(columns, values.size()); i < values.size(); ++i) {
        if (std::isnan(values[i])) {
            line += ' ';
            continue;
        }
        const double share = greatest > 0 ? std::clamp(values[i] / greatest, 0.0, 1.0) : 0;
        line += (isUtf8 ? kBlocks : kAscii)[std::lround(share * 7)];
    }
    return line;
}

/// How many columns each part of a row has; 0 for none. A space is between two parts.
struct Columns {
    int name = 0;
    int bar = 0;
    /// A rail's history, or a state's entries per second.
    int tail = 0;
};

/// Of milliwatts, or of a share with its unit.
constexpr int kValueColumns = 10;

/// Chooses the parts that fit: in a narrow terminal the history goes first, then the bar.
Columns planColumns(const Interval& interval, const Look& look) {
    size_t longest = 8;
    for (const Interval::Rail& rail : interval.rails) longest = std::max(longest, rail.name.size());
    for (const Interval::Entity& entity : interval.entities) {
        longest = std::max(longest, entity.name.size());
        for (const Interval::State& state : entity.states) {
            longest = std::max(longest, state.name.size() + 2);
        }
    }
    const int wanted = static_cast<int>(std::min<size_t>(longest, 32));
    Columns columns;
    for (const int tail : {static_cast<int>(kHistory), 10, 0}) {
        columns.name = std::min(wanted, std::max(8, look.width / 2));
        columns.tail = tail;
        columns.bar = look.width - columns.name - kValueColumns - 2 - (tail > 0 ? tail + 1 : 0);
        if (columns.bar >= 6) {
            columns.bar = std::min(columns.bar, 60);
            return columns;
        }
    }
    return {std::max(1, look.width - kValueColumns - 1), 0, 0};
}

Line makeRow(const Columns& columns, const Look& look, const std::string& name,
             const std::string& value, double share, const Span& tail) {
    Line line = {{Style::kPlain, fit(name, columns.name, look)},
                 {Style::kPlain, fmt::format(" {:>{}}", value, kValueColumns)}};
    if (columns.bar > 0) {
        line.push_back({Style::kBar, " " + makeBar(share, columns.bar, look.isUtf8)});
    }
    if (columns.tail > 0) line.push_back({tail.style, " " + tail.text});
    return line;
}

/// A name and a text in place of figures.
Line makeTextRow(const Columns& columns, const Look& look, const std::string& name, Style style,
                 const std::string& text) {
    return {{Style::kPlain, fit(name, columns.name, look) + " "},
            {style, fit(text, look.width - columns.name - 1, look)}};
}

/// Returns the rails or entities whose names have the filter in them, in the order asked for.
template <typename Thing, typename Measure>
std::vector<const Thing*> select(const std::vector<Thing>& things, const Choices& choices,
                                 Measure measure) {
    std::vector<const Thing*> selected;
    for (const Thing& thing : things) {
        if (safeName(thing.name).find(choices.filter) != std::string::npos) {
            selected.push_back(&thing);
        }
    }
    const auto isBefore = [&](const Thing* a, const Thing* b) {
        return choices.order == Order::kName ? a->name < b->name : measure(*a) > measure(*b);
    };
    if (choices.order != Order::kService) {
        std::stable_sort(selected.begin(), selected.end(), isBefore);
    }
    return selected;
}

/// Adds a section's heading, and why the section has no rows if it has none.
void addHeading(std::vector<Line>* lines, const Look& look, const std::string& heading,
                const std::string& error, size_t all, size_t selected) {
    lines->push_back({{Style::kHeading, fit(heading, look.width, look)}});
    if (!error.empty()) {
        addWrapped(lines, Style::kTrouble, error, look);
    } else if (selected == 0) {
        lines->push_back({{Style::kPlain, all == 0 ? "none" : "none has the filter in its name"}});
    }
}

void addRails(std::vector<Line>* lines, const Figures& figures, const Choices& choices,
              const Columns& columns, const Look& look) {
    const Interval& interval = *figures.interval;
    const auto rails =
        select(interval.rails, choices, [](const Interval::Rail& rail) { return rail.milliwatts; });
    // One scale for all bars, of the time that the histories tell of. It has no sum: rails overlap.
    double greatest = 0;
    for (const auto& [rail, values] : figures.histories) {
        for (const double value : values) greatest = std::fmax(greatest, value);
    }
    std::string heading =
        fit("Rails", columns.name, look) + fmt::format(" {:>{}}", "mW", kValueColumns);
    if (columns.bar > 0) {
        const std::string scale = fmt::format("0 to {:.1f}", greatest);
        const bool fits = static_cast<int>(scale.size()) <= columns.bar;
        heading += " " + fit(fits ? scale : "", columns.bar, look);
    }
    if (columns.tail > 0) heading += " history";
    addHeading(lines, look, heading, interval.railsError, interval.rails.size(), rails.size());
    for (const Interval::Rail* rail : rails) {
        if (rail->trouble != Trouble::kNone) {
            lines->push_back(
                makeTextRow(columns, look, rail->name, Style::kTrouble, toText(rail->trouble)));
            continue;
        }
        const auto history = figures.histories.find({rail->id, rail->name});  // update() made it
        const std::string sparkline =
            makeSparkline(history->second, static_cast<size_t>(columns.tail), look.isUtf8);
        lines->push_back(makeRow(columns, look, rail->name, fmt::format("{:.1f}", rail->milliwatts),
                                 greatest > 0 ? rail->milliwatts / greatest : 0,
                                 {Style::kHistory, sparkline}));
    }
}

void addEntity(std::vector<Line>* lines, const Interval::Entity& entity, const Columns& columns,
               const Look& look) {
    if (entity.trouble != Trouble::kNone) {
        lines->push_back(
            makeTextRow(columns, look, entity.name, Style::kTrouble, toText(entity.trouble)));
        return;
    }
    if (const char* const state = steadyState(entity)) {
        lines->push_back(
            makeTextRow(columns, look, entity.name, Style::kPlain, safeName(state) + " 100 %"));
        return;
    }
    lines->push_back(makeTextRow(columns, look, entity.name, Style::kTrouble,
                                 entity.isOverfull ? "more time in states than passed" : ""));
    const auto addState = [&](const std::string& name, double share, const std::string& entries) {
        lines->push_back(makeRow(columns, look, "  " + name, fmt::format("{:.1f} %", 100 * share),
                                 share, {Style::kPlain, fmt::format("{:>10}", entries)}));
    };
    for (const Interval::State& state : entity.states) {
        addState(state.name, state.share, fmt::format("{:.1f}/s", state.entriesPerSecond));
    }
    if (entity.noneShare > 0) addState(kNoState, entity.noneShare, "");
}

void addEntities(std::vector<Line>* lines, const Interval& interval, const Choices& choices,
                 const Columns& columns, const Look& look) {
    const auto entities = select(interval.entities, choices, [](const Interval::Entity& entity) {
        double entries = 0;
        for (const Interval::State& state : entity.states) entries += state.entriesPerSecond;
        return entries;
    });
    std::string heading =
        fit("Entities", columns.name, look) + fmt::format(" {:>{}}", "of time", kValueColumns);
    if (columns.bar > 0) heading += std::string(static_cast<size_t>(columns.bar) + 1, ' ');
    if (columns.tail > 0) heading += "    entries";
    addHeading(lines, look, heading, interval.entitiesError, interval.entities.size(),
               entities.size());
    for (const Interval::Entity* entity : entities) addEntity(lines, *entity, columns, look);
}

}  // namespace

std::string printable(const std::string& bytes, const Look& look) {
    const std::string safe = safeName(bytes, 4096);
    std::string text;
    for (size_t i = 0; i < safe.size();) {
        const Utf8Character character = decodeUtf8(safe, i);
        const bool isShown =
            character.codePoint < 0x80 ||
            (look.isUtf8 && wcwidth(static_cast<wchar_t>(character.codePoint)) >= 0);
        text += isShown ? safe.substr(i, character.size) : "?";
        i += character.size;
    }
    return text;
}

size_t findEnd(const std::string& text, size_t start, int* columns) {
    while (start < text.size()) {
        const Utf8Character character = decodeUtf8(text, start);
        const int width = wcwidth(static_cast<wchar_t>(character.codePoint));
        if (width > *columns) break;
        *columns -= width;
        start += character.size;
    }
    return start;
}

std::string fit(const std::string& bytes, int columns, const Look& look) {
    if (columns <= 0) return "";
    const std::string text = printable(bytes, look);
    int left = columns;
    size_t end = findEnd(text, 0, &left);
    const bool isCut = end < text.size();
    if (isCut) {
        left = columns - 1;
        end = findEnd(text, 0, &left);
    }
    return text.substr(0, end) + (isCut ? "~" : "") + std::string(static_cast<size_t>(left), ' ');
}

std::vector<Line> makeLines(const Figures& figures, const Choices& choices, const Look& look) {
    std::vector<Line> lines;
    if (choices.isHelp) {
        for (const char* text : kHelp) addWrapped(&lines, Style::kPlain, text, look);
        return lines;
    }
    if (!figures.interval) {
        addWrapped(&lines, Style::kPlain, "Waiting for the first interval to end.", look);
        return lines;
    }
    const Interval& interval = *figures.interval;
    if (interval.suspendedMs > 0) {
        addWrapped(&lines, Style::kTrouble,
                   fmt::format("The machine was suspended for {:.3f} s of the interval.",
                               static_cast<double>(interval.suspendedMs) / 1000),
                   look);
    }
    const Columns columns = planColumns(interval, look);
    addRails(&lines, figures, choices, columns, look);
    addEntities(&lines, interval, choices, columns, look);
    return lines;
}

void update(Figures* figures, Interval interval) {
    const auto add = [](std::deque<double>* values, double value) {
        values->push_back(value);
        if (values->size() > kHistory) values->pop_front();
    };
    if (interval.rails.empty()) {
        for (auto& [rail, values] : figures->histories) add(&values, NAN);
    } else {
        auto before = std::exchange(figures->histories, {});
        for (const Interval::Rail& rail : interval.rails) {
            const std::pair<int64_t, std::string> key(rail.id, rail.name);
            std::deque<double>& values = figures->histories[key] = std::move(before[key]);
            add(&values, rail.trouble == Trouble::kNone ? rail.milliwatts : NAN);
        }
    }
    figures->interval = std::move(interval);
}

}  // namespace powerstats
