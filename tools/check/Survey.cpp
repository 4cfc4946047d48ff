// SPDX-License-Identifier: Apache-2.0

#include "tools/check/Survey.h"

#include <host/ServiceControl.h>

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

#include "power/linux/Counters.h"
#include "power/service/Interfaces.h"

namespace powerstats {

namespace {

using android::hardware::hidl_vec;
using android::hardware::Return;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Aidl = stats_aidl::IPowerStats;
using Hidl = stats_V1_0::IPowerStats;
using Ids = std::vector<int64_t>;

template <typename From>
auto convert(const From& thing) {
    return fromHal(thing);
}
EnergyResult convert(const stats_aidl::EnergyMeasurement& energy) {
    return {fromHal(energy), energy.id};
}
EnergyResult convert(const stats_V1_0::EnergyData& energy) {
    return {fromHal(energy), energy.index};
}
template <typename From, typename Id>
EntityResult convertStates(int64_t entity, const From& states, Id id) {
    EntityResult result{entity, {}};
    for (const auto& state : states) result.states.push_back({fromHal(state), state.*id});
    return result;
}
EntityResult convert(const stats_aidl::StateResidencyResult& from) {
    return convertStates(from.id, from.stateResidencyData, &stats_aidl::StateResidency::id);
}
EntityResult convert(const stats_V1_0::PowerEntityStateResidencyResult& from) {
    using State = stats_V1_0::PowerEntityStateResidencyData;
    return convertStates(from.powerEntityId, from.stateResidencyData, &State::powerEntityStateId);
}

constexpr size_t kId = 4;
constexpr size_t kNumber = 8;

// Each returns the size of the texts and the states of a record.
size_t sizeOf(const Rail& rail) {
    return rail.name.size() + rail.subsystem.size();
}
size_t sizeOf(const Entity& entity) {
    size_t size = entity.name.size();
    for (const State& state : entity.states) size += kId + state.name.size();
    return size;
}
size_t sizeOf(const EnergyResult& /*energy*/) {
    return 0;
}
size_t sizeOf(const EntityResult& entity) {
    return entity.states.size() * (kId + 3 * kNumber);
}

template <typename Record>
void sortById(std::vector<Record>* records) {
    std::stable_sort(records->begin(), records->end(),
                     [](const Record& a, const Record& b) { return a.id < b.id; });
    if constexpr (std::is_same_v<Record, Entity> || std::is_same_v<Record, EntityResult>) {
        for (Record& record : *records) sortById(&record.states);
    }
}

/// Answers of so many bytes are kept, because a service may send any number of records. It is
/// enough for 10,000 rails.
constexpr size_t kMostBytes = 32 << 20;

/// Is common to all clients of a survey.
struct Progress {
    Source* const own;
    const steady_clock::time_point end;
    /// No call begins when one of these is set.
    std::atomic<bool> isGone{false};
    std::atomic<bool> isCut{false};
    std::atomic<size_t> bytes{0};
    /// That of the first client.
    std::optional<Hal> hal = {};
    /// Guards the answers while clients call at once.
    std::mutex mutex = {};
    Survey survey = {};
};

/// Calls the service from one thread, and keeps the answers.
class Client {
  public:
    Client(int thread, Progress* progress)
        : mThread(thread), mProgress(progress), mSurvey(progress->survey) {
        if (progress->hal != Hal::kHidl) mAidl = findAidl();
        if (mAidl == nullptr && progress->hal != Hal::kAidl) mHidl = findHidl();
        if (!progress->hal) progress->hal = mAidl != nullptr ? Hal::kAidl : Hal::kHidl;
        mIsAidl = progress->hal == Hal::kAidl;
    }

    void askLists() {
        if (mIsAidl) {
            askAidl<stats_aidl::Channel>({"getEnergyMeterInfo", kId}, &mSurvey.rails,
                                         &Aidl::getEnergyMeterInfo);
            askAidl<stats_aidl::PowerEntity>({"getPowerEntityInfo", kId}, &mSurvey.entities,
                                             &Aidl::getPowerEntityInfo);
        } else {
            askHidl<stats_V1_0::RailInfo>({"getRailInfo", 2 * kId}, &mSurvey.rails,
                                          &Hidl::getRailInfo);
            askHidl<stats_V1_0::PowerEntityInfo>({"getPowerEntityInfo", 2 * kId}, &mSurvey.entities,
                                                 &Hidl::getPowerEntityInfo);
            askStates(Request::kAll, {});
        }
    }

    void askReadings() {
        askEnergies(Request::kAll, {});
        askResidencies(Request::kAll, {});
    }

