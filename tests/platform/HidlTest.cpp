// SPDX-License-Identifier: Apache-2.0
//
// Transport results of HIDL.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hidl/Status.h>
#include <signal.h>
#include <unistd.h>

#include <utility>

#include "tests/support/ChildProcess.h"

namespace support {
namespace {

using android::hardware::Return;
using TransportStatus = android::hardware::Status;

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

}  // namespace
}  // namespace support
