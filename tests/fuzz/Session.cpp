// SPDX-License-Identifier: Apache-2.0

#include "tests/fuzz/Session.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <limits>
#include <utility>

namespace fuzz {
namespace {

using support::Entity;
using support::EntityTotals;
using support::Rail;
using support::State;

constexpr size_t kMostSteps = 12;
constexpr int kMostRecords = 4;

constexpr const char* kAidlMethods[] = {"getEnergyMeterInfo", "readEnergyMeter",
                                        "getPowerEntityInfo", "getStateResidency", kLink};
constexpr const char* kHidlMethods[] = {"getRailInfo",
                                        "getEnergyData",
                                        "getPowerEntityInfo",
                                        "getPowerEntityStateInfo",
                                        "getPowerEntityStateResidencyData",
                                        kLink};

/// Where something changes in the conversion of energies, or in the length of a number.
constexpr int64_t kEdges[] = {0,
                              1000,
                              2000,
                              123456789012,
                              2147483583000,
                              2147483647000,
                              2147483648000,
                              -2147483648000,
                              -2147483904000,
                              3000000000000,
                              int64_t{1} << 24,
                              int64_t{1} << 32,
                              std::numeric_limits<int64_t>::max() - 1024,
                              std::numeric_limits<int64_t>::min() + 1024};

class Decoder {
  public:
    Decoder(const uint8_t* data, size_t size) : mData(data, size) {}

    Session session() {
        Session session;
        const int services = mData.ConsumeIntegralInRange(0, 11);
        constexpr int kBoth = 10;
        constexpr int kNone = 11;
        mMain = services < 5 ? Backend::kAidl : Backend::kHidl;
        if (services < 5 || services == kBoth) session.push_back(serve(Backend::kAidl));
        if (services >= 5 && services != kNone) session.push_back(serve(Backend::kHidl));
        do {
            session.push_back(step());
            const auto action = session.back().action;
            const bool isGone =
                action == Step::Action::kKill || action == Step::Action::kUnregister;
            if (isGone && !oneIn(8)) session.push_back(serve(session.back().backend));
        } while (mData.remaining_bytes() != 0 && session.size() < kMostSteps);
        return session;
    }

  private:
    // Where the bytes have run out, every choice is the first: the ordinary one.

    bool oneIn(int chances) { return mData.ConsumeIntegralInRange(1, chances) == chances; }

    Step step() {
        Step step;
        step.backend = oneIn(8) ? Backend::kHidl : mMain;
        switch (mData.ConsumeIntegralInRange(0, 11)) {
            case 8:
                return serve(step.backend);
            case 9:
                step.action = Step::Action::kChange;
                step.facts = facts();
                return step;
            case 10:
                step.action = oneIn(2) ? Step::Action::kUnregister : Step::Action::kKill;
                return step;
            case 11:
                step.action = Step::Action::kKill;
                return step;
            default:
                return call(std::move(step));
        }
    }

