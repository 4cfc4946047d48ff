// SPDX-License-Identifier: Apache-2.0

#include "tools/LiveView.h"

#include <fmt/format.h>
#include <langinfo.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "hal/NamesAndIds.h"
#include "tools/CommandLine.h"
#include "tools/LiveLines.h"
#include "tools/LiveTerminal.h"

namespace powerstats {

namespace {

using Clock = std::chrono::steady_clock;

/// What the thread that reads shares with the view. The thread keeps it alive after the view's end.
struct Feed {
    explicit Feed(std::function<Interval()> function)
        : wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), read(std::move(function)) {}
    ~Feed() { close(wake); }
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;

    /// Readable when there is news for the view.
    const int wake;
    std::function<Interval()> read;  // the thread's
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Interval> intervals;
    std::optional<std::string> error;
    bool isStopping = false;
    bool isFinished = false;
};

void wake(const Feed& feed) {
    eventfd_write(feed.wake, 1);
}

/// Waits for a tick.
/// @return false when the view ends.
bool waitUntil(Feed* feed, Clock::time_point tick) {
    std::unique_lock<std::mutex> lock(feed->mutex);
    return !feed->changed.wait_until(lock, tick, [feed] { return feed->isStopping; });
}

void readUntilStopped(Feed* feed, const LiveViewOptions& options) {
    const double seconds = std::clamp(options.intervalSeconds, 0.001, 1e6);
    const auto step =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    auto tick = Clock::now() + step;
    for (int taken = 0; waitUntil(feed, tick); ++taken) {
        if (options.count && taken >= *options.count) return;
        Interval interval = feed->read();
        tick += (std::max(Clock::now() - tick, Clock::duration::zero()) / step + 1) * step;
        const std::lock_guard<std::mutex> lock(feed->mutex);
        feed->intervals.push_back(std::move(interval));
        // A terminal that stands still holds up the view.
        if (feed->intervals.size() > kHistory) feed->intervals.pop_front();
        wake(*feed);
    }
}

void runFeed(const std::shared_ptr<Feed>& feed, const LiveViewOptions& options) {
    std::optional<std::string> error;
    try {
        readUntilStopped(feed.get(), options);
    } catch (const std::exception& exception) {
        error = exception.what();
    } catch (...) {
        error = "a reading failed for an unknown reason";
    }
    feed->read = nullptr;  // before isFinished, so that nothing of the caller's outlives its use
    const std::lock_guard<std::mutex> lock(feed->mutex);
    feed->error = error;
    feed->isFinished = true;
    feed->changed.notify_all();
    wake(*feed);
}

/// Starts the thread that reads. Stops it at the end, but does not wait long for a call that
/// blocks.
class FeedThread {
  public:
    FeedThread(std::shared_ptr<Feed> feed, const LiveViewOptions& options)
        : mFeed(std::move(feed)) {
        sigset_t others, before;
        sigfillset(&others);
        for (const int number : kFaultSignals) sigdelset(&others, number);
        pthread_sigmask(SIG_SETMASK, &others, &before);
        try {
            std::thread([feed = mFeed, options] { runFeed(feed, options); }).detach();
        } catch (...) {
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            throw;
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    ~FeedThread() {
        std::unique_lock<std::mutex> lock(mFeed->mutex);
        mFeed->isStopping = true;
        mFeed->changed.notify_all();
        mFeed->changed.wait_for(lock, std::chrono::milliseconds(200),
                                [this] { return mFeed->isFinished; });
    }
    FeedThread(const FeedThread&) = delete;
    FeedThread& operator=(const FeedThread&) = delete;

  private:
    const std::shared_ptr<Feed> mFeed;
};

class View {
  public:
    View(const LiveViewOptions& options, LiveTerminal* terminal, Feed* feed)
        : mOptions(options), mTerminal(terminal), mFeed(feed) {
        mLook.isUtf8 = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    }

    /// @return why a reading failed; nothing when the user quits or all intervals were shown.
    std::optional<std::string> run() {
        while (true) {
            mTerminal->obeySignals();
            if (takeIntervals()) return mFeed->error;
            draw();
            mTerminal->trimLog();
            pollfd files[] = {{STDIN_FILENO, POLLIN, 0}, {mFeed->wake, POLLIN, 0}};
            poll(files, 2, millisecondsToWait());
            eventfd_t count = 0;
            eventfd_read(mFeed->wake, &count);
            if ((files[0].revents & (POLLHUP | POLLERR)) != 0) return std::nullopt;
            while (const std::optional<Key> key = mTerminal->readKey()) {
                if (!obey(*key)) return std::nullopt;
            }
        }
    }

  private:
    /// Takes over the intervals that were read.
    /// @return whether the thread that reads has ended.
    bool takeIntervals() {
        const std::lock_guard<std::mutex> lock(mFeed->mutex);
        for (Interval& interval : mFeed->intervals) {
            update(&mFigures, std::move(interval));
            mLatest = Clock::now();
        }
        mFeed->intervals.clear();
        return mFeed->isFinished;
    }

    /// How long the service has not answered, in whole seconds; 0 while it is not late.
    int secondsLate() const {
        const std::chrono::duration<double> age = Clock::now() - mLatest;
        return age.count() < lateAfter() ? 0 : static_cast<int>(age.count());
    }

    double lateAfter() const { return 2 * mOptions.intervalSeconds + 1; }

    /// Until the line about a late service changes.
    int millisecondsToWait() const {
        const std::chrono::duration<double> age = Clock::now() - mLatest;
        const double until = std::max(lateAfter(), std::floor(age.count()) + 1);
        return static_cast<int>(std::min((until - age.count()) * 1000, 3.6e6)) + 1;
    }

    void draw() {
        const Figures& figures = mFrozen ? *mFrozen : mFigures;
        mLook.width = mTerminal->columns();
        const std::vector<Line> lines = makeLines(figures, mChoices, mLook);
        const int count = static_cast<int>(lines.size());
        mBodyHeight = std::max(1, mTerminal->rows() - 2);
        mTop = std::clamp(mTop, 0, std::max(0, count - mBodyHeight));
        const int end = std::min(count, mTop + mBodyHeight);
        std::vector<Line> rows = {edge(titleText(figures))};
        rows.insert(rows.end(), lines.begin() + mTop, lines.begin() + end);
        rows.resize(static_cast<size_t>(mBodyHeight) + 1);
        const std::string prompt = "/" + mChoices.filter;
        rows.push_back(edge(mIsTyping ? prompt : footerText(end, count)));
        int left = mLook.width - 1;
        findEnd(printable(prompt, mLook), 0, &left);
        mTerminal->draw(rows, mIsTyping ? std::optional(mLook.width - 1 - left) : std::nullopt);
    }

    Line edge(const std::string& text) const {
        return {{Style::kEdge, fit(text, mLook.width, mLook)}};
    }

    std::string titleText(const Figures& figures) const {
        std::string text;
        if (mFrozen) text += "PAUSED  ";
        if (const int late = secondsLate(); late > 0) {
            text += fmt::format("NO ANSWER FOR {} s  ", late);
        }
        text += safeName(mOptions.title);
        if (figures.interval) {
            text +=
                fmt::format("  {:.3f} s", static_cast<double>(figures.interval->elapsedMs) / 1000);
        }
        return text;
    }

    std::string footerText(int end, int count) const {
        static constexpr const char* kOrders[] = {"as the service", "by name", "greatest first"};
        std::string text;
        if (!mChoices.filter.empty()) text += fmt::format("/{}  ", mChoices.filter);
        if (count > mBodyHeight) text += fmt::format("{}-{} of {}  ", mTop + 1, end, count);
        return text + fmt::format("? help  q quit  Space {}  s sort: {}  / filter",
                                  mFrozen ? "go on" : "pause",
                                  kOrders[static_cast<int>(mChoices.order)]);
    }

    /// Does as a key says.
    /// @return false when the view ends.
    bool obey(const Key& key) {
        if (scroll(key.kind)) return true;
        if (mIsTyping) {
            type(key);
        } else if (key.bytes == "q") {
            return false;
        } else if (key.bytes == " ") {
            mFrozen = mFrozen ? std::nullopt : std::make_optional(mFigures);
        } else if (key.bytes == "s") {
            mChoices.order = static_cast<Order>((static_cast<int>(mChoices.order) + 1) % 3);
        } else if (key.bytes == "/") {
            mIsTyping = true;
        } else if (key.bytes == "?") {
            mChoices.isHelp = !mChoices.isHelp;
            mTop = 0;
        }
        return true;
    }

    /// @return whether the key scrolls. draw() bounds the position.
    bool scroll(Key::Kind kind) {
        constexpr int kFar = 1'000'000'000;
        const std::map<Key::Kind, int> steps = {{Key::Kind::kUp, -1},
                                                {Key::Kind::kDown, 1},
                                                {Key::Kind::kPageUp, -mBodyHeight},
                                                {Key::Kind::kPageDown, mBodyHeight},
                                                {Key::Kind::kHome, -kFar},
                                                {Key::Kind::kEnd, kFar}};
        const auto step = steps.find(kind);
        if (step == steps.end()) return false;
        mTop = std::clamp(mTop + step->second, 0, kFar);
        return true;
    }

    /// Takes a key into the filter.
    void type(const Key& key) {
        std::string& filter = mChoices.filter;
        if (key.kind == Key::Kind::kBackspace) {
            // A character's further bytes are 10xxxxxx.
            while (!filter.empty() && (filter.back() & 0xC0) == 0x80) filter.pop_back();
            if (!filter.empty()) filter.pop_back();
        } else if (key.kind == Key::Kind::kEscape) {
            filter.clear();
        } else if (filter.size() < kMaxNameSize) {
            filter += key.bytes;
        }
        mIsTyping = key.kind != Key::Kind::kEnter && key.kind != Key::Kind::kEscape;
    }

    const LiveViewOptions& mOptions;
    LiveTerminal* const mTerminal;
    Feed* const mFeed;
    Look mLook;
    Choices mChoices;
    Figures mFigures;
    /// The figures shown during a pause.
    std::optional<Figures> mFrozen;
    Clock::time_point mLatest = Clock::now();
    bool mIsTyping = false;
    /// The index of the line shown first, and the number of lines shown.
    int mTop = 0;
    int mBodyHeight = 1;
};

}  // namespace

int showLive(const LiveViewOptions& options, std::function<Interval()> read) {
    std::setlocale(LC_CTYPE, "");
    const auto feed = std::make_shared<Feed>(std::move(read));
    std::optional<std::string> error;
    {
        LiveTerminal terminal(feed->wake);
        if (terminal.isOpen()) {
            const FeedThread thread(feed, options);
            error = View(options, &terminal, feed.get()).run();
        } else {
            error = "cannot draw on this terminal (set TERM to its type, or write to a file)";
        }
    }
    if (!error) return 0;
    say(safeName(*error, 4096));
    return 1;
}

}  // namespace powerstats
