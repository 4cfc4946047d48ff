// SPDX-License-Identifier: Apache-2.0

#include "power/linux/LinuxSource.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <map>
#include <new>
#include <sstream>

#include "power/text/Names.h"
#include "tests/power/TemporaryTree.h"

namespace powerstats {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

using Lines = std::vector<std::string>;

/// A tree, and the warnings of those who read it.
class LinuxSourceTest : public testing::Test {
  protected:
    std::unique_ptr<LinuxSource> make() {
        LinuxSource::Options options;
        options.root = mTree.root();
        options.warn = [this](const std::string& text) { mWarnings.push_back(text); };
        options.readClock = mReadClock;
        return std::make_unique<LinuxSource>(options);
    }

    TemporaryTree mTree;
    Lines mWarnings;
    ReadClock mReadClock = [](clockid_t) { return milliseconds(5000); };
};

/// The rails as "name energy" and the states, without the system's, as "entity/state time entries".
Lines readAll(LinuxSource* source) {
    Lines lines;
    const Reading reading = source->read();
    for (size_t i = 0; i < reading.rails.size(); ++i) {
        if (!reading.rails[i]) continue;
        lines.push_back(
            fmt::format("{} {}", reading.lists->rails[i].name, reading.rails[i]->energyUWs));
    }
    for (size_t i = 0; i < reading.entities.size(); ++i) {
        const Entity& entity = reading.lists->entities[i];
        if (entity.type == EntityType::kSystem || !reading.entities[i]) continue;
        for (size_t j = 0; j < entity.states.size(); ++j) {
            const Residency& state = reading.entities[i]->states[j];
            lines.push_back(fmt::format("{}/{} {} {}", entity.name, entity.states[j].name,
                                        toMilliseconds(state.totalTime), state.entryCount));
        }
    }
    return lines;
}

/// The ids of all rails and entities by name; those of rails begin with "rail ".
std::map<std::string, int64_t> ids(LinuxSource* source) {
    std::map<std::string, int64_t> byName;
    const auto lists = source->read(kNothing, kNothing).lists;
    for (const Rail& rail : lists->rails) byName["rail " + rail.name] = rail.id;
    for (const Entity& entity : lists->entities) byName[entity.name] = entity.id;
    return byName;
}

TEST_F(LinuxSourceTest, RailNamesAreQualifiedAsFarAsNeeded) {
    // Zones "rapl:0=name", chips "hwmon0=name" and their sensors "hwmon0/energy1=label".
    std::istringstream things(
        // A zone in a zone in a zone, one without a name, and one name twice in a control type.
        "rapl:0=package-0,rapl:0:0=core,rapl:0:0:3=thread,rapl:5=,twin:0=t,twin:1=t,"
        // A label in two kinds of chip, a chip without a name, two chips of a kind.
        "hwmon0=a,hwmon0/energy2=fans,hwmon0/power1=,hwmon1=b,hwmon1/energy1=fans,"
        "hwmon7/energy1=,hwmon2=c,hwmon2/energy1=,hwmon3=c,hwmon3/energy1=,"
        // One name in both classes, and one that nothing makes different.
        "r:0=same,hwmon8=r,hwmon8/energy1=same,hwmon8/energy2=same,"
        "hwmon8/energy3=r/hwmon8/same #2");
    for (std::string thing; std::getline(things, thing, ',');) {
        const std::string path = thing.substr(0, thing.find('='));
        const bool isZone = path.find(':') != std::string::npos;
        const bool isSensor = path.find('/') != std::string::npos;
        const std::string file = (isZone ? "class/powercap/" : "class/hwmon/") + path;
        mTree.write(file + (isSensor ? "_label" : "/name"), thing.substr(path.size() + 1));
        mTree.write(file + (isSensor ? "_input" : "/energy_uj"), 1);
    }
    std::string names;
    for (const auto& [name, id] : ids(make().get())) names += name + ',';
    EXPECT_EQ(names,
              "rail a/fans,rail b/fans,rail c/hwmon2/energy1,rail c/hwmon3/energy1,"
              "rail hwmon7/energy1,rail package-0,rail package-0/core,rail package-0/core/thread,"
              "rail r/hwmon8/same,rail r/hwmon8/same #2,rail r/hwmon8/same #3,rail r/same (r:0),"
              "rail rapl:5,rail twin/t (twin:0),rail twin/t (twin:1),system,");
}

TEST(SafeName, EscapesAndCuts) {
    const std::string long254(254, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"package-0 \\ \u00b5J \U0001f50b \ufdcf\ufdf0\U0001fffd",
         "package-0 \\ \u00b5J \U0001f50b \ufdcf\ufdf0\U0001fffd"},
        {std::string("a\0b\x1b\x7f\xc2\x9f\xc2\xa0", 9), "a\\x00b\\x1B\\x7F\\xC2\\x9F\u00a0"},
        // Overlong and beyond Unicode.
        {"\xc1\xbf", R"(\xC1\xBF)"},
        {"\xf4\x90\x80\x80", R"(\xF4\x90\x80\x80)"},
        {"\ufdd0\ufdef\uffff\U0010fffe", R"(\u{FDD0}\u{FDEF}\u{FFFF}\u{10FFFE})"},
        {long254 + "\u00b5", long254 + "\u00b5"},
        {long254 + "\u20ac", long254},
    };
    for (const auto& [bytes, name] : cases) EXPECT_EQ(safeName(bytes), name);
    const std::string tooLong = long254 + "xxx";
    EXPECT_THAT(distinctNames({{tooLong}, {tooLong}}),
                ElementsAre(long254 + "xx", tooLong.substr(0, 253) + " #2"));
}

