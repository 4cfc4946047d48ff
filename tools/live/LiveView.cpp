// SPDX-License-Identifier: Apache-2.0

#include "tools/live/LiveView.h"

#include <fmt/format.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cmath>
#include <cstring>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "power/text/Names.h"
#include "tools/CommandLine.h"
#include "tools/live/LiveLines.h"
#include "tools/live/LiveTerminal.h"

namespace powerstats {

namespace {

using Clock = std::chrono::steady_clock;

/// Carries intervals from the thread that reads to the view, and may outlive the view.
struct Feed {
    ~Feed() { close(wake); }

    /// Readable when there is news for the view.
    const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::mutex mutex;
    std::deque<Interval> intervals;
    bool anyFigures = false;
};

/// Starts the sampler on a thread, which no longer holds it when the result is there.
std::future<Sampler::End> startSampler(const std::shared_ptr<Feed>& feed,
                                       const std::shared_ptr<Sampler>& sampler,
                                       std::optional<int> count) {
    std::packaged_task<Sampler::End()> task([feed, held = sampler, left = count]() mutable {
        LiveTerminal::blockSignals();
        const std::shared_ptr<Sampler> own = std::move(held);
        return own->run([&](Interval interval) {
            const std::lock_guard<std::mutex> lock(feed->mutex);
            feed->anyFigures = feed->anyFigures || hasFigures(interval);
            feed->intervals.push_back(std::move(interval));
            // A terminal that stands still holds up the view.
            if (feed->intervals.size() > kHistory) feed->intervals.pop_front();
            eventfd_write(feed->wake, 1);
            return !left || --*left > 0;
        });
    });
    std::future<Sampler::End> end = task.get_future();
    std::thread([feed, task = std::move(task)]() mutable {
        task();
        eventfd_write(feed->wake, 1);
    }).detach();
    return end;
}

class View {
  public:
    View(const LiveViewOptions& options, const std::shared_ptr<Sampler>& sampler,
         LiveTerminal* terminal, const std::shared_ptr<Feed>& feed)
        : mOptions(options), mSampler(sampler.get()), mTerminal(terminal), mFeed(feed.get()) {
        mLook.isUtf8 = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
        mEnd = startSampler(feed, sampler, options.count);
    }

    /// @return why the readings cannot be recorded; empty when they can.
    std::string run() {
        do {
            mTerminal->obeySignals();
            takeNews(Clock::duration::zero());
            draw();
        } while (!isDone() && obeyKeys());
        mSampler->stop();
        takeNews(std::chrono::milliseconds(200));  // a call that blocks takes longer
        return mFailure;
    }

  private:
    /// Takes over the intervals that were read, and the end of reading if it comes within `wait`.
    void takeNews(Clock::duration wait) {
        const bool isEnd = isReading() && mEnd.wait_for(wait) == std::future_status::ready;
        const std::lock_guard<std::mutex> lock(mFeed->mutex);
        for (Interval& interval : mFeed->intervals) {
            update(&mFigures, std::move(interval));
            mLatest = Clock::now();
        }
        mFeed->intervals.clear();
        if (!isEnd) return;
        const Sampler::End end = mEnd.get();
        if (end == Sampler::End::kFailed) mFailure = mSampler->failure();
        mNotice = end == Sampler::End::kOver ? "The recording has ended." : mFailure;
        mTop = 0;  // the notice is there
    }

    bool isReading() const { return mEnd.valid(); }

    /// Whether all intervals were shown, each as long as it lasted.
    bool isDone() const {
        return !isReading() && mOptions.count && age() >= mOptions.intervalSeconds;
    }

    /// Waits for keys, signals or news, and does as the keys say.
    /// @return false when the view ends.
    bool obeyKeys() {
        pollfd files[] = {{STDIN_FILENO, POLLIN, 0}, {mFeed->wake, POLLIN, 0}};
        poll(files, 2, millisecondsToWait());
        eventfd_t count = 0;
        eventfd_read(mFeed->wake, &count);
        if ((files[0].revents & (POLLHUP | POLLERR)) != 0) return false;
        while (const std::optional<std::string> key = mTerminal->readKey()) {
            if (!obey(*key)) return false;
        }
        return true;
    }

