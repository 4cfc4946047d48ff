// SPDX-License-Identifier: Apache-2.0
//
// Acts a session out, with the library's source in this program, and compares what can be seen of
// it with what the model says. A session that is to end its process is acted out once more by a
// child.

// NOLINTNEXTLINE(bugprone-suspicious-include): that is the point
#include "jni/TavrelPowerStatsHalDataProviderNative.cpp"

#include <android/binder_manager.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "tests/fuzz/Model.h"
#include "tests/support/ChildProcess.h"

namespace fuzz {
namespace {

using support::Lines;
using support::Scenario;

[[noreturn]] void fail(const std::string& why) {
    std::fprintf(stderr, "\nfuzz_library: %s\n", why.c_str());
    std::abort();
}

/// The state of a library that was just loaded.
void resetLibrary() {
    ferrolith::gGetResidenciesImpl = nullptr;
    ferrolith::gGetRailEnergyImpl = nullptr;
    ferrolith::gEntityNames.clear();
    ferrolith::gStateNames.clear();
    ferrolith::gChannels.clear();
    ferrolith::gPowerStatsHalV1_0 = nullptr;
    ferrolith::gPowerStatsHalAidl = nullptr;
}

/// Acts out the first steps of a session; what happens is recorded.
class Stage {
  public:
    Stage() {
        resetLibrary();
        for (const Backend backend : support::kBackends) mBefore[backend] = traffic(backend);
    }

    ~Stage() {
        resetLibrary();
        for (const Backend backend : support::kBackends) {
            host::unregisterService(Scenario::nameOf(backend));
        }
        mScenario.aidl = nullptr;
        if (mProbed == nullptr) return;
        // One more than the reference of this object is the one that selection keeps for good.
        if (AIBinder_debugGetRefCount(mProbed) != 2) fail("references to the service are amiss");
        AIBinder_decStrong(mProbed);
        AIBinder_decStrong(mProbed);
    }

    void act(const Session& session, size_t steps) {
        for (size_t i = 0; i < steps; ++i) {
            act(session[i]);
            if (!host::waitForDeathNotices()) fail("a death notice was not handled");
            for (const Backend backend : support::kBackends) {
                Traffic now = traffic(backend);
                for (size_t j = 0; j < now.size(); ++j) now[j] -= mBefore[backend][j];
                support::record(trafficLine(backend, now[0], now[1], now[2], now[3]));
            }
        }
    }

  private:
    using Traffic = std::array<int64_t, 4>;

    static Traffic traffic(Backend backend) {
        const char* name = Scenario::nameOf(backend);
        return {host::lookups(name), host::links(name), host::unlinks(name),
                host::transactions(name)};
    }

    void act(const Step& step) {
        const char* name = Scenario::nameOf(step.backend);
        switch (step.action) {
            case Step::Action::kServe:
                mScenario.serve(step.backend, {});
                hook(step.backend);
                [[fallthrough]];
            case Step::Action::kChange:
                tell(step.backend, step.facts);
                break;
            case Step::Action::kUnregister:
                host::unregisterService(name);
                break;
            case Step::Action::kKill:
                host::killService(name);
                break;
            case Step::Action::kCall:
                call(step);
                break;
        }
    }

    void tell(Backend backend, const Facts& facts) {
        if (backend == Backend::kAidl && mScenario.aidl != nullptr) {
            mScenario.aidl->machine = facts.machine;
        }
        if (backend == Backend::kHidl && mScenario.hidl != nullptr) {
            mScenario.hidl->machine = facts.machine;
            mScenario.hidl->stateSpaces = facts.stateSpaces;
        }
    }

    void hook(Backend backend) {
        if (backend == Backend::kAidl) {
            mScenario.aidl->onCall = [this, called = mScenario.aidl.get()](const auto& method) {
                called->failing.clear();
                if (const Trouble* trouble = onTransaction(Backend::kAidl, method)) {
                    called->failing[method] = [code = trouble->status] {
                        return ndk::ScopedAStatus::fromExceptionCode(static_cast<int32_t>(code));
                    };
                }
            };
        } else {
            mScenario.hidl->onCall = [this, called = mScenario.hidl.get()](const auto& method) {
                called->statuses.clear();
                if (const Trouble* trouble = onTransaction(Backend::kHidl, method)) {
                    called->statuses[method] = support::FakeHidl::Status{trouble->status};
                }
            };
        }
    }

    /// @return what the called service is to answer with a status of its own, or null
    const Trouble* onTransaction(Backend backend, const std::string& method) {
        support::record(method);
        if (backend != mCall->backend) return nullptr;
        for (const Trouble& trouble : mCall->troubles) {
            if (trouble.method != method) continue;
            if (trouble.kind == Trouble::Kind::kStatus) return &trouble;
            host::killService(Scenario::nameOf(backend));
        }
        return nullptr;
    }

    void call(const Step& step) {
        mCall = &step;
        script(step, 1);
        support::bootClock().now = step.clock;
        mScenario.env.heapIsFull = step.heapIsFull;
        if (!ferrolith::gGetRailEnergyImpl) {
            mProbed = AServiceManager_checkService(host::kAidlPowerStats);
            ++mBefore[Backend::kAidl][0];
        }
        const auto method =
            step.call == Call::kRails
                ? Java_com_tavrel_android_ferrolith_TavrelPowerStatsHalDataProvider_getRailEnergyNative
                : Java_com_tavrel_android_ferrolith_TavrelPowerStatsHalDataProvider_getResidenciesNative;
        const auto bytes = mScenario.env.take(method(mScenario.env.get(), nullptr));
        if (mScenario.env.arrays() != 0) fail("an array was made and not returned");
        support::record(returnedLine(
            bytes ? std::optional(std::string(bytes->begin(), bytes->end())) : std::nullopt));
        script(step, 0);
    }

