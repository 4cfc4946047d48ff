// SPDX-License-Identifier: Apache-2.0

#include "tools/Survey.h"

#include <host/ServiceControl.h>

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

#include "hal/CounterSources.h"

namespace powerstats {

namespace {

namespace stats_aidl = aidl::android::hardware::power::stats;
namespace stats_V1_0 = android::hardware::power::stats::V1_0;
using android::hardware::hidl_vec;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using Request = Survey::Request;
using Outcome = Survey::Outcome;
using Ids = std::vector<int64_t>;

/// Milliseconds since boot.
struct Moment {
    int64_t floorMs;
    int64_t ceilMs;
    int64_t suspendedMs;
};

Moment readMoment() {
    if (const Replay* const replay = ownReplay()) {
        // The recording tells its time only with its residencies.
        replay->counters->readEntities({});
        const int64_t now = replay->counters->timestampMs();
        return {now, now, 0};
    }
    const nanoseconds running = readKernelClock(CLOCK_MONOTONIC);
    const nanoseconds now = readKernelClock(CLOCK_BOOTTIME);
    return {std::chrono::floor<milliseconds>(now).count(),
            std::chrono::ceil<milliseconds>(now).count(),
            std::chrono::floor<milliseconds>(now - running).count()};
}

template <typename Id>
std::vector<Id> cast(const Ids& ids) {
    return std::vector<Id>(ids.begin(), ids.end());
}

constexpr size_t kId = 4;
constexpr size_t kNumber = 8;

// Each converts one record of an interface, and returns the size of its numbers and texts.
size_t convert(const stats_aidl::Channel& from, Survey::Rail* to) {
    *to = {from.id, from.name, from.subsystem};
    return kId + from.name.size() + from.subsystem.size();
}
size_t convert(const stats_V1_0::RailInfo& from, Survey::Rail* to) {
    *to = {from.index, from.railName, from.subsysName};
    return 2 * kId + from.railName.size() + from.subsysName.size();
}
size_t convert(const stats_aidl::PowerEntity& from, Survey::Entity* to) {
    *to = {from.id, from.name, {}};
    size_t size = kId + from.name.size();
    for (const auto& state : from.states) {
        to->states.push_back({state.id, state.name});
        size += kId + state.name.size();
    }
    return size;
}
size_t convert(const stats_V1_0::PowerEntityInfo& from, Survey::Entity* to) {
    *to = {from.powerEntityId, from.powerEntityName, {}};
    return 2 * kId + from.powerEntityName.size();
}
size_t convert(const stats_V1_0::PowerEntityStateSpace& from, Survey::Entity* to) {
    *to = {from.powerEntityId, "", {}};
    size_t size = kId;
    for (const auto& state : from.states) {
        to->states.push_back({state.powerEntityStateId, state.powerEntityStateName});
        size += kId + state.powerEntityStateName.size();
    }
    return size;
}
size_t convert(const stats_aidl::EnergyMeasurement& from, Survey::Energy* to) {
    *to = {from.id, from.timestampMs, from.durationMs, from.energyUWs};
    return kId + 3 * kNumber;
}
size_t convert(const stats_V1_0::EnergyData& from, Survey::Energy* to) {
    const auto timestampMs = static_cast<int64_t>(from.timestamp);
    *to = {from.index, timestampMs, timestampMs, static_cast<int64_t>(from.energy)};
    return kId + 2 * kNumber;
}
size_t convert(const stats_aidl::StateResidencyResult& from, Survey::Residency* to) {
    to->id = from.id;
    for (const auto& state : from.stateResidencyData) {
        to->states.push_back({state.id, state.totalTimeInStateMs, state.totalStateEntryCount,
                              state.lastEntryTimestampMs});
    }
    return kId + to->states.size() * (kId + 3 * kNumber);
}
size_t convert(const stats_V1_0::PowerEntityStateResidencyResult& from, Survey::Residency* to) {
    to->id = from.powerEntityId;
    for (const auto& state : from.stateResidencyData) {
        to->states.push_back({state.powerEntityStateId,
                              static_cast<int64_t>(state.totalTimeInStateMs),
                              static_cast<int64_t>(state.totalStateEntryCount),
                              static_cast<int64_t>(state.lastEntryTimestampMs)});
    }
    return kId + to->states.size() * (kId + 3 * kNumber);
}

/// Answers of so many bytes are kept, because a service may send any number of records. It is
/// enough for 10,000 rails.
constexpr size_t kMostBytes = 32 << 20;

/// Of all clients of a survey.
struct Progress {
    const steady_clock::time_point end;
    /// No call begins when one of these is set.
    std::atomic<bool> isGone{false};
    std::atomic<bool> isCut{false};
    /// Whether the readings over time ended early.
    bool isShort = false;
    std::atomic<size_t> bytes{0};
    std::optional<Survey::Hal> hal = {};
};

template <typename Record>
void sortById(std::vector<Record>* records) {
    std::stable_sort(records->begin(), records->end(),
                     [](const Record& a, const Record& b) { return a.id < b.id; });
    if constexpr (std::is_same_v<Record, Survey::Entity> ||
                  std::is_same_v<Record, Survey::Residency>) {
        for (Record& record : *records) sortById(&record.states);
    }
}

/// Calls the service from one thread, and keeps the answers.
class Client {
  public:
    Client(int thread, Progress* progress) : mThread(thread), mProgress(progress) {
        using Hal = Survey::Hal;
        if (progress->hal != Hal::kHidl) mAidl = findAidl();
        if (mAidl == nullptr && progress->hal != Hal::kAidl) mHidl = findHidl();
        survey.hal = progress->hal.value_or(mAidl != nullptr ? Hal::kAidl : Hal::kHidl);
    }