    /// In seconds, since the latest interval.
    double age() const { return std::chrono::duration<double>(Clock::now() - mLatest).count(); }

    double lateAfter() const { return 2 * mOptions.intervalSeconds + 1; }

    /// Until the end, or until the line about a late answer changes.
    int millisecondsToWait() const {
        const double now = age();
        const double until = isReading()      ? std::max(lateAfter(), std::floor(now) + 1)
                             : mOptions.count ? mOptions.intervalSeconds
                                              : HUGE_VAL;
        return static_cast<int>(std::clamp((until - now) * 1000, 0.0, 3.6e6)) + 1;
    }

    void draw() {
        const Figures& figures = mFrozen ? *mFrozen : mFigures;
        mLook.width = mTerminal->columns();
        const std::vector<Line> lines = makeLines(figures, mChoices, mLook, mNotice);
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
        if (const double late = age(); isReading() && late >= lateAfter()) {
            text += fmt::format("NO ANSWER FOR {} s  ", static_cast<int>(late));
        }
        text += safeName(mSampler->title());
        if (figures.interval) {
            text += fmt::format("  {:.3f} s", toSeconds(figures.interval->elapsed));
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
    bool obey(const std::string& key) {
        if (scroll(key)) return true;
        if (mIsTyping) {
            type(key);
        } else if (key == "q") {
            return false;
        } else if (key == " ") {
            mFrozen = mFrozen ? std::nullopt : std::make_optional(mFigures);
        } else if (key == "s") {
            mChoices.order = static_cast<Order>((static_cast<int>(mChoices.order) + 1) % 3);
        } else if (key == "/") {
            mIsTyping = true;
        } else if (key == "?") {
            mChoices.isHelp = !mChoices.isHelp;
            mTop = 0;
        }
        return true;
    }

    /// @return whether the key scrolls. draw() bounds the position.
    bool scroll(const std::string& key) {
        constexpr int kFar = 1'000'000'000;
        const std::map<std::string, int> steps = {
            {"Up", -1},  {"PageUp", -mBodyHeight},  {"Home", -kFar},
            {"Down", 1}, {"PageDown", mBodyHeight}, {"End", kFar}};
        const auto step = steps.find(key);
        if (step == steps.end()) return false;
        mTop = std::clamp(mTop + step->second, 0, kFar);
        return true;
    }

    /// Takes a key into the filter.
    void type(const std::string& key) {
        std::string& filter = mChoices.filter;
        mIsTyping = key != "Enter" && key != "Escape";
        if (key == "Backspace") {
            // A character's further bytes are 10xxxxxx.
            while (!filter.empty() && (filter.back() & 0xC0) == 0x80) filter.pop_back();
            if (!filter.empty()) filter.pop_back();
        } else if (key == "Escape") {
            filter.clear();
        } else if (mIsTyping && filter.size() < kMaxNameSize) {
            filter += key;
        }
    }

    const LiveViewOptions& mOptions;
    Sampler* const mSampler;
    LiveTerminal* const mTerminal;
    Feed* const mFeed;
    /// No longer valid when reading has ended.
    std::future<Sampler::End> mEnd;
    std::string mFailure;
    std::string mNotice;
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

int showLive(const LiveViewOptions& options, const std::shared_ptr<Sampler>& sampler) {
    std::setlocale(LC_CTYPE, "");
    const auto feed = std::make_shared<Feed>();
    std::string error = "cannot draw on this terminal (set TERM to its type, or write to a file)";
    {
        LiveTerminal terminal(feed->wake);
        if (terminal.isOpen()) error = View(options, sampler, &terminal, feed).run();
    }
    if (!error.empty()) return fail(kFailed, safeName(error, 4096));
    const std::lock_guard<std::mutex> lock(feed->mutex);
    return feed->anyFigures ? 0 : kFailed;
}

}  // namespace powerstats
