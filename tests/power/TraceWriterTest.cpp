// SPDX-License-Identifier: Apache-2.0
//
// Recordings are written, read back and played.

#include "power/trace/TraceWriter.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include "power/text/Names.h"
#include "power/trace/RecordedSource.h"
#include "tests/power/TemporaryTree.h"

namespace powerstats {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using Lines = std::vector<std::string>;

using std::chrono::milliseconds;

/// Lists of a service; with `isLater` it has one more rail.
std::shared_ptr<const Lists> makeLists(bool isLater) {
    std::vector<Rail> rails = {{3, "vdd\x1b", "cpu"},
                               {-1, "negative", "cpu"},
                               {int64_t{1} << 32, "", "cpu"},
                               {4, "silent", "cpu"}};
    if (isLater) rails.push_back({3, "late", "cpu"});
    return nameLists(rails,
                     {{7, "gpu", EntityType::kDevice, {{0, "on"}, {1, "off"}}},
                      {8, "silent", EntityType::kDevice, {{0, "on"}}}},
                     true);
}

/// A reading, with rails' stamps 5 ms before its time.
Reading makeReading(int64_t timeMs, int64_t vddUWs, int64_t negativeUWs, int64_t onMs,
                    bool isLater = false) {
    static const std::shared_ptr<const Lists> lists[] = {makeLists(false), makeLists(true)};
    Reading reading;
    reading.lists = lists[isLater ? 1 : 0];
    reading.time = milliseconds(timeMs);
    for (const int64_t energyUWs : {vddUWs, negativeUWs, int64_t{20}}) {
        const nanoseconds time = milliseconds(timeMs - 5);
        reading.rails.emplace_back(Energy{time, time, energyUWs});
    }
    reading.rails.resize(reading.lists->rails.size());
    reading.entities = {{{reading.time, 0, {{milliseconds(onMs), 5, milliseconds(-1)}, {}}}},
                        std::nullopt};
    return reading;
}

/// Rails and the first entity's first state at each time of a file, and the reader's error and
/// warnings.
Lines readBack(const std::string& file, const std::vector<int64_t>& playedMs) {
    Lines lines;
    std::string error;
    nanoseconds played{0};
    const auto source = playRecording(
        file, [&] { return played; }, false,
        [&](const std::string& text) { lines.push_back(text.substr(file.size())); }, &error);
    if (source == nullptr) return {error};
    std::string names;
    for (const Rail& rail : source->read().lists->rails) {
        names += fmt::format("{}={} ", rail.id, rail.name);
    }
    for (const int64_t timeMs : playedMs) {
        played = milliseconds(timeMs);
        const Reading reading = source->read();
        std::string line;
        for (size_t i = 0; i < reading.rails.size(); ++i) {
            if (!reading.rails[i]) continue;
            line +=
                fmt::format("{}@{}={} ", reading.lists->rails[i].id,
                            toMilliseconds(reading.rails[i]->time), reading.rails[i]->energyUWs);
        }
        if (const auto& entity = reading.entities[0]) {
            const Residency& on = entity->states.front();
            line +=
                fmt::format("{}@{}={},{},{}", reading.lists->entities[0].id, entity->time.count(),
                            toMilliseconds(on.totalTime), on.entryCount, on.lastEntry.count());
        }
        lines.push_back(line);
    }
    lines.push_back(names);
    return lines;
}

/// The fields of the packets of a file, without what is in them.
std::string outline(const std::string& file) {
    const std::string filter = " | sed -n 's/^  \\([^ ].*\\)/\\1/p' | tr '\\n' ' '";
    std::string text;
    FILE* output = popen((PROTOC_PROGRAM " --decode_raw <" + file + filter).c_str(), "r");
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
    // A reading has nanoseconds, and residencies keep them.
    Reading before = makeReading(10000, 100, 50, 4000);
    before.time += nanoseconds(7);
    ASSERT_TRUE(writer->write(before, &error)) << error;
    const std::string first = "3@9995=100 0@9995=50 1@9995=20 7@10000000007=4000,5,0";
    const std::string names = "3=vdd\\x1B 0=negative 1=id 4294967296 ";
    EXPECT_THAT(readBack(file, {0}), ElementsAre(first, names))
        << "a sample is on the disk at once";

    // Negative energy is left out, and so is a reading from before the last one.
    ASSERT_TRUE(writer->write(makeReading(11000, 1000, -1, 4250), &error)) << error;
    ASSERT_TRUE(writer->write(makeReading(10999, 2000, 60, 4300), &error)) << error;
    // A rail whose total fell, one with a loss that its total does not show, and a rail that comes.
    // The residencies are the old ones.
    Reading last = makeReading(12000, 1000, 40, 4250, true);
    last.rails[2]->resets = 1;
    last.rails[4] = Energy{milliseconds(11995), milliseconds(11995), 7};
    last.entities[0]->time = milliseconds(11000);
    ASSERT_TRUE(writer->write(last, &error)) << error;
    // An entity whose total fell, and a rail whose stamps start again with its counter.
    last = makeReading(13000, 1001, 41, 4100, true);
    last.rails[2]->resets = 2;
    last.rails[2]->time = milliseconds(9000);
    ASSERT_TRUE(writer->write(last, &error)) << error;
    EXPECT_THAT(readBack(file, {0, 1000, 2000, 3000}),
                ElementsAre(HasSubstr("both have negative (of such names"), first,
                            "3@10995=1000 0@9995=50 1@10995=20 7@11000000000=4250,5,0",
                            "3@11995=1000 0@9995=50 1@10995=20 2@11995=7 7@11000000000=4250,5,0",
                            "3@12995=1001 0@9995=50 1@10995=20 2@11995=7 7@11000000000=4250,5,0",
                            names + "2=late "));

    EXPECT_EQ(outline(file),
              "8: 10000000007 10: 1 40 { } 8: 10000000007 10: 2 91 { } "
              "8: 11000000000 10: 1 40 { } 8: 11000000000 10: 2 91 { } "
              "8: 12000000000 10: 1 40 { } 8: 12000000000 10: 3 40 { } "
              "8: 13000000000 10: 1 40 { } 8: 13000000000 10: 3 40 { } 8: 13000000000 10: 4 40 { } "
              "8: 13000000000 10: 5 91 { } ")
        << "it has readings only";
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

    ASSERT_TRUE(writer->write(makeReading(10000, 100, 50, 4000), &error)) << error;
    const rlim_t size = std::filesystem::file_size(file);
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{size + 10, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_FALSE(writer->write(makeReading(11000, 200, 60, 4500), &error));
    EXPECT_THAT(error, HasSubstr("/recording: No space left on device (free space on the disk"));
    EXPECT_EQ(std::filesystem::file_size(file), size);
}

}  // namespace
}  // namespace powerstats
