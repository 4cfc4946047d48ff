// SPDX-License-Identifier: Apache-2.0

#include "hal/LinuxCounters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <deque>
#include <map>
#include <new>

#include "hal/NamesAndIds.h"
#include "tests/hal/TemporaryTree.h"

namespace powerstats {
namespace {

using std::chrono::nanoseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

using Names = std::vector<std::string>;

/// A tree and what a reader of it said.
class LinuxCountersTest : public testing::Test {
  protected:
    std::unique_ptr<LinuxCounters> make() {
        LinuxCounters::Options options;
        options.root = mTree.root();
        options.warn = [this](const std::string& text) { mWarnings.push_back(text); };
        if (mReadClock) options.readClock = mReadClock;
        return std::make_unique<LinuxCounters>(options);
    }

    std::string fullPath(const std::string& file) const { return mTree.root() + "/" + file; }

    TemporaryTree mTree;
    Names mWarnings;
    ReadClock mReadClock;
};

std::map<std::string, int64_t> energies(const LinuxCounters& counters) {
    std::map<int32_t, std::string> names;
    for (const Rail& rail : counters.rails()) names[rail.id] = rail.name;
    std::map<std::string, int64_t> byName;
    for (const RailEnergy& rail : counters.readRails({}).records) {
        byName[names.at(rail.id)] = rail.reading.energyUWs;
    }
    return byName;
}

/// "entity/state" to time and entries.
std::map<std::string, std::pair<int64_t, int64_t>> residencies(const LinuxCounters& counters) {
    std::map<std::pair<int32_t, int32_t>, std::string> names;
    for (const EntitySource& entity : counters.entities()) {
        for (const StateSource& state : entity.states) {
            names[{entity.id, state.id}] = entity.name + "/" + state.name;
        }
    }
    std::map<std::string, std::pair<int64_t, int64_t>> byName;
    for (const EntityResidency& entity : counters.readEntities({}).records) {
        for (const StateResidency& state : entity.states) {
            byName[names.at({entity.id, state.id})] = {state.residency.totalTimeMs,
                                                       state.residency.entryCount};
        }
    }
    return byName;
}

/// All rails and entities, by name.
std::map<std::string, int32_t> ids(const LinuxCounters& counters) {
    std::map<std::string, int32_t> byName;
    for (const Rail& rail : counters.rails()) byName["rail " + rail.name] = rail.id;
    for (const EntitySource& entity : counters.entities()) byName[entity.name] = entity.id;
    return byName;
}

Names namesOf(const std::map<std::string, int64_t>& energies) {
    Names names;
    for (const auto& [name, energy] : energies) names.push_back(name);
    return names;
}

TEST(RailNames, AreQualifiedAsFarAsNeeded) {
    const struct {
        const char* description;
        std::vector<std::pair<std::string, std::string>> files;
        Names names;
    } cases[] = {
        {"zones in zones",
         {{"powercap/intel-rapl:0/name", "package-0"},
          {"powercap/intel-rapl:0/energy_uj", "1"},
          {"powercap/intel-rapl:0:0/name", "core"},
          {"powercap/intel-rapl:0:0/energy_uj", "1"},
          {"powercap/intel-rapl:0:0:3/name", "thread"},
          {"powercap/intel-rapl:0:0:3/energy_uj", "1"}},
         {"package-0", "package-0/core", "package-0/core/thread"}},
        {"a control type has no counter, and a zone without a name has its folder's",
         {{"powercap/intel-rapl/enabled", "1"}, {"powercap/intel-rapl:0/energy_uj", "1"}},
         {"intel-rapl:0"}},
        {"one name in two control types",
         {{"powercap/intel-rapl:0/name", "package-0"},
          {"powercap/intel-rapl:0/energy_uj", "1"},
          {"powercap/intel-rapl-mmio:0/name", "package-0"},
          {"powercap/intel-rapl-mmio:0/energy_uj", "1"}},
         {"intel-rapl-mmio/package-0", "intel-rapl/package-0"}},
        {"one name twice in a control type",
         {{"powercap/rapl:0/name", "package-0"},
          {"powercap/rapl:0/energy_uj", "1"},
          {"powercap/rapl:1/name", "package-0"},
          {"powercap/rapl:1/energy_uj", "1"}},
         {"rapl/package-0 (rapl:0)", "rapl/package-0 (rapl:1)"}},
        {"a label, no label, and no name of the chip",
         {{"hwmon/hwmon0/name", "meter"},
          {"hwmon/hwmon0/energy1_input", "1"},
          {"hwmon/hwmon0/energy2_input", "1"},
          {"hwmon/hwmon0/energy2_label", "fans"},
          {"hwmon/hwmon0/power1_input", "1"},
          {"hwmon/hwmon7/energy1_input", "1"}},
         {"fans", "hwmon7/energy1", "meter/energy1"}},
        {"one label in two kinds of chip",
         {{"hwmon/hwmon0/name", "a"},
          {"hwmon/hwmon0/energy1_input", "1"},
          {"hwmon/hwmon0/energy1_label", "fans"},
          {"hwmon/hwmon1/name", "b"},
          {"hwmon/hwmon1/energy1_input", "1"},
          {"hwmon/hwmon1/energy1_label", "fans"}},
         {"a/fans", "b/fans"}},
        {"one label in two chips of a kind",
         {{"hwmon/hwmon0/name", "a"},
          {"hwmon/hwmon0/energy1_input", "1"},
          {"hwmon/hwmon1/name", "a"},
          {"hwmon/hwmon1/energy1_input", "1"}},
         {"a/hwmon0/energy1", "a/hwmon1/energy1"}},
        {"one name in both classes, and one that nothing makes different",
         {{"powercap/rapl:0/name", "same"},
          {"powercap/rapl:0/energy_uj", "1"},
          {"hwmon/hwmon0/name", "rapl"},
          {"hwmon/hwmon0/energy1_label", "same"},
          {"hwmon/hwmon0/energy1_input", "1"},
          {"hwmon/hwmon0/energy2_label", "same"},
          {"hwmon/hwmon0/energy2_input", "1"},
          {"hwmon/hwmon0/energy3_label", "rapl/hwmon0/same #2"},
          {"hwmon/hwmon0/energy3_input", "1"}},
         {"rapl/hwmon0/same", "rapl/hwmon0/same #2", "rapl/hwmon0/same #3", "rapl/same (rapl:0)"}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.description);
        TemporaryTree tree;
        for (const auto& [file, text] : test.files) tree.write("class/" + file, text);
        LinuxCounters::Options options;
        options.root = tree.root() + "/";
        EXPECT_EQ(namesOf(energies(LinuxCounters(options))), test.names);
    }
}

TEST(SafeName, EscapesAndCuts) {
    const std::string long254(254, 'x');
    const struct {
        std::string bytes;
        std::string name;
    } cases[] = {
        {"package-0 \\ \u00b5J \U0001f50b \ufdcf\ufdf0\U0001fffd",
         "package-0 \\ \u00b5J \U0001f50b \ufdcf\ufdf0\U0001fffd"},
        {"\xb5J", R"(\xB5J)"},
        {std::string("a\0b\x1b\x7f\xc2\x9f\xc2\xa0", 9), R"(a\x00b\x1B\x7F\xC2\x9F)"
                                                         "\u00a0"},
        // Overlong, a surrogate, beyond Unicode, and cut short.
        {"\xc1\xbf", R"(\xC1\xBF)"},
        {"\xed\xa0\x80", R"(\xED\xA0\x80)"},
        {"\xf4\x90\x80\x80", R"(\xF4\x90\x80\x80)"},
        {"x\xe2\x82", R"(x\xE2\x82)"},
        {"\ufdd0\ufdef\uffff\U0010fffe", R"(\u{FDD0}\u{FDEF}\u{FFFF}\u{10FFFE})"},
        {long254 + "\u00b5", long254 + "\u00b5"},
        {long254 + "\u20ac", long254},
        {long254 + "\x1b"
                   "a",
         long254},
    };
    for (const auto& test : cases) EXPECT_EQ(safeName(test.bytes), test.name);
}

TEST_F(LinuxCountersTest, NamesAreSafeAndStillDistinctOnceCut) {
    const std::string label(300, 'x');
    const std::string folder = std::string(200, 'd') + "/" + std::string(100, 'd');
    for (int i = 0; i < 3; ++i) {
        const std::string number = std::to_string(i);
        mTree.write("class/hwmon/hwmon0/energy" + number + "_label", label);
        mTree.write("class/hwmon/hwmon0/energy" + number + "_input", 1);
        mTree.writeIdleState(0, i, "C\xff", 1, 1);
    }
    mTree.writeDevice(folder + "1", 1, 1);
    mTree.writeDevice(folder + "2", 1, 1);
    mTree.writeDevice("cpu0", 1, 1);
    const auto counters = make();

    const std::string chip = "hwmon0/hwmon0/";
    const std::string cut = folder.substr(0, 256);
    EXPECT_THAT(namesOf(energies(*counters)),
                UnorderedElementsAre(chip + label.substr(0, 256 - chip.size()),
                                     chip + label.substr(0, 253 - chip.size()) + " #2",
                                     chip + label.substr(0, 253 - chip.size()) + " #3"));
    Names names;
    for (const auto& [name, id] : ids(*counters)) {
        if (name.compare(0, 4, "rail") != 0) names.push_back(name);
    }
    EXPECT_THAT(names,
                UnorderedElementsAre("system", "cpu0", "cpu0 #2", cut, cut.substr(0, 253) + " #2"));
    Names states;
    for (const StateSource& state : counters->entities()[1].states) states.push_back(state.name);
    EXPECT_THAT(states, ElementsAre(R"(C\xFF)", R"(C\xFF #2)", R"(C\xFF #3)"));
}

TEST_F(LinuxCountersTest, IdsComeFromTheThingAndNotFromItsPlace) {
    mTree.writeZone("rapl:0", "package-0", 1);
    mTree.writeZone("rapl:5", "package-5", 1);
    mTree.writeDevice("pci0/a", 1, 1);
    mTree.writeDevice("pci0/b", 1, 1);
    mTree.writeIdleState(0, 0, "POLL", 1, 1);
    mTree.writeIdleState(7, 2, "C2", 1, 1);
    std::map<std::string, int32_t> before = ids(*make());
    EXPECT_EQ(before.at("cpu7"), 7);
    EXPECT_EQ(before.at("system"), 0x10000);

    for (const char* gone :
         {"class/powercap/rapl:0", "devices/pci0/a", "devices/system/cpu/cpu0"}) {
        mTree.remove(gone);
    }
    mTree.writeZone("another:0", "before the rest", 1);
    mTree.writeDevice("another", 1, 1);
    mTree.writeIdleState(3, 0, "POLL", 1, 1);
    std::map<std::string, int32_t> after = ids(*make());

    for (const char* kept : {"rail package-5", "pci0/b", "cpu7", "system"}) {
        EXPECT_EQ(before.at(kept), after.at(kept)) << kept;
    }
}

TEST_F(LinuxCountersTest, IdsOfChipsStayWhenTheirNumbersChange) {
    // Two kinds of chip on one device, the same on another, and one without a device.
    const std::pair<std::string, std::string> chips[] = {
        {"a", "pci0"}, {"b", "pci0"}, {"a", "pci1"}, {"c", ""}};
    /// The ids by the chips' energies.
    const auto idsWithNumbers = [&](int first, int step) {
        mTree.remove("class/hwmon");
        mTree.remove("devices");
        mTree.makeFolder("class/hwmon");
        for (int i = 0; i < 4; ++i) {
            const auto& [name, device] = chips[i];
            const std::string chip = "hwmon/hwmon" + std::to_string(first + step * i);
            const std::string folder = device.empty() ? "class/" : "devices/" + device + "/";
            mTree.write(folder + chip + "/name", name);
            mTree.write(folder + chip + "/energy1_input", i);
            if (device.empty()) continue;
            std::filesystem::create_directory_symlink("../..",
                                                      mTree.path(folder + chip + "/device"));
            std::filesystem::create_directory_symlink(mTree.path(folder + chip),
                                                      mTree.path("class/" + chip));
        }
        std::map<int64_t, int32_t> byEnergy;
        for (const auto& [id, reading] : make()->readRails({}).records) {
            byEnergy[reading.energyUWs] = id;
        }
        return byEnergy;
    };
    const auto before = idsWithNumbers(0, 1);
    EXPECT_THAT(before, testing::SizeIs(4));
    EXPECT_EQ(idsWithNumbers(9, -1), before);
}

TEST_F(LinuxCountersTest, PathsWithOneHashGetDifferentIdsThatStayTheSame) {
    mTree.writeDevice("platform/device209899", 1, 1);
    mTree.writeDevice("platform/device193059", 1, 1);
    mTree.writeZone("zone:61784", "b", 1);
    mTree.writeZone("zone:39751", "a", 1);
    // Written out: clients keep names by these numbers across a restart, and across a new version.
    constexpr int32_t kDeviceId = 0x40000000 + 432926878;
    constexpr int32_t kRailId = 962335114;
    EXPECT_THAT(
        ids(*make()),
        UnorderedElementsAre(Pair("platform/device193059", kDeviceId),
                             Pair("platform/device209899", kDeviceId + 1), Pair("rail a", kRailId),
                             Pair("rail b", kRailId + 1), Pair("system", 0x10000)));
}

TEST_F(LinuxCountersTest, TheSetIsFixedWhenItIsMade) {
    mTree.writeZone("rapl:0", "package-0", 10);
    mTree.writeIdleState(0, 0, "POLL", 1000, 1);
    mTree.writeIdleState(0, 1, "C1", 2000, 2);
    mTree.writeDevice("pci0", 3, 4);
    mTree.writeDevice("awake", 3, 0);
    const auto counters = make();
    const auto fixedIds = ids(*counters);
    ASSERT_THAT(fixedIds, testing::SizeIs(4));

    mTree.writeZone("rapl:1", "package-1", 20);
    mTree.writeIdleState(0, 2, "C2", 1, 1);
    mTree.writeIdleState(1, 0, "POLL", 1, 1);
    mTree.writeDevice("awake", 3, 5);
    mTree.remove("devices/system/cpu/cpu0/cpuidle/state1/usage");
    mTree.remove("devices/pci0");
    EXPECT_EQ(ids(*counters), fixedIds);
    EXPECT_THAT(energies(*counters), ElementsAre(Pair("package-0", 10)));
    mTree.writeIdleState(0, 0, "POLL", 5000, 1);
    EXPECT_THAT(residencies(*counters),
                UnorderedElementsAre(Pair("cpu0/POLL", Pair(5, 1)), Pair("cpu0/C1", Pair(2, 2)),
                                     Pair("system/running", testing::_),
                                     Pair("system/suspended", testing::_)));

    mTree.remove("class/powercap/rapl:0");
    mTree.remove("devices/system/cpu/cpu0");
    EXPECT_EQ(ids(*counters), fixedIds);
    EXPECT_THAT(energies(*counters), IsEmpty());
    EXPECT_THAT(counters->readEntities({}).records, testing::SizeIs(1)) << "only the system";

    mTree.writeZone("rapl:0", "package-0", 30);
    EXPECT_THAT(energies(*counters), ElementsAre(Pair("package-0", 30)));
    EXPECT_THAT(mWarnings, IsEmpty()) << "what comes and goes is no fault";
}

TEST_F(LinuxCountersTest, DevicesThatCanSuspendAreShownBeforeTheyDo) {
    const char* const statuses[] = {"active", "suspended", "error", "unsupported"};
    for (const std::string status : statuses) {
        mTree.writeDevice(status, 5, 0);
        mTree.write("devices/" + status + "/power/runtime_status", status);
    }
    mTree.writeDevice("unsupported", 5, 6);
    mTree.writeDevice("unknown and never suspended", 5, 0);
    mTree.writeDevice("unknown", 5, 6);
    const auto counters = make();
    EXPECT_THAT(ids(*counters),
                UnorderedElementsAre(Pair("active", testing::_), Pair("suspended", testing::_),
                                     Pair("error", testing::_), Pair("unknown", testing::_),
                                     Pair("system", testing::_)));
    mTree.writeDevice("active", 5, 70);
    EXPECT_THAT(residencies(*counters)["active/suspended"], Pair(70, 0));
}

TEST_F(LinuxCountersTest, UnitsAreMillisecondsAndMicrowattSeconds) {
    mTree.write("class/hwmon/hwmon0/energy1_input", 9223372036854775807);
    mTree.writeIdleState(0, 3, "C6", 1234567, 89);
    mTree.writeDevice("pci0/usb1", 4321, 8765);
    const auto counters = make();
    EXPECT_THAT(energies(*counters), ElementsAre(Pair("hwmon0/energy1", 9223372036854775807)));
    auto times = residencies(*counters);
    EXPECT_THAT(times["cpu0/C6"], Pair(1234, 89));
    EXPECT_THAT(times["pci0/usb1/active"], Pair(4321, 0));
    EXPECT_THAT(times["pci0/usb1/suspended"], Pair(8765, 0));
}

TEST_F(LinuxCountersTest, LinksLeadToZonesAndChipsButNotFromDeviceToDevice) {
    mTree.write("devices/virtual/rapl:0/energy_uj", 5);
    mTree.write("devices/virtual/rapl:0/name", "package-0");
    mTree.writeDevice("virtual/rapl:0", 1, 2);
    mTree.makeFolder("class/powercap");
    std::filesystem::create_symlink("../../devices/virtual/rapl:0",
                                    mTree.path("class/powercap/rapl:0"));
    std::filesystem::create_symlink("..", mTree.path("devices/virtual/circle"));
    EXPECT_THAT(ids(*make()),
                UnorderedElementsAre(Pair("rail package-0", testing::_), Pair("system", testing::_),
                                     Pair("virtual/rapl:0", testing::_)));
}

TEST_F(LinuxCountersTest, EachUnusableFileGivesOneWarningAndLeavesTheRestAlone) {
    const std::string number =
        "not a whole number from 0 to 2^63 - 1 "
        "(left out until it is one; check the driver that provides it)";
    const std::string blanks = std::string(4094, ' ') + "123456";
    const std::string folder = "Is a directory (expected a file: check that this is a sysfs tree)";
    const struct {
        const char* file;
        const char* text;  // null: a folder stands in the file's place
        std::string warning;
    } cases[] = {
        {"class/powercap/rapl:0/energy_uj", "", number},
        {"class/powercap/rapl:1/energy_uj", "-1", number},
        {"class/powercap/rapl:2/energy_uj", nullptr, folder},
        {"class/hwmon/hwmon0/energy1_input", "12 apples", number},
        {"class/hwmon/hwmon0/energy2_input", blanks.c_str(), number},
        {"devices/system/cpu/cpu0/cpuidle/state0/time", "0x10", number},
        {"devices/system/cpu/cpu0/cpuidle/state1/usage", "9223372036854775808", number},
        {"devices/pci0/power/runtime_suspended_time", nullptr, folder},
        {"power/suspend_stats/success", "many", number},
    };
    for (int cpu = 0; cpu < 2; ++cpu) {
        for (int state = 0; state < 2; ++state)
            mTree.writeIdleState(cpu, state, state == 0 ? "POLL" : "C1", 1000, 1);
    }
    mTree.writeZone("rapl:3", "package-3", 7);
    Names warnings;
    for (const auto& test : cases) {
        mTree.remove(test.file);
        if (test.text == nullptr) {
            mTree.makeFolder(test.file);
        } else {
            mTree.write(test.file, test.text);
        }
        warnings.push_back(fullPath(test.file) + ": " + test.warning);
    }

    const auto counters = make();
    EXPECT_THAT(ids(*counters), UnorderedElementsAre(Pair("rail package-3", testing::_),
                                                     Pair("cpu1", 1), Pair("system", 0x10000)));
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(energies(*counters), ElementsAre(Pair("package-3", 7)));
        EXPECT_THAT(residencies(*counters),
                    UnorderedElementsAre(Pair("cpu1/POLL", testing::_), Pair("cpu1/C1", testing::_),
                                         Pair("system/running", Pair(testing::Gt(0), 1)),
                                         Pair("system/suspended", Pair(testing::Ge(0), 0))));
    }
    EXPECT_THAT(mWarnings, testing::UnorderedElementsAreArray(warnings));
}

TEST_F(LinuxCountersTest, ARailThatMayNotBeReadSaysHowToGetIt) {
    const std::string file = "class/powercap/rapl:0/energy_uj";
    mTree.writeZone("rapl:0", "package-0", 7);
    std::filesystem::permissions(mTree.path(file), std::filesystem::perms(0));
    // Root reads any file, so a test that runs as root reads as somebody else.
    const uid_t user = geteuid();
    ASSERT_EQ(seteuid(user == 0 ? 65534 : user), 0);
    const bool treeIsOpen = eaccess(mTree.root().c_str(), R_OK) == 0;
    EXPECT_THAT(energies(*make()), IsEmpty());
    ASSERT_EQ(seteuid(user), 0);
    if (!treeIsOpen) GTEST_SKIP() << "the folder for temporary files is not open to all users";
    EXPECT_THAT(mWarnings, ElementsAre(fullPath(file) +
                                       ": Permission denied (run as root, or grant read access)"));
}

TEST_F(LinuxCountersTest, SystemTimesIgnoreDelaysBetweenTheClocksAndNeverGoDown) {
    // Each reading of the difference: CLOCK_MONOTONIC, and how much CLOCK_BOOTTIME is ahead of it.
    std::deque<std::pair<nanoseconds, nanoseconds>> readings;
    mReadClock = [&](clockid_t clock) -> nanoseconds {
        if (readings.empty()) return std::chrono::milliseconds(5000);
        if (clock == CLOCK_MONOTONIC) return readings.front().first;
        const nanoseconds boot = readings.front().first + readings.front().second;
        readings.pop_front();
        return boot;
    };
    mTree.write("power/suspend_stats/success", 3);
    const auto counters = make();
    const auto readSuspended = [&] {
        const StateSource& suspended = counters->entities().front().states[1];
        return suspended.read().value();
    };
    const auto ms = [](double count) { return nanoseconds(static_cast<int64_t>(count * 1e6)); };

    readings = {{ms(100), ms(90)}, {ms(200), ms(70.9)}, {ms(300), ms(80)}};
    EXPECT_EQ(readSuspended().totalTimeMs, 70);
    readings = {{ms(400), ms(60)}, {ms(500), ms(75)}, {ms(600), ms(75)}};
    EXPECT_EQ(readSuspended().totalTimeMs, 70);
    readings.clear();
    EXPECT_EQ(readSuspended().entryCount, 3);
    EXPECT_THAT(residencies(*counters)["system/running"], Pair(5000, 4));
}

TEST_F(LinuxCountersTest, ResetsOfARailGiveOneWarning) {
    const std::string file = "class/hwmon/hwmon0/energy1_input";
    mTree.write(file, 900);
    const auto counters = make();
    mTree.write(file, 500);
    EXPECT_THAT(energies(*counters), ElementsAre(Pair("hwmon0/energy1", 1400)));
    EXPECT_THAT(mWarnings,
                ElementsAre(fullPath(file) + ": the counter started again at 0 (the energy since "
                                             "its last reading is lost; a suspend or a reload of "
                                             "the driver does this)"));
}

/// Waits until somebody has opened, read and closed a file.
bool waitForReading(const std::filesystem::path& file) {
    const int events = inotify_init1(IN_CLOEXEC);
    inotify_add_watch(events, file.c_str(), IN_CLOSE_NOWRITE);
    pollfd waiting{events, POLLIN, 0};
    const bool wasRead = poll(&waiting, 1, 20000) == 1;
    close(events);
    return wasRead;
}

size_t samplerThreads() {
    size_t count = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream(thread.path() / "comm") >> name;
        if (name == "counter-sampler") ++count;
    }
    return count;
}

