// SPDX-License-Identifier: Apache-2.0

#include "bench/FixedService.h"

#include <aidl/android/hardware/power/stats/BnPowerStats.h>
#include <android/binder_manager.h>
#include <fmt/format.h>
#include <host/BusServer.h>
#include <host/ServiceControl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace bench {
namespace {

namespace stats = ::aidl::android::hardware::power::stats;
namespace stats_V1_0 = ::android::hardware::power::stats::V1_0;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;

constexpr char kSubsystem[] = "a subsystem";
constexpr int64_t kSinceBootMs = 86400000;

// Values of the sizes that a device has after a day.
int64_t energyUws(int rail) {
    return 1000000000 + 12345678LL * (rail % 1000);
}
int64_t timeMs(int state) {
    return 5000000 + 97777LL * state;
}
int64_t entries(int state) {
    return 300 + 41LL * state;
}

struct AidlAnswers {
    explicit AidlAnswers(const Workload& workload) {
        const Names names(workload);
        for (int i = 0; i < workload.elements; ++i) {
            const std::string& name = names.elements[i];
            if (workload.call == Call::kRails) {
                channels.push_back({i, name, kSubsystem});
                measurements.push_back({i, kSinceBootMs, kSinceBootMs, energyUws(i)});
                continue;
            }
            stats::PowerEntity entity{i, name, {}};
            stats::StateResidencyResult result{i, {}};
            for (int j = 0; j < workload.states; ++j) {
                entity.states.push_back({j, names.states[i][j]});
                result.stateResidencyData.push_back({j, timeMs(j), entries(j), kSinceBootMs});
            }
            entities.push_back(std::move(entity));
            residencies.push_back(std::move(result));
        }
    }

    std::vector<stats::Channel> channels;
    std::vector<stats::EnergyMeasurement> measurements;
    std::vector<stats::PowerEntity> entities;
    std::vector<stats::StateResidencyResult> residencies;
};

class FixedAidl : public stats::BnPowerStats {
  public:
    using Status = ndk::ScopedAStatus;
    template <typename T>
    using Vector = std::vector<T>;

    explicit FixedAidl(std::shared_ptr<const AidlAnswers> answers) : mAnswers(std::move(answers)) {}

    Status getPowerEntityInfo(Vector<stats::PowerEntity>* answer) override {
        return give(mAnswers->entities, answer);
    }
    Status getStateResidency(const Vector<int32_t>&,
                             Vector<stats::StateResidencyResult>* answer) override {
        return give(mAnswers->residencies, answer);
    }
    Status getEnergyMeterInfo(Vector<stats::Channel>* answer) override {
        return give(mAnswers->channels, answer);
    }
    Status readEnergyMeter(const Vector<int32_t>&,
                           Vector<stats::EnergyMeasurement>* answer) override {
        return give(mAnswers->measurements, answer);
    }
    Status getEnergyConsumerInfo(Vector<stats::EnergyConsumer>*) override { return Status::ok(); }
    Status getEnergyConsumed(const Vector<int32_t>&,
                             Vector<stats::EnergyConsumerResult>*) override {
        return Status::ok();
    }

  private:
    template <typename Record>
    static Status give(const Vector<Record>& records, Vector<Record>* answer) {
        *answer = records;
        return Status::ok();
    }

    const std::shared_ptr<const AidlAnswers> mAnswers;
};

struct HidlAnswers {
    explicit HidlAnswers(const Workload& workload) {
        const Names names(workload);
        std::vector<stats_V1_0::RailInfo> allRails;
        std::vector<stats_V1_0::EnergyData> allEnergies;
        std::vector<stats_V1_0::PowerEntityInfo> allEntities;
        std::vector<stats_V1_0::PowerEntityStateSpace> allSpaces;
        std::vector<stats_V1_0::PowerEntityStateResidencyResult> allResidencies;
        for (int i = 0; i < workload.elements; ++i) {
            const auto id = static_cast<uint32_t>(i);
            const std::string& name = names.elements[i];
            allRails.push_back({id, name, kSubsystem, 10});
            allEnergies.push_back({id, kSinceBootMs, static_cast<uint64_t>(energyUws(i))});
            std::vector<stats_V1_0::PowerEntityStateInfo> states;
            std::vector<stats_V1_0::PowerEntityStateResidencyData> totals;
            for (int j = 0; j < workload.states; ++j) {
                states.push_back({static_cast<uint32_t>(j), names.states[i][j]});
                totals.push_back({static_cast<uint32_t>(j), static_cast<uint64_t>(timeMs(j)),
                                  static_cast<uint64_t>(entries(j)), kSinceBootMs});
            }
            allEntities.push_back({id, name});
            allSpaces.push_back({id, states});
            allResidencies.push_back({id, totals});
        }
        // The library asks for entities before anything else, whatever is asked of it.
        if (workload.call == Call::kRails) {
            rails = allRails;
            energies = allEnergies;
            entities = {{0, "SOC"}};
            spaces = {{0, {{0, "ON"}}}};
        } else {
            entities = allEntities;
            spaces = allSpaces;
            residencies = allResidencies;
        }
    }