    void askLists() {
        if (mAidl != nullptr) {
            ask<stats_aidl::Channel>(
                "getEnergyMeterInfo", {}, &survey.rails,
                [&](const Ids&, auto* records) { return mAidl->getEnergyMeterInfo(records); });
            ask<stats_aidl::PowerEntity>(
                "getPowerEntityInfo", {}, &survey.entities,
                [&](const Ids&, auto* records) { return mAidl->getPowerEntityInfo(records); });
            return;
        }
        askHidl<stats_V1_0::RailInfo>(
            "getRailInfo", {}, &survey.rails,
            [&](const Ids&, const auto& note) { return mHidl->getRailInfo(note); });
        askHidl<stats_V1_0::PowerEntityInfo>(
            "getPowerEntityInfo", {}, &survey.entities,
            [&](const Ids&, const auto& note) { return mHidl->getPowerEntityInfo(note); });
        askStates({});
    }

    void askReadings() {
        askEnergies({});
        askResidencies({});
    }

    /// Asks for some ids, a repeated one and an unknown one. REQUIRES: askLists() was called
    void askForIds() {
        askForIds(survey.rails, &Client::askEnergies);
        askForIds(survey.entities, &Client::askResidencies);
        if (mHidl != nullptr) askForIds(survey.entities, &Client::askStates);
    }

    Survey survey;

  private:
    struct Asked {
        Request request = Request::kAll;
        Ids ids = {};
    };

    void askEnergies(const Asked& asked) {
        if (mAidl != nullptr) {
            ask<stats_aidl::EnergyMeasurement>(
                "readEnergyMeter", asked, &survey.energies, [&](const Ids& ids, auto* records) {
                    return mAidl->readEnergyMeter(cast<int32_t>(ids), records);
                });
        } else {
            askHidl<stats_V1_0::EnergyData>(
                "getEnergyData", asked, &survey.energies, [&](const Ids& ids, const auto& note) {
                    return mHidl->getEnergyData(cast<uint32_t>(ids), note);
                });
        }
    }
    void askResidencies(const Asked& asked) {
        if (mAidl != nullptr) {
            ask<stats_aidl::StateResidencyResult>("getStateResidency", asked, &survey.residencies,
                                                  [&](const Ids& ids, auto* records) {
                                                      return mAidl->getStateResidency(
                                                          cast<int32_t>(ids), records);
                                                  });
        } else {
            askHidl<stats_V1_0::PowerEntityStateResidencyResult>(
                "getPowerEntityStateResidencyData", asked, &survey.residencies,
                [&](const Ids& ids, const auto& note) {
                    return mHidl->getPowerEntityStateResidencyData(cast<uint32_t>(ids), note);
                });
        }
    }
    void askStates(const Asked& asked) {
        askHidl<stats_V1_0::PowerEntityStateSpace>(
            "getPowerEntityStateInfo", asked, &survey.stateLists,
            [&](const Ids& ids, const auto& note) {
                return mHidl->getPowerEntityStateInfo(cast<uint32_t>(ids), note);
            });
    }