    /// Asks for some ids, a repeated one and an unknown one. REQUIRES: askLists() was called
    void askForIds() {
        askForIds(mSurvey.rails, &Client::askEnergies);
        askForIds(mSurvey.entities, &Client::askResidencies);
        if (!mIsAidl) askForIds(mSurvey.entities, &Client::askStates);
    }

  private:
    struct Method {
        const char* name;
        /// The size of the numbers that each of its records has.
        size_t recordBytes;
        Request request = Request::kAll;
        Ids ids = {};
    };

    void askEnergies(Request request, const Ids& ids) {
        if (mIsAidl) {
            askAidl<stats_aidl::EnergyMeasurement>(
                {"readEnergyMeter", kId + 3 * kNumber, request, ids}, &mSurvey.energies,
                &Aidl::readEnergyMeter, std::vector<int32_t>(ids.begin(), ids.end()));
        } else {
            askHidl<stats_V1_0::EnergyData>({"getEnergyData", kId + 2 * kNumber, request, ids},
                                            &mSurvey.energies, &Hidl::getEnergyData,
                                            std::vector<uint32_t>(ids.begin(), ids.end()));
        }
    }
    void askResidencies(Request request, const Ids& ids) {
        if (mIsAidl) {
            askAidl<stats_aidl::StateResidencyResult>(
                {"getStateResidency", kId, request, ids}, &mSurvey.residencies,
                &Aidl::getStateResidency, std::vector<int32_t>(ids.begin(), ids.end()));
        } else {
            askHidl<stats_V1_0::PowerEntityStateResidencyResult>(
                {"getPowerEntityStateResidencyData", kId, request, ids}, &mSurvey.residencies,
                &Hidl::getPowerEntityStateResidencyData,
                std::vector<uint32_t>(ids.begin(), ids.end()));
        }
    }
    void askStates(Request request, const Ids& ids) {
        askHidl<stats_V1_0::PowerEntityStateSpace>(
            {"getPowerEntityStateInfo", kId, request, ids}, &mSurvey.stateLists,
            &Hidl::getPowerEntityStateInfo, std::vector<uint32_t>(ids.begin(), ids.end()));
    }

    template <typename Record>
    void askForIds(const Answers<Record>& lists, void (Client::*askFor)(Request, const Ids&)) {
        if (lists.empty() || lists.front().records.empty()) return;
        const std::vector<Record>& known = lists.front().records;
        Ids some;
        for (size_t i = 0; i < known.size(); i += 2) some.push_back(known[i].id);
        int64_t unknown = INT32_MAX;
        for (auto last = known.rbegin(); last != known.rend(); ++last) {
            if (last->id == unknown) --unknown;
        }
        (this->*askFor)(Request::kSome, some);
        (this->*askFor)(Request::kRepeated, {some.front(), some.front()});
        (this->*askFor)(Request::kUnknown, {unknown});
    }

    /// Calls a method of the AIDL interface.
    /// @param ids [in] those that it takes; none for a method without ids.
    template <typename From, typename Record, typename Function, typename... AskedIds>
    void askAidl(const Method& method, Answers<Record>* answers, Function function,
                 const AskedIds&... ids) {
        ask<From>(method, answers, [&](std::vector<From>* records, Call* call) {
            note((mAidl.get()->*function)(ids..., records), call);
        });
    }

    /// The same for HIDL, whose methods hand their answer to a function.
    template <typename From, typename Record, typename Function, typename... AskedIds>
    void askHidl(const Method& method, Answers<Record>* answers, Function function,
                 const AskedIds&... ids) {
        ask<From>(method, answers, [&](std::vector<From>* records, Call* call) {
            stats_V1_0::Status status{};
            const auto copy = [&](const hidl_vec<From>& from, stats_V1_0::Status its) {
                records->assign(from.begin(), from.end());
                status = its;
            };
            const Return<void> result = (mHidl.get()->*function)(ids..., copy);
            note(result, status, call);
        });
    }

    /// Makes one call, and adds its answer to the survey.
    template <typename From, typename Record, typename Function>
    void ask(const Method& method, Answers<Record>* answers, const Function& call) {
        if (steady_clock::now() > mProgress->end || mProgress->bytes > kMostBytes) {
            mProgress->isCut = true;
        }
        if (mProgress->isGone || mProgress->isCut) return;
        Answer<Record> answer{{method.name, method.request, method.ids, mThread}, {}};
        std::vector<From> records;
        answer.before = std::chrono::floor<milliseconds>(readMoment().time);
        const auto before = steady_clock::now();
        if (mAidl == nullptr && mHidl == nullptr) {
            note({Failure::Kind::kGone, "the service is gone"}, "", &answer);
        } else {
            call(&records, &answer);
        }
        answer.took = steady_clock::now() - before;
        const Reading after = readMoment();
        answer.after = std::chrono::ceil<milliseconds>(after.time);
        answer.suspended = after.suspended;
        for (const From& record : records) {
            answer.records.push_back(convert(record));
            answer.bytes += method.recordBytes + sizeOf(answer.records.back());
        }
        sortById(&answer.records);
        mProgress->bytes += answer.bytes;
        const std::lock_guard<std::mutex> lock(mProgress->mutex);
        answers->push_back(std::move(answer));
    }

