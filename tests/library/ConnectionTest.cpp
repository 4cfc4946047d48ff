// SPDX-License-Identifier: Apache-2.0
//
// Connecting to a service and reading its names: queries that fail, links that fail, and the names
// that a HIDL service's next connection finds in the caches.

#include <gtest/gtest.h>
#include <utils/Errors.h>

#include "tests/support/Scenario.h"

namespace support {
namespace {

using HidlStatus = FakeHidl::Status;

const char kNotLoaded[] = "E: Power stats HAL not loaded!";
const char kNoEntities[] = "E: Failed to get power entity info.";
const char kNoStates[] = "E: Failed to get state info.";
const std::string kUnavailable =
    "E: Failed to init state info: requested HAL service not available. Description: "
    "Status(EX_TRANSACTION_FAILED): ";
const Failure kDead{android::DEAD_OBJECT, "gone"};
const Failure kTransport{android::UNKNOWN_TRANSACTION, "odd"};

/// One method of a call.
struct Query {
    Backend backend;
    Call call;
    const char* method;
    const char* log;  ///< line of the failed call; with HIDL, if the service refuses

    friend std::ostream& operator<<(std::ostream& out, const Query& query) {
        return out << query.backend << query.call << "_" << query.method;
    }
};

const Query kQueries[] = {
    {Backend::kAidl, Call::kRails, "getEnergyMeterInfo", "I: Power stats rail energy init failed"},
    {Backend::kAidl, Call::kResidencies, "getPowerEntityInfo",
     "I: Power stats residencies init failed"},
    {Backend::kAidl, Call::kRails, "readEnergyMeter", "E: Error reading energy meter"},
    {Backend::kAidl, Call::kResidencies, "getStateResidency",
     "E: Error reading getting state residency"},
    {Backend::kHidl, Call::kRails, "getPowerEntityInfo", kNoEntities},
    {Backend::kHidl, Call::kRails, "getPowerEntityStateInfo", kNoStates},
    {Backend::kHidl, Call::kResidencies, "getPowerEntityInfo", kNoEntities},
    {Backend::kHidl, Call::kResidencies, "getPowerEntityStateInfo", kNoStates},
};

/// A way to fail.
struct Trouble {
    const char* name;
    std::optional<Failure> failure = {};
    HidlStatus status = HidlStatus::SUCCESS;
    const char* description = nullptr;  ///< that HIDL logs when the query did not reach the service

    friend std::ostream& operator<<(std::ostream& out, const Trouble& trouble) {
        return out << trouble.name;
    }
};

const Trouble kNoNames{"noNames"};
/// The service dies in the query. Its notice waits until the call has returned.
const Trouble kDies{"dies", {}, HidlStatus::SUCCESS, "'DEAD_OBJECT: '"};
const Trouble kTroubles[] = {
    {"deadObject", kDead, HidlStatus::SUCCESS, "'DEAD_OBJECT: gone'"},
    {"transport", kTransport, HidlStatus::SUCCESS, "'UNKNOWN_TRANSACTION: odd'"},
    {"notSupported", {}, HidlStatus::NOT_SUPPORTED},
    {"invalid", {}, HidlStatus::INVALID_INPUT},
    kDies,
    kNoNames};

class FailedQuery : public testing::TestWithParam<std::tuple<Query, Trouble>>, public Scenario {
  protected:
    void cause() {
        if (mTrouble.failure) {
            failNext(mRequest, *mTrouble.failure);
        } else if (mTrouble.status != HidlStatus::SUCCESS) {
            service(mQuery.backend).statuses[mQuery.method] = mTrouble.status;
        } else if (mTrouble.name == kDies.name) {
            service(mQuery.backend).onCall = dieIn(mQuery.backend, mQuery.method);
        } else {
            tell(mQuery.backend, {});
            if (mQuery.log == kNoStates) hidl->entities = {{7, "SOC"}};
        }
    }

    /// The log of the failed call.
    Lines lines() const {
        if (mQuery.backend == Backend::kAidl) return {mQuery.log};
        if (mTrouble.description) return {kUnavailable + mTrouble.description, kNotLoaded};
        if (mTrouble.name == kNoNames.name) return {kNotLoaded};
        return {mQuery.log, kNotLoaded};
    }

    /// The part of a good call's traffic that a failed call has.
    std::string untilQuery(const std::string& traffic) const {
        return traffic.substr(0, traffic.find(mRequest) + mRequest.size()) +
               (mQuery.backend == Backend::kHidl ? " hidl:unlink" : "");
    }

