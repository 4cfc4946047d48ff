// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <signal.h>

#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/live/LiveLines.h"

// ncurses's own type; its header defines macros such as OK, which others declare.
struct screen;

namespace powerstats {

/// The terminal of standard input and output while the view has it. Gives it back at the end, or
/// when a signal ends the process, which then dies by that signal. Where standard error is a
/// terminal, keeps the last 64 KiB written to it, and prints them at the end. At most one at a
/// time.
class LiveTerminal {
  public:
    /// Whether standard output is a terminal whose cursor can be moved.
    static bool canDraw();

    /// Keeps signals from the calling thread, so that the view's thread handles them. Those of
    /// faults still come, and give the terminal back.
    static void blockSignals();

    /// @param wake [in] an eventfd, written to when a signal wants obeySignals() to be called.
    explicit LiveTerminal(int wake);
    ~LiveTerminal();
    LiveTerminal(const LiveTerminal&) = delete;
    LiveTerminal& operator=(const LiveTerminal&) = delete;

    /// False when the terminal cannot be drawn on. Nothing else may be called then.
    bool isOpen() const { return mScreen != nullptr; }

    /// Stops the process if SIGTSTP asked for it, and takes over the terminal's size.
    void obeySignals();

    int rows() const;
    int columns() const;

    /// Replaces the screen's contents by rows of text. Longer ones are cut.
    /// @param cursor [in] the column of the cursor, in the last row; hidden without one.
    void draw(const std::vector<Line>& rows, std::optional<int> cursor);

    /// Returns the next key that was pressed already, if any: the character that it types, in UTF-8
    /// or the locale's encoding, a name such as "PageUp" or "Enter", or "" for another key.
    std::optional<std::string> readKey();

  private:
    void handle(int number, void (*handler)(int));

    /// The actions of signals before.
    std::map<int, struct sigaction> mActions;
    /// Standard error before; null when it is left alone.
    std::FILE* mErrors = nullptr;
    screen* mScreen = nullptr;
};

}  // namespace powerstats
