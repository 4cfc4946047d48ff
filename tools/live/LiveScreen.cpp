// SPDX-License-Identifier: Apache-2.0

#include "tools/live/LiveScreen.h"

#include <fmt/format.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cwchar>
#include <iterator>
#include <set>
#include <string_view>
#include <tuple>
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

/// In a history, where a rail has no figure.
constexpr double kGap = -1;

/// Of milliwatts, or of a share with its unit.
constexpr int kValueColumns = 10;

/// Makes a text of any bytes fit for the terminal, at most 4096 bytes of it: escapes control
/// characters, and replaces a character that the terminal cannot show with "?".
std::wstring printable(const std::string& bytes) {
    const std::string safe = safeName(bytes, 4096);
    std::wstring text;
    for (size_t i = 0; i < safe.size();) {
        const auto [codePoint, size] = decodeUtf8(safe, i);
        const auto character = static_cast<wchar_t>(codePoint);
        text += wcwidth(character) >= 0 ? character : L'?';
        i += size;
    }
    return text;
}

/// Makes a text of any bytes printable, and cuts it, or fills it with spaces, to a number of
/// columns. A text that is cut ends in "~".
/// @param columns [in] may be 0 for an empty text only.
std::wstring fit(const std::string& bytes, int columns) {
    std::wstring text = printable(bytes);
    int width = wcswidth(text.data(), text.size());
    if (width > columns) {
        for (; width >= columns; text.pop_back()) width -= wcwidth(text.back());
        text += L'~';
        ++width;
    }
    return text + std::wstring(static_cast<size_t>(columns - width), L' ');
}

/// Returns that one of nine marks that stands for a share from 0 to 1.
/// @param ascii [in] for a terminal that lacks the others.
wchar_t mark(double share, const wchar_t* blocks, const wchar_t* ascii) {
    const wchar_t* const marks = wcwidth(L'█') == 1 ? blocks : ascii;
    return marks[std::lround(std::clamp(share, 0.0, 1.0) * 8)];
}

double greatestOf(const std::deque<double>& values) {
    return *std::max_element(values.begin(), values.end());
}

/// The lines between the first and the last row of the screen.
class Body {
  public:
    Body(const LiveScreen& screen, int width) : mScreen(screen), mWidth(width) {
        const Lists none;
        const Lists& lists = screen.interval ? *screen.interval->lists : none;
        size_t longest = 8;
        for (const Rail& rail : lists.rails) longest = std::max(longest, rail.name.size());
        for (const Entity& entity : lists.entities) {
            longest = std::max(longest, entity.name.size());
            for (const State& state : entity.states) {
                longest = std::max(longest, state.name.size() + 2);
            }
        }
        mName = std::min(static_cast<int>(std::min<size_t>(longest, 32)), std::max(8, width / 2));
        // In a narrow terminal the history goes first, then the bar.
        const int left = width - mName - kValueColumns - 2;
        mTail = left < 17 ? 0 : left < kHistory + 7 ? 10 : kHistory;
        mBar = std::min(left - mTail - (mTail > 0 ? 1 : 0), 60);
        if (mBar < 6) {
            mBar = 0;
            mName = std::max(1, width - kValueColumns - 1);
        }
    }

    std::vector<Line> makeLines() {
        addText(Style::kTrouble, mScreen.notice);
        if (mScreen.isHelp) {
            for (const char* text : kHelp) addText(Style::kPlain, text);
        } else if (mScreen.interval) {
            const nanoseconds suspended = mScreen.interval->suspended;
            if (suspended.count() > 0) {
                addText(Style::kTrouble,
                        fmt::format("The machine was suspended for {:.3f} s of the interval.",
                                    toSeconds(suspended)));
            }
            addRails(*mScreen.interval);
            addEntities(*mScreen.interval);
        } else if (mScreen.notice.empty()) {
            addText(Style::kPlain, "Waiting for the first interval to end.");
        }
        return std::move(mLines);
    }

  private:
    void addRails(const Interval& interval) {
        // One scale for all bars, of the time that the histories tell of. It has no sum: rails
        // overlap.
        double greatest = DBL_MIN;
        for (const auto& [name, values] : mScreen.histories) {
            greatest = std::max(greatest, greatestOf(values));
        }
        const std::string scale = fmt::format("0 to {:.1f}", greatest);
        const bool fits = static_cast<int>(scale.size()) <= mBar;
        addHeading("Rails", "mW", fits ? scale : "", "history");
        const auto measure = [&](size_t i) { return interval.rails[i].milliwatts; };
        const std::vector<Rail>& rails = interval.lists->rails;
        for (const auto& [figure, name, i] : select(rails, interval.railsFailure, measure)) {
            const Interval::RailFigures& rail = interval.rails[i];
            if (rail.trouble != Trouble::kNone) {
                addNote(rails[i].name, Style::kTrouble, toText(rail.trouble));
                continue;
            }
            addRow(rails[i].name, fmt::format("{:.1f}", rail.milliwatts),
                   makeBar(rail.milliwatts / greatest),
                   makeHistory(mScreen.histories.at(rails[i].name)));
        }
    }

