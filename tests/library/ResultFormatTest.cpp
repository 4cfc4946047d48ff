// SPDX-License-Identifier: Apache-2.0
//
// The result as its readers parse it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>

#include "proto/power_data_result.pb.h"
#include "tests/support/Scenario.h"

namespace support {
namespace {

namespace proto = com::tavrel::android::ferrolith::poweranomalyservice::proto;

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

class ResultFormat : public testing::Test, public Scenario {};

// The next two tests accept additional fields, but no change to the present ones: readers have
// stored results.

TEST_F(ResultFormat, KnownBytes) {
    serve(Backend::kAidl, smallMachine());
    EXPECT_THAT(
        toHex(call(Call::kRails).bytes.value()),
        AllOf(HasSubstr("08 01 12 07 56 44 44 5f 43 50 55 18 95 9a ef 3a"), HasSubstr("08 94 23")));
    EXPECT_THAT(toHex(call(Call::kResidencies).bytes.value()),
                AllOf(HasSubstr("08 02 12 03 53 4f 43 18 95 9a ef 3a"),
                      HasSubstr("0a 02 53 30 10 88 27 18 0c")));
}

TEST_F(ResultFormat, FitsTheSchema) {
    Machine machine = smallMachine();
    machine.energies.push_back({1, 5000, 5000, -4500000});
    machine.totals[0].stateResidencyData.push_back({0, 0, 1, 0});
    serve(Backend::kAidl, machine);
    const std::string file = testing::TempDir() + "result" + std::to_string(getpid());
    std::ofstream(file, std::ios::binary)
        << *call(Call::kRails).bytes << *call(Call::kResidencies).bytes;
    const std::string command =
        "'" PROTOC_PROGRAM "' --proto_path='" SCHEMA_FOLDER
        "' --decode=com.tavrel.android.ferrolith.poweranomalyservice.proto.PowerDataResult "
        "power_data_result.proto <'" +
        file + "' 2>&1 | tr -s '\n ' ' '";
    std::string text;
    {
        const std::unique_ptr<FILE, int (*)(FILE*)> protoc(popen(command.c_str(), "r"), pclose);
        ASSERT_NE(protoc, nullptr);
        for (int c; (c = std::fgetc(protoc.get())) != EOF;) text += static_cast<char>(c);
    }
    std::remove(file.c_str());
    const char* const kParts[] = {
        R"(keyed_power_data { id { kind: KIND_RAIL name: "VDD_CPU" timestamp_ms: 123456789 )",
        "} data { scalar { value: 4500 ",
        "} data { scalar { value: -4500 ",
        R"(keyed_power_data { id { kind: KIND_POWER_ENTITY name: "SOC" timestamp_ms: 123456789 )",
        "} data { residency { ",
        R"(residency { name: "S0" total_time_in_state_ms: 5000 total_state_entry_count: 12 )",
        R"(} residency { name: "S0" total_time_in_state_ms: 0 total_state_entry_count: 1 )",
    };
    for (const char* part : kParts) {
        EXPECT_THAT(text, HasSubstr(part));
    }
    // A field that the schema lacks has a number instead of a name.
    EXPECT_THAT(text, Not(ContainsRegex(" [0-9]+(:| [{])")));
}

TEST_F(ResultFormat, KeepsAllFourteenKinds) {
    for (uint64_t kind = 0; kind < 20; ++kind) {
        SCOPED_TRACE(kind);
        proto::Id id;
        ASSERT_TRUE(id.ParseFromString(field(1, kind)));
        EXPECT_EQ(id.has_kind(), kind <= 13);
        // An unknown number is kept as it came.
        EXPECT_EQ(id.SerializeAsString(), field(1, kind));
    }
}

TEST_F(ResultFormat, HasFieldsThatOnlyReadersUse) {
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
