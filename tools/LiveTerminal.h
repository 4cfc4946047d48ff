// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <signal.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/LiveLines.h"

// ncurses's own type; its header defines macros such as OK, which others declare.
struct screen;

namespace powerstats {

/// The signals of faults. A thread must not block them, or it would die of one without the handler.
constexpr int kFaultSignals[] = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};

class LiveSignals;

/// What the user typed.
struct Key {
    enum class Kind {
        kCharacter,
        kUp,
        kDown,
        kPageUp,
        kPageDown,
        kHome,
        kEnd,
        kEnter,
        kBackspace,
        kEscape,
        kOther
    };
    Kind kind = Kind::kOther;
    /// Of a kCharacter: its UTF-8, or its bytes in the locale's encoding.
    std::string bytes;
};

/// The terminal of standard input and output while the view has it. Gives it back at the end, or
/// when a signal ends the process, which then dies by that signal. Where standard error is a
/// terminal, keeps the last 64 KiB written to it, and prints them at the end. At most one at a
/// time.
class LiveTerminal {
  public:
    /// @param wake [in] an eventfd, written to when a signal wants obeySignals() to be called.
    explicit LiveTerminal(int wake);
    ~LiveTerminal();
    LiveTerminal(const LiveTerminal&) = delete;
    LiveTerminal& operator=(const LiveTerminal&) = delete;

    /// Whether standard output is a terminal whose cursor can be moved.
    static bool canDraw();

    /// False when the terminal cannot be drawn on. Nothing else may be called then.
    bool isOpen() const { return mScreen != nullptr; }

    /// Stops the process if SIGTSTP asked for it, and takes over the terminal's size.
    void obeySignals();

    int rows() const;
    int columns() const;

    /// Replaces the screen's contents by rows of text. Longer ones are cut.
    /// @param cursor [in] the column of the cursor, in the last row; hidden without one.
    void draw(const std::vector<Line>& rows, std::optional<int> cursor);

    /// Returns the next key that was pressed already, if any.
    std::optional<Key> readKey();

    /// Frees the memory of what was written to standard error, but for the part to be printed.
    void trimLog();

  private:
    void close();

    std::unique_ptr<LiveSignals> mSignals;
    screen* mScreen = nullptr;
    bool mHasColors = false;
};

}  // namespace powerstats