    /// Has the transactions and the link fail that are to fail by transport.
    static void script(const Step& step, int times) {
        const char* name = Scenario::nameOf(step.backend);
        for (const Trouble& trouble : step.troubles) {
            if (trouble.kind != Trouble::Kind::kTransport) continue;
            if (trouble.method == kLink) {
                host::failLinks(name, trouble.failure, times);
            } else {
                host::failTransactions(name, trouble.method, trouble.failure, times);
            }
        }
    }

    Scenario mScenario;
    std::map<Backend, Traffic> mBefore;
    const Step* mCall = nullptr;  ///< the call that is running
    AIBinder* mProbed = nullptr;
};

void compare(const Lines& expected, const Lines& seen) {
    const auto [mine, its] =
        std::mismatch(expected.begin(), expected.end(), seen.begin(), seen.end());
    if (mine == expected.end() && its == seen.end()) return;
    std::string story;
    for (auto line = expected.begin(); line != mine; ++line) story += "      " + *line + "\n";
    fail("the library and the model differ:\n" + story + "model " +
         (mine != expected.end() ? *mine : "(nothing more)") + "\nseen  " +
         (its != seen.end() ? *its : "(nothing more)"));
}

Lines splitLines(const std::string& text) {
    Lines lines;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::string joinLines(const Lines& lines) {
    std::string text;
    for (const auto& line : lines) text += line + "\n";
    return text;
}

// Children come from a process that was forked before there were threads, the platform's and the
// fuzzer's: what they hold would stay held for ever in a child of this process.

int gOffspring = -1;
constexpr size_t kMostBytes = 1 << 20;

bool sendAll(int socket, const std::string& bytes) {
    return send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

bool receive(int socket, std::string* bytes) {
    static std::vector<char> buffer(kMostBytes);
    ssize_t size;
    do {  // the fuzzer's own alarm may interrupt it
        size = recv(socket, buffer.data(), buffer.size(), 0);
    } while (size < 0 && errno == EINTR);
    if (size <= 0) return false;
    bytes->assign(buffer.data(), static_cast<size_t>(size));
    return true;
}

/// For each input that arrives, answers how a child ended and what it wrote.
[[noreturn]] void bearChildren(int socket) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::string input;
    while (receive(socket, &input)) {
        const support::Ended ended = support::runInChild([&] {
            support::onEvent = [](const std::string& event) {
                std::fwrite((event + "\n").data(), 1, event.size() + 1, stderr);
            };
            const Session session =
                decodeSession(reinterpret_cast<const uint8_t*>(input.data()), input.size());
            Stage().act(session, session.size());
        });
        if (!sendAll(socket, std::to_string(ended.signal) + "\n" + ended.errors)) break;
    }
    _exit(0);
}

void expectEnd(const Prediction& prediction, const std::string& input) {
    std::string answer;
    if (!sendAll(gOffspring, input) || !receive(gOffspring, &answer)) fail("no child answered");
    // An event of several lines comes back as several.
    Lines expected = splitLines(joinLines(prediction.events));
    expected.insert(expected.begin(), std::to_string(SIGABRT));
    compare(expected, splitLines(answer));
}

/// What came of the calls; a target whose calls return nothing would find nothing.
struct Tally {
    uint64_t nulls = 0;
    uint64_t empties = 0;
    uint64_t results = 0;
    uint64_t ends = 0;

    ~Tally() {
        const double all = static_cast<double>(nulls + empties + results + ends) / 100;
        if (all == 0) return;
        std::fprintf(stderr,
                     "calls: %.1f%% results, %.1f%% empty, %.1f%% null, %.1f%% ended the process\n",
                     static_cast<double>(results) / all, static_cast<double>(empties) / all,
                     static_cast<double>(nulls) / all, static_cast<double>(ends) / all);
    }

    void add(const Prediction& prediction, bool ended) {
        for (const auto& event : prediction.events) {
            if (event.compare(0, 8, "returned") != 0) continue;
            ++(event == returnedLine(std::nullopt) ? nulls
               : event == returnedLine("")         ? empties
                                                   : results);
        }
        if (ended) ++ends;
    }
};

}  // namespace
}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // The scripted services check what they are asked for with gtest's assertions.
    testing::GTEST_FLAG(break_on_failure) = true;
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) {
        fuzz::fail("no socket");
    }
    for (const int socket : sockets) {
        const int size = fuzz::kMostBytes;
        setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    }
    const pid_t parent = fork();
    if (parent < 0) fuzz::fail("no process");
    if (parent == 0) {
        close(sockets[0]);
        fuzz::bearChildren(sockets[1]);
    }
    close(sockets[1]);
    const timeval patience{60, 0};
    setsockopt(sockets[0], SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    fuzz::gOffspring = sockets[0];
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::Tally tally;
    const fuzz::Session session = fuzz::decodeSession(data, size);
    const fuzz::Prediction prediction = fuzz::predict(session);
    const bool ends = prediction.steps != session.size();
    support::takeEvents();
    fuzz::Stage().act(session, prediction.steps);
    const auto& events = prediction.events;
    const auto reached = static_cast<std::ptrdiff_t>(prediction.eventsOfSteps);
    fuzz::compare({events.begin(), events.begin() + reached}, support::takeEvents());
    if (ends) fuzz::expectEnd(prediction, std::string(data, data + size));
    tally.add(prediction, ends);
    return 0;
}
