// SPDX-License-Identifier: Apache-2.0

#include "tools/live/LiveTerminal.h"

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <utility>

#include "power/text/Names.h"

// As macros, ncurses's functions would replace methods of the same names.
#define NCURSES_NOMACROS
#include <curses.h>
#include <term.h>
#undef columns

namespace powerstats {

namespace {

constexpr int kFaultSignals[] = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};

/// What the handlers of signals use.
struct {
    termios settings;
    /// The bytes that leave the alternate screen, show the cursor and reset the attributes.
    std::string leave;
    int wake = -1;
    volatile sig_atomic_t isStopAsked;
    volatile sig_atomic_t isContinued;
    /// The end of the text on standard error meanwhile, as a ring, and the size of all the text.
    char errors[65536];
    volatile size_t errorsSize;
} gTerminal;

/// Takes text of standard error, which would otherwise be written over the screen.
ssize_t keepErrors(void* /*cookie*/, const char* bytes, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        gTerminal.errors[gTerminal.errorsSize % sizeof gTerminal.errors] = bytes[i];
        gTerminal.errorsSize = gTerminal.errorsSize + 1;
    }
    return static_cast<ssize_t>(size);
}

/// Prints the text that was kept. Safe in a handler of a signal.
void printErrors() {
    const size_t end = gTerminal.errorsSize % sizeof gTerminal.errors;
    if (gTerminal.errorsSize >= sizeof gTerminal.errors) {
        (void)!write(STDERR_FILENO, gTerminal.errors + end, sizeof gTerminal.errors - end);
    }
    (void)!write(STDERR_FILENO, gTerminal.errors, end);
}

/// Gives the terminal back, and has the process die by the signal. Safe in a handler of a signal.
void restoreAndDie(int number) {
    // A process in the background has given it back already.
    if (tcgetpgrp(STDIN_FILENO) == getpgrp()) {
        tcsetattr(STDIN_FILENO, TCSANOW, &gTerminal.settings);
        // Nothing can be done about a terminal that is gone.
        (void)!write(STDOUT_FILENO, gTerminal.leave.data(), gTerminal.leave.size());
    }
    printErrors();
    raise(number);  // SA_RESETHAND: it strikes when this handler returns
}

/// Has the view look at the terminal. ncurses's own handlers may run within another of its
/// functions, or on another thread, so it has none here.
void wakeView(int number) {
    if (number == SIGTSTP) gTerminal.isStopAsked = 1;
    if (number == SIGCONT) gTerminal.isContinued = 1;
    const int error = errno;
    const uint64_t one = 1;
    (void)!write(gTerminal.wake, &one, sizeof one);
    errno = error;
}

int addToLeave(int byte) {
    gTerminal.leave += static_cast<char>(byte);
    return byte;
}

bool has(const char* capability) {
    const char* const string = tigetstr(capability);
    // A capability that is no string is (char*)-1.
    return string != nullptr && reinterpret_cast<intptr_t>(string) != -1;
}

/// By style.
attr_t gAttributes[] = {A_NORMAL, A_BOLD, A_REVERSE, A_NORMAL, A_NORMAL, A_BOLD};
constexpr std::pair<Style, short> kColors[] = {
    {Style::kBar, COLOR_GREEN}, {Style::kHistory, COLOR_CYAN}, {Style::kTrouble, COLOR_YELLOW}};

}  // namespace

void LiveTerminal::blockSignals() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int number : kFaultSignals) sigdelset(&signals, number);
    pthread_sigmask(SIG_SETMASK, &signals, nullptr);
}

void LiveTerminal::handle(int number, void (*handler)(int)) {
    struct sigaction action = {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler == SIG_IGN) return;  // as under nohup
    mActions[number] = action;
    action = {};
    action.sa_handler = handler;
    action.sa_flags = handler == restoreAndDie ? static_cast<int>(SA_RESETHAND) : SA_RESTART;
    sigfillset(&action.sa_mask);
    sigaction(number, &action, nullptr);
}

bool LiveTerminal::canDraw() {
    int error = 0;
    if (setupterm(nullptr, STDOUT_FILENO, &error) != OK) return false;
    const bool canMove = has("cup");
    del_curterm(cur_term);
    return canMove;
}

