// SPDX-License-Identifier: Apache-2.0

#include "hal/LinuxCounters.h"

#include <fmt/format.h>
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
#include <sstream>

#include "hal/NamesAndIds.h"
#include "tests/hal/TemporaryTree.h"

namespace powerstats {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

using Lines = std::vector<std::string>;

/// A tree, and the warnings of those who read it.
class LinuxCountersTest : public testing::Test {
  protected:
    std::unique_ptr<LinuxCounters> make() {
        LinuxCounters::Options options;
        options.root = mTree.root();
        options.warn = [this](const std::string& text) { mWarnings.push_back(text); };
        options.readClock = mReadClock;
        return std::make_unique<LinuxCounters>(options);
    }

    TemporaryTree mTree;
    Lines mWarnings;
    ReadClock mReadClock = [](clockid_t) { return milliseconds(5000); };
};

/// The rails as "name energy" and the states, without the system's, as "entity/state time entries".
Lines readAll(const LinuxCounters& counters) {
    std::map<int32_t, std::string> names;
    for (const Rail& rail : counters.rails()) names[rail.id] = rail.name;
    Lines lines;
    for (const RailEnergy& rail : counters.readRails({}).records) {
        lines.push_back(fmt::format("{} {}", names.at(rail.id), rail.reading.energyUWs));
    }
    std::map<int32_t, const EntitySource*> entities;
    for (const EntitySource& entity : counters.entities()) entities[entity.id] = &entity;
    for (const EntityResidency& record : counters.readEntities({}).records) {
        const EntitySource& entity = *entities.at(record.id);
        if (entity.type == EntityType::kSystem) continue;
        for (size_t i = 0; i < record.states.size(); ++i) {
            EXPECT_EQ(record.states[i].id, entity.states[i].id);
            const Residency& residency = record.states[i].residency;
            lines.push_back(fmt::format("{}/{} {} {}", entity.name, entity.states[i].name,
                                        residency.totalTimeMs, residency.entryCount));
        }
    }
    return lines;
}

/// The ids of all rails and entities by name; those of rails begin with "rail ".
std::map<std::string, int32_t> ids(const LinuxCounters& counters) {
    std::map<std::string, int32_t> byName;
    for (const Rail& rail : counters.rails()) byName["rail " + rail.name] = rail.id;
    for (const EntitySource& entity : counters.entities()) byName[entity.name] = entity.id;
    return byName;
}

TEST_F(LinuxCountersTest, RailNamesAreQualifiedAsFarAsNeeded) {
    // Zones "rapl:0=name", chips "hwmon0=name" and their sensors "hwmon0/energy1=label".
    std::istringstream things(
        // Zones in zones, a zone without a name, one name in two control types, and twice in one.
        "rapl:0=package-0,rapl:0:0=core,rapl:0:0:3=thread,rapl:5=,mmio:0=package-0,"
        "twin:0=t,twin:1=t,"
        // No label, a label in two kinds of chip, a chip without a name, two chips of a kind.
        "hwmon0=meter,hwmon0/energy1=,hwmon0/energy2=fans,hwmon0/power1=,hwmon1=b,"
        "hwmon1/energy1=fans,hwmon7/energy1=,hwmon2=c,hwmon2/energy1=,hwmon3=c,hwmon3/energy1=,"
        // One name in both classes, and one that nothing makes different.
        "r:0=same,hwmon8=r,hwmon8/energy1=same,hwmon8/energy2=same,"
        "hwmon8/energy3=r/hwmon8/same #2");
    for (std::string thing; std::getline(things, thing, ',');) {
        const std::string path = thing.substr(0, thing.find('='));
        const std::string name = thing.substr(path.size() + 1);
        const bool isZone = path.find(':') != std::string::npos;
        const bool isSensor = path.find('/') != std::string::npos;
        const std::string file = (isZone ? "class/powercap/" : "class/hwmon/") + path;
        if (!name.empty()) mTree.write(file + (isSensor ? "_label" : "/name"), name);
        if (isZone) mTree.write(file + "/energy_uj", 1);
        if (isSensor) mTree.write(file + "_input", 1);
    }
    mTree.write("class/powercap/rapl/enabled", 1);  // a control type, which has no counter
    std::string names;
    for (const auto& [name, id] : ids(*make())) names += name + '\n';
    EXPECT_EQ(names,
              "rail b/fans\nrail c/hwmon2/energy1\nrail c/hwmon3/energy1\nrail hwmon7/energy1\n"
              "rail meter/energy1\nrail meter/fans\nrail mmio/package-0\nrail package-0/core\n"
              "rail package-0/core/thread\nrail r/hwmon8/same\nrail r/hwmon8/same #2\n"
              "rail r/hwmon8/same #3\nrail r/same (r:0)\nrail rapl/package-0\nrail rapl:5\n"
              "rail twin/t (twin:0)\nrail twin/t (twin:1)\nsystem\n");
}

TEST(SafeName, EscapesAndCuts) {
    const std::string long254(254, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"package-0 \\ \u00b5J \U0001f50b \ufdcf\ufdf0\U0001fffd",
         "package-0 \\ \u00b5J \U0001f50b \ufdcf\ufdf0\U0001fffd"},
        {"\xb5J", R"(\xB5J)"},
        {std::string("a\0b\x1b\x7f\xc2\x9f\xc2\xa0", 9), "a\\x00b\\x1B\\x7F\\xC2\\x9F\u00a0"},
        // Overlong, a surrogate, beyond Unicode, and cut short.
        {"\xc1\xbf", R"(\xC1\xBF)"},
        {"\xed\xa0\x80", R"(\xED\xA0\x80)"},
        {"\xf4\x90\x80\x80", R"(\xF4\x90\x80\x80)"},
        {"x\xe2\x82", R"(x\xE2\x82)"},
        {"\ufdd0\ufdef\uffff\U0010fffe", R"(\u{FDD0}\u{FDEF}\u{FFFF}\u{10FFFE})"},
        {long254 + "\u00b5", long254 + "\u00b5"},
        {long254 + "\u20ac", long254},
    };
    for (const auto& [bytes, name] : cases) EXPECT_EQ(safeName(bytes), name);
    const std::string same(300, 'x');
    EXPECT_THAT(
        distinctNames({{same}, {same}, {same}}),
        ElementsAre(same.substr(0, 256), same.substr(0, 253) + " #2", same.substr(0, 253) + " #3"));
}

