// SPDX-License-Identifier: Apache-2.0
//
// Connecting to a HIDL service and learning its names. Both calls begin so.

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/Scenario.h"

namespace support {
namespace {

using Status = FakeHidl::Status;

const char kNotLoaded[] = "E: Power stats HAL not loaded!";
const char kNoEntities[] = "E: Failed to get power entity info.";
const char kNoStates[] = "E: Failed to get state info.";
const std::string kUnavailable =
    "E: Failed to init state info: requested HAL service not available. Description: ";

/// A connection attempt that fails.
struct AttemptCase {
    const char* name;
    std::function<void(FakeHidl& service)> script;
    Lines log;
    const char* traffic;

    friend std::ostream& operator<<(std::ostream& out, const AttemptCase& test) {
        return out << test.name;
    }
};

void failQuery(const char* method, host::Failure failure) {
    host::failTransactions(host::kHidlPowerStats, method, failure);
}

const char kAfterEntities[] = "hidl:lookup hidl:link hidl:unlink hidl:getPowerEntityInfo";
const char kAfterStates[] =
    "hidl:lookup hidl:link hidl:unlink hidl:getPowerEntityInfo hidl:getPowerEntityStateInfo";

AttemptCase refused(const char* name, const char* method, Status status) {
    const bool entities = std::string(method) == "getPowerEntityInfo";
    return {name,
            [=](FakeHidl& service) { service.statuses[method] = status; },
            {entities ? kNoEntities : kNoStates, kNotLoaded},
            entities ? kAfterEntities : kAfterStates};
}

AttemptCase unreached(const char* name, const char* method, const host::Failure& failure,
                      const std::string& description) {
    return {name,
            [=](FakeHidl&) { failQuery(method, failure); },
            {kUnavailable + description, kNotLoaded},
            std::string(method) == "getPowerEntityInfo" ? kAfterEntities : kAfterStates};
}

const host::Failure kDead{-129, -32, "gone"};
const host::Failure kTransport{-129, -74, "odd"};
const host::Failure kException{-5, 0, "state"};

const AttemptCase kAttempts[] = {
    refused("entitiesNotSupported", "getPowerEntityInfo", Status::NOT_SUPPORTED),
    refused("entitiesInvalid", "getPowerEntityInfo", Status::INVALID_INPUT),
    refused("statesNotSupported", "getPowerEntityStateInfo", Status::NOT_SUPPORTED),
    refused("statesInvalid", "getPowerEntityStateInfo", Status::INVALID_INPUT),
    {"noEntities",
     [](FakeHidl& service) { service.machine.entities.clear(); },
     {kNotLoaded},
     kAfterEntities},
    {"noStateSpaces",
     [](FakeHidl& service) { service.stateSpaces.emplace(); },
     {kNotLoaded},
     kAfterStates},
    unreached("entitiesDead", "getPowerEntityInfo", kDead,
              "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'"),
    unreached("entitiesTransport", "getPowerEntityInfo", kTransport,
              "Status(EX_TRANSACTION_FAILED): 'UNKNOWN_TRANSACTION: odd'"),
    unreached("entitiesException", "getPowerEntityInfo", kException,
              "Status(EX_ILLEGAL_STATE): 'state'"),
    unreached("statesDead", "getPowerEntityStateInfo", kDead,
              "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'"),
    unreached("statesTransport", "getPowerEntityStateInfo", kTransport,
              "Status(EX_TRANSACTION_FAILED): 'UNKNOWN_TRANSACTION: odd'"),
    unreached("statesException", "getPowerEntityStateInfo", kException,
              "Status(EX_ILLEGAL_STATE): 'state'"),
};

class HidlAttempt : public testing::TestWithParam<std::tuple<AttemptCase, Call>>,
                    public Scenario {};
INSTANTIATE_TEST_SUITE_P(All, HidlAttempt,
                         testing::Combine(testing::ValuesIn(kAttempts), testing::ValuesIn(kCalls)),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param).name) +
                                    (std::get<1>(info.param) == Call::kRails ? "_rails"
                                                                             : "_residencies");
                         });

TEST_P(HidlAttempt, FailsAndIsMadeAnewAtEveryCall) {
    const auto& [attempt, which] = GetParam();
    call(which);  // chooses the backend
    serve(Backend::kHidl, smallMachine());
    for (int i = 0; i < 2; ++i) {
        attempt.script(*hidl);
        EXPECT_EQ(call(which), nothing(attempt.log, attempt.traffic));
    }
    // Another service: the last one was unlinked.
    serve(Backend::kHidl, smallMachine());
    EXPECT_EQ(call(which), array(smallResult(which), reconnectTraffic(Backend::kHidl, which)));
}