TEST_F(LinuxSourceTest, IdsComeFromTheThingAndNotFromItsPlace) {
    // Two pairs of paths with one hash. Clients keep names by these numbers across a restart, and
    // across a new version.
    mTree.writeDevice("platform/device209899", 1, 1);
    mTree.writeDevice("platform/device193059", 1, 1);
    mTree.writeZone("zone:61784", "b", 1);
    mTree.writeZone("zone:39751", "a", 1);
    mTree.writeDevice("cpu7", 1, 1);
    mTree.writeIdleState(0, 0, "POLL", 1, 1);
    mTree.writeIdleState(7, 2, "C2", 1, 1);
    const std::pair<const std::string, int64_t> expected[] = {
        {"cpu7", 7},
        {"platform/device193059", 0x40000000 + 432926878},
        {"platform/device209899", 0x40000000 + 432926879},
        {"rail a", 962335114},
        {"rail b", 962335115},
        {"system", 0x10000}};
    EXPECT_THAT(ids(make().get()), testing::IsSupersetOf(expected));
    mTree.remove("devices/system/cpu/cpu0");
    mTree.writeZone("another:0", "before the rest", 1);
    mTree.writeDevice("another", 1, 1);
    EXPECT_THAT(ids(make().get()), testing::IsSupersetOf(expected));
}

TEST_F(LinuxSourceTest, IdsOfChipsStayWhenTheirNumbersChange) {
    // Two kinds of chip on one device, the same on another, and one without a device.
    const std::pair<std::string, std::string> chips[] = {
        {"a", "devices/pci0/"}, {"b", "devices/pci0/"}, {"a", "devices/pci1/"}, {"c", "class/"}};
    std::map<int64_t, int64_t> idsByEnergy;
    for (const int boot : {0, 1}) {
        mTree.remove("class");
        mTree.remove("devices");
        for (int i = 0; i < 4; ++i) {
            const auto& [name, folder] = chips[i];
            const std::string chip = "hwmon/hwmon" + std::to_string(boot == 0 ? i : 9 - i);
            mTree.write(folder + chip + "/name", name);
            mTree.write(folder + chip + "/energy1_input", i);
            if (folder == "class/") continue;
            mTree.link("../..", folder + chip + "/device");
            mTree.link(mTree.path(folder + chip), "class/" + chip);
        }
        const Reading reading = make()->read();
        for (size_t i = 0; i < 4; ++i) {
            const int64_t id = reading.lists->rails.at(i).id;
            EXPECT_EQ(idsByEnergy.try_emplace(reading.rails[i]->energyUWs, id).first->second, id);
        }
    }
}

