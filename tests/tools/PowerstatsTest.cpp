// SPDX-License-Identifier: Apache-2.0
//
// Runs the program as a user does.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>

#include "proto/power_data_result.pb.h"
#include "tests/hal/TemporaryTree.h"

namespace powerstats {
namespace {

namespace proto = com::tavrel::android::ferrolith::poweranomalyservice::proto;
using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

using Lines = std::vector<std::string>;

struct Outcome {
    int exitCode = -1;
    std::string output;
    std::string errors;
};

std::string readFile(const std::filesystem::path& file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

/// @param output, errors [in] where standard output and error go, when not into the result.
Outcome run(const Lines& arguments, const char* output = nullptr, const char* errors = nullptr) {
    const TemporaryTree files;
    const std::string outputFile = output != nullptr ? output : files.path("output").string();
    const std::string errorFile = errors != nullptr ? errors : files.path("errors").string();
    std::vector<const char*> words = {EMULATOR, POWERSTATS_PROGRAM};
    if (*words[0] == '\0') words.erase(words.begin());  // built for this machine
    for (const std::string& argument : arguments) words.push_back(argument.c_str());
    words.push_back(nullptr);

    const pid_t child = fork();
    if (child == 0) {
        // A test that is ended for taking too long takes the program with it.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(open(outputFile.c_str(), O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
        dup2(open(errorFile.c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        execvp(words[0], const_cast<char* const*>(words.data()));
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
            output != nullptr ? "" : readFile(outputFile),
            errors != nullptr ? "" : readFile(errorFile)};
}

Outcome dump(const std::string& sysfs, Lines arguments) {
    arguments.insert(arguments.begin(), {"dump", "--sysfs", sysfs});
    return run(arguments);
}

Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

proto::PowerDataResult parse(const std::string& bytes) {
    proto::PowerDataResult result;
    EXPECT_TRUE(result.ParseFromString(bytes));
    return result;
}

/// Without what differs from one run to the next.
proto::PowerDataResult withoutTimes(proto::PowerDataResult result) {
    for (auto& element : *result.mutable_keyed_power_data()) {
        EXPECT_GT(element.id().timestamp_ms(), 0);
        element.mutable_id()->clear_timestamp_ms();
        if (element.id().name() != "system") continue;
        for (auto& state : *element.mutable_data()->mutable_residency()) {
            state.clear_total_time_in_state_ms();
        }
    }
    return result;
}

TEST(Powerstats, RefusesBadArgumentsInOneLine) {
    const struct {
        Lines arguments;
        std::string reason;
    } cases[] = {
        {{}, "A subcommand is required"},
        {{"undump"}, "undump"},
        {{"dump", "--hal", "phone"}, "phone"},
        {{"dump", "--format", "xml"}, "xml"},
        {{"dump", "--format", "binary"}, "--rails or --residencies"},
        {{"dump", "--format", "binary", "--rails", "--residencies"}, "--rails or --residencies"},
        {{"dump", "--sysfs", "/no/such"}, "/no/such: not a folder"},
        {{"dump", "--sysfs", POWERSTATS_PROGRAM}, POWERSTATS_PROGRAM ": not a folder"},
        {{"dump", "--library", "no-such.so"}, "no-such.so: cannot open"},
        {{"dump", "--library", POWERSTATS_PROGRAM}, "--library"},
    };
    for (const auto& test : cases) {
        const Outcome result = run(test.arguments);
        EXPECT_EQ(result.exitCode, 2) << test.reason;
        EXPECT_THAT(result.output, IsEmpty());
        EXPECT_THAT(linesOf(result.errors),
                    testing::ElementsAre(
                        testing::AllOf(StartsWith("powerstats: "), HasSubstr(test.reason))));
    }
}

TEST(Powerstats, ShowsASampleMachineInAlignedColumns) {
    const Outcome result = dump(SAMPLE_MACHINE, {});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    const Lines lines = linesOf(result.output);
    for (const std::string& line : lines) EXPECT_LE(line.size(), 80u) << line;
    const auto row = [](std::string name, const Lines& columns) {
        name.resize(80 - 17 * columns.size(), ' ');
        for (const std::string& column : columns) {
            name += std::string(17 - column.size(), ' ') + column;
        }
        return name;
    };
    EXPECT_THAT(lines, testing::IsSupersetOf({
                           row("  rail", {"energy (mJ)"}),
                           // A float has 24 bits: 123456789012 microjoules do not end in 789 here.
                           row("  intel-rapl/package-0", {"123456792"}),
                           row("  package-1/dram", {"19876542"}),
                           row("  fans", {"4567890"}),
                           row("  entity and state", {"time (ms)", "entries"}),
                           std::string("  cpu3"),
                           row("    C6", {"56789345", "1234618"}),
                           std::string("  pci0000:00/0000:00:14.0/usb1/1-4"),
                           row("    active", {"2345678", "0"}),
                       }));
    EXPECT_THAT(result.output, Not(HasSubstr("0000:00:02.0")));
    EXPECT_THAT(lines.front(),
                testing::MatchesRegex("Rails at .*[0-9]+:[0-9]+:[0-9.]+ after boot .[0-9]+ ms."));
}

TEST(Powerstats, GivesTheSameBytesThroughBothInterfacesAndTheSameNumbersAsJson) {
    for (const char* call : {"--rails", "--residencies"}) {
        SCOPED_TRACE(call);
        Lines serialized;
        for (const char* hal : {"aidl", "hidl"}) {
            const Outcome result = dump(SAMPLE_MACHINE, {"--hal", hal, "--format", "binary", call});
            ASSERT_EQ(result.exitCode, 0) << result.errors;
            EXPECT_EQ(parse(result.output).SerializeAsString(), result.output);
            serialized.push_back(withoutTimes(parse(result.output)).SerializeAsString());
        }
        EXPECT_EQ(serialized[0], serialized[1]);

        const Outcome result = dump(SAMPLE_MACHINE, {"--format", "json", call});
        const json object = json::parse(result.output);
        ASSERT_EQ(object.size(), 1u);
        const json& list = object.at(call == std::string("--rails") ? "rails" : "entities");
        const auto expected = parse(serialized[0]).keyed_power_data();
        ASSERT_EQ(list.size(), static_cast<size_t>(expected.size()));
        for (int i = 0; i < expected.size(); ++i) {
            const json& element = list.at(static_cast<size_t>(i));
            EXPECT_EQ(element.at("name"), expected[i].id().name());
            EXPECT_GT(element.at("timestamp_ms"), 0);
            if (expected[i].data().has_scalar()) {
                EXPECT_EQ(element.at("energy_mj"), expected[i].data().scalar().value());
                continue;
            }
            for (int state = 0; state < expected[i].data().residency_size(); ++state) {
                const proto::Residency& residency = expected[i].data().residency(state);
                const json& shown = element.at("states").at(static_cast<size_t>(state));
                EXPECT_EQ(shown.at("name"), residency.name());
                EXPECT_EQ(shown.at("entries"), residency.total_state_entry_count());
                if (expected[i].id().name() == "system") continue;
                EXPECT_EQ(shown.at("time_ms"), residency.total_time_in_state_ms());
            }
        }
    }
}

TEST(Powerstats, SaysWhatAMachineDoesNotHave) {
    const TemporaryTree tree;
    for (const char* hal : {"aidl", "hidl"}) {
        const Outcome rails = dump(tree.root(), {"--hal", hal, "--rails"});
        EXPECT_EQ(rails.exitCode, 1);
        EXPECT_EQ(rails.output, "Rails: not available\n");
        EXPECT_THAT(rails.errors, HasSubstr("TavrelPowerStatsHalDataProviderNative"));

        const Outcome both = dump(tree.root(), {"--hal", hal, "--format", "json"});
        EXPECT_EQ(both.exitCode, 0) << "the system's own times are always there";
        EXPECT_EQ(json::parse(both.output).at("rails"), nullptr);
        EXPECT_EQ(json::parse(both.output).at("entities").size(), 1u);

        const Outcome binary = dump(tree.root(), {"--hal", hal, "--format", "binary", "--rails"});
        EXPECT_EQ(binary.exitCode, 1);
        EXPECT_THAT(binary.output, IsEmpty());
    }
}

TEST(Powerstats, PrintsAnyNameSafelyAndWithin80Columns) {
    const TemporaryTree tree;
    const std::string longName(70, 'n');
    tree.write("class/hwmon/hwmon0/energy1_input", 5000);
    tree.write("class/hwmon/hwmon0/energy1_label", longName);
    tree.writeIdleState(0, 0, "\x1b[31m\xff\xc3\xa9\\ \xc2\x9b\xe2\x82\xed\xa0\x80\xc0\xaf", 1000,
                        2);
    const Outcome table = dump(tree.root(), {});
    EXPECT_THAT(table.output,
                HasSubstr("\n    \\x1B[31m\\xFF\xc3\xa9\\ \\xC2\\x9B\\xE2\\x82\\xED\\xA0\\x8\n"
                          "    0\\xC0\\xAF" +
                          std::string(49, ' ') + "1" + std::string(16, ' ') + "2\n"));
    EXPECT_THAT(table.output, HasSubstr("\n  " + longName.substr(0, 61) + "\n  " +
                                        longName.substr(61) + std::string(68, ' ') + "5\n"));

    const json object = json::parse(dump(tree.root(), {"--format", "json"}).output);
    EXPECT_EQ(object.at("rails").at(0).at("name"), longName);
    EXPECT_THAT(object.at("entities").at(1).at("states").at(0).at("name").get<std::string>(),
                StartsWith("\\x1B[31m\\xFF\xc3\xa9\\ "));
}

TEST(Powerstats, NamesUnusableFilesAndOutputs) {
    const TemporaryTree tree;
    tree.write("class/powercap/rapl:0/energy_uj", "garbage");
    const std::string file = tree.path("class/powercap/rapl:0/energy_uj").string();
    EXPECT_THAT(linesOf(dump(tree.root(), {}).errors),
                testing::Contains(StartsWith("powerstats: " + file + ": not a whole number")));

    const Outcome unheard = run({"dump", "--rails", "--sysfs", tree.root()}, nullptr, "/dev/full");
    EXPECT_THAT(unheard.output, HasSubstr("Rails: ")) << "with warnings that cannot be written";

    const Outcome full = run({"dump", "--sysfs", SAMPLE_MACHINE}, "/dev/full");
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_THAT(full.errors, HasSubstr("powerstats: standard output: No space left on device"));
}

TEST(Powerstats, ExplainsItself) {
    const Outcome help = run({"dump", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_THAT(help.output, HasSubstr("--sysfs"));
    const Outcome version = run({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_THAT(version.output, testing::MatchesRegex("powerstats [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

}  // namespace
}  // namespace powerstats
