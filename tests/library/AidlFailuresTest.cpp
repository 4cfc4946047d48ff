// SPDX-License-Identifier: Apache-2.0
//
// An AIDL service that answers nothing, or not OK.

#include <android/binder_status.h>
#include <gtest/gtest.h>

#include <functional>

#include "tests/support/Scenario.h"

namespace support {
namespace {

/// What the two calls do, side by side.
struct AidlCall {
    Call call;
    const char* names;  ///< the method that fills the cache
    const char* data;   ///< the method of every call
    const char* initFailed;
    const char* readFailed;

    friend std::ostream& operator<<(std::ostream& out, const AidlCall& test) {
        return out << test.names;
    }
};

const AidlCall kAidlCalls[] = {
    {Call::kRails, "getEnergyMeterInfo", "readEnergyMeter",
     "I: Power stats rail energy init failed", "E: Error reading energy meter"},
    {Call::kResidencies, "getPowerEntityInfo", "getStateResidency",
     "I: Power stats residencies init failed", "E: Error reading getting state residency"},
};

struct AidlFailure {
    const char* name;
    std::function<void(FakeAidl& service, const char* method)> script;
    bool reachesService;

    friend std::ostream& operator<<(std::ostream& out, const AidlFailure& test) {
        return out << test.name;
    }
};

void scriptTransport(const char* method, host::Failure failure) {
    host::failTransactions(host::kAidlPowerStats, method, failure);
}

using Status = ndk::ScopedAStatus;

const AidlFailure kAidlFailures[] = {
    {"deadObject",
     [](FakeAidl&, const char* method) { scriptTransport(method, host::deadObject()); }, false},
    {"withoutStatus",
     [](FakeAidl&, const char* method) {
         host::Failure failure;
         failure.withoutStatus = true;
         scriptTransport(method, failure);
     },
     false},
    {"serviceSpecific",
     [](FakeAidl& service, const char* method) {
         service.failing[method] = [] { return Status::fromServiceSpecificError(0); };
     },
     true},
};

class AidlFails : public testing::TestWithParam<std::tuple<AidlCall, AidlFailure>>,
                  public Scenario {
  protected:
    const AidlCall mCall = std::get<0>(GetParam());
    const AidlFailure mFailure = std::get<1>(GetParam());
    const std::string mNames = std::string("aidl:") + mCall.names;
    const std::string mData = std::string("aidl:") + mCall.data;
    const std::string mResult = smallResult(mCall.call);
};

TEST_P(AidlFails, NamesAreAskedForAgainOverTheSameConnection) {
    serve(Backend::kAidl, smallMachine());
    mFailure.script(*aidl, mCall.names);
    EXPECT_EQ(call(mCall.call), nothing({chosenLine(Backend::kAidl), mCall.initFailed},
                                        "aidl:lookup*2 aidl:link " + mNames));
    mFailure.script(*aidl, mCall.names);
    EXPECT_EQ(call(mCall.call), nothing({mCall.initFailed}, mNames));
    aidl->failing.clear();
    EXPECT_EQ(call(mCall.call), array(mResult, mNames + " " + mData));
}

TEST_P(AidlFails, DataIsAskedForAgainWithTheNamesThatAreThere) {
    serve(Backend::kAidl, smallMachine());
    mFailure.script(*aidl, mCall.data);
    EXPECT_EQ(call(mCall.call), nothing({chosenLine(Backend::kAidl), mCall.readFailed},
                                        firstTraffic(Backend::kAidl, mCall.call)));
    mFailure.script(*aidl, mCall.data);
    EXPECT_EQ(call(mCall.call), nothing({mCall.readFailed}, mData));
    aidl->failing.clear();
    EXPECT_EQ(call(mCall.call), array(mResult, mData));
}

INSTANTIATE_TEST_SUITE_P(All, AidlFails,
                         testing::Combine(testing::ValuesIn(kAidlCalls),
                                          testing::ValuesIn(kAidlFailures)),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param).names) + "_" +
                                    std::get<1>(info.param).name;
                         });

class AidlAnswers : public testing::TestWithParam<AidlCall>, public Scenario {};
INSTANTIATE_TEST_SUITE_P(All, AidlAnswers, testing::ValuesIn(kAidlCalls),
                         [](const auto& info) { return info.param.names; });

TEST_P(AidlAnswers, NoNamesAtFirst) {
    serve(Backend::kAidl, {});
    const std::string names = std::string("aidl:") + GetParam().names;
    EXPECT_EQ(call(GetParam().call), nothing({chosenLine(Backend::kAidl), GetParam().initFailed},
                                             "aidl:lookup*2 aidl:link " + names));
    EXPECT_EQ(call(GetParam().call), nothing({GetParam().initFailed}, names));
    aidl->machine = smallMachine();
    EXPECT_EQ(call(GetParam().call),
              array(smallResult(GetParam().call), names + " aidl:" + GetParam().data));
}

TEST_P(AidlAnswers, LinkThatFailsIsIgnored) {
    serve(Backend::kAidl, smallMachine());
    host::failLinks(host::kAidlPowerStats, {EX_TRANSACTION_FAILED, STATUS_FAILED_TRANSACTION});
    EXPECT_EQ(call(GetParam().call),
              array(smallResult(GetParam().call), firstTraffic(Backend::kAidl, GetParam().call),
                    {chosenLine(Backend::kAidl)}));
    // The death is not noticed: another service is never looked for.
    kill(Backend::kAidl);
    serve(Backend::kAidl, smallMachine());
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(call(GetParam().call),
                  nothing({GetParam().readFailed}, std::string("aidl:") + GetParam().data));
    }
}

}  // namespace
}  // namespace support
