// SPDX-License-Identifier: Apache-2.0

#include "tools/LiveTerminal.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <map>
#include <utility>

#include "hal/NamesAndIds.h"

// As macros, ncurses's functions would replace methods of the same names.
#define NCURSES_NOMACROS
#include <curses.h>
#include <term.h>
#undef columns

namespace powerstats {

namespace {

constexpr off_t kLogSize = 65536;

/// What the handlers of signals use. Set before they are installed.
struct {
    termios settings;
    /// The bytes that leave the alternate screen, show the cursor and reset the attributes.
    char leave[256];
    size_t leaveSize;
    /// Where standard error goes meanwhile, and where it went before; -1 when it is left alone.
    int log = -1;
    int errors = -1;
    int wake = -1;
    volatile sig_atomic_t isStopAsked;
    volatile sig_atomic_t isContinued;
} gTerminal;

/// Prints the end of the log where standard error went before. Safe in a handler of a signal.
void printLog() {
    struct stat status;
    if (gTerminal.log < 0 || fstat(gTerminal.log, &status) != 0) return;
    char bytes[4096];
    off_t position = std::max<off_t>(0, status.st_size - kLogSize);
    ssize_t size = 0;
    while ((size = pread(gTerminal.log, bytes, sizeof bytes, position)) > 0) {
        if (write(gTerminal.errors, bytes, static_cast<size_t>(size)) < 0) return;
        position += size;
    }
}

/// Gives the terminal back, and has the process die by the signal. Safe in a handler of a signal.
void restoreAndDie(int number) {
    // A process in the background has given it back already.
    if (tcgetpgrp(STDIN_FILENO) == getpgrp()) {
        tcsetattr(STDIN_FILENO, TCSANOW, &gTerminal.settings);
        // Nothing can be done about a terminal that is gone.
        (void)!write(STDOUT_FILENO, gTerminal.leave, gTerminal.leaveSize);
    }
    printLog();
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
    if (gTerminal.leaveSize < sizeof gTerminal.leave) {
        gTerminal.leave[gTerminal.leaveSize++] = static_cast<char>(byte);
    }
    return byte;
}

/// Sends standard error, if it is the terminal, to a file in memory.
void divertErrors() {
    if (isatty(STDERR_FILENO) == 0) return;
    std::fflush(stderr);
    gTerminal.errors = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    gTerminal.log = memfd_create("log", MFD_CLOEXEC);
    if (gTerminal.errors >= 0 && gTerminal.log >= 0) dup2(gTerminal.log, STDERR_FILENO);
}

void restoreErrors() {
    if (gTerminal.log >= 0 && gTerminal.errors >= 0) {
        std::fflush(stderr);
        dup2(gTerminal.errors, STDERR_FILENO);
        printLog();
    }
    for (int* file : {&gTerminal.log, &gTerminal.errors}) {
        if (*file >= 0) close(*file);
        *file = -1;
    }
}

bool has(const char* capability) {
    const char* const string = tigetstr(capability);
    // A capability that is no string is (char*)-1.
    return string != nullptr && reinterpret_cast<intptr_t>(string) != -1;
}

constexpr std::pair<Style, short> kColors[] = {
    {Style::kBar, COLOR_GREEN}, {Style::kHistory, COLOR_CYAN}, {Style::kTrouble, COLOR_YELLOW}};

}  // namespace

/// Handles the signals that end, stop or wake the process. Puts back the actions that were there
/// before.
class LiveSignals {
  public:
    LiveSignals() {
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) install(number, restoreAndDie);
        for (const int number : kFaultSignals) install(number, restoreAndDie);
        for (const int number : {SIGWINCH, SIGTSTP, SIGCONT}) install(number, wakeView);
    }
    ~LiveSignals() {
        for (const auto& [number, action] : mBefore) sigaction(number, &action, nullptr);
    }
    LiveSignals(const LiveSignals&) = delete;
    LiveSignals& operator=(const LiveSignals&) = delete;

  private:
    void install(int number, void (*handler)(int)) {
        struct sigaction action = {};
        sigaction(number, nullptr, &action);
        if (action.sa_handler == SIG_IGN) return;  // as under nohup
        mBefore[number] = action;
        action = {};
        action.sa_handler = handler;
        action.sa_flags = handler == restoreAndDie ? static_cast<int>(SA_RESETHAND) : SA_RESTART;
        sigfillset(&action.sa_mask);
        sigaction(number, &action, nullptr);
    }

    std::map<int, struct sigaction> mBefore;
};

bool LiveTerminal::canDraw() {
    int error = 0;
    if (setupterm(nullptr, STDOUT_FILENO, &error) != OK) return false;
    const bool canMove = has("cup");
    del_curterm(cur_term);
    return canMove;
}

