// SPDX-License-Identifier: Apache-2.0
//
// Recordings are written, read back and played.

#include "tools/TraceWriter.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include "hal/RecordedCounters.h"
#include "tests/hal/TemporaryTree.h"

namespace powerstats {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using Lines = std::vector<std::string>;

/// A sample, with rails' stamps 5 ms before the residencies' time.
Snapshot makeSnapshot(int64_t timestampMs, int64_t vddUWs, int64_t negativeUWs, int64_t onMs) {
    Snapshot snapshot;
    snapshot.timestampMs = timestampMs;
    const auto energy = [&](int64_t energyUWs) {
        return Snapshot::Energy{timestampMs - 5, timestampMs - 5, energyUWs};
    };
    snapshot.rails = {{3, "vdd\x1b", "cpu", energy(vddUWs)},
                      {-1, "negative", "cpu", energy(negativeUWs)},
                      {int64_t{1} << 32, "", "cpu", energy(20)},
                      {4, "silent", "cpu", std::nullopt}};
    snapshot.entities = {{7, "gpu", {{0, "on", {{onMs, 5, -1}}}, {1, "off", std::nullopt}}}};
    return snapshot;
}

/// Rails and states of each sample of a file, and the reader's error and warnings.
Lines readBack(const std::string& file) {
    Lines lines;
    std::string error;
    auto recording = Recording::read(
        file, [&](const std::string& text) { lines.push_back(text.substr(file.size())); }, &error);
    if (!recording) return {error};
    const std::vector<int64_t> samplesMs = recording->samplesMs;
    std::chrono::milliseconds played{0};
    const RecordedCounters counters(*std::move(recording), {[&] { return played; }});
    for (const int64_t sampleMs : samplesMs) {
        played = std::chrono::milliseconds(sampleMs - samplesMs.front());
        std::string line;
        for (const auto& [id, reading] : counters.readRails({}).records) {
            line += fmt::format("{}@{}={} ", id, reading.timestampMs, reading.energyUWs);
        }
        for (const EntityResidency& entity : counters.readEntities({}).records) {
            const Residency& on = entity.states.front().residency;
            line += fmt::format("{}@{}={},{},{}", entity.id, counters.timestampMs(), on.totalTimeMs,
                                on.entryCount, on.lastEntryMs);
        }
        lines.push_back(line);
    }
    std::string names;
    for (const Rail& rail : counters.rails()) names += fmt::format("{}={} ", rail.id, rail.name);
    lines.push_back(names);
    return lines;
}

std::string decode(const std::string& file) {
    std::string text;
    FILE* output = popen((std::string(PROTOC_PROGRAM) + " --decode_raw <" + file).c_str(), "r");
    for (int c; (c = fgetc(output)) != EOF;) text += static_cast<char>(c);
    EXPECT_EQ(pclose(output), 0);
    return text;
}

TEST(TraceWriter, WritesWhatIsReadBack) {
    const TemporaryTree files;
    const std::string file = files.path("recording").string();
    std::string error;
    const auto writer = TraceWriter::create(file, &error);
    ASSERT_NE(writer, nullptr) << error;
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
    ASSERT_TRUE(writer->write(makeSnapshot(10000, 100, 50, 4000), nullptr, &error)) << error;
    const std::string first = "3@9995=100 0@9995=50 1@9995=20 7@10000=4000,5,0";
    const std::string names = "3=vdd\\x1B 0=negative 1=id 4294967296 ";
    EXPECT_THAT(readBack(file), ElementsAre(first, names)) << "a sample is on the disk at once";

    Interval interval;
    interval.timestampMs = 11000;
    interval.elapsedMs = 1000;
    interval.rails = {{3, "vdd\x1b", "cpu", Trouble::kNone, 10995, 1000, 900, 0.9},
                      {4, "silent", "cpu", Trouble::kNotRead, 0, 0, 0, 0}};
    interval.entities = {{7, "gpu", Trouble::kNone, {{0, "on", 250, 0, 0.25, 0}}, 0, false}};
    // Negative energy is left out, and so is a reading from before the last one of its thing.
    ASSERT_TRUE(writer->write(makeSnapshot(11000, 1000, -1, 4250), &interval, &error)) << error;
    ASSERT_TRUE(writer->write(makeSnapshot(10999, 2000, 60, 4300), &interval, &error)) << error;
    // A rail and an entity that start again, and a rail that comes.
    Snapshot last = makeSnapshot(12000, 1000, 40, 4100);
    last.rails.push_back({3, "late", "cpu", Snapshot::Energy{11995, 11995, 7}});
    ASSERT_TRUE(writer->write(last, nullptr, &error)) << error;
    const Lines lines = readBack(file);
    EXPECT_THAT(lines, ElementsAre(HasSubstr("both have negative, the first of 2 such names"),
                                   first, "3@9995=100 0@10994=60 1@9995=20 7@10000=4000,5,0",
                                   "3@10995=1000 0@10994=60 1@10995=20 7@11000=4250,5,0",
                                   "3@11995=1000 0@10994=60 1@11995=20 2@11995=7 7@11000=4250,5,0",
                                   names + "2=late "));

    const std::string decoded = decode(file);
    // The counters have the start of the interval: 9995 and 10000 ms.
    EXPECT_THAT(decoded, HasSubstr("1 {\n  8: 9995000000\n  10: 1\n  11 {\n    9: 4\n    11: 2\n"
                                   "    44: 0x3feccccccccccccd\n  }\n}\n"));
    EXPECT_THAT(decoded, HasSubstr("1 {\n  8: 10000000000\n  10: 1\n  11 {\n    9: 4\n    11: 5\n"
                                   "    44: 0x4039000000000000\n  }\n}\n"));
    EXPECT_THAT(decoded, HasSubstr("    1: 5\n    2: \"on\"\n    5: 4\n    8 {\n      6: \"%\"\n"));
}

TEST(TraceWriter, RefusesPathsThatExistAndKeepsWholeSamplesOnAFullDisk) {
    const TemporaryTree files;
    const std::string file = files.path("recording").string();
    std::string error;
    files.link("nowhere", "link");
    EXPECT_EQ(TraceWriter::create(files.path("link").string(), &error), nullptr);
    EXPECT_THAT(error, HasSubstr("/link: File exists (name a new file, in a folder"));
    const auto writer = TraceWriter::create(file, &error);
    EXPECT_EQ(TraceWriter::create(file, &error), nullptr);

    ASSERT_TRUE(writer->write(makeSnapshot(10000, 100, 50, 4000), nullptr, &error)) << error;
    const rlim_t size = std::filesystem::file_size(file);
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{size + 10, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_FALSE(writer->write(makeSnapshot(11000, 200, 60, 4500), nullptr, &error));
    EXPECT_THAT(error, HasSubstr("/recording: No space left on device (free space on the disk"));
    EXPECT_EQ(std::filesystem::file_size(file), size);
}

}  // namespace
}  // namespace powerstats