    template <typename Record>
    void askForIds(const std::vector<Survey::Answer<Record>>& lists,
                   void (Client::*askFor)(const Asked&)) {
        if (lists.empty() || lists.front().records.empty()) return;
        Ids some;
        int64_t unknown = INT32_MAX;
        const std::vector<Record>& known = lists.front().records;
        for (size_t i = 0; i < known.size(); ++i) {
            if (i % 2 == 0) some.push_back(known[i].id);
            const Record& fromLast = known[known.size() - 1 - i];
            if (fromLast.id == unknown) --unknown;
        }
        (this->*askFor)({Request::kSome, some});
        (this->*askFor)({Request::kRepeated, {some.front(), some.front()}});
        (this->*askFor)({Request::kUnknown, {unknown}});
    }

    /// Makes one call, and adds its answer to the survey.
    template <typename Source, typename Record, typename Method>
    void ask(const char* method, const Asked& asked, std::vector<Survey::Answer<Record>>* answers,
             const Method& call) {
        if (steady_clock::now() > mProgress->end || mProgress->bytes > kMostBytes) {
            mProgress->isCut = true;
        }
        if (mProgress->isGone || mProgress->isCut) return;
        Survey::Answer<Record> answer;
        answer.method = method;
        answer.request = asked.request;
        answer.ids = asked.ids;
        answer.thread = mThread;
        std::vector<Source> records;
        answer.beforeMs = readMoment().floorMs;
        const auto before = steady_clock::now();
        if (mAidl == nullptr && mHidl == nullptr) {
            mProgress->isGone = true;
            fail("the service is gone", &answer);
        } else {
            note(call(asked.ids, &records), &answer);
        }
        const auto took = steady_clock::now() - before;
        const Moment after = readMoment();
        answer.afterMs = after.ceilMs;
        answer.suspendedMs = after.suspendedMs;
        answer.tookMs = std::chrono::duration<double, std::milli>(took).count();
        for (const Source& record : records) {
            answer.bytes += convert(record, &answer.records.emplace_back());
        }
        sortById(&answer.records);
        mProgress->bytes += answer.bytes;
        answers->push_back(std::move(answer));
    }

    /// The same for HIDL, whose methods hand their answer to a function.
    template <typename Source, typename Record, typename Method>
    void askHidl(const char* method, const Asked& asked,
                 std::vector<Survey::Answer<Record>>* answers, const Method& call) {
        const auto copying = [&](const Ids& ids, std::vector<Source>* records) {
            mStatus = stats_V1_0::Status::SUCCESS;
            return call(ids, [&](const hidl_vec<Source>& answer, stats_V1_0::Status status) {
                records->assign(answer.begin(), answer.end());
                mStatus = status;
            });
        };
        ask<Source>(method, asked, answers, copying);
    }

