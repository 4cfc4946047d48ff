// SPDX-License-Identifier: Apache-2.0

#include "tools/check/Survey.h"

#include <host/ServiceControl.h>

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

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

Record convert(const stats_aidl::Channel& rail) {
    return {rail.id, rail.name, rail.subsystem};
}
Record convert(const stats_V1_0::RailInfo& rail) {
    return {rail.index, rail.railName, rail.subsysName};
}
Record convert(const stats_V1_0::PowerEntityInfo& entity) {
    return {entity.powerEntityId, entity.powerEntityName};
}
Record convert(const stats_aidl::State& state) {
    return {state.id, state.name};
}
Record convert(const stats_V1_0::PowerEntityStateInfo& state) {
    return {state.powerEntityStateId, state.powerEntityStateName};
}
Record convert(const stats_aidl::EnergyMeasurement& energy) {
    return {energy.id, "", "", energy.timestampMs, energy.durationMs, energy.energyUWs};
}
Record convert(const stats_V1_0::EnergyData& energy) {
    const auto stampMs = static_cast<int64_t>(energy.timestamp);
    return {energy.index, "", "", stampMs, stampMs, static_cast<int64_t>(energy.energy)};
}
Record convert(const stats_aidl::StateResidency& state) {
    return {state.id,
            "",
            "",
            state.lastEntryTimestampMs,
            state.totalTimeInStateMs,
            state.totalStateEntryCount};
}
Record convert(const stats_V1_0::PowerEntityStateResidencyData& state) {
    const auto lastEntryMs = static_cast<int64_t>(state.lastEntryTimestampMs);
    const auto totalMs = static_cast<int64_t>(state.totalTimeInStateMs);
    return {state.powerEntityStateId,
            "",
            "",
            lastEntryMs,
            totalMs,
            static_cast<int64_t>(state.totalStateEntryCount)};
}
template <typename States>
Record convert(Record entity, const States& states) {
    entity.states.reserve(states.size());
    for (const auto& state : states) entity.states.push_back(convert(state));
    return entity;
}
Record convert(const stats_aidl::PowerEntity& entity) {
    return convert({entity.id, entity.name}, entity.states);
}
Record convert(const stats_V1_0::PowerEntityStateSpace& entity) {
    return convert({entity.powerEntityId}, entity.states);
}
Record convert(const stats_aidl::StateResidencyResult& entity) {
    return convert({entity.id}, entity.stateResidencyData);
}
Record convert(const stats_V1_0::PowerEntityStateResidencyResult& entity) {
    return convert({entity.powerEntityId}, entity.stateResidencyData);
}

/// @param numbers, stateNumbers [in] the sizes of the numbers of a record and of each of its
///     states.
size_t sizeOf(const Record& record, size_t numbers, size_t stateNumbers) {
    size_t size = numbers + record.name.size() + record.subsystem.size();
    for (const Record& state : record.states) size += sizeOf(state, stateNumbers, 0);
    return size;
}

void sortById(Records* records) {
    std::stable_sort(records->begin(), records->end(),
                     [](const Record& a, const Record& b) { return a.id < b.id; });
    for (Record& record : *records) sortById(&record.states);
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
    /// Guards the answers while clients call at once.
    std::mutex mutex = {};
    Survey survey = {};
};

/// Calls the service from one thread, and keeps the answers.
class Client {
  public:
    Client(int thread, Progress* progress)
        : mThread(thread), mProgress(progress), mSurvey(progress->survey) {
        if (mSurvey.hal == Hal::kAidl) mAidl = findAidl();
        if (mSurvey.hal == Hal::kHidl) mHidl = findHidl();
    }

    void askLists() { askAll(true); }
    void askReadings() { askAll(false); }

