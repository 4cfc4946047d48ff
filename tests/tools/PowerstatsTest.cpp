// SPDX-License-Identifier: Apache-2.0
//
// Runs the program as a user does.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <regex>
#include <sstream>

#include "proto/power_data_result.pb.h"
#include "tests/power/TemporaryTree.h"

namespace powerstats {
namespace {

namespace proto = com::tavrel::android::ferrolith::poweranomalyservice::proto;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using Lines = std::vector<std::string>;

struct ProgramOutcome {
    int exitCode = -1;
    std::string output;
    std::string errors;
};

std::string readFile(const std::filesystem::path& file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

/// @param output, errors [in] files for standard output and error; null for the result.
ProgramOutcome run(const Lines& arguments, const char* output = nullptr,
                   const char* errors = nullptr) {
    const TemporaryTree files;
    const std::string outputFile = output != nullptr ? output : files.path("output").string();
    const std::string errorFile = errors != nullptr ? errors : files.path("errors").string();
    // A test that is ended for taking too long takes the program with it.
    std::string command = "exec setpriv --pdeathsig KILL " EMULATOR " " POWERSTATS_PROGRAM;
    for (const std::string& argument : arguments) command += fmt::format(" '{}'", argument);
    command += " >'" + outputFile + "' 2>'" + errorFile + '\'';
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
            output != nullptr ? "" : readFile(outputFile),
            errors != nullptr ? "" : readFile(errorFile)};
}

ProgramOutcome dump(const std::string& sysfs, Lines arguments) {
    arguments.insert(arguments.begin(), {"dump", "--sysfs", sysfs});
    return run(arguments);
}

Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

/// Replaces the times of this run by "TIME".
std::string withoutTimes(std::string text) {
    const std::pair<const char*, const char*> times[] = {
        {R"(at [0-9:.d ]+ after boot \([0-9]+ ms\))", "at TIME"},
        {R"((timestamp_ms": )[0-9]+)", "$1TIME"},
        {R"((  system\n    running) +[0-9]+( +[0-9]+\n    suspended) +[0-9]+)", "$1 TIME$2 TIME"},
        {R"(("running",\s+"time_ms": )[0-9]+([^\]]+"time_ms": )[0-9]+)", "$1TIME$2TIME"},
    };
    for (const auto& [pattern, replacement] : times) {
        text = std::regex_replace(text, std::regex(pattern), replacement);
    }
    return text;
}

TEST(Powerstats, RefusesBadArgumentsInOneLine) {
    const struct {
        Lines arguments;
        std::string reason;
    } cases[] = {
        {{"dump", "--format", "binary"}, "--rails or --residencies"},
        {{"dump", "--sysfs", "/no/such"}, "/no/such: not a folder"},
        {{"dump", "--library", "no-such.so"}, "no-such.so: cannot open"},
        // The range is in words, and the help is that of the subcommand.
        {{"watch", "--count", "0"},
         "--count: 0 is not a whole number from 1 to 1000000000 (see powerstats watch --help)"},
        {{"watch", "--count", "1.5"}, "1.5 is not a whole number"},
        {{"watch", "--interval", "inf"}, "inf is not a number from 0.05 to 86400"},
        {{"watch", "--interval", "1s"}, "1s is not a number"},
        {{"watch", "--interval", ""}, "\"\" is not a number"},
        {{"watch", "--interval"}, "--interval: its value is missing"},
        {{"watch", "--count", "1", "--count", "2"}, "--count: given more than once"},
        {{"watch", "--replay", PHONE_RECORDING, "--speed", "nan"}, "--speed: nan is not"},
        {{"check", "--timeout", "-inf"}, "-inf is not a number from 0.001 to 86400"},
        {{"check", "--only", "no-rule"}, "no-rule: no rule has this name"},
        {{"record", "--duration", "1"}, "--output is required (see powerstats record --help)"},
        {{"run", "--runs", "0", "--", "true"}, "0 is not a whole number from 1 to 1000000"},
        {{"run", "--max", "fans=nan", "--", "true"}, "--max: fans=nan is not a limit"},
        {{"run"}, "COMMAND is required (see powerstats run --help)"},
        {{"watch", "--cuont", "3"}, "unknown argument: --cuont (see powerstats watch --help)"},
        {{"wach"}, "unknown argument: wach (see powerstats --help)"},
        {{"watch", "--format", "xml"}, "xml is not one of live, table, csv, jsonl"},
        {{"dump", "--bus", "--sysfs", "/"}, "--sysfs excludes --bus"},
        {{"watch", "--replay", PHONE_RECORDING, "--bus"}, "--replay"},
        {{"dump", "--replay", GOLDEN_FILE}, "sample-machine.txt: at byte 0: not a packet"},
        {{"watch", "--replay", GOLDEN_FILE}, "sample-machine.txt: at byte 0: not a packet"},
        {{"run", "--replay", GOLDEN_FILE, "true"}, "at byte 0: not a packet"},
        {{"record", "--replay", GOLDEN_FILE, "-o", "/no"}, "at byte 0: not a packet"},
        {{"run", "--sysfs", SAMPLE_MACHINE, "--max", "cpu=1", "--", "true"},
         "--max cpu: no such rail (there are fans, "},
    };
    for (const auto& test : cases) {
        const ProgramOutcome result = run(test.arguments);
        EXPECT_EQ(result.exitCode, 2) << test.reason;
        EXPECT_THAT(result.output, IsEmpty());
        EXPECT_THAT(linesOf(result.errors),
                    testing::ElementsAre(
                        testing::AllOf(StartsWith("powerstats: "), HasSubstr(test.reason))));
    }
}

TEST(Powerstats, PrintsTheSampleMachineAlikeThroughBothInterfaces) {
    for (const char* hal : {"aidl", "hidl"}) {
        std::string text;
        for (const char* format : {"table", "json"}) {
            const ProgramOutcome result = dump(SAMPLE_MACHINE, {"--hal", hal, "--format", format});
            EXPECT_EQ(result.exitCode, 0) << result.errors;
            text += result.output;
        }
        EXPECT_EQ(withoutTimes(text), readFile(GOLDEN_FILE)) << hal;
        for (const char* call : {"--rails", "--residencies"}) {
            const ProgramOutcome result =
                dump(SAMPLE_MACHINE, {"--hal", hal, "--format", "binary", call});
            proto::PowerDataResult parsed;
            EXPECT_TRUE(parsed.ParseFromString(result.output));
            EXPECT_EQ(parsed.keyed_power_data_size(), call == std::string("--rails") ? 11 : 10);
            EXPECT_EQ(parsed.SerializeAsString(), result.output);
        }
    }
}

TEST(Powerstats, SaysWhyThereIsNoEnergyOnce) {
    const TemporaryTree tree;
    const std::string folder = tree.path("class/powercap").string();
    const std::string file = tree.path("class/powercap/rapl:0/energy_uj").string();
    const struct {
        std::function<void()> change;
        std::string reason;
    } causes[] = {
        {[] {}, "no energy: there is no folder " + folder},
        {[&] { std::filesystem::create_directories(folder + "/rapl:0"); },
         "no energy: " + folder + " has no counters"},
        {[&] { tree.write("class/powercap/rapl:0/energy_uj", "garbage"); },
         "no energy: no counter in " + folder + " can be read (a line above says why)"},
        {[&] {
             tree.write("class/powercap/rapl:0/energy_uj", "5");
             std::filesystem::permissions(file, std::filesystem::perms::none);
         },
         "no energy: this user may not read " + file},
        {[&] { std::filesystem::permissions(file, std::filesystem::perms::owner_read); }, ""},
    };
    const Lines subcommands[] = {{"dump", "--rails"},
                                 {"watch", "--count", "1", "--interval", "0.05"},
                                 {"record", "--duration", "0", "-o", tree.path("record")},
                                 {"run", "true"}};
    for (const auto& cause : causes) {
        cause.change();
        // The superuser may read every file.
        if (geteuid() == 0 && cause.reason.find("may not") != std::string::npos) continue;
        for (Lines arguments : subcommands) {
            SCOPED_TRACE(arguments[0] + ": " + cause.reason);
            std::filesystem::remove(tree.path("record"));
            arguments.insert(arguments.begin() + 1, {"--sysfs", tree.root()});
            const std::string errors = run(arguments).errors;
            EXPECT_THAT(linesOf(errors),
                        testing::Contains(
                            testing::MatchesRegex("powerstats: (no energy|energy left out).*"))
                            .Times(cause.reason.empty() ? 0 : 1));
            EXPECT_THAT(errors, HasSubstr(cause.reason));
        }
    }
    tree.remove("class");
    EXPECT_EQ(dump(tree.root(), {"--format", "json"}).exitCode, 0) << "it has the system's times";
    EXPECT_EQ(dump(tree.root(), {"--rails"}).output, "Rails: not available\n");
    const ProgramOutcome binary = dump(tree.root(), {"--format", "binary", "--rails"});
    EXPECT_EQ(binary.exitCode, 1);
    EXPECT_THAT(binary.output, IsEmpty());
    EXPECT_THAT(run({"metrics", "--sysfs", "/"}).errors, IsEmpty()) << "its timer runs each minute";
}

TEST(Powerstats, PrintsAnyNameSafelyAndWithin80Columns) {
    const TemporaryTree tree;
    tree.writeIdleState(0, 0, "\x1b[31m\xff\xc3\xa9\\ \xc2\x9b\xe2\x82\xed\xa0\x80\xc0\xaf", 1000,
                        2);
    EXPECT_THAT(dump(tree.root(), {}).output,
                HasSubstr("\n    \\x1B[31m\\xFF\xc3\xa9\\ \\xC2\\x9B\\xE2\\x82\\xED\\xA0\\x8\n"
                          "    0\\xC0\\xAF" +
                          std::string(49, ' ') + "1" + std::string(16, ' ') + "2\n"));
}

TEST(Powerstats, NamesUnusableFilesAndOutputs) {
    const TemporaryTree tree;
    tree.write("class/powercap/rapl:0/energy_uj", "garbage");
    const std::string file = tree.path("class/powercap/rapl:0/energy_uj").string();
    EXPECT_THAT(linesOf(dump(tree.root(), {}).errors),
                testing::Contains(StartsWith("powerstats: " + file + ": not a whole number")));

    const ProgramOutcome unheard =
        run({"dump", "--rails", "--sysfs", tree.root()}, nullptr, "/dev/full");
    EXPECT_THAT(unheard.output, HasSubstr("Rails: ")) << "with warnings that cannot be written";

    const ProgramOutcome full = run({"dump", "--sysfs", SAMPLE_MACHINE}, "/dev/full");
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_THAT(full.errors, HasSubstr("powerstats: standard output: No space left on device"));
}

TEST(Powerstats, RunReturnsTheCommandsStatusOrTheVerdictOnItsLimits) {
    const TemporaryTree tree;
    tree.write("class/hwmon/hwmon0/energy1_input", 5000);
    tree.write("class/hwmon/hwmon0/energy1_label", "fans");
    const std::string meter = tree.path("class/hwmon/hwmon0/energy1_input");
    const std::string runs = tree.path("runs");
    const std::string add = "echo $(($(cat " + meter + ") + 1000000)) >" + meter;
    const struct {
        Lines arguments;
        std::string script;
        int status;
        std::string error;
    } cases[] = {
        {{}, "exit 7", 7, "1 run of "},
        {{}, "exit 126", 126, "1 run of "},
        {{}, "exit 127", 127, "1 run of "},
        {{}, "kill -9 $$", 137, ""},
        {{}, "kill -PIPE $$; exit 1", 141, ""},  // powerstats itself ignores this signal
        {{"-r", "3"},
         "echo >>" + runs + "; test $(wc -l <" + runs + ") != 2",
         1,
         "the command failed with status 1 in run 2 of 3, so it did not run again\n"},
        {{"--max", "fans=1"}, "exit 5", 5, "status 5 in run 1 of 1, so limits were not judged\n"},
        {{"--max", "fans=0.5"}, "sleep 0.1", 0, "fans: at most 0.5 W: kept (mean 0.000 W)"},
        {{"--max", "hwmon/fans=0"}, add, 3, "fans: at most 0 W: exceeded"},
        {{"-r", "3", "--max", "fans=0"}, "sleep 0.01", 0, "at most 0 W: kept"},
        {{"--max", "fans=1"}, ": >" + meter, 4, "not read in every run (in run 1 it was not read)"},
        {{"--max", "nope=1"},
         "echo >" + tree.path("never").string(),
         2,
         "--max nope: no such rail (there are fans)"},
        {{"-o", "/no/such/file"}, "true", 2, "/no/such/file: No such file"},
    };
    for (const auto& test : cases) {
        tree.write("class/hwmon/hwmon0/energy1_input", 5000);
        Lines arguments = {"run", "--sysfs", tree.root()};
        arguments.insert(arguments.end(), test.arguments.begin(), test.arguments.end());
        arguments.insert(arguments.end(), {"--", "sh", "-c", test.script});
        const ProgramOutcome result = run(arguments);
        EXPECT_EQ(result.exitCode, test.status) << test.script << ": " << result.errors;
        EXPECT_THAT(result.errors, HasSubstr(test.error));
        EXPECT_THAT(result.output, IsEmpty()) << "standard output is the command's";
    }
    EXPECT_FALSE(std::filesystem::exists(tree.path("never"))) << "the command was started";
    const ProgramOutcome both =
        run({"run", "--replay", PHONE_RECORDING, "-r", "3", "--max", "satellites=0", "--max",
             "always-on=0.03", "--", "sleep", "0.5"});
    EXPECT_EQ(both.exitCode, 3) << "exceeded comes before cannot be judged: " << both.errors;
    const std::string report = tree.path("folder/report");
    tree.write("folder/report", "old");
    const std::pair<std::string, int> unusable[] = {{tree.path("missing"), 127},
                                                    {tree.root(), 126}};
    for (const auto& [program, status] : unusable) {
        const ProgramOutcome none = run({"run", "-o", report, "--", program});
        EXPECT_EQ(none.exitCode, status);
        EXPECT_THAT(none.errors, Not(HasSubstr("1 run of")));
        EXPECT_EQ(readFile(report), "old\n");
    }
    EXPECT_EQ(run({"run", "-o", report, "--format", "json", "--", "true"}).exitCode, 0);
    EXPECT_THAT(readFile(report), StartsWith("{\n  \"command\": [\n    \"true\""));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tree.path("folder")), {}), 1)
        << "a temporary file is left";
}