class HidlConnection : public testing::Test, public Scenario {
  protected:
    HidlConnection() {
        serve(Backend::kHidl, smallMachine());
        call(Call::kResidencies);
    }

    /// Another process of the service takes the place of the one that is connected.
    void restart(const Machine& machine) {
        kill(Backend::kHidl);
        serve(Backend::kHidl, machine);
    }

    const std::string mReconnect = reconnectTraffic(Backend::kHidl, Call::kResidencies);
};

TEST_F(HidlConnection, LinkThatFailsIsLoggedAndIgnored) {
    restart(smallMachine());
    host::failLinks(host::kHidlPowerStats, {-129, -32, "no link"});
    EXPECT_EQ(call(Call::kResidencies), array(smallResult(Call::kResidencies), mReconnect,
                                              {"E: Transaction error in linking to PowerStatsHAL "
                                               "death: Status(EX_TRANSACTION_FAILED): "
                                               "'DEAD_OBJECT: no link'"}));
    EXPECT_EQ(call(Call::kResidencies), array(smallResult(Call::kResidencies),
                                              steadyTraffic(Backend::kHidl, Call::kResidencies)));
}

TEST_F(HidlConnection, NamesOfTheFirstConnectionWinAndNewOnesAreAdded) {
    restart({{},
             {},
             {{7, "renamed", {{0, "renamed"}, {1, "not merged"}}}, {8, "new", {{0, "first"}}}},
             {{8, {{0, 1, 2}}}, {7, {{0, 5000, 12}}}}});
    EXPECT_EQ(call(Call::kResidencies),
              array(entity("new", {residency("first", 1, 2)}) + smallResult(Call::kResidencies),
                    mReconnect));
}

TEST_F(HidlConnection, OldNamesMakeUpForNamesThatAreRefusedOrMissing) {
    restart(smallMachine());
    hidl->statuses["getPowerEntityInfo"] = Status::FILESYSTEM_ERROR;
    hidl->statuses["getPowerEntityStateInfo"] = Status::NOT_SUPPORTED;
    EXPECT_EQ(call(Call::kResidencies),
              array(smallResult(Call::kResidencies), mReconnect, {kNoEntities, kNoStates}));
    Machine nameless = smallMachine();
    nameless.entities.clear();
    restart(nameless);
    EXPECT_EQ(call(Call::kResidencies), array(smallResult(Call::kResidencies), mReconnect));
}

TEST_F(HidlConnection, OldNamesDoNotMakeUpForAQueryThatFailed) {
    restart(smallMachine());
    failQuery("getPowerEntityInfo", kTransport);
    const Lines log{kUnavailable + "Status(EX_TRANSACTION_FAILED): 'UNKNOWN_TRANSACTION: odd'",
                    kNotLoaded};
    EXPECT_EQ(call(Call::kResidencies), nothing(log, kAfterEntities));
    failQuery("getPowerEntityStateInfo", kTransport);
    EXPECT_EQ(call(Call::kResidencies), nothing(log, kAfterStates));
}

TEST_F(HidlConnection, NamesBeforeAFailureStay) {
    restart({{}, {}, {{9, "early", {{0, "S0"}}}}, {}});
    failQuery("getPowerEntityStateInfo", kDead);
    EXPECT_EQ(call(Call::kResidencies).bytes, std::nullopt);
    hidl->machine = {{}, {}, {{9, "late", {{0, "S0"}}}}, {{9, {{0, 1, 2}}}}};
    EXPECT_EQ(call(Call::kResidencies),
              array(entity("early", {residency("S0", 1, 2)}), mReconnect));
}

TEST_F(HidlConnection, RefusedRecordsAreNotCached) {
    restart({{}, {}, {{9, "refused", {{0, "refused"}}}}, {}});
    hidl->statuses["getPowerEntityInfo"] = Status::INVALID_INPUT;
    hidl->statuses["getPowerEntityStateInfo"] = Status::INVALID_INPUT;
    call(Call::kResidencies);
    restart({{}, {}, {{9, "taken", {{0, "taken"}}}}, {{9, {{0, 1, 2}}}}});
    EXPECT_EQ(call(Call::kResidencies),
              array(entity("taken", {residency("taken", 1, 2)}), mReconnect));
}

}  // namespace
}  // namespace support