    /// Returns a reading of nothing, which has the time.
    Reading readMoment() const {
        if (mProgress->own != nullptr) {
            return mProgress->own->read({std::vector<size_t>()}, {std::vector<size_t>()});
        }
        Reading moment;
        const nanoseconds running = readKernelClock(CLOCK_MONOTONIC);
        moment.time = readKernelClock(CLOCK_BOOTTIME);
        moment.suspended = moment.time - running;
        return moment;
    }

    void note(const ndk::ScopedAStatus& status, Call* call) {
        if (status.isOk()) return;
        note(failureOf(status), status.get() != nullptr ? status.getDescription() : "", call);
        if (status.get() != nullptr && status.getExceptionCode() == EX_ILLEGAL_ARGUMENT) {
            call->outcome = Outcome::kIllegalArgument;
        }
    }
    void note(const Return<void>& result, stats_V1_0::Status status, Call* call) {
        if (!result.isOk()) return note(failureOf(result), result.description(), call);
        if (status == stats_V1_0::Status::SUCCESS) return;
        constexpr const char* kNames[] = {"SUCCESS", "NOT_SUPPORTED", "INVALID_INPUT",
                                          "FILESYSTEM_ERROR", "INSUFFICIENT_RESOURCES"};
        const auto number = static_cast<uint32_t>(status);
        call->error =
            number < std::size(kNames) ? kNames[number] : fmt::format("status {}", number);
        call->outcome = status == stats_V1_0::Status::NOT_SUPPORTED   ? Outcome::kNotSupported
                        : status == stats_V1_0::Status::INVALID_INPUT ? Outcome::kIllegalArgument
                                                                      : Outcome::kOtherStatus;
    }
    /// @param text [in] in the words of the transport; empty when it has none.
    void note(const Failure& failure, const std::string& text, Call* call) {
        using Kind = Failure::Kind;
        if (failure.kind == Kind::kGone || failure.kind == Kind::kTimedOut) {
            mProgress->isGone = true;
        }
        const bool isRefused = failure.kind == Kind::kRefused;
        call->outcome = isRefused ? Outcome::kRefused : Outcome::kFailed;
        call->error = isRefused || text.empty() ? failure.text : text;
    }

    const int mThread;
    Progress* const mProgress;
    Survey& mSurvey;
    bool mIsAidl;
    std::shared_ptr<Aidl> mAidl;
    android::sp<Hidl> mHidl;
};

/// Calls the service on several threads at once.
void askAtOnce(Progress* progress) {
    constexpr int kRounds = 5;
    std::vector<std::thread> threads;
    threads.reserve(kThreadsAtOnce);
    for (int i = 0; i < kThreadsAtOnce; ++i) {
        threads.emplace_back([progress, i] {
            host::useOwnBusConnections();
            Client client(i + 1, progress);
            for (int round = 0; round < kRounds; ++round) {
                client.askLists();
                client.askReadings();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

}  // namespace

Survey takeSurvey(Source* own, double durationSeconds, double moreSeconds) {
    using Seconds = std::chrono::duration<double>;
    constexpr double kReadings = 50;
    constexpr Seconds kLeastPause = milliseconds(20);
    const Seconds duration(durationSeconds);
    const auto start = steady_clock::now();
    Progress progress{own, start + std::chrono::duration_cast<steady_clock::duration>(
                                       duration + Seconds(moreSeconds))};
    Client client(0, &progress);
    client.askLists();
    bool isShort = false;
    for (;;) {
        client.askReadings();
        const Seconds left = duration - (steady_clock::now() - start);
        // The other half is for the calls that follow.
        isShort = progress.bytes > kMostBytes / 2;
        if (progress.isGone || isShort || left.count() <= 0) break;
        std::this_thread::sleep_for(std::min(left, std::max(kLeastPause, duration / kReadings)));
    }
    client.askForIds();
    askAtOnce(&progress);
    Client last(0, &progress);
    last.askLists();
    last.askReadings();
    progress.survey.hal = *progress.hal;
    progress.survey.isGone = progress.isGone;
    progress.survey.isCut = progress.isCut || isShort;
    return std::move(progress.survey);
}

}  // namespace powerstats