TEST_F(LinuxCountersTest, IdsComeFromTheThingAndNotFromItsPlace) {
    // Two pairs of paths with one hash. Clients keep names by these numbers across a restart, and
    // across a new version.
    mTree.writeDevice("platform/device209899", 1, 1);
    mTree.writeDevice("platform/device193059", 1, 1);
    mTree.writeZone("zone:61784", "b", 1);
    mTree.writeZone("zone:39751", "a", 1);
    mTree.writeDevice("cpu7", 1, 1);
    mTree.writeIdleState(0, 0, "POLL", 1, 1);
    mTree.writeIdleState(7, 2, "C2", 1, 1);
    auto before = ids(*make());
    EXPECT_EQ(before.erase("cpu7 #2"), 1u);
    std::map<std::string, int32_t> expected = {{"cpu0", 0},
                                               {"cpu7", 7},
                                               {"platform/device193059", 0x40000000 + 432926878},
                                               {"platform/device209899", 0x40000000 + 432926879},
                                               {"rail a", 962335114},
                                               {"rail b", 962335115},
                                               {"system", 0x10000}};
    EXPECT_EQ(before, expected);

    mTree.remove("devices/system/cpu/cpu0");
    mTree.writeZone("another:0", "before the rest", 1);
    mTree.writeDevice("another", 1, 1);
    expected.erase("cpu0");
    EXPECT_THAT(ids(*make()), testing::IsSupersetOf(expected));
}