TEST_F(LinuxSourceTest, TheSetIsFixedWhenItIsMade) {
    mTree.writeZone("rapl:0", "package-0", 9223372036854775807);
    mTree.writeIdleState(0, 0, "POLL", 1000, 1);
    mTree.writeIdleState(0, 1, "POLL\xff", 2999, 2);
    mTree.writeIdleState(0, 2, "POLL\xff", 1000, 1);
    // A device that can suspend and has not, and two that cannot; a link is not a device.
    for (const std::string status : {"active", "unsupported"}) {
        mTree.writeDevice(status, 5, 0);
        mTree.write("devices/" + status + "/power/runtime_status", status);
    }
    mTree.writeDevice("never suspended", 5, 0);
    mTree.writeDevice("unsupported/usb", 5, 6);
    mTree.link("..", "devices/unsupported/circle");
    const auto source = make();
    const auto fixedIds = ids(source.get());

    mTree.writeZone("rapl:1", "package-1", 20);
    mTree.writeIdleState(0, 3, "C2", 1, 1);
    mTree.writeIdleState(1, 0, "POLL", 1, 1);
    mTree.writeDevice("never suspended", 5, 6);
    mTree.writeDevice("active", 5, 70);
    mTree.remove("devices/system/cpu/cpu0/cpuidle/state1/usage");
    mTree.remove("devices/unsupported/usb");
    mTree.writeIdleState(0, 0, "POLL", 5000, 1);
    EXPECT_THAT(
        readAll(source.get()),
        ElementsAre("package-0 9223372036854775807", "cpu0/POLL 5 1", R"(cpu0/POLL\xFF 2 2)",
                    R"(cpu0/POLL\xFF #2 1 1)", "active/active 5 0", "active/suspended 70 0"))
        << "a state that cannot be read keeps its last value";

    mTree.remove("class");
    mTree.remove("devices");
    EXPECT_THAT(readAll(source.get()), IsEmpty());
    mTree.writeDevice("unsupported/usb", 7, 8);
    EXPECT_THAT(readAll(source.get()),
                ElementsAre("unsupported/usb/active 7 0", "unsupported/usb/suspended 8 0"));
    EXPECT_THAT(ids(source.get()), testing::AllOf(fixedIds, testing::SizeIs(5)));
    EXPECT_THAT(mWarnings, IsEmpty()) << "a device that comes and goes is no fault";
}

TEST_F(LinuxSourceTest, EachUnusableFileGivesOneWarningAndLeavesTheRestAlone) {
    const std::string number =
        "not a whole number from 0 to 2^63 - 1 "
        "(left out until it is one; check the driver that provides it)";
    const std::string meter = "class/hwmon/hwmon1/energy1_input";
    const std::string forbidden = "class/powercap/rapl:2/energy_uj";
    const std::string folder = "devices/pci0/power/runtime_suspended_time";
    const std::pair<std::string, std::string> cases[] = {
        {"class/powercap/rapl:0/energy_uj", ""},
        {"class/powercap/rapl:1/energy_uj", "-1"},
        {"class/hwmon/hwmon0/energy1_input", "12 apples"},
        {"class/hwmon/hwmon0/energy2_input", std::string(4094, ' ') + "123456"},
        {"devices/system/cpu/cpu0/cpuidle/state0/time", "0x10"},
        {"devices/system/cpu/cpu0/cpuidle/state1/usage", "9223372036854775808"},
        {"power/suspend_stats/success", "many"},
    };
    for (const int state : {0, 1}) mTree.writeIdleState(0, state, "POLL", 1000, 1);
    mTree.writeIdleState(1, 0, "POLL", 1000, 1);
    mTree.write(meter, 900);
    mTree.write(forbidden, 7);
    std::filesystem::permissions(mTree.path(forbidden), std::filesystem::perms(0));
    mTree.write(folder + "/file", 1);
    const std::string root = mTree.root() + '/';
    Lines warnings = {
        root + meter +
            ": the counter started again at 0 (the energy since its last reading is lost; a "
            "suspend or a reload of the driver does this)",
        "energy left out: this user may not read " + root + forbidden + " (grant read access)",
        root + folder + ": Is a directory (expected a file: check that this is a sysfs tree)"};
    for (const auto& [file, text] : cases) {
        mTree.write(file, text);
        warnings.push_back(fmt::format("{}{}: {}", root, file, number));
    }
    // Root reads any file, so another user looks for the counters.
    const uid_t user = geteuid();
    ASSERT_EQ(seteuid(user == 0 ? 65534 : user), 0);
    const bool treeIsOpen = eaccess(mTree.root().c_str(), R_OK) == 0;
    const auto source = make();
    ASSERT_EQ(seteuid(user), 0);
    if (!treeIsOpen) GTEST_SKIP() << "the folder for temporary files is not open to all users";
    mTree.write(meter, 500);
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(readAll(source.get()), ElementsAre("hwmon1/energy1 1400", "cpu1/POLL 1 1"));
    }
    EXPECT_THAT(mWarnings, testing::UnorderedElementsAreArray(warnings));
}