    hidl_vec<stats_V1_0::RailInfo> rails;
    hidl_vec<stats_V1_0::EnergyData> energies;
    hidl_vec<stats_V1_0::PowerEntityInfo> entities;
    hidl_vec<stats_V1_0::PowerEntityStateSpace> spaces;
    hidl_vec<stats_V1_0::PowerEntityStateResidencyResult> residencies;
};

class FixedHidl : public stats_V1_0::IPowerStats {
  public:
    using Ids = hidl_vec<uint32_t>;

    explicit FixedHidl(std::shared_ptr<const HidlAnswers> answers) : mAnswers(std::move(answers)) {}

    Return<void> getRailInfo(getRailInfo_cb callback) override {
        return give(mAnswers->rails, callback);
    }
    Return<void> getEnergyData(const Ids&, getEnergyData_cb callback) override {
        return give(mAnswers->energies, callback);
    }
    Return<void> streamEnergyData(uint32_t, uint32_t, streamEnergyData_cb) override {
        return Void();
    }
    Return<void> getPowerEntityInfo(getPowerEntityInfo_cb callback) override {
        return give(mAnswers->entities, callback);
    }
    Return<void> getPowerEntityStateInfo(const Ids&, getPowerEntityStateInfo_cb callback) override {
        return give(mAnswers->spaces, callback);
    }
    Return<void> getPowerEntityStateResidencyData(
        const Ids&, getPowerEntityStateResidencyData_cb callback) override {
        return give(mAnswers->residencies, callback);
    }

  private:
    template <typename Records, typename Callback>
    static Return<void> give(const Records& records, const Callback& callback) {
        callback(records, stats_V1_0::Status::SUCCESS);
        return Void();
    }

    const std::shared_ptr<const HidlAnswers> mAnswers;
};

}  // namespace

std::function<std::shared_ptr<AidlPowerStats>()> aidlServices(const Workload& workload) {
    return [answers = std::make_shared<const AidlAnswers>(workload)] {
        return ndk::SharedRefBase::make<FixedAidl>(answers);
    };
}

std::function<::android::sp<HidlPowerStats>()> hidlServices(const Workload& workload) {
    return [answers = std::make_shared<const HidlAnswers>(workload)] {
        return ::android::sp<HidlPowerStats>(new FixedHidl(answers));
    };
}

RegisteredService::RegisteredService(const Workload& workload)
    : mName(workload.backend == Backend::kAidl ? host::kAidlPowerStats : host::kHidlPowerStats) {
    if (workload.backend == Backend::kAidl) {
        mServe = [make = aidlServices(workload)] {
            AServiceManager_addService(make()->asBinder().get(), host::kAidlPowerStats);
        };
    } else {
        mServe = [make = hidlServices(workload)] {
            if (make()->registerAsService() != ::android::OK) std::abort();
        };
    }
    mServe();
}

RegisteredService::~RegisteredService() {
    host::killService(mName);
    if (!host::waitForDeathNotices()) std::abort();
}

void RegisteredService::restart() {
    host::killService(mName);
    if (!host::waitForDeathNotices()) std::abort();
    mServe();
}

int serveOnBus(const Workload& workload) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);  // a benchmark that is interrupted leaves nothing behind
    std::string error;
    const auto server = host::BusServer::connect(host::Bus::kSession, &error);
    const bool served =
        server != nullptr &&
        (workload.backend == Backend::kAidl ? server->add(aidlServices(workload)(), &error)
                                            : server->add(hidlServices(workload)(), &error)) &&
        write(STDOUT_FILENO, "\n", 1) == 1 && server->run(&error);
    if (!served) fmt::print(stderr, "powerstats_bench: {}\n", error);
    return served ? 0 : 1;
}

}  // namespace bench
