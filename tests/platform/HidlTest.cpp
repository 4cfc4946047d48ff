// SPDX-License-Identifier: Apache-2.0
//
// Transport results of HIDL, and its proxy.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <host/ServiceControl.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "tests/support/ChildProcess.h"
#include "tests/support/FakeServices.h"

namespace support {
namespace {

using android::sp;
using android::hardware::Return;
using TransportStatus = android::hardware::Status;
using stats_V1_0::IPowerStats;

Return<void> failed() {
    return TransportStatus::fromStatusT(android::DEAD_OBJECT, "gone");
}

TEST(TransportResult, FailedAndUnexaminedEndsTheProcess) {
    const std::pair<const char*, void (*)()> cases[] = {
        {"not checked.", [] { EXPECT_NE(failed().description(), ""); }},
        {"not checked.", [] { EXPECT_TRUE(failed().isDeadObject()); }},
        {"not checked.",
         [] {
             Return<void> result = failed();
             result = android::hardware::Void();
             _exit(0);
         }},
        {"The value of a failed HIDL call was used.",
         [] {
             const Return<bool> result = TransportStatus::fromStatusT(android::DEAD_OBJECT, "gone");
             EXPECT_FALSE(static_cast<bool>(result));
         }},
    };
    for (const auto& [message, run] : cases) {
        const Ended ended = runInChild(run);
        EXPECT_EQ(ended.signal, SIGABRT);
        EXPECT_THAT(ended.errors, testing::HasSubstr(message));
        EXPECT_THAT(ended.errors,
                    testing::HasSubstr("Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'"));
    }
    Return<void> examined = failed();
    EXPECT_FALSE(examined.isOk());
    const Return<void> moved = std::move(examined);
    const std::pair<TransportStatus, const char*> descriptions[] = {
        {TransportStatus::ok(), "No error"},
        {TransportStatus::fromStatusT(-77, "odd"),
         "Status(EX_TRANSACTION_FAILED): '-77 (File descriptor in bad state): odd'"},
        {TransportStatus::fromExceptionCode(-3), "Status(EX_ILLEGAL_ARGUMENT): ''"},
        {TransportStatus::fromExceptionCode(-99, "odd"), "Status(-99): 'odd'"},
    };
    for (const auto& [status, text] : descriptions) EXPECT_EQ(status.description(), text);
}

class HidlProxy : public testing::Test {
  protected:
    HidlProxy() {
        host::setBusLookups({});
        mService->tell({{{1, "rail", ""}}, {}, {}, {}});
        EXPECT_EQ(mService->registerAsService(), android::OK);
    }

    /// Asks for the rails.
    std::string ask(const sp<IPowerStats>& client) {
        std::string answers;
        const auto result = client->getRailInfo([&](const auto& rails, FakeHidl::Status status) {
            answers += std::to_string(rails.size()) + " with " +
                       std::to_string(static_cast<uint32_t>(status)) + ". ";
        });
        return answers + (result.isOk() ? "" : result.description());
    }

    const sp<FakeHidl> mService = new FakeHidl;
};

TEST_F(HidlProxy, AnswersAreSynchronousAndFailuresHaveNone) {
    const sp<IPowerStats> client = IPowerStats::getService();
    const sp<IPowerStats> other = IPowerStats::getService();
    EXPECT_NE(client, other);
    EXPECT_EQ(IPowerStats::getService("default", true), nullptr);
    EXPECT_EQ(IPowerStats::getService("vendor"), nullptr);
    EXPECT_EQ(ask(client), "1 with 0. ");
    mService->statuses["getRailInfo"] = FakeHidl::Status::INSUFFICIENT_RESOURCES;
    EXPECT_EQ(ask(client), "1 with 4. ");
    host::failTransactions(host::kHidlPowerStats, "getRailInfo", {-129, -74, "odd"});
    EXPECT_EQ(ask(client), "Status(EX_TRANSACTION_FAILED): 'UNKNOWN_TRANSACTION: odd'");
    EXPECT_EQ(ask(client), "1 with 4. ");
    mService->onCall = [](const std::string&) { host::killService(host::kHidlPowerStats); };
    EXPECT_EQ(ask(client), "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: '")
        << "it died before it answered";
    EXPECT_EQ(ask(client), "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: '");
    EXPECT_EQ(ask(other), "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: '");
    EXPECT_EQ(IPowerStats::getService(), nullptr);
    EXPECT_EQ(host::transactions(host::kHidlPowerStats, "getRailInfo"), 7);
}

}  // namespace
}  // namespace support
