// SPDX-License-Identifier: Apache-2.0
//
// Every way in which a call ends the process instead of returning.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <utils/Errors.h>

#include <functional>
#include <string>

#include "tests/support/Allocations.h"
#include "tests/support/ChildProcess.h"
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
    /// Runs between a good call and the last one.
    /// @param machine [in,out] a small machine, which the service tells after the script.
    std::function<void(Scenario& scenario, Machine& machine)> script;
    std::string errors;     ///< all that the last call writes
    bool restarts = false;  ///< with the service of another process

    friend std::ostream& operator<<(std::ostream& out, const EndCase& test) {
        return out << test.name;
    }
};

void unknownRail(Scenario& /*scenario*/, Machine& machine) {
    machine.energies.push_back({2, 5000, 5000, 1000});
}
void unknownEntity(Scenario& /*scenario*/, Machine& machine) {
    machine.totals.push_back({8, {}});
}
void unknownState(Scenario& /*scenario*/, Machine& machine) {
    machine.totals[0].stateResidencyData.push_back({1, 2, 3, 4});
}
/// Lists an entity again with more states. State maps are not merged.
void stateOfASecondListing(Scenario& scenario, Machine& machine) {
    machine.entities.push_back({7, "again", {{1, "more"}}});
    unknownState(scenario, machine);
}
/// Adds a state to an entity. The old state map stays as it was.
void newState(Scenario& scenario, Machine& machine) {
    machine.entities[0].states.push_back({1, "new"});
    unknownState(scenario, machine);
}
void fullJavaHeap(Scenario& scenario, Machine& /*machine*/) {
    scenario.env.heapIsFull = true;
}
std::string writtenToNull(Call call) {
    const std::string size = std::to_string(smallResult(call).size());
    const std::string write = "SetByteArrayRegion(0, " + size + ")";
    return "clock\nNewByteArray(" + size + ")\n" + write + "\nJNI: " + write +
           ": the array is null\n";
}
std::function<void(Scenario&, Machine&)> unreached(const char* method) {
    return [=](Scenario&, Machine&) {
        failNext(requestOf(Backend::kHidl, method), {android::DEAD_OBJECT, "gone"});
    };
}

const EndCase kEndCases[] = {
    {"unknownChannel", Backend::kAidl, Call::kRails, unknownRail, kUnknownId},
    {"unknownEntity", Backend::kAidl, Call::kResidencies, unknownEntity, kUnknownId},
    {"unknownState", Backend::kAidl, Call::kResidencies, unknownState, kUnknownId},
    {"unknownRail", Backend::kHidl, Call::kRails, unknownRail, kUnknownId},
    {"unknownHidlEntity", Backend::kHidl, Call::kResidencies, unknownEntity, kUnknownId},
    {"unknownHidlState", Backend::kHidl, Call::kResidencies, unknownState, kUnknownId},
    {"stateOfASecondListing", Backend::kAidl, Call::kResidencies, stateOfASecondListing, kUnknownId,
     true},
    {"hidlStateOfASecondListing", Backend::kHidl, Call::kResidencies, stateOfASecondListing,
     kUnknownId, true},
    {"newStateAfterRestart", Backend::kHidl, Call::kResidencies, newState, kUnknownId, true},
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
                         testing::PrintToStringParamName());

TEST_P(ProcessEnds, WithItsMessageOnly) {
    const EndCase& test = GetParam();
    const Ended ended = runInChild([&] {
        Scenario scenario;
        scenario.serve(test.backend, smallMachine());
        ASSERT_EQ(scenario.call(test.call).bytes, smallResult(test.call));
        Machine machine = smallMachine();
        test.script(scenario, machine);
        if (test.restarts) {
            Scenario::kill(test.backend);
            scenario.serve(test.backend, machine);
        } else {
            scenario.tell(test.backend, machine);
        }
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
                const int64_t failing = allocations().count + allocation;
                allocations().failing = failing;
                const host::JavaBytes bytes = scenario.callBare(mCall);
                allocations().failing = 0;
                ASSERT_LT(allocations().count, failing) << "a failure was survived";
                ASSERT_EQ(toText(bytes), smallResult(mCall));
                // If the mutex were still held, this call would block until the child is ended.
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

}  // namespace
}  // namespace support