    Step call(Step step) {
        step.call = mData.ConsumeBool() ? Call::kRails : Call::kResidencies;
        while (step.troubles.size() < 3 && oneIn(4)) {
            Trouble made = trouble(step.backend);
            const auto isSame = [&](const Trouble& it) { return it.method == made.method; };
            if (std::none_of(step.troubles.begin(), step.troubles.end(), isSame)) {
                step.troubles.push_back(std::move(made));
            }
        }
        if (!oneIn(16)) {
            const bool any = oneIn(4);
            step.clock = timespec{
                any ? mData.ConsumeIntegralInRange<time_t>(0, 9'000'000'000'000'000) : 123456,
                any ? mData.ConsumeIntegralInRange<int32_t>(0, 999'999'999) : 789'999'999};
        }
        step.heapIsFull = oneIn(32);
        return step;
    }

    Step serve(Backend backend) {
        Step step;
        step.action = Step::Action::kServe;
        step.backend = backend;
        step.facts = facts();
        return step;
    }

    Trouble trouble(Backend backend) {
        Trouble trouble;
        trouble.method = backend == Backend::kAidl ? mData.PickValueInArray(kAidlMethods)
                                                   : mData.PickValueInArray(kHidlMethods);
        trouble.kind = mData.PickValueInArray({Trouble::Kind::kStatus, Trouble::Kind::kStatus,
                                               Trouble::Kind::kTransport, Trouble::Kind::kDeath});
        if (trouble.method == kLink) trouble.kind = Trouble::Kind::kTransport;
        if (trouble.kind == Trouble::Kind::kStatus) {
            trouble.status = backend == Backend::kAidl
                                 ? static_cast<uint32_t>(-mData.ConsumeIntegralInRange(0, 9))
                                 : mData.PickValueInArray({1U, 1U, 0U, 2U, 3U, 4U, 77U});
        } else {
            // With 0 the transaction succeeds, and yet nothing has been answered.
            trouble.failure.exceptionCode = mData.PickValueInArray({-129, -129, -129, 0, -1, -32});
            trouble.failure.transactionError =
                mData.PickValueInArray({-32, -32, -1, 0, -129, 777, -110});
            trouble.failure.message = text();
            trouble.failure.withoutStatus = oneIn(8);
        }
        return trouble;
    }

    /// Some of what was told last, in part told anew, so that ids known before come up again.
    Facts facts() {
        support::Machine& machine = mLast.machine;
        const int parts = mHasTold ? mData.ConsumeIntegralInRange(0, 15) : 0;
        mHasTold = true;
        if ((parts & 1) == 0) machine.rails = list<Rail>([this] { return Rail{small(), text()}; });
        if ((parts & 2) == 0) {
            machine.energies = list<support::Energy>([&] { return energy(machine.rails); });
        }
        if ((parts & 4) == 0) machine.entities = entities();
        if ((parts & 8) == 0) {
            machine.totals = list<EntityTotals>([&] { return totals(machine.entities); });
        }
        if (oneIn(4)) {
            mLast.stateSpaces = oneIn(2) ? std::optional(entities()) : std::nullopt;
        }
        return mLast;
    }

    std::vector<Entity> entities() {
        return list<Entity>([this] {
            Entity entity{small(), text()};
            entity.states = list<State>([this] { return State{small(), text()}; });
            return entity;
        });
    }

    support::Energy energy(const std::vector<Rail>& rails) {
        support::Energy energy;
        energy.id = idOf(rails);
        energy.microwattSeconds = static_cast<uint64_t>(number());
        if (oneIn(4)) energy.durationMs = number();
        if (oneIn(8)) energy.timestampMs = number();
        return energy;
    }

    EntityTotals totals(const std::vector<Entity>& entities) {
        EntityTotals totals{idOf(entities)};
        const auto entity = std::find_if(entities.begin(), entities.end(),
                                         [&](const Entity& it) { return it.id == totals.id; });
        if (entity != entities.end() && entity->states.empty() && !oneIn(16)) return totals;
        totals.states = list<support::StateTotals>([&] {
            support::StateTotals state;
            state.id = entity != entities.end() ? idOf(entity->states) : small();
            state.timeMs = static_cast<uint64_t>(number());
            state.entries = static_cast<uint64_t>(number());
            if (oneIn(8)) state.lastEntryMs = static_cast<uint64_t>(number());
            return state;
        });
        return totals;
    }

    /// An id that was announced, or, rarely, whatever comes up.
    template <typename Announced>
    uint32_t idOf(const std::vector<Announced>& announced) {
        if (announced.empty() || oneIn(32)) return small();
        return announced[mData.ConsumeIntegralInRange<size_t>(0, announced.size() - 1)].id;
    }

    uint32_t small() {
        const auto value = mData.ConsumeIntegralInRange<uint8_t>(0, 63);
        return value < 60 ? value % 4 : mData.ConsumeIntegral<uint32_t>();
    }

    int64_t number() {
        if (oneIn(4)) return mData.ConsumeIntegral<int64_t>();
        return mData.PickValueInArray(kEdges) + mData.ConsumeIntegralInRange(-1024, 1023);
    }

    /// Mostly short; now and then one whose length takes two bytes.
    std::string text() {
        const auto kind = mData.ConsumeIntegralInRange<uint8_t>(0, 31);
        if (kind == 31) return std::string(mData.ConsumeIntegralInRange(100, 1500), 'n');
        std::string text = mData.ConsumeBytesAsString(kind % 8);
        if (kind == 30) text += std::string("\0z", 2);
        return text;
    }

    template <typename Record, typename Make>
    std::vector<Record> list(Make make) {
        std::vector<Record> records;
        if (oneIn(16)) return records;
        const int count = mData.ConsumeIntegralInRange(1, kMostRecords);
        for (int i = 0; i < count; ++i) records.push_back(make());
        return records;
    }

    FuzzedDataProvider mData;
    Backend mMain = Backend::kAidl;
    Facts mLast;
    bool mHasTold = false;
};

}  // namespace

Session decodeSession(const uint8_t* data, size_t size) {
    return Decoder(data, size).session();
}

}  // namespace fuzz
