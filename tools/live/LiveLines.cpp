// SPDX-License-Identifier: Apache-2.0

#include "tools/live/LiveLines.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cwchar>
#include <utility>

#include "power/text/Names.h"

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

/// Returns the latest values of a history, one a column; a gap where there was none. The greatest
/// value has the highest mark, so that small changes of a small rail show too.
std::string makeSparkline(const std::deque<double>& values, size_t columns, bool isUtf8) {
    static const char* const kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    static const char* const kAscii[] = {".", ":", "-", "=", "+", "*", "#", "@"};
    double greatest = 0;
    for (const double value : values) greatest = std::fmax(greatest, value);
    const size_t count = std::min(columns, values.size());
    std::string line(columns - count, ' ');
    for (size_t i = values.size() - count; i < values.size(); ++i) {
        const double share = greatest > 0 ? std::clamp(values[i] / greatest, 0.0, 1.0) : 0;
        line += std::isnan(values[i]) ? " " : (isUtf8 ? kBlocks : kAscii)[std::lround(share * 7)];
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
Columns planColumns(const Lists& lists, const Look& look) {
    size_t longest = 8;
    for (const Rail& rail : lists.rails) longest = std::max(longest, rail.name.size());
    for (const Entity& entity : lists.entities) {
        longest = std::max(longest, entity.name.size());
        for (const State& state : entity.states) longest = std::max(longest, state.name.size() + 2);
    }
    const int name =
        std::min(static_cast<int>(std::min<size_t>(longest, 32)), std::max(8, look.width / 2));
    for (const int tail : {static_cast<int>(kHistory), 10, 0}) {
        const int bar = look.width - name - kValueColumns - 2 - (tail > 0 ? tail + 1 : 0);
        if (bar >= 6) return {name, std::min(bar, 60), tail};
    }
    return {std::max(1, look.width - kValueColumns - 1), 0, 0};
}

/// The lines between the first and the last row of the screen.
class Body {
  public:
    Body(const Choices& choices, const Look& look, const Lists& lists)
        : mChoices(choices), mLook(look), mColumns(planColumns(lists, look)) {}

    std::vector<Line> takeLines() { return std::move(mLines); }

    /// Adds a text of any length as lines of the screen's width, broken at spaces where there are
    /// some.
    void addWrapped(Style style, const std::string& bytes) {
        const std::string text = printable(bytes, mLook);
        for (size_t start = 0; start < text.size();) {
            int columns = std::max(mLook.width, 2);  // the widest character has two columns
            size_t end = findEnd(text, start, &columns);
            if (end < text.size()) {
                const size_t space = text.rfind(' ', end);
                if (space != std::string::npos && space > start) end = space;
            }
            mLines.push_back({{style, text.substr(start, end - start)}});
            start = end < text.size() && text[end] == ' ' ? end + 1 : end;
        }
    }

    void addRails(const Figures& figures) {
        const Interval& interval = *figures.interval;
        const std::vector<Rail>& rails = interval.lists->rails;
        // One scale for all bars, of the time that the histories tell of. It has no sum: rails
        // overlap.
        double greatest = 0;
        for (const auto& values : figures.histories) {
            for (const double value : values) greatest = std::fmax(greatest, value);
        }
        const std::string scale = fmt::format("0 to {:.1f}", greatest);
        const bool fits = static_cast<int>(scale.size()) <= mColumns.bar;
        addRow(Style::kHeading, "Rails", "mW", {Style::kHeading, fits ? scale : ""},
               {Style::kHeading, "history"});
        const auto addRail = [&](size_t i) {
            const auto& [trouble, time, elapsed, energyUWs, milliwatts] = interval.rails[i];
            if (trouble != Trouble::kNone) {
                return addText(rails[i].name, Style::kTrouble, toText(trouble));
            }
            addRow(
                Style::kPlain, rails[i].name, fmt::format("{:.1f}", milliwatts),
                makeBar(greatest > 0 ? milliwatts / greatest : 0),
                {Style::kHistory, makeSparkline(figures.histories[i],
                                                static_cast<size_t>(mColumns.tail), mLook.isUtf8)});
        };
        addAll(
            rails, interval.railsFailure, [&](size_t i) { return interval.rails[i].milliwatts; },
            addRail);
    }

    void addEntities(const Interval& interval) {
        const auto countEntries = [&](size_t i) {
            double entries = 0;
            for (const auto& state : interval.entities[i].states) entries += state.entriesPerSecond;
            return entries;
        };
        addRow(Style::kHeading, "Entities", "of time", {Style::kHeading, ""},
               {Style::kHeading, "   entries"});
        addAll(interval.lists->entities, interval.entitiesFailure, countEntries,
               [&](size_t i) { addEntity(interval, i); });
    }

  private:
    /// Adds the rails or entities whose names have the filter in them, in the order asked for, or
    /// why there are none.
    /// @param measure [in] the figure of a position for Order::kGreatest.
    /// @param add [in] adds the lines of a position.
    template <typename Thing, typename Measure, typename Add>
    void addAll(const std::vector<Thing>& things, const Failure& failure, Measure measure,
                Add add) {
        std::vector<size_t> selected;
        for (size_t i = 0; i < things.size(); ++i) {
            if (things[i].name.find(mChoices.filter) != std::string::npos) selected.push_back(i);
        }
        const auto isBefore = [&](size_t a, size_t b) {
            return mChoices.order == Order::kName ? things[a].name < things[b].name
                                                  : measure(a) > measure(b);
        };
        if (mChoices.order != Order::kService) {
            std::stable_sort(selected.begin(), selected.end(), isBefore);
        }
        if (failure) {
            addWrapped(Style::kTrouble, failure.text);
        } else if (selected.empty()) {
            addWrapped(Style::kPlain, things.empty() ? "none" : "none has the filter in its name");
        }
        for (const size_t i : selected) add(i);
    }

    void addRow(Style style, const std::string& name, const std::string& value, const Span& bar,
                const Span& tail) {
        mLines.push_back({{style, fit(name, mColumns.name, mLook) +
                                      fmt::format(" {:>{}}", value, kValueColumns)}});
        Line& line = mLines.back();
        if (mColumns.bar > 0) {
            line.push_back({bar.style, " " + fit(bar.text, mColumns.bar, mLook)});
        }
        if (mColumns.tail > 0) line.push_back({tail.style, " " + tail.text});
    }

    /// Adds a name and a text in place of figures.
    void addText(const std::string& name, Style style, const std::string& text) {
        mLines.push_back({{Style::kPlain, fit(name, mColumns.name, mLook) + " "},
                          {style, fit(text, mLook.width - mColumns.name - 1, mLook)}});
    }

    void addEntity(const Interval& interval, size_t position) {
        const Entity& entity = interval.lists->entities[position];
        const auto& [trouble, elapsed, states, noneShare, isOverfull] = interval.entities[position];
        if (trouble != Trouble::kNone) {
            return addText(entity.name, Style::kTrouble, toText(trouble));
        }
        if (const char* const state = steadyState(interval, position)) {
            return addText(entity.name, Style::kPlain, std::string(state) + " 100 %");
        }
        addText(entity.name, Style::kTrouble, isOverfull ? "more time in states than passed" : "");
        const auto addState = [&](const std::string& name, double share, const std::string& rate) {
            addRow(Style::kPlain, "  " + name, fmt::format("{:.1f} %", 100 * share), makeBar(share),
                   {Style::kPlain, fmt::format("{:>10}", rate)});
        };
        for (size_t i = 0; i < states.size(); ++i) {
            addState(entity.states[i].name, states[i].share,
                     fmt::format("{:.1f}/s", states[i].entriesPerSecond));
        }
        if (noneShare > 0) addState(kNoState, noneShare, "");
    }

    /// @param share [in] from 0 to 1.
    Span makeBar(double share) const {
        static const char* const kEighths[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
        const long eighths = std::lround(std::clamp(share, 0.0, 1.0) * mColumns.bar * 8);
        const long full = mLook.isUtf8 ? eighths / 8 : (eighths + 4) / 8;
        std::string bar;
        for (long i = 0; i < full; ++i) bar += mLook.isUtf8 ? "█" : "#";
        return {Style::kBar, bar + kEighths[mLook.isUtf8 ? eighths % 8 : 0]};
    }

    const Choices& mChoices;
    const Look& mLook;
    const Columns mColumns;
    std::vector<Line> mLines;
};

}  // namespace

std::string printable(const std::string& bytes, const Look& look) {
    const std::string safe = safeName(bytes, 4096);
    std::string text;
    for (size_t i = 0; i < safe.size();) {
        const Utf8Character character = decodeUtf8(safe, i);
        const bool isShown = (look.isUtf8 || character.codePoint < 0x80) &&
                             wcwidth(static_cast<wchar_t>(character.codePoint)) >= 0;
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
    std::string text = printable(bytes, look);
    int left = columns;
    if (findEnd(text, 0, &left) < text.size()) {
        left = columns - 1;
        text = text.substr(0, findEnd(text, 0, &left)) + '~';
    }
    return text + std::string(static_cast<size_t>(left), ' ');
}

std::vector<Line> makeLines(const Figures& figures, const Choices& choices, const Look& look,
                            const std::string& notice) {
    Body body(choices, look, figures.interval ? *figures.interval->lists : Lists());
    body.addWrapped(Style::kTrouble, notice);
    if (choices.isHelp) {
        for (const char* text : kHelp) body.addWrapped(Style::kPlain, text);
    } else if (figures.interval) {
        if (const nanoseconds suspended = figures.interval->suspended; suspended.count() > 0) {
            body.addWrapped(Style::kTrouble,
                            fmt::format("The machine was suspended for {:.3f} s of the interval.",
                                        toSeconds(suspended)));
        }
        body.addRails(figures);
        body.addEntities(*figures.interval);
    } else if (notice.empty()) {
        body.addWrapped(Style::kPlain, "Waiting for the first interval to end.");
    }
    return body.takeLines();
}

void update(Figures* figures, Interval interval) {
    auto& histories = figures->histories;
    if (interval.lists != figures->lists && !interval.lists->rails.empty()) {
        const auto before = std::exchange(figures->lists, interval.lists);
        auto left = std::exchange(histories, {});
        for (const Rail& rail : figures->lists->rails) {
            histories.emplace_back();
            for (size_t i = 0; i < left.size(); ++i) {
                const Rail& other = before->rails[i];
                if (left[i].empty() || other.id != rail.id || other.name != rail.name) continue;
                histories.back().swap(left[i]);
                break;
            }
        }
    }
    for (size_t i = 0; i < histories.size(); ++i) {
        const bool isKnown =
            i < interval.rails.size() && interval.rails[i].trouble == Trouble::kNone;
        histories[i].push_back(isKnown ? interval.rails[i].milliwatts : NAN);
        if (histories[i].size() > kHistory) histories[i].pop_front();
    }
    figures->interval = std::move(interval);
}

}  // namespace powerstats