TEST_F(LinuxCountersTest, IdsOfChipsStayWhenTheirNumbersChange) {
    // Two kinds of chip on one device, the same on another, and one without a device.
    const std::pair<std::string, std::string> chips[] = {
        {"a", "devices/pci0/"}, {"b", "devices/pci0/"}, {"a", "devices/pci1/"}, {"c", "class/"}};
    const auto idsByEnergy = [&](int first, int step) {
        mTree.remove("class/hwmon");
        mTree.remove("devices");
        mTree.makeFolder("class/hwmon");
        for (int i = 0; i < 4; ++i) {
            const auto& [name, folder] = chips[i];
            const std::string chip = "hwmon/hwmon" + std::to_string(first + step * i);
            mTree.write(folder + chip + "/name", name);
            mTree.write(folder + chip + "/energy1_input", i);
            if (folder == "class/") continue;
            std::filesystem::create_symlink("../..", mTree.path(folder + chip + "/device"));
            std::filesystem::create_symlink(mTree.path(folder + chip), mTree.path("class/" + chip));
        }
        std::map<int64_t, int32_t> ids;
        for (const auto& rail : make()->readRails({}).records)
            ids[rail.reading.energyUWs] = rail.id;
        return ids;
    };
    const auto before = idsByEnergy(0, 1);
    EXPECT_THAT(before, testing::SizeIs(4));
    EXPECT_EQ(idsByEnergy(9, -1), before);
}

TEST_F(LinuxCountersTest, AnswersTheIdsAskedForInTheirOrder) {
    mTree.writeZone("zone:39751", "a", 1);
    mTree.writeZone("zone:61784", "b", 2);
    mTree.writeIdleState(0, 0, "POLL", 1000, 1);
    const auto counters = make();
    const int32_t a = counters->rails()[0].id, b = counters->rails()[1].id;
    const struct {
        std::vector<int32_t> ids;
        std::string answer;
    } cases[] = {
        {{b, a}, "2 1 "},
        {{a, 77}, "no rail has the id 77"},
        {{a, a}, "the request repeats the id 962335114 (rail); ask for each once"},
        {{77, a, a},
         "the request has 3 ids, for 2 known (rail); ask for each once, or for all by an empty "
         "list"},
    };
    for (const auto& test : cases) {
        const auto answer = counters->readRails(test.ids);
        std::string text = answer.refusal.value_or("");
        for (const auto& rail : answer.records) text += fmt::format("{} ", rail.reading.energyUWs);
        EXPECT_EQ(text, test.answer);
    }
    EXPECT_EQ(counters->readEntities({0, 0x10000}).records.at(1).id, 0x10000);
    EXPECT_EQ(counters->readEntities({77}).refusal, "no power entity has the id 77");
}

TEST_F(LinuxCountersTest, TheSetIsFixedWhenItIsMade) {
    mTree.writeZone("rapl:0", "package-0", 10);
    mTree.writeIdleState(0, 0, "POLL", 1000, 1);
    mTree.writeIdleState(0, 1, "POLL\xff", 2999, 2);
    mTree.writeIdleState(0, 2, "POLL\xff", 1000, 1);
    mTree.writeDevice("pci0", 3, 4);
    const auto counters = make();
    const auto fixedIds = ids(*counters);
    ASSERT_THAT(fixedIds, testing::SizeIs(4));

    mTree.writeZone("rapl:1", "package-1", 20);
    mTree.writeIdleState(0, 3, "C2", 1, 1);
    mTree.writeIdleState(1, 0, "POLL", 1, 1);
    mTree.writeDevice("awake", 3, 5);
    mTree.remove("devices/system/cpu/cpu0/cpuidle/state1/usage");
    mTree.remove("devices/pci0");
    mTree.writeIdleState(0, 0, "POLL", 5000, 1);
    EXPECT_EQ(ids(*counters), fixedIds);
    EXPECT_THAT(readAll(*counters), ElementsAre("package-0 10", "cpu0/POLL 5 1",
                                                R"(cpu0/POLL\xFF 2 2)", R"(cpu0/POLL\xFF #2 1 1)"))
        << "a state that cannot be read keeps its last value";

    mTree.remove("class/powercap/rapl:0");
    mTree.remove("devices/system/cpu/cpu0");
    EXPECT_EQ(ids(*counters), fixedIds);
    EXPECT_THAT(readAll(*counters), IsEmpty());

    mTree.writeZone("rapl:0", "package-0", 30);
    EXPECT_THAT(readAll(*counters), ElementsAre("package-0 30"));
    EXPECT_THAT(mWarnings, IsEmpty()) << "a device that comes and goes is no fault";
}