    const Query mQuery = std::get<0>(GetParam());
    const Trouble mTrouble = std::get<1>(GetParam());
    const std::string mRequest = requestOf(mQuery.backend, mQuery.method);
};
INSTANTIATE_TEST_SUITE_P(
    Test, FailedQuery, testing::Combine(testing::ValuesIn(kQueries), testing::ValuesIn(kTroubles)),
    [](const auto& info) {
        return testing::PrintToString(std::get<0>(info.param)) + "_" + std::get<1>(info.param).name;
    });

TEST_P(FailedQuery, GivesNullAndIsMadeAgainByTheNextCall) {
    const auto& [backend, which, method, log] = mQuery;
    const std::string reconnect = reconnectTraffic(backend, which);
    // An AIDL connection stays. A call without names fails, and one without readings does not.
    const std::string later =
        backend == Backend::kHidl ? reconnect : reconnect.substr(reconnect.find(mRequest));
    if (mTrouble.name == kNoNames.name && later == mRequest) return;
    serve(backend, smallMachine());
    cause();
    EXPECT_EQ(call(which), asFirst(backend, nothing(lines(), untilQuery(reconnect))));
    if (mTrouble.name == kDies.name) {
        EXPECT_TRUE(host::waitForDeathNotices());
        serve(backend, smallMachine());
        EXPECT_EQ(call(which), array(smallResult(which), reconnect));
        return;
    }
    cause();
    EXPECT_EQ(call(which), nothing(lines(), untilQuery(later)));
    service(backend).statuses.clear();
    tell(backend, smallMachine());
    EXPECT_EQ(call(which), array(smallResult(which), later));
}

TEST(FailedLink, OfAidlIsIgnoredAndTheDeathIsMissed) {
    Scenario scenario;
    scenario.serve(Backend::kAidl, smallMachine());
    failNext("aidl:link", kTransport);
    EXPECT_EQ(scenario.call(Call::kRails),
              asFirst(Backend::kAidl, array(smallResult(Call::kRails),
                                            reconnectTraffic(Backend::kAidl, Call::kRails))));
    Scenario::kill(Backend::kAidl);
    scenario.serve(Backend::kAidl, smallMachine());
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(scenario.call(Call::kRails),
                  nothing({"E: Error reading energy meter"}, "aidl:readEnergyMeter"));
    }
}

class HidlReconnection : public testing::Test, public Scenario {
  protected:
    HidlReconnection() {
        serve(Backend::kHidl, smallMachine());
        call(Call::kResidencies);
    }

    /// Another process of the service takes the place of the connected one.
    void restart(const Machine& machine) {
        kill(Backend::kHidl);
        serve(Backend::kHidl, machine);
    }
    void refuseNames() {
        hidl->statuses["getPowerEntityInfo"] = HidlStatus::INVALID_INPUT;
        hidl->statuses["getPowerEntityStateInfo"] = HidlStatus::INVALID_INPUT;
    }
    /// Expects that the next call reconnects.
    void expectResult(const std::string& bytes, const Lines& log = {}) {
        EXPECT_EQ(call(Call::kResidencies),
                  array(bytes, reconnectTraffic(Backend::kHidl, Call::kResidencies), log));
    }

    const std::string mSmallResult = smallResult(Call::kResidencies);
};

TEST_F(HidlReconnection, LogsAndIgnoresALinkThatFails) {
    restart(smallMachine());
    failNext("hidl:link", {android::DEAD_OBJECT, "no link"});
    expectResult(mSmallResult, {"E: Transaction error in linking to PowerStatsHAL death: "
                                "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: no link'"});
    EXPECT_EQ(call(Call::kResidencies),
              array(mSmallResult, steadyTraffic(Backend::kHidl, Call::kResidencies)));
}

TEST_F(HidlReconnection, KeepsOldNamesAndAddsNewOnes) {
    restart({{},
             {},
             {{7, "renamed", {{0, "renamed"}, {1, "not merged"}}}, {8, "new", {{0, "first"}}}},
             {{8, {{0, 1, 2, 3}}}, {7, {kSmallState}}}});
    expectResult(entity("new", {residency("first", {0, 1, 2, 3})}) + mSmallResult);
}

TEST_F(HidlReconnection, SucceedsWithOldNamesWhenNewOnesAreRefusedOrMissing) {
    restart(smallMachine());
    refuseNames();
    expectResult(mSmallResult, {kNoEntities, kNoStates});
    Machine nameless = smallMachine();
    nameless.entities.clear();
    restart(nameless);
    expectResult(mSmallResult);
}

TEST_F(HidlReconnection, FailsWithAQueryThatFailsInSpiteOfOldNames) {
    restart(smallMachine());
    const Lines log{kUnavailable + "'UNKNOWN_TRANSACTION: odd'", kNotLoaded};
    std::string traffic = "hidl:lookup hidl:link";
    for (const std::string query : {"hidl:getPowerEntityInfo", "hidl:getPowerEntityStateInfo"}) {
        failNext(query, kTransport);
        traffic += " " + query;
        EXPECT_EQ(call(Call::kResidencies), nothing(log, traffic + " hidl:unlink"));
    }
}

TEST_F(HidlReconnection, KeepsNamesThatCameBeforeAFailure) {
    restart({{}, {}, {{9, "early", {{0, "S0"}}}}, {}});
    failNext("hidl:getPowerEntityStateInfo", kDead);
    EXPECT_EQ(call(Call::kResidencies).bytes, std::nullopt);
    hidl->tell({{}, {}, {{9, "late", {{0, "S0"}}}}, {{9, {{0, 1, 2, 3}}}}});
    expectResult(entity("early", {residency("S0", {0, 1, 2, 3})}));
}

TEST_F(HidlReconnection, DoesNotKeepRefusedNames) {
    restart({{}, {}, {{9, "refused", {{0, "refused"}}}}, {}});
    refuseNames();
    call(Call::kResidencies);
    restart({{}, {}, {{9, "taken", {{0, "taken"}}}}, {{9, {{0, 1, 2, 3}}}}});
    expectResult(entity("taken", {residency("taken", {0, 1, 2, 3})}));
}

}  // namespace
}  // namespace support
