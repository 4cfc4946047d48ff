// SPDX-License-Identifier: Apache-2.0
//
// The death of a service: between calls, and while one is running.

#include <gtest/gtest.h>

#include "tests/support/Scenario.h"

namespace support {
namespace {

class Death : public testing::TestWithParam<Backend>, public Scenario {
  protected:
    /// After a death, a service with other names takes over.
    void expectRecovery(Call which) {
        EXPECT_TRUE(host::waitForDeathNotices());
        Machine other = smallMachine();
        other.rails[0].name = "other rail";
        other.entities[0] = {7, "other entity", {{0, "other state"}}};
        serve(mBackend, other);
        EXPECT_EQ(call(which), array(otherResult(which), reconnectTraffic(mBackend, which)));
    }

    /// With HIDL, the names of entities and states outlive the connection.
    std::string otherResult(Call which) const {
        if (which == Call::kRails) return rail("other rail", 4500);
        if (mBackend == Backend::kHidl) return smallResult(which);
        return entity("other entity", {residency("other state", kSmallState)});
    }

    const Backend mBackend = GetParam();
};
INSTANTIATE_TEST_SUITE_P(Test, Death, testing::ValuesIn(kBackends),
                         testing::PrintToStringParamName());

TEST_P(Death, DropsTheConnectionAtOnceAndTheNextCallReconnects) {
    serve(mBackend, smallMachine());
    for (const Call which : kCalls) call(which);
    takeEvents();
    takeRequests();
    for (const Call which : {Call::kRails, Call::kResidencies, Call::kRails}) {
        Lines gone;
        onReference = [&gone](const char* event) { gone.emplace_back(event); };
        kill(mBackend);
        onReference = nullptr;
        EXPECT_EQ(gone.empty() ? "" : gone[0],
                  testing::PrintToString(mBackend) + " proxy destroyed");
        EXPECT_EQ(takeRequests(), mBackend == Backend::kAidl ? "" : "hidl:unlink");
        EXPECT_EQ(takeEvents(), Lines{}) << "a death is not logged";
        expectRecovery(which);
    }
    // The names of the other call are gone as well.
    EXPECT_EQ(call(Call::kResidencies), array(otherResult(Call::kResidencies),
                                              connectedTraffic(mBackend, Call::kResidencies)));
}

// With AIDL only: over HIDL the names come with the connection.
TEST_P(Death, BeforeTheServiceHadNames) {
    if (mBackend == Backend::kHidl) return;
    serve(mBackend, {});
    call(Call::kRails);
    kill(mBackend);
    EXPECT_EQ(call(Call::kRails), nothing({"E: Unable to get power stats AIDL service!",
                                           "I: Power stats rail energy init failed"},
                                          "aidl:lookup"));
    expectRecovery(Call::kRails);
}

// With HIDL only: over AIDL an answer comes with the end of a transaction.
TEST_P(Death, AfterTheLastAnswerDoesNotHarmTheCall) {
    if (mBackend == Backend::kAidl) return;
    for (const Call which : kCalls) {
        SCOPED_TRACE(which);
        serve(mBackend, smallMachine());
        call(which);
        hidl->onAnswered = dieIn(
            mBackend, which == Call::kRails ? "getEnergyData" : "getPowerEntityStateResidencyData");
        Outcome outcome = call(which);
        EXPECT_TRUE(host::waitForDeathNotices());
        // The notice drops the connection before or after the traffic is taken.
        const std::string later = takeRequests();
        if (!later.empty()) outcome.traffic += " " + later;
        EXPECT_EQ(outcome,
                  array(smallResult(which), steadyTraffic(mBackend, which) + " hidl:unlink"));
        expectRecovery(which);
        kill(mBackend);
    }
}

}  // namespace
}  // namespace support
