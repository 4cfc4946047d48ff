// SPDX-License-Identifier: Apache-2.0
//
// Every way in which a call ends the process instead of returning.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <climits>
#include <functional>
#include <stdexcept>
#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/Scenario.h"

namespace support {
namespace {

const char kUnknownId[] =
    "clock\n"
    "out_of_range was thrown in -fno-exceptions mode with message "
    "\"unordered_map::at: key not found\"\n"
    "abort message: out_of_range was thrown in -fno-exceptions mode with message "
    "\"unordered_map::at: key not found\"\n";
const char kUnexamined[] =
    "F/HidlStatus: Failed HIDL return status not checked. "
    "Error is: Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'\n";
const char kNoEntities[] =
    "E: getResidenciesV1_0 failed: No residences were obtained from PowerStats HAL.\n"
    "NewByteArray(0)\n";

struct EndCase {
    const char* name;
    Backend backend;
    Call call;
    /// What happens between a good call and the last.
    std::function<void(Scenario& scenario)> script;
    std::string errors;  ///< all that the last call writes

    friend std::ostream& operator<<(std::ostream& out, const EndCase& test) {
        return out << test.name;
    }
};

Machine& machineOf(Scenario& scenario) {
    return scenario.aidl != nullptr ? scenario.aidl->machine : scenario.hidl->machine;
}
void unknownRail(Scenario& scenario) {
    machineOf(scenario).energies.push_back({2, 1000});
}
void unknownEntity(Scenario& scenario) {
    machineOf(scenario).totals.push_back({8});
}
void unknownState(Scenario& scenario) {
    machineOf(scenario).totals[0].states.push_back({1, 2, 3});
}
void fullJavaHeap(Scenario& scenario) {
    scenario.env.heapIsFull = true;
}
std::string writtenToNull(Call call) {
    const std::string size = std::to_string(smallResult(call).size());
    const std::string write = "SetByteArrayRegion(0, " + size + ")";
    return "clock\nNewByteArray(" + size + ")\n" + write + "\nJNI: " + write +
           ": the array is null\n";
}
/// An entity that is listed again with more states: its state maps are not merged.
template <Backend kBackend>
void stateOfASecondListing(Scenario& scenario) {
    scenario.kill(kBackend);
    Machine machine = smallMachine();
    machine.entities.push_back({7, "again", {{1, "more"}}});
    machine.totals[0].states.push_back({1, 2, 3});
    scenario.serve(kBackend, machine);
}
std::function<void(Scenario&)> unreached(const char* method) {
    return [=](Scenario&) {
        host::failTransactions(host::kHidlPowerStats, method, {-129, -32, "gone"});
    };
}
/// A state id that the entity did not have before: the old state map is kept as it was.
void newStateAfterRestart(Scenario& scenario) {
    scenario.kill(Backend::kHidl);
    Machine machine = smallMachine();
    machine.entities[0].states.push_back({1, "new"});
    machine.totals[0].states.push_back({1, 2, 3});
    scenario.serve(Backend::kHidl, machine);
}

const EndCase kEndCases[] = {
    {"unknownChannel", Backend::kAidl, Call::kRails, unknownRail, kUnknownId},
    {"unknownEntity", Backend::kAidl, Call::kResidencies, unknownEntity, kUnknownId},
    {"unknownState", Backend::kAidl, Call::kResidencies, unknownState, kUnknownId},
    {"unknownRail", Backend::kHidl, Call::kRails, unknownRail, kUnknownId},
    {"unknownHidlEntity", Backend::kHidl, Call::kResidencies, unknownEntity, kUnknownId},
    {"unknownHidlState", Backend::kHidl, Call::kResidencies, unknownState, kUnknownId},
    {"stateOfASecondListing", Backend::kAidl, Call::kResidencies,
     stateOfASecondListing<Backend::kAidl>, kUnknownId},
    {"hidlStateOfASecondListing", Backend::kHidl, Call::kResidencies,
     stateOfASecondListing<Backend::kHidl>, kUnknownId},
    {"newStateAfterRestart", Backend::kHidl, Call::kResidencies, newStateAfterRestart, kUnknownId},
    {"getRailInfoUnreached", Backend::kHidl, Call::kRails, unreached("getRailInfo"), kUnexamined},
    {"getEnergyDataUnreached", Backend::kHidl, Call::kRails, unreached("getEnergyData"),
     kUnexamined},
    {"residenciesUnreached", Backend::kHidl, Call::kResidencies,
     unreached("getPowerEntityStateResidencyData"), std::string(kNoEntities) + kUnexamined},
    {"railsInAFullJavaHeap", Backend::kAidl, Call::kRails, fullJavaHeap,
     writtenToNull(Call::kRails)},
    {"residenciesInAFullJavaHeap", Backend::kHidl, Call::kResidencies, fullJavaHeap,
     writtenToNull(Call::kResidencies)},
};

class ProcessEnds : public testing::TestWithParam<EndCase> {};
INSTANTIATE_TEST_SUITE_P(All, ProcessEnds, testing::ValuesIn(kEndCases),
                         [](const auto& info) { return info.param.name; });

TEST_P(ProcessEnds, WithNothingBeyondItsMessage) {
    const EndCase& test = GetParam();
    const Ended ended = runInChild([&] {
        Scenario scenario;
        scenario.serve(test.backend, smallMachine());
        ASSERT_EQ(scenario.call(test.call).bytes, smallResult(test.call));
        test.script(scenario);
        scenario.callAloud(test.call);
    });
    EXPECT_EQ(ended.signal, SIGABRT);
    EXPECT_EQ(ended.errors, test.errors);
}

class RuntimeFailure : public testing::TestWithParam<std::tuple<Backend, Call>> {
  protected:
    const Backend mBackend = std::get<0>(GetParam());
    const Call mCall = std::get<1>(GetParam());
};
INSTANTIATE_TEST_SUITE_P(All, RuntimeFailure,
                         testing::Combine(testing::ValuesIn(kBackends), testing::ValuesIn(kCalls)),
                         [](const auto& info) {
                             return testing::PrintToString(std::get<0>(info.param)) +
                                    testing::PrintToString(std::get<1>(info.param));
                         });

/// A call without what a scenario does around it, which allocates too.
powerstats::JavaBytes callBare(Scenario& scenario, Call call) {
    return call == Call::kRails ? scenario.library->railEnergy(&scenario.env)
                                : scenario.library->residencies(&scenario.env);
}

TEST_P(RuntimeFailure, OfAnyAllocationEndsTheProcess) {
    int failures = 0;
    for (const bool first : {true, false}) {
        for (int allocation = 1;; ++allocation, ++failures) {
            SCOPED_TRACE(allocation);
            const Ended ended = runInChild([&] {
                Scenario scenario;
                scenario.serve(mBackend, smallMachine());
                scenario.load();
                if (!first) scenario.call(mCall);
                gFailingAllocation = allocation;
                const powerstats::JavaBytes bytes = callBare(scenario, mCall);
                ASSERT_GT(gFailingAllocation.exchange(0), 0) << "a failure was survived";
                ASSERT_TRUE(bytes);
                ASSERT_EQ(std::string(bytes->begin(), bytes->end()), smallResult(mCall));
                // A mutex left held would stop this one until the child is ended.
                ASSERT_EQ(scenario.call(mCall).bytes, smallResult(mCall));
            });
            if (ended.exitCode == kReturned) break;
            ASSERT_EQ(ended.signal, SIGABRT) << ended.errors;
            ASSERT_THAT(ended.errors, testing::Not(testing::HasSubstr("caller")));
        }
    }
    EXPECT_GT(failures, 20) << "hardly any allocation was seen";
    std::printf("%d allocations failed, %d processes ended\n", failures, failures);
}

class ResidencyAllocations : public testing::TestWithParam<Backend> {};
INSTANTIATE_TEST_SUITE_P(All, ResidencyAllocations, testing::ValuesIn(kBackends),
                         testing::PrintToStringParamName());

TEST_P(ResidencyAllocations, AreAsManyForEachStateHoweverManyThereAre) {
    const auto countWith = [](uint32_t states) {
        Machine machine = smallMachine();
        for (uint32_t id = 1; id < states; ++id) {
            machine.entities[0].states.push_back({id, "S"});
            machine.totals[0].states.push_back({id, 1, 1});
        }
        Scenario scenario;
        scenario.serve(GetParam(), machine);
        EXPECT_TRUE(scenario.call(Call::kResidencies).bytes);
        gFailingAllocation = INT_MAX;
        callBare(scenario, Call::kResidencies);
        return INT_MAX - gFailingAllocation.exchange(0);
    };
    const int few = countWith(1000);
    const int each = (countWith(2000) - few) / 1000;
    // More than a count of 16 bits holds.
    EXPECT_EQ(countWith(40000), few + 39000 * each);
}

TEST_P(RuntimeFailure, ThrownByTheServiceDoesNotReachTheCaller) {
    const Ended ended = runInChild([&] {
        Scenario scenario;
        scenario.serve(mBackend, smallMachine());
        ASSERT_EQ(scenario.call(mCall).bytes, smallResult(mCall));
        const Hook fail = [](const std::string&) { throw std::runtime_error("out of order"); };
        (mBackend == Backend::kAidl ? scenario.aidl->onCall : scenario.hidl->onCall) = fail;
        scenario.callAloud(mCall);
    });
    EXPECT_EQ(ended.signal, SIGABRT);
    EXPECT_THAT(ended.errors, testing::HasSubstr("out of order"));
    EXPECT_THAT(ended.errors, testing::Not(testing::HasSubstr("caller")));
}

}  // namespace
}  // namespace support