    void addEntities(const Interval& interval) {
        const auto measure = [&](size_t i) {
            double entries = 0;
            for (const auto& state : interval.entities[i].states) entries += state.entriesPerSecond;
            return entries;
        };
        addHeading("Entities", "of time", "", "   entries");
        const std::vector<Entity>& entities = interval.lists->entities;
        for (const auto& [measured, name, i] :
             select(entities, interval.entitiesFailure, measure)) {
            addEntity(entities[i], interval.entities[i], steadyState(interval, i));
        }
    }

    void addEntity(const Entity& entity, const Interval::EntityFigures& figures,
                   const char* steady) {
        if (figures.trouble != Trouble::kNone) {
            return addNote(entity.name, Style::kTrouble, toText(figures.trouble));
        }
        if (steady != nullptr) {
            return addNote(entity.name, Style::kPlain, fmt::format("{} 100 %", steady));
        }
        addNote(entity.name, Style::kTrouble,
                figures.isOverfull ? "more time in states than passed" : "");
        const auto addState = [&](const std::string& name, double share, const std::string& rate) {
            addRow("  " + name, fmt::format("{:.1f} %", 100 * share), makeBar(share),
                   printable(fmt::format("{:>10}", rate)));
        };
        for (size_t i = 0; i < figures.states.size(); ++i) {
            addState(entity.states[i].name, figures.states[i].share,
                     fmt::format("{:.1f}/s", figures.states[i].entriesPerSecond));
        }
        if (figures.noneShare > 0) addState(kNoState, figures.noneShare, "");
    }

    /// Positions of rails or entities after the figure and the name that they are sorted by.
    using Ranking = std::set<std::tuple<double, std::string_view, size_t>>;

    /// Returns the rails or entities whose names have the filter in them, in the order asked for.
    /// Adds why there are none.
    /// @param measure [in] the figure of a position for Order::kGreatest.
    template <typename Thing, typename Measure>
    Ranking select(const std::vector<Thing>& things, const Failure& failure, Measure measure) {
        Ranking selected;
        for (size_t i = 0; i < things.size(); ++i) {
            const std::string_view name = things[i].name;
            if (name.find(mScreen.filter) == std::string_view::npos) continue;
            selected.emplace(mScreen.order == Order::kGreatest ? -measure(i) : 0,
                             mScreen.order == Order::kName ? name : "", i);
        }
        if (failure) {
            addText(Style::kTrouble, failure.text);
        } else if (selected.empty()) {
            addText(Style::kPlain, things.empty() ? "none" : "none has the filter in its name");
        }
        return selected;
    }

    /// Adds a text of any length as lines of the screen's width, broken at spaces where there are
    /// some.
    void addText(Style style, const std::string& bytes) {
        for (std::wstring text = printable(bytes); !text.empty();) {
            int left = std::max(mWidth, 2);  // the widest character has two columns
            size_t end = 0;
            while (end < text.size() && (left -= wcwidth(text[end])) >= 0) ++end;
            const size_t space = end < text.size() ? text.rfind(L' ', end) : std::wstring::npos;
            if (space != std::wstring::npos && space > 0) end = space;
            mLines.push_back({{style, text.substr(0, end)}});
            text.erase(0, text.find_first_not_of(L' ', end));
        }
    }

    void addRow(const std::string& name, const std::string& value, const std::wstring& bar,
                const std::wstring& tail) {
        mLines.push_back(
            {{Style::kPlain,
              fit(name, mName) + printable(fmt::format(" {:>{}}", value, kValueColumns))}});
        if (mBar > 0) mLines.back().push_back({Style::kBar, L' ' + bar});
        if (mTail > 0) mLines.back().push_back({Style::kHistory, L' ' + tail});
    }

    void addHeading(const std::string& name, const std::string& unit, const std::string& scale,
                    const std::string& tail) {
        addRow(name, unit, fit(scale, mBar), printable(tail));
        for (Span& span : mLines.back()) span.style = Style::kHeading;
    }

    /// Adds a name and a text in place of figures.
    void addNote(const std::string& name, Style style, const std::string& text) {
        mLines.push_back({{Style::kPlain, fit(name, mName) + L' '},
                          {style, fit(text, std::max(1, mWidth - mName - 1))}});
    }

    /// @param share [in] from 0 to 1.
    std::wstring makeBar(double share) const {
        std::wstring bar;
        for (int i = 0; i < mBar; ++i) {
            bar += mark(share * mBar - i, L" ▏▎▍▌▋▊▉█", L"    #####");
        }
        return bar;
    }