TEST(Powerstats, PlaysARecordingBackAndRecordsItAlike) {
    EXPECT_THAT(run({"dump", "--replay", PHONE_RECORDING}).output,
                StartsWith("Rails at 03:00:12.345 after boot"));
    const TemporaryTree files;
    const std::string copy = files.path("copy");
    const auto play = [&](const std::string& subcommand, const std::string& file, Lines more) {
        more.insert(more.begin(),
                    {subcommand, "--replay", file, "--interval", "0.05", "--speed", "40"});
        return run(more);
    };
    // 301 samples by 0.2 s: a reading sees every tenth.
    const ProgramOutcome all =
        play("watch", PHONE_RECORDING, {"--format", "csv", "--record", copy});
    EXPECT_EQ(all.exitCode, 0) << all.errors;
    EXPECT_EQ(linesOf(all.output).size(), 1u + 30) << "it ends with the recording";
    EXPECT_EQ(play("watch", copy, {"--format", "csv"}).output, all.output);
    // The 11th sample less the first, by 2 s.
    const ProgramOutcome shown =
        play("watch", PHONE_RECORDING, {"--count", "1", "--format", "jsonl"});
    EXPECT_THAT(shown.output, StartsWith("{\"timestamp_ms\":10814345,\"interval_ms\":2000,"));
    EXPECT_THAT(shown.output, HasSubstr("\"name\":\"display\",\"subsystem\":\"display\","
                                        "\"timestamp_ms\":10814345,\"interval_ms\":2000,"
                                        "\"energy_uws\":1020000,\"power_mw\":510.0,"));
    const ProgramOutcome loop =
        play("watch", PHONE_RECORDING, {"--loop", "--count", "40", "--format", "csv"});
    EXPECT_EQ(linesOf(loop.output).size(), 1u + 40);

    EXPECT_EQ(play("record", PHONE_RECORDING, {"-o", copy}).exitCode, 2) << "the file exists";
    const std::string again = files.path("again");
    EXPECT_EQ(play("record", PHONE_RECORDING, {"-o", again, "--duration", "0.1"}).exitCode, 0);
    EXPECT_EQ(linesOf(play("watch", again, {"--format", "csv"}).output).size(), 1u + 2);

    const std::string ran = files.path("ran");
    EXPECT_EQ(run({"run", "--replay", PHONE_RECORDING, "--speed", "10", "--record", ran, "--max",
                   "always-on=0.03", "--", "sleep", "1.2"})
                  .exitCode,
              3);
    EXPECT_EQ(
        run({"dump", "--replay", ran, "--rails", "--format", "binary"}).output.size(),
        run({"dump", "--replay", PHONE_RECORDING, "--rails", "--format", "binary"}).output.size());
}

}  // namespace
}  // namespace powerstats