LiveTerminal::LiveTerminal(int wake) {
    if (!canDraw() || tcgetattr(STDIN_FILENO, &gTerminal.settings) != 0) return;
    gTerminal.wake = wake;
    gTerminal.leave.clear();
    // First, so that ncurses installs no handlers of its own.
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) handle(number, restoreAndDie);
    for (const int number : kFaultSignals) handle(number, restoreAndDie);
    for (const int number : {SIGWINCH, SIGTSTP, SIGCONT}) handle(number, wakeView);
    mScreen = newterm(nullptr, stdout, stdin);
    if (mScreen == nullptr) return;
    for (const char* capability : {"sgr0", "rmkx", "cnorm", "rmcup"}) {
        if (has(capability)) tputs(tigetstr(capability), 1, addToLeave);
    }
    // Without an alternate screen the prompt comes below the last line.
    if (!has("rmcup")) tputs("\r\n", 1, addToLeave);
    if (isatty(STDERR_FILENO) != 0) {
        static std::FILE* const kept =
            fopencookie(nullptr, "w", {nullptr, keepErrors, nullptr, nullptr});
        if (kept != nullptr && std::setvbuf(kept, nullptr, _IONBF, 0) == 0) {
            mErrors = std::exchange(stderr, kept);
        }
    }
    cbreak();
    noecho();
    nonl();
    set_escdelay(25);
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    const char* const noColor = std::getenv("NO_COLOR");
    if ((noColor != nullptr && *noColor != '\0') || !has_colors()) return;
    start_color();
    use_default_colors();
    for (const auto& [style, color] : kColors) {
        init_pair(static_cast<short>(style), color, -1);
        gAttributes[static_cast<size_t>(style)] = COLOR_PAIR(static_cast<int>(style));
    }
}

LiveTerminal::~LiveTerminal() {
    if (mScreen != nullptr) {
        move(LINES - 1, 0);  // the prompt comes here if there is no alternate screen
        attrset(A_NORMAL);
        clrtoeol();
        refresh();
        endwin();
        delscreen(mScreen);
    }
    if (mErrors != nullptr) {
        stderr = mErrors;
        printErrors();
    }
    for (const auto& [number, action] : mActions) sigaction(number, &action, nullptr);
}

void LiveTerminal::obeySignals() {
    if (gTerminal.isStopAsked != 0) {
        gTerminal.isStopAsked = 0;
        endwin();
        const auto before = signal(SIGTSTP, SIG_DFL);
        raise(SIGTSTP);  // returns when the process goes on
        signal(SIGTSTP, before);
    }
    if (gTerminal.isContinued != 0) {
        // SIGSTOP came without a warning, and other programs have had the terminal since.
        gTerminal.isContinued = 0;
        reset_prog_mode();
        clearok(curscr, TRUE);
    }
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0 &&
        is_term_resized(size.ws_row, size.ws_col)) {
        resizeterm(size.ws_row, size.ws_col);
    }
}

int LiveTerminal::rows() const {
    return LINES;
}

int LiveTerminal::columns() const {
    return COLS;
}

void LiveTerminal::draw(const std::vector<Line>& rows, std::optional<int> cursor) {
    erase();
    for (size_t row = 0; row < rows.size(); ++row) {
        move(static_cast<int>(row), 0);
        for (const auto& [style, text] : rows[row]) {
            attrset(gAttributes[static_cast<size_t>(style)]);
            addstr(text.c_str());
        }
    }
    curs_set(cursor ? 1 : 0);
    if (cursor) move(LINES - 1, *cursor);
    refresh();
}

std::optional<std::string> LiveTerminal::readKey() {
    using Names = std::map<wint_t, const char*>;
    static const Names kFunctions = {{KEY_UP, "Up"},        {KEY_DOWN, "Down"},
                                     {KEY_PPAGE, "PageUp"}, {KEY_NPAGE, "PageDown"},
                                     {KEY_HOME, "Home"},    {KEY_END, "End"},
                                     {KEY_ENTER, "Enter"},  {KEY_BACKSPACE, "Backspace"}};
    static const Names kControls = {{'\r', "Enter"},
                                    {'\n', "Enter"},
                                    {'\b', "Backspace"},
                                    {0x7f, "Backspace"},
                                    {0x1b, "Escape"}};
    wint_t code = 0;
    const int result = get_wch(&code);
    if (result == ERR) return std::nullopt;
    const Names& names = result == KEY_CODE_YES ? kFunctions : kControls;
    if (const auto found = names.find(code); found != names.end()) return found->second;
    char bytes[MB_LEN_MAX];
    std::mbstate_t state = {};
    const size_t size = std::wcrtomb(bytes, static_cast<wchar_t>(code), &state);
    if (result == KEY_CODE_YES || isControlCharacter(code) || size == static_cast<size_t>(-1)) {
        return "";
    }
    return std::string(bytes, size);
}

}  // namespace powerstats
