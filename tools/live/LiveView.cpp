// SPDX-License-Identifier: Apache-2.0

#include "tools/live/LiveView.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "power/text/Names.h"
#include "power/text/Page.h"
#include "tools/CommandLine.h"
#include "tools/live/LiveScreen.h"

// As macros, ncurses's functions would replace methods of the same names.
#define NCURSES_NOMACROS
#include <curses.h>
#include <term.h>

namespace powerstats {

namespace {

using Clock = std::chrono::steady_clock;

/// By style: the attributes, and the color of characters.
constexpr std::pair<attr_t, short> kLooks[] = {{A_NORMAL, -1},         {A_BOLD, -1},
                                               {A_REVERSE, -1},        {A_NORMAL, COLOR_GREEN},
                                               {A_NORMAL, COLOR_CYAN}, {A_BOLD, COLOR_YELLOW}};

constexpr size_t kMostErrors = 65536;

/// The terminal, for handlers of signals too.
struct {
    termios settings;
    /// The bytes that leave the alternate screen, show the cursor and reset the attributes.
    std::string leave;
    /// The end of the text on standard error meanwhile, and the stream before; null when it is left
    /// alone.
    std::string errors;
    std::FILE* errorStream;
    /// The signals that are blocked while the view waits.
    sigset_t maskOfWait;
} gTerminal;

/// Takes text of standard error, which would otherwise be written over the screen.
ssize_t keepErrors(void* /*cookie*/, const char* bytes, size_t size) {
    std::string& errors = gTerminal.errors;
    errors.append(bytes, size);
    if (errors.size() > kMostErrors) errors.erase(0, errors.size() - kMostErrors);
    return static_cast<ssize_t>(size);
}

/// Prints the text that was kept. Safe in a handler of a signal.
void printErrors() {
    (void)!write(STDERR_FILENO, gTerminal.errors.data(), gTerminal.errors.size());
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

/// Takes over the terminal of standard input and output, and the signals that end the process.
void openTerminal() {
    tcgetattr(STDIN_FILENO, &gTerminal.settings);
    struct sigaction action = {};
    action.sa_handler = restoreAndDie;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigfillset(&action.sa_mask);
    // First, so that ncurses installs no handlers of its own for them.
    for (const int number :
         {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL}) {
        struct sigaction before = {};
        sigaction(number, &action, &before);
        if (before.sa_handler == SIG_IGN) signal(number, SIG_IGN);  // as under nohup
    }
    // ncurses handles the others, but not within another of its functions: they strike only while
    // the view waits. SIGCONT comes after SIGSTOP too, which has no handler.
    signal(SIGCONT, [](int /*number*/) {});
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGWINCH, SIGTSTP, SIGCONT}) sigaddset(&signals, number);
    pthread_sigmask(SIG_BLOCK, &signals, &gTerminal.maskOfWait);
    initscr();
    const auto keep = [](int byte) {
        gTerminal.leave += static_cast<char>(byte);
        return byte;
    };
    for (const char* name : {"sgr0", "rmkx", "cnorm", "rmcup"}) tputs(tigetstr(name), 1, keep);
    // Without an alternate screen the prompt comes below the last line.
    if (tigetstr("rmcup") == nullptr) gTerminal.leave += "\r\n";
    if (isatty(STDERR_FILENO) != 0) {
        gTerminal.errors.reserve(2 * kMostErrors);  // stays in place while a handler reads it
        std::FILE* const kept = fopencookie(nullptr, "w", {nullptr, keepErrors, nullptr, nullptr});
        std::setvbuf(kept, nullptr, _IONBF, 0);
        gTerminal.errorStream = std::exchange(stderr, kept);
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
    short pair = 0;
    for (const auto& [attributes, color] : kLooks) init_pair(++pair, color, -1);
}

void closeTerminal() {
    move(LINES - 1, 0);  // the prompt comes here if there is no alternate screen
    clrtoeol();
    refresh();
    endwin();
    if (gTerminal.errorStream != nullptr) stderr = gTerminal.errorStream;
    printErrors();
}

void draw(const std::vector<Line>& rows, bool hasCursor) {
    erase();
    for (size_t row = 0; row < rows.size(); ++row) {
        move(static_cast<int>(row), 0);
        for (const auto& [style, text] : rows[row]) {
            const int look = static_cast<int>(style);
            attrset(static_cast<int>(kLooks[look].first) | COLOR_PAIR(look + 1));
            addwstr(text.c_str());
        }
    }
    curs_set(hasCursor ? 1 : 0);
    refresh();
}

/// Waits for keys, for signals, for an eventfd to be written to, or for a time to pass.
/// @return false when the terminal is gone.
bool waitForNews(int wake, double seconds) {
    pollfd files[] = {{STDIN_FILENO, POLLIN, 0}, {wake, POLLIN, 0}};
    const timespec timeout = {static_cast<time_t>(seconds),
                              static_cast<long>(std::fmod(seconds, 1) * 1e9)};
    if (ppoll(files, 2, &timeout, &gTerminal.maskOfWait) < 0) {
        // Other programs may have had the terminal.
        reset_prog_mode();
        clearok(curscr, TRUE);
    }
    eventfd_t news = 0;
    eventfd_read(wake, &news);
    return (files[0].revents & (POLLHUP | POLLERR)) == 0;
}

/// Returns the next key that was pressed already, if any, as press() takes it. Takes over the
/// terminal's size.
std::optional<std::string> readKey() {
    wint_t code = 0;
    const int result = get_wch(&code);
    if (result == ERR) return std::nullopt;
    const char* const name = result == KEY_CODE_YES ? keyname(static_cast<int>(code))
                                                    : key_name(static_cast<wchar_t>(code));
    return name == nullptr ? "" : name;
}

/// Carries intervals from the thread that reads to the view, and may outlive the view.
struct Feed {
    ~Feed() { close(wake); }

