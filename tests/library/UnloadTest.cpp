// SPDX-License-Identifier: Apache-2.0
//
// Loading and unloading the library, any number of times in one process, and its exported names.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <utility>

#include "tests/support/Scenario.h"

namespace support {
namespace {

class Unload : public testing::TestWithParam<Backend>, public Scenario {};
INSTANTIATE_TEST_SUITE_P(Test, Unload, testing::ValuesIn(kBackends),
                         testing::PrintToStringParamName());

/// Returns this process's resident memory in KiB and its number of open descriptors. Pages of files
/// are left out, because the kernel brings in as many as it likes.
std::pair<long, long> memoryAndDescriptors() {
    std::ifstream status("/proc/self/status");
    long memory = 0;
    for (std::string word; status >> word;) {
        if (word == "RssAnon:") status >> memory;
    }
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return {memory, std::distance(begin(descriptors), end(descriptors))};
}

TEST_P(Unload, AThousandTimesLeavesNothingBehindAndStartsAfresh) {
    serve(GetParam(), smallMachine());
    std::pair<long, long> settled;
    for (int i = 0; i < 1000; ++i) {
        const Call which = kCalls[i % 2];
        load();
        ASSERT_EQ(call(which), asFirst(GetParam(), array(smallResult(which),
                                                         reconnectTraffic(GetParam(), which))));
        ASSERT_EQ(toText(callBare(kCalls[1 - i % 2])), smallResult(kCalls[1 - i % 2]));
        unload();
        ASSERT_EQ(dlopen(POWERSTATS_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
        load();
        unload();
        if (i == 9) settled = memoryAndDescriptors();
    }
    const auto last = memoryAndDescriptors();
    const long kib = last.first - settled.first;
    std::printf("after the tenth of 1000 loads: %+ld KiB, %+ld descriptors\n", kib,
                last.second - settled.second);
    EXPECT_EQ(last.second, settled.second);
#ifndef POWERSTATS_MEMORY_UNJUDGED
    EXPECT_LT(kib, 64);
#endif
    // A thousand links outlived the library that made them.
    kill(GetParam());
}

TEST_P(Unload, DestroysInReverseOrderOfConstruction) {
    using HidlRecipient = android::hardware::hidl_death_recipient;
    serve(GetParam(), smallMachine());
    for (const Call which : kCalls) call(which);
    void* const loaded = dlopen(POWERSTATS_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    const void* const global = dlsym(loaded, "_ZN9ferrolith19gDeathRecipientV1_0E");
    const android::wp<HidlRecipient> recipient =
        static_cast<const android::sp<HidlRecipient>*>(global)->get();
    dlclose(loaded);
    Lines events;
    onReference = [&](const std::string& event) {
        const bool lives = recipient.promote() != nullptr;
        events.push_back(event + (lives ? "" : ", no HIDL recipient"));
    };
    unload();
    onReference = nullptr;
    EXPECT_EQ(events,
              GetParam() == Backend::kAidl
                  ? (Lines{"AIDL recipient deleted", "Aidl proxy destroyed", "binder released"})
                  : (Lines{"AIDL recipient deleted", "Hidl proxy destroyed, no HIDL recipient"}));
    EXPECT_EQ(recipient.promote(), nullptr);
}

TEST(Exports, AreTheEntryPointsAndTheGlobalStateOnly) {
    const std::string command =
        std::string(NM_PROGRAM) + " -DC --defined-only '" + POWERSTATS_LIBRARY + "' 2>&1";
    const std::unique_ptr<FILE, int (*)(FILE*)> nm(popen(command.c_str(), "r"), pclose);
    ASSERT_NE(nm, nullptr);
    std::set<std::string> names;
    for (char line[4096]; std::fgets(line, sizeof(line), nm.get()) != nullptr;) {
        // "0000000000012345 B ferrolith::gChannels[abi:cxx11]"
        const std::string name(std::strchr(line, ' ') + 3);
        names.insert(name.substr(0, name.find_first_of("[\n")));
    }
    const std::string entryPoint =
        "Java_com_tavrel_android_ferrolith_TavrelPowerStatsHalDataProvider_";
    const std::set<std::string> expected{entryPoint + "getRailEnergyNative",
                                         entryPoint + "getResidenciesNative",
                                         "ferrolith::gChannels",
                                         "ferrolith::gDeathRecipientAidl",
                                         "ferrolith::gDeathRecipientV1_0",
                                         "ferrolith::gEntityNames",
                                         "ferrolith::gGetRailEnergyImpl",
                                         "ferrolith::gGetResidenciesImpl",
                                         "ferrolith::gPowerStatsHalAidl",
                                         "ferrolith::gPowerStatsHalV1_0",
                                         "ferrolith::gPowerStatsMutex",
                                         "ferrolith::gStateNames"};
    EXPECT_EQ(names, expected);
}

}  // namespace
}  // namespace support