    /// Asks for some ids, a repeated one and an unknown one. REQUIRES: askLists() was called
    void askForIds() {
        for (const Method& method : methods()) {
            if (method.known == nullptr || (mSurvey.*method.known).empty()) continue;
            const Records& known = (mSurvey.*method.known).front().records;
            if (known.empty()) continue;
            std::vector<int64_t> some;
            for (size_t i = 0; i < known.size(); i += 2) some.push_back(known[i].id);
            int64_t unknown = INT32_MAX;
            for (auto last = known.rbegin(); last != known.rend(); ++last) {
                if (last->id == unknown) --unknown;
            }
            ask(method, Request::kSome, some);
            ask(method, Request::kRepeated, {some.front(), some.front()});
            ask(method, Request::kUnknown, {unknown});
        }
    }

  private:
    struct Method {
        const char* name;
        bool isList;
        Answers Survey::*answers;
        /// The lists that have the ids that it takes; null when it takes none.
        Answers Survey::*known;
        /// The sizes of the numbers of a record, and of each of its states.
        size_t numbers;
        size_t stateNumbers;
        void (Client::*call)(Answer* answer);
    };

    const std::vector<Method>& methods() const {
        using AidlIds = std::vector<int32_t>;
        using HidlIds = std::vector<uint32_t>;
        constexpr size_t kId = 4;
        constexpr size_t kNumber = 8;
        static const std::vector<Method> aidl = {
            {"getEnergyMeterInfo", true, &Survey::rails, nullptr, kId, 0,
             &Client::callAidl<&Aidl::getEnergyMeterInfo, stats_aidl::Channel>},
            {"getPowerEntityInfo", true, &Survey::entities, nullptr, kId, kId,
             &Client::callAidl<&Aidl::getPowerEntityInfo, stats_aidl::PowerEntity>},
            {"readEnergyMeter", false, &Survey::energies, &Survey::rails, kId + 3 * kNumber, 0,
             &Client::callAidl<&Aidl::readEnergyMeter, stats_aidl::EnergyMeasurement, AidlIds>},
            {"getStateResidency", false, &Survey::residencies, &Survey::entities, kId,
             kId + 3 * kNumber,
             &Client::callAidl<&Aidl::getStateResidency, stats_aidl::StateResidencyResult,
                               AidlIds>}};
        static const std::vector<Method> hidl = {
            {"getRailInfo", true, &Survey::rails, nullptr, 2 * kId, 0,
             &Client::callHidl<&Hidl::getRailInfo, stats_V1_0::RailInfo>},
            {"getPowerEntityInfo", true, &Survey::entities, nullptr, 2 * kId, 0,
             &Client::callHidl<&Hidl::getPowerEntityInfo, stats_V1_0::PowerEntityInfo>},
            {"getPowerEntityStateInfo", true, &Survey::stateLists, &Survey::entities, kId, kId,
             &Client::callHidl<&Hidl::getPowerEntityStateInfo, stats_V1_0::PowerEntityStateSpace,
                               HidlIds>},
            {"getEnergyData", false, &Survey::energies, &Survey::rails, kId + 2 * kNumber, 0,
             &Client::callHidl<&Hidl::getEnergyData, stats_V1_0::EnergyData, HidlIds>},
            {"getPowerEntityStateResidencyData", false, &Survey::residencies, &Survey::entities,
             kId, kId + 3 * kNumber,
             &Client::callHidl<&Hidl::getPowerEntityStateResidencyData,
                               stats_V1_0::PowerEntityStateResidencyResult, HidlIds>}};
        return mSurvey.hal == Hal::kAidl ? aidl : hidl;
    }

    void askAll(bool forLists) {
        for (const Method& method : methods()) {
            if (method.isList == forLists) ask(method, Request::kAll, {});
        }
    }

    /// Makes one call, and adds its answer to the survey.
    void ask(const Method& method, Request request, const std::vector<int64_t>& ids) {
        if (steady_clock::now() > mProgress->end || mProgress->bytes > kMostBytes) {
            mProgress->isCut = true;
        }
        if (mProgress->isGone || mProgress->isCut) return;
        Answer answer{method.name, request, ids, mThread};
        answer.beforeMs = toMilliseconds(readMoment().time);
        mBefore = steady_clock::now();
        if (mAidl == nullptr && mHidl == nullptr) {
            finish({Failure::Kind::kGone, "the service is gone"}, &answer);
        } else {
            (this->*method.call)(&answer);
        }
        for (const Record& record : answer.records) {
            answer.bytes += sizeOf(record, method.numbers, method.stateNumbers);
        }
        sortById(&answer.records);
        mProgress->bytes += answer.bytes;
        const std::lock_guard<std::mutex> lock(mProgress->mutex);
        (mSurvey.*method.answers).push_back(std::move(answer));
    }