    /// Readable when there is news for the view.
    const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::promise<Sampler::End> end;
    std::mutex mutex;
    /// As many as a pause, or a terminal that stands still, may hold up.
    std::deque<Interval> intervals;
    Clock::time_point latest = Clock::now();
    bool anyFigures = false;
};

/// Starts the sampler on a thread, which no longer holds it when the end is there.
std::shared_ptr<Feed> startSampler(std::shared_ptr<Sampler> sampler, double count) {
    auto feed = std::make_shared<Feed>();
    std::thread([feed, sampler = std::move(sampler), left = count]() mutable {
        const Sampler::End end = sampler->run([&](Interval interval) {
            const std::lock_guard<std::mutex> lock(feed->mutex);
            feed->anyFigures = feed->anyFigures || hasFigures(interval);
            feed->intervals.push_back(std::move(interval));
            if (feed->intervals.size() > kHistory) feed->intervals.pop_front();
            feed->latest = Clock::now();
            eventfd_write(feed->wake, 1);
            return --left > 0;
        });
        sampler.reset();
        feed->end.set_value(end);
        eventfd_write(feed->wake, 1);
    }).detach();
    return feed;
}

}  // namespace

bool canShowLive() {
    int error = 0;
    const bool isTerminal = isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
    if (!isTerminal || setupterm(nullptr, STDOUT_FILENO, &error) != OK) return false;
    const bool canMove = tigetstr("cup") != nullptr;
    del_curterm(cur_term);
    return canMove;
}

int showLive(double intervalSeconds, double count, const std::shared_ptr<Sampler>& sampler) {
    if (!canShowLive()) {
        return fail(kFailed,
                    "cannot draw on this terminal (set TERM to its type, or write to a file)");
    }
    std::setlocale(LC_CTYPE, "");
    openTerminal();
    const std::shared_ptr<Feed> feed = startSampler(sampler, count);
    std::future<Sampler::End> end = feed->end.get_future();
    std::string failure;
    LiveScreen screen;
    screen.title = sampler->title();
    const auto takeEnd = [&](std::chrono::milliseconds wait) {
        if (!end.valid() || end.wait_for(wait) != std::future_status::ready) return;
        const Sampler::End reason = end.get();
        if (reason == Sampler::End::kFailed) failure = sampler->failure();
        screen.notice = reason == Sampler::End::kOver ? "The recording has ended." : failure;
        screen.top = 0;  // the notice is there
    };
    for (bool goesOn = true; goesOn;) {
        takeEnd(std::chrono::milliseconds::zero());
        std::unique_lock<std::mutex> lock(feed->mutex);
        const std::chrono::duration<double> age = Clock::now() - feed->latest;
        if (!screen.isPaused) {
            for (Interval& interval : std::exchange(feed->intervals, {})) {
                take(std::move(interval), &screen);
            }
        }
        lock.unlock();
        const bool isReading = end.valid();
        // The last interval is shown for as long as it lasted.
        if (!isReading && std::isfinite(count) && age.count() >= intervalSeconds) break;
        const double late = 2 * intervalSeconds + 1;
        screen.silence = isReading && age.count() >= late ? static_cast<int>(age.count()) : 0;
        draw(makeRows(LINES, COLS, &screen), screen.isTyping);
        const double until = isReading              ? std::fmax(late, screen.silence + 1)
                             : std::isfinite(count) ? intervalSeconds
                                                    : HUGE_VAL;
        goesOn = waitForNews(feed->wake, std::fmin(until - age.count(), 3600));
        for (std::optional<std::string> key; goesOn && (key = readKey());) {
            goesOn = press(*key, &screen);
        }
    }
    sampler->stop();
    takeEnd(std::chrono::milliseconds(200));  // a call that blocks takes longer
    closeTerminal();
    if (std::isfinite(count) && screen.interval) {
        writeOutput(IntervalPrinter("table").print(*screen.interval));
    }
    if (!failure.empty()) return fail(kFailed, safeName(failure, 4096));
    const std::lock_guard<std::mutex> lock(feed->mutex);
    return feed->anyFigures ? 0 : kFailed;
}

}  // namespace powerstats