TEST_F(LinuxCountersTest, DevicesThatCanSuspendAreShownBeforeTheyDoAndLinksToThemAreNot) {
    for (const std::string status : {"active", "unsupported"}) {
        mTree.writeDevice(status, 5, 0);
        mTree.write("devices/" + status + "/power/runtime_status", status);
    }
    mTree.writeDevice("never suspended", 5, 0);
    mTree.writeDevice("unsupported/zone:0", 5, 6);
    mTree.write("devices/unsupported/zone:0/energy_uj", 9223372036854775807);
    mTree.makeFolder("class/powercap");
    std::filesystem::create_symlink("../../devices/unsupported/zone:0",
                                    mTree.path("class/powercap/zone:0"));
    std::filesystem::create_symlink("..", mTree.path("devices/unsupported/circle"));
    const auto counters = make();
    mTree.writeDevice("active", 5, 70);
    EXPECT_THAT(
        readAll(*counters),
        ElementsAre("zone:0 9223372036854775807", "active/active 5 0", "active/suspended 70 0",
                    "unsupported/zone:0/active 5 0", "unsupported/zone:0/suspended 6 0"));
}

TEST_F(LinuxCountersTest, EachUnusableFileGivesOneWarningAndLeavesTheRestAlone) {
    const std::string number =
        "not a whole number from 0 to 2^63 - 1 "
        "(left out until it is one; check the driver that provides it)";
    const std::string blanks = std::string(4094, ' ') + "123456";
    const std::string folder = "Is a directory (expected a file: check that this is a sysfs tree)";
    const std::string meter = "class/hwmon/hwmon1/energy1_input";
    const struct {
        const char* file;
        const char* text;  // null: a folder stands in the file's place
    } cases[] = {
        {"class/powercap/rapl:0/energy_uj", ""},
        {"class/powercap/rapl:1/energy_uj", "-1"},
        {"class/powercap/rapl:2/energy_uj", nullptr},
        {"class/hwmon/hwmon0/energy1_input", "12 apples"},
        {"class/hwmon/hwmon0/energy2_input", blanks.c_str()},
        {"devices/system/cpu/cpu0/cpuidle/state0/time", "0x10"},
        {"devices/system/cpu/cpu0/cpuidle/state1/usage", "9223372036854775808"},
        {"devices/pci0/power/runtime_suspended_time", nullptr},
        {"power/suspend_stats/success", "many"},
    };
    mTree.writeIdleState(0, 0, "POLL", 1000, 1);
    mTree.writeIdleState(0, 1, "C1", 1000, 1);
    mTree.writeIdleState(1, 0, "POLL", 1000, 1);
    mTree.write(meter, 900);
    Lines warnings = {mTree.root() + "/" + meter +
                      ": the counter started again at 0 (the energy since its last reading is "
                      "lost; a suspend or a reload of the driver does this)"};
    for (const auto& test : cases) {
        mTree.remove(test.file);
        if (test.text != nullptr) mTree.write(test.file, test.text);
        if (test.text == nullptr) mTree.makeFolder(test.file);
        warnings.push_back(mTree.root() + "/" + test.file + ": " + (test.text ? number : folder));
    }
    const auto counters = make();
    mTree.write(meter, 500);
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(readAll(*counters), ElementsAre("hwmon1/energy1 1400", "cpu1/POLL 1 1"));
    }
    EXPECT_THAT(mWarnings, testing::UnorderedElementsAreArray(warnings));
}

