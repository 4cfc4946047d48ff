// SPDX-License-Identifier: Apache-2.0
//
// Connecting to a service and reading its names: queries that fail, links that fail, and the names
// that a HIDL service's next connection finds in the caches.

#include <android/binder_status.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "tests/support/Scenario.h"

namespace support {
namespace {

using HidlStatus = FakeHidl::Status;

const char kNotLoaded[] = "E: Power stats HAL not loaded!";
const char kNoEntities[] = "E: Failed to get power entity info.";
const char kNoStates[] = "E: Failed to get state info.";
const std::string kUnavailable =
    "E: Failed to init state info: requested HAL service not available. Description: ";
const Failure kDead{-129, -32, "gone"};
const Failure kTransport{-129, -74, "odd"};

/// One method of a call, and the result of its failure.
struct Query {
    Backend backend;
    Call call;
    const char* method;
    const char* log;      ///< line of the failed call; with HIDL, if the service refuses
    std::string connect;  ///< traffic of the process's first attempt before the query
    std::string traffic;  ///< of a later attempt
    std::string good;     ///< of the call that succeeds at last
};

const std::string kAidlFirst = "aidl:lookup*2 aidl:link ";
const std::string kHidlAgain = "hidl:lookup hidl:link hidl:unlink hidl:getPowerEntityInfo";

std::vector<Query> allQueries() {
    std::vector<Query> all = {
        {Backend::kAidl, Call::kRails, "getEnergyMeterInfo",
         "I: Power stats rail energy init failed", kAidlFirst, "aidl:getEnergyMeterInfo",
         "aidl:getEnergyMeterInfo aidl:readEnergyMeter"},
        {Backend::kAidl, Call::kResidencies, "getPowerEntityInfo",
         "I: Power stats residencies init failed", kAidlFirst, "aidl:getPowerEntityInfo",
         "aidl:getPowerEntityInfo aidl:getStateResidency"},
        {Backend::kAidl, Call::kRails, "readEnergyMeter", "E: Error reading energy meter",
         kAidlFirst + "aidl:getEnergyMeterInfo ", "aidl:readEnergyMeter", "aidl:readEnergyMeter"},
        {Backend::kAidl, Call::kResidencies, "getStateResidency",
         "E: Error reading getting state residency", kAidlFirst + "aidl:getPowerEntityInfo ",
         "aidl:getStateResidency", "aidl:getStateResidency"}};
    for (const Call call : kCalls) {
        const std::string good = reconnectTraffic(Backend::kHidl, call);
        all.push_back({Backend::kHidl, call, "getPowerEntityInfo", kNoEntities, "aidl:lookup ",
                       kHidlAgain, good});
        all.push_back({Backend::kHidl, call, "getPowerEntityStateInfo", kNoStates, "aidl:lookup ",
                       kHidlAgain + " hidl:getPowerEntityStateInfo", good});
    }
    return all;
}

/// A way to fail.
struct Trouble {
    const char* name;
    std::function<void(Scenario& scenario, const Query& query)> script;
    /// The description that HIDL logs when the query did not reach the service; null when it did.
    const char* description = nullptr;
};

Trouble unreached(const char* name, const Failure& failure, const char* description) {
    return {name,
            [=](Scenario&, const Query& query) {
                failNext(requestOf(query.backend, query.method), failure);
            },
            description};
}

template <HidlStatus kStatus>
void refuse(Scenario& scenario, const Query& query) {
    if (query.backend == Backend::kAidl) {
        scenario.aidl->failing[query.method] = [] {
            return ndk::ScopedAStatus::fromServiceSpecificError(0);
        };
    } else {
        scenario.hidl->statuses[query.method] = kStatus;
    }
}

const Trouble kTroubles[] = {
    unreached("deadObject", kDead, "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'"),
    unreached("transport", kTransport, "Status(EX_TRANSACTION_FAILED): 'UNKNOWN_TRANSACTION: odd'"),
    unreached("exception", {-5, 0, "state"}, "Status(EX_ILLEGAL_STATE): 'state'"),
    {"notSupported", refuse<HidlStatus::NOT_SUPPORTED>},
    {"invalid", refuse<HidlStatus::INVALID_INPUT>},
};
const Trouble kWithoutStatus = unreached("withoutStatus", {-129, 0, "", true}, nullptr);
/// The service dies in the query. Its notice waits until the call has returned.
const Trouble kDies = {"dies",
                       [](Scenario& scenario, const Query& query) {
                           scenario.onCall(query.backend) = [query](const std::string& method) {
                               if (method != query.method) return;
                               EXPECT_TRUE(host::killService(nameOf(query.backend)));
                               EXPECT_FALSE(host::waitForDeathNotices(0.2));
                           };
                       },
                       "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: '"};
const Trouble kNoNames = {"noNames", [](Scenario& scenario, const Query& query) {
                              scenario.tell(query.backend, {});
                              if (std::strcmp(query.method, "getPowerEntityStateInfo") == 0) {
                                  scenario.hidl->entities = {{7, "SOC"}};
                              }
                          }};

struct QueryCase : Query, Trouble {
    /// The log of the failed call.
    Lines lines() const {
        if (backend == Backend::kAidl) return {log};
        if (description != nullptr) return {kUnavailable + description, kNotLoaded};
        if (name == kNoNames.name) return {kNotLoaded};
        return {log, kNotLoaded};
    }
    friend std::ostream& operator<<(std::ostream& out, const QueryCase& test) {
        return out << test.backend << test.call << "_" << test.method << "_" << test.name;
    }
};

std::vector<QueryCase> allQueryCases() {
    std::vector<QueryCase> all;
    for (const Query& query : allQueries()) {
        for (const Trouble& trouble : kTroubles) all.push_back({query, trouble});
        all.push_back({query, kDies});
        if (query.backend == Backend::kAidl) all.push_back({query, kWithoutStatus});
        if (query.traffic != query.good) all.push_back({query, kNoNames});
    }
    return all;
}

class FailedQuery : public testing::TestWithParam<QueryCase>, public Scenario {};
INSTANTIATE_TEST_SUITE_P(Test, FailedQuery, testing::ValuesIn(allQueryCases()),
                         testing::PrintToStringParamName());

TEST_P(FailedQuery, GivesNullAndIsMadeAgainByTheNextCall) {
    const QueryCase& test = GetParam();
    serve(test.backend, smallMachine());
    test.script(*this, test);
    Lines lines = test.lines();
    lines.insert(lines.begin(), chosenLine(test.backend));
    EXPECT_EQ(call(test.call), nothing(lines, test.connect + test.traffic));
    if (test.name == kDies.name) {
        EXPECT_TRUE(host::waitForDeathNotices());
        serve(test.backend, smallMachine());
        EXPECT_EQ(call(test.call),
                  array(smallResult(test.call), reconnectTraffic(test.backend, test.call)));
        return;
    }
    test.script(*this, test);
    EXPECT_EQ(call(test.call), nothing(test.lines(), test.traffic));
    if (aidl != nullptr) aidl->failing.clear();
    if (hidl != nullptr) hidl->statuses.clear();
    tell(test.backend, smallMachine());
    EXPECT_EQ(call(test.call), array(smallResult(test.call), test.good));
}

TEST(FailedLink, OfAidlIsIgnoredAndTheDeathIsMissed) {
    Scenario scenario;
    scenario.serve(Backend::kAidl, smallMachine());
    failNext("aidl:link", {EX_TRANSACTION_FAILED, STATUS_FAILED_TRANSACTION});
    EXPECT_EQ(scenario.call(Call::kRails),
              array(smallResult(Call::kRails), firstTraffic(Backend::kAidl, Call::kRails),
                    {chosenLine(Backend::kAidl)}));
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
    failNext("hidl:link", {-129, -32, "no link"});
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
    const Lines log{kUnavailable + "Status(EX_TRANSACTION_FAILED): 'UNKNOWN_TRANSACTION: odd'",
                    kNotLoaded};
    failNext("hidl:getPowerEntityInfo", kTransport);
    EXPECT_EQ(call(Call::kResidencies), nothing(log, kHidlAgain));
    failNext("hidl:getPowerEntityStateInfo", kTransport);
    EXPECT_EQ(call(Call::kResidencies), nothing(log, kHidlAgain + " hidl:getPowerEntityStateInfo"));
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
