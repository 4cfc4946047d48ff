// SPDX-License-Identifier: Apache-2.0
//
// The users who may read energy, on a bus with the policy that is installed. A library that
// replaces the machine's user database gives these processes users and a group of their own.

#include <grp.h>
#include <gtest/gtest.h>
#include <host/BusServer.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include "tests/bus/Support.h"
#include "tests/power/TemporaryTree.h"
#include "tests/support/ChildProcess.h"

namespace support {
namespace {

constexpr uid_t kOutsider = 60001;
constexpr uid_t kMember = 60002;
constexpr gid_t kGroup = 60010;

void become(uid_t user, std::vector<gid_t> groups = {}) {
    ASSERT_EQ(setgroups(groups.size(), groups.data()), 0);
    ASSERT_EQ(setresgid(user, user, user), 0);
    ASSERT_EQ(setresuid(user, user, 0), 0);
}

class Policy : public testing::TestWithParam<Backend> {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "THE POLICY IS NOT TESTED: that needs root";
        mFiles.write("passwd",
                     "root:x:0:0::/:/bin/sh\noutsider:x:60001:60001::/:/bin/sh\n"
                     "member:x:60002:60002::/:/bin/sh");
        mFiles.write("group",
                     "root:x:0:\noutsider:x:60001:\nmember:x:60002:\n"
                     "powerstats:x:60010:member");
        // For the programs that are started from here. With a sanitizer, its runtime is not first.
        setenv("NSS_WRAPPER_PASSWD", mFiles.path("passwd").c_str(), 1);
        setenv("NSS_WRAPPER_GROUP", mFiles.path("group").c_str(), 1);
        setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
        setenv("LD_PRELOAD", "libnss_wrapper.so", 1);
        Process known({"getent", "group", "powerstats"});
        if (known.wait() != 0 || known.text().find("60010") == std::string::npos) {
            GTEST_SKIP() << "THE POLICY IS NOT TESTED: that needs libnss-wrapper";
        }
        mTree.writeZone("intel-rapl:0", "package-0", 4500000);
        mBus = std::make_unique<PrivateBus>(host::Bus::kSystem);
    }

    powerstats::TemporaryTree mFiles;
    powerstats::TemporaryTree mTree;
    std::unique_ptr<PrivateBus> mBus;
};
INSTANTIATE_TEST_SUITE_P(Test, Policy, testing::ValuesIn(kBackends),
                         testing::PrintToStringParamName());

TEST_P(Policy, EnergyIsForRootAndTheGroupOverAidlAndTheRestForEverybody) {
    const bool aidl = GetParam() == Backend::kAidl;
    const auto daemon = startDaemon(aidl ? "aidl" : "hidl", mTree.root(), host::Bus::kSystem);
    const struct {
        uid_t user;
        std::vector<gid_t> groups;
        bool mayReadEnergy;
    } cases[] = {{0, {}, aidl}, {kMember, {kGroup}, aidl}, {kOutsider, {}, false}};
    for (const auto& row : cases) {
        const Ended ended = runInChild([&] {
            BusScenario scenario;
            scenario.load();  // while this user can certainly read its file
            become(row.user, row.groups);
            const Outcome rails = scenario.call(Call::kRails);
            if (row.mayReadEnergy) {
                EXPECT_EQ(rails.bytes, rail("package-0", 4500));
            } else {
                EXPECT_EQ(rails.bytes, std::nullopt);
                EXPECT_EQ(rails.events[1], aidl ? "E: Error reading energy meter"
                                                : "W: getRailInfo() is not supported.");
            }
            const Outcome residencies = scenario.call(Call::kResidencies);
            EXPECT_NE(residencies.bytes.value_or("").find("running"), std::string::npos);
        });
        EXPECT_EQ(ended.exitCode, kReturned) << row.user << ": " << ended.errors;
    }
}

TEST_P(Policy, OnlyRootOwnsTheName) {
    become(kMember, {kGroup});
    std::string error;
    const auto server = host::BusServer::connect(host::Bus::kSystem, &error);
    ASSERT_NE(server, nullptr) << error;
    EXPECT_FALSE(GetParam() == Backend::kAidl
                     ? server->add(ndk::SharedRefBase::make<FakeAidl>(), &error)
                     : server->add(android::sp<stats_V1_0::IPowerStats>(new FakeHidl), &error));
    EXPECT_NE(error.find("the bus does not let this user own the name"), std::string::npos)
        << error;
    ASSERT_EQ(seteuid(0), 0);  // to remove the files
}

}  // namespace
}  // namespace support