    /// The greatest value has the highest mark, so that small changes of a small rail show too.
    std::wstring makeHistory(const std::deque<double>& values) const {
        const double greatest = std::max(greatestOf(values), DBL_MIN);
        std::wstring text;
        for (auto value = values.end() - mTail; value != values.end(); ++value) {
            text += *value == kGap ? L' ' : mark(*value / greatest, L"▁▁▂▃▄▅▆▇█", L"..:-=+*#@");
        }
        return text;
    }

    const LiveScreen& mScreen;
    const int mWidth;
    /// How many columns each part of a row has; 0 for none. A space is between two parts.
    int mName = 0;
    int mBar = 0;
    /// A rail's history, or a state's entries per second.
    int mTail = 0;
    std::vector<Line> mLines;
};

std::string titleText(const LiveScreen& screen) {
    std::string text = screen.isPaused ? "PAUSED  " : "";
    if (screen.silence > 0) text += fmt::format("NO ANSWER FOR {} s  ", screen.silence);
    text += safeName(screen.title);
    if (screen.interval) text += fmt::format("  {:.3f} s", toSeconds(screen.interval->elapsed));
    return text;
}

std::string footerText(const LiveScreen& screen, int end, int count) {
    static constexpr const char* kOrders[] = {"as the service", "by name", "greatest first"};
    std::string text;
    if (!screen.filter.empty()) text += fmt::format("/{}  ", screen.filter);
    if (count > screen.page) text += fmt::format("{}-{} of {}  ", screen.top + 1, end, count);
    return text + fmt::format("? help  q quit  Space {}  s sort: {}  / filter",
                              screen.isPaused ? "go on" : "pause",
                              kOrders[static_cast<int>(screen.order)]);
}

/// Takes a key into the filter.
void type(const std::string& key, LiveScreen* screen) {
    std::string& filter = screen->filter;
    // A character's further bytes are 10xxxxxx.
    const auto isFurther = [](char byte) { return (byte & 0xC0) == 0x80; };
    if (key == "^M" || key == "^J" || key == "KEY_ENTER") {
        screen->isTyping = false;
    } else if (key == "^[") {
        screen->isTyping = false;
        filter.clear();
    } else if (key == "^H" || key == "^?" || key == "KEY_BACKSPACE") {
        while (!filter.empty() && isFurther(filter.back())) filter.pop_back();
        if (!filter.empty()) filter.pop_back();
    } else if ((key.size() == 1 || (key[0] & 0x80) != 0) && filter.size() < kMaxNameSize) {
        filter += key;
    }
}

}  // namespace

void take(Interval interval, LiveScreen* screen) {
    auto& histories = screen->histories;
    for (auto history = histories.begin(); history != histories.end();) {
        std::deque<double>& values = history->second;
        values.push_back(kGap);
        values.pop_front();
        history = greatestOf(values) == kGap ? histories.erase(history) : std::next(history);
    }
    for (size_t i = 0; i < interval.rails.size(); ++i) {
        if (interval.rails[i].trouble != Trouble::kNone) continue;
        const std::string& name = interval.lists->rails[i].name;
        histories.try_emplace(name, kHistory, kGap).first->second.back() =
            interval.rails[i].milliwatts;
    }
    screen->interval = std::move(interval);
}

bool press(const std::string& key, LiveScreen* screen) {
    constexpr int kFar = 1'000'000'000;
    const std::map<std::string_view, int> steps = {
        {"KEY_UP", -1},  {"KEY_PPAGE", -screen->page}, {"KEY_HOME", -kFar},
        {"KEY_DOWN", 1}, {"KEY_NPAGE", screen->page},  {"KEY_END", kFar}};
    if (const auto step = steps.find(key); step != steps.end()) {
        screen->top = std::clamp(screen->top + step->second, 0, kFar);
    } else if (screen->isTyping) {
        type(key, screen);
    } else if (key == " ") {
        screen->isPaused = !screen->isPaused;
    } else if (key == "s") {
        screen->order = static_cast<Order>((static_cast<int>(screen->order) + 1) % 3);
    } else if (key == "/") {
        screen->isTyping = true;
    } else if (key == "?") {
        screen->isHelp = !screen->isHelp;
        screen->top = 0;
    }
    return screen->isTyping || key != "q";
}

std::vector<Line> makeRows(int height, int width, LiveScreen* screen) {
    const std::vector<Line> lines = Body(*screen, width).makeLines();
    const int count = static_cast<int>(lines.size());
    screen->page = std::max(1, height - 2);
    screen->top = std::clamp(screen->top, 0, std::max(0, count - screen->page));
    const int end = std::min(count, screen->top + screen->page);
    std::vector<Line> rows = {{{Style::kEdge, fit(titleText(*screen), width)}}};
    rows.insert(rows.end(), lines.begin() + screen->top, lines.begin() + end);
    rows.resize(static_cast<size_t>(screen->page) + 1);
    const Span prompt = {Style::kPlain, printable('/' + screen->filter)};
    const Span footer = {Style::kEdge, fit(footerText(*screen, end, count), width)};
    rows.push_back({screen->isTyping ? prompt : footer});
    return rows;
}

}  // namespace powerstats
