// SPDX-License-Identifier: Apache-2.0
//
// What the schema of the result has for others: kinds and fields that the library never sets.

#include <gtest/gtest.h>

#include "proto/power_data_result.pb.h"
#include "tests/support/Encoder.h"

namespace support {
namespace {

namespace proto = com::tavrel::android::ferrolith::poweranomalyservice::proto;

TEST(ResultFormat, KeepsAllFourteenKinds) {
    for (uint64_t kind = 0; kind < 20; ++kind) {
        SCOPED_TRACE(kind);
        proto::Id id;
        ASSERT_TRUE(id.ParseFromString(field(1, kind)));
        EXPECT_EQ(id.has_kind(), kind <= 13);
        // An unknown number is kept as it came.
        EXPECT_EQ(id.SerializeAsString(), field(1, kind));
    }
}

TEST(ResultFormat, HasFieldsThatOnlyReadersUse) {
    proto::PowerDataResult result;
    ASSERT_TRUE(result.ParseFromString(
        field(1, ~0ull) + field(2, field(3, field(1, ~0ull) + field(2, std::string("h\xff"))))));
    EXPECT_EQ(result.status(), -1);
    ASSERT_EQ(result.keyed_power_data_size(), 1);
    const proto::KeyedPowerData& element = result.keyed_power_data(0);
    EXPECT_EQ(element.resource_holder().holder_id(), -1);
    EXPECT_EQ(element.resource_holder().holder_name(), "h\xff");
    EXPECT_FALSE(element.has_id());
    EXPECT_FALSE(element.has_data());
    EXPECT_EQ(element.id().kind(), proto::KIND_UNKNOWN);
}

}  // namespace
}  // namespace support