    void note(const ndk::ScopedAStatus& status, Survey::Call* call) {
        if (status.isOk()) return;
        if (status.get() == nullptr) {
            fail("the call returned no status", call);
            return;
        }
        if (status.getStatus() == STATUS_DEAD_OBJECT || status.getStatus() == STATUS_TIMED_OUT) {
            mProgress->isGone = true;
        }
        fail(status.getDescription(), call);
        if (status.getExceptionCode() == EX_ILLEGAL_ARGUMENT) {
            call->outcome = Outcome::kIllegalArgument;
        } else if (status.getStatus() == STATUS_PERMISSION_DENIED) {
            call->outcome = Outcome::kRefused;
        }
    }
    void note(const android::hardware::Return<void>& result, Survey::Call* call) {
        if (!result.isOk()) {
            fail(result.description(), call);
            if (result.isDeadObject() || call->error.find("TIMED_OUT") != std::string::npos) {
                mProgress->isGone = true;
            }
            if (call->error.find("PERMISSION_DENIED") != std::string::npos) {
                call->outcome = Outcome::kRefused;
            }
            return;
        }
        if (mStatus == stats_V1_0::Status::SUCCESS) return;
        constexpr const char* kNames[] = {"SUCCESS", "NOT_SUPPORTED", "INVALID_INPUT",
                                          "FILESYSTEM_ERROR", "INSUFFICIENT_RESOURCES"};
        const auto number = static_cast<uint32_t>(mStatus);
        call->error =
            number < std::size(kNames) ? kNames[number] : fmt::format("status {}", number);
        call->outcome = mStatus == stats_V1_0::Status::NOT_SUPPORTED   ? Outcome::kNotSupported
                        : mStatus == stats_V1_0::Status::INVALID_INPUT ? Outcome::kIllegalArgument
                                                                       : Outcome::kOtherStatus;
    }
    static void fail(const std::string& error, Survey::Call* call) {
        call->outcome = Outcome::kFailed;
        call->error = error;
    }

    const int mThread;
    Progress* const mProgress;
    std::shared_ptr<stats_aidl::IPowerStats> mAidl;
    android::sp<stats_V1_0::IPowerStats> mHidl;
    /// Of the latest HIDL call that was answered.
    stats_V1_0::Status mStatus{};
};

template <typename Record>
void append(const std::vector<Survey::Answer<Record>>& from,
            std::vector<Survey::Answer<Record>>* to) {
    to->insert(to->end(), from.begin(), from.end());
}

void append(const Survey& from, Survey* to) {
    append(from.rails, &to->rails);
    append(from.entities, &to->entities);
    append(from.stateLists, &to->stateLists);
    append(from.energies, &to->energies);
    append(from.residencies, &to->residencies);
}

/// Calls the service on several threads at once.
void askAtOnce(Progress* progress, Survey* survey) {
    constexpr int kRounds = 5;
    std::vector<Survey> surveys(kThreadsAtOnce);
    std::vector<std::thread> threads;
    threads.reserve(kThreadsAtOnce);
    for (int i = 0; i < kThreadsAtOnce; ++i) {
        threads.emplace_back([&, i] {
            host::useOwnBusConnections();
            Client client(i + 1, progress);
            for (int round = 0; round < kRounds; ++round) {
                client.askLists();
                client.askReadings();
            }
            surveys[i] = std::move(client.survey);
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const Survey& part : surveys) append(part, survey);
}

}  // namespace

bool Survey::Rail::operator==(const Rail& other) const {
    return id == other.id && name == other.name && subsystem == other.subsystem;
}

bool Survey::State::operator==(const State& other) const {
    return id == other.id && name == other.name;
}

bool Survey::Entity::operator==(const Entity& other) const {
    return id == other.id && name == other.name && states == other.states;
}

Survey takeSurvey(double durationSeconds, double moreSeconds) {
    using Seconds = std::chrono::duration<double>;
    constexpr double kReadings = 50;
    constexpr Seconds kLeastPause = milliseconds(20);
    const Seconds duration(durationSeconds);
    const auto start = steady_clock::now();
    Progress progress{start + std::chrono::duration_cast<steady_clock::duration>(
                                  duration + Seconds(moreSeconds))};
    Client client(0, &progress);
    progress.hal = client.survey.hal;
    client.askLists();
    for (;;) {
        client.askReadings();
        const Seconds left = duration - (steady_clock::now() - start);
        // The other half is for the calls that follow.
        if (progress.bytes > kMostBytes / 2) progress.isShort = true;
        if (progress.isGone || progress.isShort || left.count() <= 0) break;
        std::this_thread::sleep_for(std::min(left, std::max(kLeastPause, duration / kReadings)));
    }
    client.askForIds();
    Survey survey = std::move(client.survey);
    askAtOnce(&progress, &survey);
    Client last(0, &progress);
    last.askLists();
    last.askReadings();
    append(last.survey, &survey);
    survey.isReplay = ownReplay() != nullptr;
    survey.isGone = progress.isGone;
    survey.isCut = progress.isCut || progress.isShort;
    return survey;
}

}  // namespace powerstats