TEST_F(LinuxCountersTest, TheSamplerSeesWrapsThatNoClientSees) {
    // The shortest possible wrap takes 40 ms; each look at the clock comes 1 ms after another.
    std::atomic<int> readings{0};
    mReadClock = [&](clockid_t clock) {
        return std::chrono::milliseconds(clock == CLOCK_MONOTONIC ? ++readings : 1);
    };
    mTree.writeZone("rapl:0", "package-0", 39900000, 40000000);
    const auto counters = make();
    for (const int energyUj : {100000, 39900000, 100000, 39900000}) {
        mTree.write("class/powercap/rapl:0/energy_uj", energyUj);
        ASSERT_TRUE(waitForReading(mTree.path("class/powercap/rapl:0/energy_uj")));
    }
    EXPECT_EQ(energies(*counters)["package-0"], 119900000);
}

TEST_F(LinuxCountersTest, TheSamplerRunsOnlyWhereACounterWrapsAndStopsAtOnce) {
    mTree.writeZone("rapl:0", "package-0", 1, 0);
    auto counters = make();
    EXPECT_EQ(samplerThreads(), 0u);

    mTree.writeZone("rapl:0", "package-0", 1, 262143328850);
    counters = make();
    EXPECT_EQ(samplerThreads(), 1u);
    usleep(50000);  // so that it is waiting for its next reading
    const auto start = std::chrono::steady_clock::now();
    counters.reset();
    // The kernel may list a thread for a moment after it was joined.
    while (samplerThreads() != 0) usleep(1000);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST(PeriodicThread, OutlivesACallThatThrowsAndBlocksSignals) {
    std::atomic<int> calls{0};
    std::atomic<int> unblocked{0};
    const PeriodicThread thread("thrower", std::chrono::milliseconds(1), [&] {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        unblocked += 1 - sigismember(&mask, SIGTERM);
        ++calls;
        throw std::bad_alloc();
    });
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0) << "of the thread that made it";
    while (calls < 3) usleep(1000);
    EXPECT_EQ(unblocked, 0);
}

}  // namespace
}  // namespace powerstats
