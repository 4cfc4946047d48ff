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
#include <type_traits>
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

/// The numbers of a record, in the order of its members.
using Numbers = std::vector<int64_t Record::*>;
const Numbers kOfThings = {&Record::id};
const Numbers kOfAidlEnergies = {&Record::id, &Record::stampMs, &Record::durationMs,
                                 &Record::count};
const Numbers kOfHidlEnergies = {&Record::id, &Record::stampMs, &Record::count};
const Numbers kOfStates = {&Record::id, &Record::durationMs, &Record::count, &Record::stampMs};

/// Converts a record of an interface: a number that has no place is left out, the first text is the
/// name, and a list has the states.
/// @tparam kMembers, kStateMembers how many it has, and each of its states.
/// @param bytes [in,out] is increased by the size of its numbers and texts.
template <size_t kMembers, size_t kStateMembers, typename From>
Record convert(const From& from, const Numbers& numbers, size_t* bytes) {
    Record record;
    auto number = numbers.begin();
    auto text = &Record::name;
    const auto take = [&](const auto& member) {
        using Member = std::decay_t<decltype(member)>;
        if constexpr (std::is_integral_v<Member> || std::is_enum_v<Member>) {
            if (number != numbers.end()) record.** number++ = static_cast<int64_t>(member);
            *bytes += sizeof(member);
        } else if constexpr (std::is_convertible_v<Member, std::string>) {
            record.*text = member;
            *bytes += (record.*text).size();
            text = &Record::subsystem;
        } else {
            for (const auto& state : member) {
                record.states.push_back(convert<kStateMembers, 0>(state, numbers, bytes));
            }
        }
    };
    const auto takeAll = [&](const auto&... members) { (take(members), ...); };
    if constexpr (kMembers == 2) {
        const auto& [first, second] = from;
        takeAll(first, second);
    } else if constexpr (kMembers == 3) {
        const auto& [first, second, third] = from;
        takeAll(first, second, third);
    } else {
        const auto& [first, second, third, fourth] = from;
        takeAll(first, second, third, fourth);
    }
    return record;
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

enum class Part { kLists, kFigures };

/// Calls the service from one thread, and keeps the answers.
class Client {
  public:
    Client(int thread, Progress* progress)
        : mThread(thread), mProgress(progress), mSurvey(progress->survey) {
        if (mSurvey.hal == Hal::kAidl) mAidl = findAidl();
        if (mSurvey.hal == Hal::kHidl) mHidl = findHidl();
    }

    void askAll() {
        ask(Part::kLists);
        ask(Part::kFigures);
    }
    /// Asks for the lists, or for the figures of all things in them.
    void ask(Part part) {
        for (const Method& method : methods()) {
            if (method.part == part) ask(method, Request::kAll, {});
        }
    }

    /// Asks for some ids, a repeated one and an unknown one. REQUIRES: ask(Part::kLists) was called
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
        Part part;
        Answers Survey::*answers;
        /// The lists that have the ids that it takes; null when it takes none.
        Answers Survey::*known;
        const Numbers& numbers;
        void (Client::*call)(const Numbers& numbers, Answer* answer);
    };

    const std::vector<Method>& methods() const {
        using AidlIds = std::vector<int32_t>;
        using HidlIds = std::vector<uint32_t>;
        static const std::vector<Method> aidl = {
            {"getEnergyMeterInfo", Part::kLists, &Survey::rails, nullptr, kOfThings,
             &Client::callAidl<&Aidl::getEnergyMeterInfo, stats_aidl::Channel, 3, 0>},
            {"getPowerEntityInfo", Part::kLists, &Survey::entities, nullptr, kOfThings,
             &Client::callAidl<&Aidl::getPowerEntityInfo, stats_aidl::PowerEntity, 3, 2>},
            {"readEnergyMeter", Part::kFigures, &Survey::energies, &Survey::rails, kOfAidlEnergies,
             &Client::callAidl<&Aidl::readEnergyMeter, stats_aidl::EnergyMeasurement, 4, 0,
                               AidlIds>},
            {"getStateResidency", Part::kFigures, &Survey::residencies, &Survey::entities,
             kOfStates,
             &Client::callAidl<&Aidl::getStateResidency, stats_aidl::StateResidencyResult, 2, 4,
                               AidlIds>}};
        static const std::vector<Method> hidl = {
            {"getRailInfo", Part::kLists, &Survey::rails, nullptr, kOfThings,
             &Client::callHidl<&Hidl::getRailInfo, stats_V1_0::RailInfo, 4, 0>},
            {"getPowerEntityInfo", Part::kLists, &Survey::entities, nullptr, kOfThings,
             &Client::callHidl<&Hidl::getPowerEntityInfo, stats_V1_0::PowerEntityInfo, 3, 0>},
            {"getPowerEntityStateInfo", Part::kLists, &Survey::stateLists, &Survey::entities,
             kOfThings,
             &Client::callHidl<&Hidl::getPowerEntityStateInfo, stats_V1_0::PowerEntityStateSpace, 2,
                               2, HidlIds>},
            {"getEnergyData", Part::kFigures, &Survey::energies, &Survey::rails, kOfHidlEnergies,
             &Client::callHidl<&Hidl::getEnergyData, stats_V1_0::EnergyData, 3, 0, HidlIds>},
            {"getPowerEntityStateResidencyData", Part::kFigures, &Survey::residencies,
             &Survey::entities, kOfStates,
             &Client::callHidl<&Hidl::getPowerEntityStateResidencyData,
                               stats_V1_0::PowerEntityStateResidencyResult, 2, 4, HidlIds>}};
        return mSurvey.hal == Hal::kAidl ? aidl : hidl;
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
            (this->*method.call)(method.numbers, &answer);
        }
        sortById(&answer.records);
        mProgress->bytes += answer.bytes;
        const std::lock_guard<std::mutex> lock(mProgress->mutex);
        (mSurvey.*method.answers).push_back(std::move(answer));
    }

    /// Calls a method of the AIDL service.
    /// @tparam Ids the type of the list that it takes; left out for a method without one.
    template <auto kMethod, typename From, size_t kMembers, size_t kStateMembers, typename... Ids>
    void callAidl(const Numbers& numbers, Answer* answer) {
        std::vector<From> records;
        const ndk::ScopedAStatus status =
            (mAidl.get()->*kMethod)(Ids(answer->ids.begin(), answer->ids.end())..., &records);
        finish(failureOf(status), answer);
        for (const From& record : records) {
            answer->records.push_back(
                convert<kMembers, kStateMembers>(record, numbers, &answer->bytes));
        }
        if (status.get() != nullptr && status.getExceptionCode() == EX_ILLEGAL_ARGUMENT) {
            answer->outcome = Outcome::kIllegalArgument;
        }
    }

    /// The same for HIDL, whose methods hand their answer to a function.
    template <auto kMethod, typename From, size_t kMembers, size_t kStateMembers, typename... Ids>
    void callHidl(const Numbers& numbers, Answer* answer) {
        hidl_vec<From> records;
        auto status = stats_V1_0::Status::SUCCESS;
        const auto copy = [&](const hidl_vec<From>& from, stats_V1_0::Status its) {
            records = from;
            status = its;
        };
        const Return<void> result =
            (mHidl.get()->*kMethod)(Ids(answer->ids.begin(), answer->ids.end())..., copy);
        finish(failureOf(result), answer);
        for (const From& record : records) {
            answer->records.push_back(
                convert<kMembers, kStateMembers>(record, numbers, &answer->bytes));
        }
        // Without a duration, all energy is since boot.
        for (Record& record : answer->records) record.durationMs = record.stampMs;
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
    client.ask(Part::kLists);
    bool isShort = false;
    for (;;) {
        client.ask(Part::kFigures);
        const Seconds left = duration - (steady_clock::now() - start);
        // The other half is for the calls that follow.
        isShort = progress.bytes > kMostBytes / 2;
        if (progress.isGone || isShort || left.count() <= 0) break;
        std::this_thread::sleep_for(std::min(left, std::max(kLeastPause, duration / kReadings)));
    }
    client.askForIds();
    std::vector<std::thread> threads;
    threads.reserve(kThreadsAtOnce);
    for (int i = 1; i <= kThreadsAtOnce; ++i) {
        threads.emplace_back([&progress, i] {
            constexpr int kRounds = 5;
            host::useOwnBusConnections();
            Client atOnce(i, &progress);
            for (int round = 0; round < kRounds; ++round) atOnce.askAll();
        });
    }
    for (std::thread& thread : threads) thread.join();
    Client(0, &progress).askAll();
    progress.survey.isGone = progress.isGone;
    progress.survey.isCut = progress.isCut || isShort;
    return std::move(progress.survey);
}

}  // namespace powerstats