TEST_F(LinuxSourceTest, SystemTimesIgnoreDelaysBetweenTheClocksAndNeverGoDown) {
    // The times suspended that the looks at the two clocks show: three in each reading, and one
    // for the stamp of the entity and of the reading.
    const std::vector<int> suspendedUs = {90000, 70900, 80000, 0, 0, 60000, 75000, 75000, 0, 0};
    size_t next = 0;
    mReadClock = [&](clockid_t clock) {
        return microseconds(5000000 + (clock == CLOCK_MONOTONIC ? 0 : suspendedUs.at(next++)));
    };
    const auto source = make();
    for (int i = 0; i < 2; ++i) {
        const auto states = source->read(kNothing, std::nullopt).entities.front()->states;
        EXPECT_EQ(toMilliseconds(states[0].totalTime), 5000);
        EXPECT_EQ(toMilliseconds(states[1].totalTime), 70);
    }
}

TEST_F(LinuxSourceTest, TheSamplerSeesWrapsThatNoClientSees) {
    // The shortest possible wrap takes 40 ms; each look at the clock comes 1 ms after another.
    std::atomic<int> readings{0};
    mReadClock = [&](clockid_t clock) {
        return milliseconds(clock == CLOCK_MONOTONIC ? ++readings : 1);
    };
    mTree.writeZone("rapl:0", "package-0", 39900000, 40000000);
    const auto source = make();
    const std::string file = "class/powercap/rapl:0/energy_uj";
    for (const int energyUj : {100000, 39900000, 100000, 39900000}) {
        mTree.write(file, energyUj);
        const int events = inotify_init1(IN_CLOEXEC);
        inotify_add_watch(events, mTree.path(file).c_str(), IN_CLOSE_NOWRITE);
        pollfd waiting{events, POLLIN, 0};
        ASSERT_EQ(poll(&waiting, 1, 20000), 1) << "nobody read the file";
        close(events);
    }
    EXPECT_THAT(readAll(source.get()), ElementsAre("package-0 119900000"));
}

TEST(PeriodicThread, OutlivesACallThatThrowsBlocksSignalsAndStopsAtOnce) {
    const auto blocksSignals = [] {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        return sigismember(&mask, SIGTERM) == 1;
    };
    std::atomic<int> calls{0};
    const PeriodicThread thread("thrower", milliseconds(1), [&] {
        if (blocksSignals()) ++calls;
        throw std::bad_alloc();
    });
    EXPECT_FALSE(blocksSignals()) << "the thread that made it";
    auto slow = std::make_unique<PeriodicThread>("slow", std::chrono::hours(1), [] {});
    while (calls < 50) usleep(1000);  // so that the slow one waits for its next call
    slow.reset();                     // does not wait for an hour
}

}  // namespace
}  // namespace powerstats