TEST_F(LinuxCountersTest, ARailThatMayNotBeReadSaysHowToGetIt) {
    const std::string file = "class/powercap/rapl:0/energy_uj";
    mTree.writeZone("rapl:0", "package-0", 7);
    std::filesystem::permissions(mTree.path(file), std::filesystem::perms(0));
    // Root reads any file, so this part runs as another user.
    const uid_t user = geteuid();
    ASSERT_EQ(seteuid(user == 0 ? 65534 : user), 0);
    const bool treeIsOpen = eaccess(mTree.root().c_str(), R_OK) == 0;
    EXPECT_THAT(readAll(*make()), IsEmpty());
    ASSERT_EQ(seteuid(user), 0);
    if (!treeIsOpen) GTEST_SKIP() << "the folder for temporary files is not open to all users";
    EXPECT_THAT(mWarnings, ElementsAre(mTree.root() + "/" + file +
                                       ": Permission denied (run as root, or grant read access)"));
}

TEST_F(LinuxCountersTest, SystemTimesIgnoreDelaysBetweenTheClocksAndNeverGoDown) {
    // The times suspended that the next looks at the two clocks show.
    std::deque<double> readings;
    mReadClock = [&](clockid_t clock) -> nanoseconds {
        if (clock == CLOCK_MONOTONIC || readings.empty()) return milliseconds(5000);
        const double suspendedMs = readings.front();
        readings.pop_front();
        return milliseconds(5000) + nanoseconds(static_cast<int64_t>(suspendedMs * 1e6));
    };
    mTree.write("power/suspend_stats/success", 3);
    const auto counters = make();
    const auto& states = counters->entities().front().states;
    readings = {90, 70.9, 80};
    EXPECT_EQ(states[1].read()->totalTimeMs, 70);
    readings = {60, 75, 75};
    EXPECT_EQ(states[1].read()->totalTimeMs, 70);
    EXPECT_EQ(states[1].read()->entryCount, 3);
    EXPECT_EQ(states[0].read()->totalTimeMs, 5000);
    EXPECT_EQ(states[0].read()->entryCount, 4);
}

TEST_F(LinuxCountersTest, TheSamplerSeesWrapsThatNoClientSees) {
    // The shortest possible wrap takes 40 ms; each look at the clock comes 1 ms after another.
    std::atomic<int> readings{0};
    mReadClock = [&](clockid_t clock) {
        return milliseconds(clock == CLOCK_MONOTONIC ? ++readings : 1);
    };
    mTree.writeZone("rapl:0", "package-0", 39900000);
    const auto threads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    };
    const auto before = threads();
    auto counters = make();
    EXPECT_EQ(threads(), before) << "no counter wraps";
    mTree.writeZone("rapl:0", "package-0", 39900000, 40000000);
    counters = make();
    for (const int energyUj : {100000, 39900000, 100000, 39900000}) {
        const std::string file = "class/powercap/rapl:0/energy_uj";
        mTree.write(file, energyUj);
        const int events = inotify_init1(IN_CLOEXEC);
        inotify_add_watch(events, mTree.path(file).c_str(), IN_CLOSE_NOWRITE);
        pollfd waiting{events, POLLIN, 0};
        ASSERT_EQ(poll(&waiting, 1, 20000), 1) << "nobody read the file";
        close(events);
    }
    EXPECT_THAT(readAll(*counters), ElementsAre("package-0 119900000"));
}

TEST(PeriodicThread, OutlivesACallThatThrowsBlocksSignalsAndStopsAtOnce) {
    std::atomic<int> calls{0};
    std::atomic<int> unblocked{0};
    sigset_t mask;
    const PeriodicThread thread("thrower", milliseconds(1), [&] {
        sigset_t own;
        pthread_sigmask(SIG_BLOCK, nullptr, &own);
        unblocked += 1 - sigismember(&own, SIGTERM);
        ++calls;
        throw std::bad_alloc();
    });
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0) << "of the thread that made it";
    while (calls < 3) usleep(1000);
    EXPECT_EQ(unblocked, 0);
    auto slow = std::make_unique<PeriodicThread>("slow", hours(1), [] {});
    usleep(50000);  // so that it waits for its next call
    slow.reset();   // does not wait for an hour
}

}  // namespace
}  // namespace powerstats