    /// Calls a method of the AIDL service.
    /// @tparam Ids the type of the list that it takes; left out for a method without one.
    template <auto kMethod, typename From, typename... Ids>
    void callAidl(Answer* answer) {
        std::vector<From> records;
        const ndk::ScopedAStatus status =
            (mAidl.get()->*kMethod)(Ids(answer->ids.begin(), answer->ids.end())..., &records);
        finish(failureOf(status), answer);
        keep(records, answer);
        if (status.get() != nullptr && status.getExceptionCode() == EX_ILLEGAL_ARGUMENT) {
            answer->outcome = Outcome::kIllegalArgument;
        }
    }

    /// The same for HIDL, whose methods hand their answer to a function.
    template <auto kMethod, typename From, typename... Ids>
    void callHidl(Answer* answer) {
        hidl_vec<From> records;
        auto status = stats_V1_0::Status::SUCCESS;
        const auto copy = [&](const hidl_vec<From>& from, stats_V1_0::Status its) {
            records = from;
            status = its;
        };
        const Return<void> result =
            (mHidl.get()->*kMethod)(Ids(answer->ids.begin(), answer->ids.end())..., copy);
        finish(failureOf(result), answer);
        keep(records, answer);
        if (status == stats_V1_0::Status::SUCCESS) return;
        constexpr const char* kNames[] = {"SUCCESS", "NOT_SUPPORTED", "INVALID_INPUT",
                                          "FILESYSTEM_ERROR", "INSUFFICIENT_RESOURCES"};
        const auto number = static_cast<uint32_t>(status);
        answer->error =
            number < std::size(kNames) ? kNames[number] : fmt::format("status {}", number);
        answer->outcome = status == stats_V1_0::Status::NOT_SUPPORTED   ? Outcome::kNotSupported
                          : status == stats_V1_0::Status::INVALID_INPUT ? Outcome::kIllegalArgument
                                                                        : Outcome::kOtherStatus;
    }

    template <typename List>
    static void keep(const List& records, Answer* answer) {
        answer->records.reserve(records.size());
        for (const auto& record : records) answer->records.push_back(convert(record));
    }

    /// Notes the end of a call, and then how it ended.
    void finish(const Failure& failure, Answer* answer) {
        answer->took = steady_clock::now() - mBefore;
        const Reading after = readMoment();
        answer->afterMs = std::chrono::ceil<milliseconds>(after.time).count();
        answer->suspendedMs = toMilliseconds(after.suspended);
        if (!failure) return;
        using Kind = Failure::Kind;
        if (failure.kind == Kind::kGone || failure.kind == Kind::kTimedOut) {
            mProgress->isGone = true;
        }
        answer->outcome = failure.kind == Kind::kRefused ? Outcome::kRefused : Outcome::kFailed;
        answer->error = failure.text;
    }

    /// Returns a reading of nothing, which has the time.
    Reading readMoment() const {
        if (mProgress->own != nullptr) return mProgress->own->read(kNothing, kNothing);
        Reading moment;
        const nanoseconds running = readKernelClock(CLOCK_MONOTONIC);
        moment.time = readKernelClock(CLOCK_BOOTTIME);
        moment.suspended = moment.time - running;
        return moment;
    }

    const int mThread;
    Progress* const mProgress;
    Survey& mSurvey;
    std::shared_ptr<Aidl> mAidl;
    android::sp<Hidl> mHidl;
    /// The start of the call.
    steady_clock::time_point mBefore;
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
    progress.survey.hal = findAidl() != nullptr ? Hal::kAidl : Hal::kHidl;
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
    progress.survey.isGone = progress.isGone;
    progress.survey.isCut = progress.isCut || isShort;
    return std::move(progress.survey);
}

}  // namespace powerstats