LiveTerminal::LiveTerminal(int wake) {
    if (tcgetattr(STDIN_FILENO, &gTerminal.settings) != 0) return;
    gTerminal.wake = wake;
    gTerminal.leaveSize = 0;
    mSignals =
        std::make_unique<LiveSignals>();  // first, so that ncurses installs no handlers of its own
    mScreen = newterm(nullptr, stdout, stdin);
    if (mScreen == nullptr) return;
    if (!has("cup")) {  // the cursor cannot be moved
        close();
        return;
    }
    for (const char* capability : {"sgr0", "rmkx", "cnorm", "rmcup"}) {
        if (has(capability)) tputs(tigetstr(capability), 1, addToLeave);
    }
    // Without an alternate screen the prompt comes below the last line.
    if (!has("rmcup")) tputs("\r\n", 1, addToLeave);
    divertErrors();
    cbreak();
    noecho();
    nonl();
    set_escdelay(25);
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    const char* const noColor = std::getenv("NO_COLOR");
    mHasColors = (noColor == nullptr || *noColor == '\0') && has_colors();
    if (!mHasColors) return;
    start_color();
    use_default_colors();
    for (const auto& [style, color] : kColors) init_pair(static_cast<short>(style), color, -1);
}

LiveTerminal::~LiveTerminal() {
    if (mScreen == nullptr) return;
    move(LINES - 1, 0);  // the prompt comes here if there is no alternate screen
    attrset(A_NORMAL);
    clrtoeol();
    refresh();
    close();
    restoreErrors();
}

void LiveTerminal::close() {
    endwin();
    delscreen(mScreen);
    mScreen = nullptr;
}

void LiveTerminal::obeySignals() {
    if (gTerminal.isStopAsked != 0) {
        gTerminal.isStopAsked = 0;
        endwin();
        struct sigaction byDefault = {}, before;
        byDefault.sa_handler = SIG_DFL;
        sigaction(SIGTSTP, &byDefault, &before);
        raise(SIGTSTP);  // returns when the process goes on
        sigaction(SIGTSTP, &before, nullptr);
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
            const bool isColored = mHasColors && style >= Style::kBar;
            attrset(isColored               ? COLOR_PAIR(static_cast<int>(style))
                    : style == Style::kEdge ? A_REVERSE
                    : style == Style::kHeading || style == Style::kTrouble ? A_BOLD
                                                                           : A_NORMAL);
            addstr(text.c_str());
        }
    }
    curs_set(cursor ? 1 : 0);
    if (cursor) move(LINES - 1, *cursor);
    refresh();
}

std::optional<Key> LiveTerminal::readKey() {
    static const std::map<wint_t, Key::Kind> kFunctions = {
        {KEY_UP, Key::Kind::kUp},        {KEY_DOWN, Key::Kind::kDown},
        {KEY_PPAGE, Key::Kind::kPageUp}, {KEY_NPAGE, Key::Kind::kPageDown},
        {KEY_HOME, Key::Kind::kHome},    {KEY_END, Key::Kind::kEnd},
        {KEY_ENTER, Key::Kind::kEnter},  {KEY_BACKSPACE, Key::Kind::kBackspace}};
    static const std::map<wint_t, Key::Kind> kControls = {{'\r', Key::Kind::kEnter},
                                                          {'\n', Key::Kind::kEnter},
                                                          {'\b', Key::Kind::kBackspace},
                                                          {0x7f, Key::Kind::kBackspace},
                                                          {0x1b, Key::Kind::kEscape}};
    wint_t code = 0;
    const int result = get_wch(&code);
    if (result == ERR) return std::nullopt;
    const auto& kinds = result == KEY_CODE_YES ? kFunctions : kControls;
    if (const auto found = kinds.find(code); found != kinds.end()) return Key{found->second, ""};
    char bytes[MB_LEN_MAX];
    std::mbstate_t state = {};
    const size_t size = std::wcrtomb(bytes, static_cast<wchar_t>(code), &state);
    if (result == KEY_CODE_YES || isControlCharacter(code) || size == static_cast<size_t>(-1)) {
        return Key();
    }
    return Key{Key::Kind::kCharacter, std::string(bytes, size)};
}

void LiveTerminal::trimLog() {
    struct stat status;
    if (gTerminal.log < 0 || fstat(gTerminal.log, &status) != 0) return;
    if (status.st_size <= kLogSize) return;
    // The size stays, so that no line is lost that is written meanwhile.
    fallocate(gTerminal.log, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0,
              status.st_size - kLogSize);
}

}  // namespace powerstats
