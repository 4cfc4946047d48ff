// SPDX-License-Identifier: Apache-2.0
//
// Recordings are read, played and written.

#include "power/trace/RecordedSource.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <fstream>
#include <limits>
#include <sstream>

#include "power/text/Names.h"
#include "power/trace/TraceWriter.h"
#include "tests/power/TemporaryTree.h"

namespace powerstats {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Lines = std::vector<std::string>;

// The encoding, written by hand: the messages' classes would make the reader's mistakes.
std::string varint(uint64_t value) {
    if (value < 0x80) return {static_cast<char>(value)};
    return static_cast<char>((value & 0x7f) | 0x80) + varint(value >> 7);
}
std::string field(int number, const std::string& bytes) {
    return varint(static_cast<uint64_t>(number) << 3 | 2) + varint(bytes.size()) + bytes;
}
/// Fields that are numbers, from field 1 on.
std::string numbers(const std::vector<int64_t>& values) {
    std::string bytes;
    for (size_t i = 0; i < values.size(); ++i) {
        bytes += varint((i + 1) << 3) + varint(static_cast<uint64_t>(values[i]));
    }
    return bytes;
}

/// A rail's index and name, or an entity's and a state's index and "entity/state".
struct Name {
    std::vector<int64_t> indices;
    std::string name;
};
using Readings = std::vector<std::vector<int64_t>>;

std::string packet(char sequence, int64_t timestampMs, int kind, const std::string& contents) {
    const auto timestampNs = static_cast<uint64_t>(timestampMs) * 1000000 + 999999;
    return field(1, "\x40" + varint(timestampNs) + "\x50" + sequence + field(kind, contents));
}

/// @param readings [in] index, time and energy.
std::string rails(char sequence, const std::vector<Name>& names, const Readings& readings) {
    std::string contents;
    for (const auto& [indices, name] : names) {
        contents += field(1, numbers(indices) + field(2, name) + field(3, "cpu"));
    }
    for (const auto& reading : readings) contents += field(2, numbers(reading));
    return packet(sequence, 0, 40, contents);
}

/// @param readings [in] the two indices, time in the state, entries and the last entry.
std::string states(char sequence, int64_t timestampMs, const std::vector<Name>& names,
                   const Readings& readings) {
    std::string contents;
    for (const auto& [indices, name] : names) {
        const size_t slash = name.find('/');
        contents += field(1, numbers(indices) + field(3, name.substr(0, slash)) +
                                 field(4, name.substr(slash + 1)));
    }
    for (const auto& reading : readings) contents += field(2, numbers(reading));
    return packet(sequence, timestampMs, 91, contents);
}

/// A packet of another kind, with fields of every wire type around a text of a size.
std::string other(size_t size) {
    return field(1, "\x40" + varint(~uint64_t{size}) + "\x59" + "12345678" + "\x2d" + "1234" +
                        field(99, std::string(size, '\xff')) + "\xd0\x03\x01");
}

class RecordingTest : public testing::Test {
  protected:
    bool read(const std::string& bytes, bool loop = false) {
        std::ofstream(mFile, std::ios::binary) << bytes;
        return open(loop);
    }
    bool open(bool loop = false) {
        mSource = playRecording(
            mFile, [this] { return mPlayed; }, loop,
            [this](const std::string& text) { mWarnings.push_back(cut(text)); }, &mError);
        return mSource != nullptr;
    }
    /// Without the file's name.
    std::string cut(const std::string& text) const {
        return text.rfind(mFile + ": ", 0) == 0 ? text.substr(mFile.size() + 2) : text;
    }
    void play(const std::string& bytes, bool loop = false) {
        ASSERT_TRUE(read(bytes, loop)) << mError;
    }
    /// All that a source shows at a playing time: rails as "id:name@stamp=energy", then "@time",
    /// then entities as "id:entity@stamp" with states as "id:state=time,entries,last entry".
    std::string at(int64_t playedMs) {
        mPlayed = milliseconds(playedMs);
        const Reading reading = mSource->read();
        const Lists& lists = *reading.lists;
        std::string text;
        for (size_t i = 0; i < lists.rails.size(); ++i) {
            if (!reading.rails[i]) continue;
            const Energy& energy = *reading.rails[i];
            EXPECT_TRUE(energy.isSinceBoot());
            text += fmt::format("{}:{}@{}={} ", lists.rails[i].id, lists.rails[i].name,
                                toMilliseconds(energy.time), energy.energyUWs);
        }
        text += fmt::format("@{}", toMilliseconds(reading.time));
        for (size_t i = 0; i < lists.entities.size(); ++i) {
            if (!reading.entities[i]) continue;
            const Entity& entity = lists.entities[i];
            text += fmt::format(" {}:{}@{}", entity.id, entity.name,
                                toMilliseconds(reading.entities[i]->time));
            auto state = entity.states.begin();
            for (const auto& [time, entries, lastEntry] : reading.entities[i]->states) {
                text += fmt::format(" {}:{}={},{},{}", state->id, state->name, toMilliseconds(time),
                                    entries, toMilliseconds(lastEntry));
                ++state;
            }
        }
        return text;
    }

    TemporaryTree mTree;
    const std::string mFile = mTree.path("trace").string();
    Lines mWarnings;
    std::string mError;
    nanoseconds mPlayed{0};
    std::shared_ptr<Source> mSource;
};

TEST_F(RecordingTest, RefusesBadFilesInOneLine) {
    const std::string good = rails(1, {{{1}, "vdd"}}, {{1, 1000, 500}});
    const std::string goodStates = states(2, 1000, {{{1, 2}, "gpu/on"}}, {{1, 2, 5, 6, 7}});
    const std::string rail = "rail 1 (vdd) of packet sequence 1";
    const std::string state = "state 2 (on) of packet sequence 2";
    const std::string noData = "no power data up to here (record rails or power entities)";
    const std::string damaged =
        "a malformed packet, or one of more than 1 MiB with power data (the file is damaged: copy "
        "or record it again)";
    const std::string renamed = " (the file is damaged: record it again)";
    const std::string backwards =
        " goes backwards (record again, without a restart of the service)";
    const std::string unnamed =
        " has no name (names are in the first packet of a sequence: record from the start)";
    const std::string tooBig =
        " has a value above 2^63 - 1, or a time above 292 years (check the service that it was "
        "recorded from)";
    const std::string notATrace = "not a packet of a trace (give an uncompressed protobuf trace)";
    // A millisecond more than nanoseconds can count.
    const int64_t tooLong = 9223372036855;
    const struct {
        std::string good, bad, error;
    } cases[] = {
        {"", "", noData},
        {other(9), "", noData},
        {"", "\x1f\x8b compressed", notATrace},
        {good, "text", notATrace},
        {good, "\x0a\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01", notATrace},
        // A group without an end, a field without a number, and one longer than its packet.
        {good, "\x0a\x02\x2b\x08", damaged},
        {good, std::string("\x0a\x02\x02\x00", 4), damaged},
        {good, "\x0a\x03\x5a\x05x12345", damaged},
        {good, std::string("\x0a\x03\xc2\x02\x01"), damaged},
        {good, "\x0a\x04\xc2\x02\x01\x08", damaged},
        {good, rails(1, {{{2}, std::string(1048576, 'x')}}, {}), damaged},
        {good, rails(1, {}, {{2, 1000, 5}}), "rail 2 of packet sequence 1" + unnamed},
        {good, rails(2, {}, {{1, 1000, 5}}), "rail 1 of packet sequence 2" + unnamed},
        {good, states(1, 1, {}, {{-1, 2}}), "state 2 of packet sequence 1" + unnamed},
        {good, states(1, 1, {{{1, 2}, "/on"}}, {{1, 2}}),
         "entity 1 of packet sequence 1" + unnamed},
        {good, rails(1, {{{1}, "vdd\n"}}, {}), rail + R"( is also called vdd\x0A)" + renamed},
        {goodStates, states(2, 1001, {{{1, 2}, "gpu/off"}}, {}),
         state + " is also called off" + renamed},
        {good, rails(1, {}, {{1, 999, 501}}), "the time of " + rail + backwards},
        {good, rails(1, {}, {{1, 1000, 499}}), "a total of " + rail + backwards},
        {goodStates, states(2, 999, {}, {{1, 2, 6, 6, 7}}), "the time of " + state + backwards},
        {goodStates, states(2, 1001, {}, {{1, 2, 5, 5, 7}}), "a total of " + state + backwards},
        {good, rails(1, {}, {{1, 1001, -1}}), rail + tooBig},
        {good, rails(1, {}, {{1, -1, 501}}), rail + tooBig},
        {good, rails(1, {}, {{1, tooLong, 501}}), rail + tooBig},
        {goodStates, states(2, 1001, {}, {{1, 2, tooLong, 6, 7}}), state + tooBig},
        {goodStates, states(2, tooLong, {}, {{1, 2, 5, 6, 7}}), state + tooBig},
    };
    for (const auto& [first, bad, error] : cases) {
        EXPECT_FALSE(read(first + bad)) << error;
        EXPECT_EQ(mError, fmt::format("{}: at byte {}: {}", mFile, first.size(), error));
    }
    EXPECT_THAT(mWarnings, IsEmpty());
    std::filesystem::create_directory(mTree.path("folder"));
    EXPECT_FALSE(playRecording(mTree.path("folder").string(), {}, false, {}, &mError));
    EXPECT_EQ(mError, mTree.path("folder").string() +
                          ": Is a directory (name a trace, a file that you may read)");
}

TEST_F(RecordingTest, IdsAndNamesOfInterleavedSequences) {
    const int64_t huge = std::numeric_limits<uint32_t>::max();
    const int64_t greatest = std::numeric_limits<int32_t>::max();
    // Names come after the first readings, and packets of other kinds are larger than a block.
    std::string others = other(300000);
    for (size_t i = 0; i < 20000; ++i) others += other(i % 50);
    const std::string second = states(2, 1000, {{{-1, 1}, "cpu/on"}, {{0}, "gpu/on"}},
                                      {{-1, 1, 10, 11, 12}, {0, 0, 1, 1, 1}});
    const std::string bytes =
        others + rails(1, {}, {{huge, 1000, 1}, {3, 1000, 2}}) + other(0) +
        rails(2, {{{3}, "b"}, {{greatest}, "c\x1b"}, {{4}, "never read"}},
              {{3, 1000, 3}, {greatest, 1000, 4}}) +
        states(1, 1000, {{{-1, -2}, "gpu/on"}, {{-1, 1}, "gpu/off"}, {{7}, "idle/never read"}},
               {{-1, -2, 5, 6, 7}, {-1, 1, 8, 9, -1}}) +
        second + other(200) + rails(1, {{{huge}, "a"}, {{3}, "a"}, {{3}, "a"}}, {{3, 1001, 20}}) +
        rails(3, {{{9}, "b"}}, {{9, 1000, 5}});
    // A third sequence has a name of the second's, and gpu is in two.
    const std::string shown =
        "0:a@1000=1 3:a #2@1001=20 1:b@1000=3 2147483647:c\\x1B@1000=4 @1001 "
        "0:gpu@1000 0:on=5,6,7 1:off=8,9,0 1:cpu@1000 1:on=10,11,12";
    play(bytes);
    EXPECT_EQ(at(1), shown);
    EXPECT_THAT(mSource->read().lists->rails, testing::SizeIs(4));
    EXPECT_THAT(mWarnings,
                ElementsAre(fmt::format("at byte {}: packet sequences 1 and 2 both have gpu (of "
                                        "such names only the first sequence's is shown; record one "
                                        "service at a time)",
                                        bytes.find(second))));

    // Cut off anywhere in its last packet.
    const std::string last = states(1, 9000, {}, {{-1, 1, 9, 9, 9}});
    for (size_t size = 1; size < last.size(); ++size) {
        mWarnings.clear();
        play(bytes + last.substr(0, size));
        EXPECT_EQ(at(9999), shown);
        ASSERT_THAT(mWarnings, testing::SizeIs(2)) << size;
        EXPECT_EQ(
            mWarnings[0],
            fmt::format("at byte {}: the last packet is cut off (it is left out)", bytes.size()));
    }
}

TEST_F(RecordingTest, PlaysSamplesAndGoesRound) {
    // Three samples, 1000 ms apart. Rail b is missing from the first and the last; the rails are
    // read some time before the states, which are written late. The last entry into gpu/off is from
    // before the recording, and that into gpu/idle is not known.
    const std::string bytes =
        rails(1, {{{0}, "a"}, {{1}, "b"}}, {{0, 4000, 100}}) +
        rails(1, {}, {{0, 5000, 150}, {1, 5010, 20}}) +
        states(1, 4090, {{{5}, "gpu/on"}, {{5, 1}, "gpu/off"}, {{5, 2}, "gpu/idle"}},
               {{5, 0, 3000, 7, 4050}, {5, 1, 1000, 6, 60}, {5, 2, 1, 1}}) +
        states(1, 5090, {}, {{5, 0, 3500, 7, 4050}, {5, 1, 1500, 6, 60}, {5, 2, 1, 2}}) +
        rails(1, {}, {{0, 6000, 170}, {0, 6000, 180}}) +
        states(1, 6090, {}, {{5, 0, 4000, 9, 6000}, {5, 1, 2000, 6, 60}, {5, 2, 1, 3}});
    const std::string samples[] = {
        "0:a@4000=100 @4090 5:gpu@4090 0:on=3000,7,4050 1:off=1000,6,60 2:idle=1,1,0",
        "0:a@5000=150 1:b@5010=20 @5090 5:gpu@5090 0:on=3500,7,4050 1:off=1500,6,60 2:idle=1,2,0",
        "0:a@6000=180 1:b@5010=20 @6090 5:gpu@6090 0:on=4000,9,6000 1:off=2000,6,60 2:idle=1,3,0",
    };
    // The nearest sample within half a second.
    const std::pair<int64_t, size_t> shown[] = {{-1, 0},   {0, 0},    {500, 0}, {501, 1},
                                                {1500, 1}, {1501, 2}, {2000, 2}};
    for (const bool loop : {false, true}) {
        play(bytes, loop);
        for (const auto& [playedMs, sample] : shown) {
            EXPECT_EQ(at(playedMs), samples[sample]) << playedMs;
            EXPECT_EQ(mSource->isOver(), sample == 2 && !loop) << playedMs;
        }
    }
    // A round takes the 2000 ms of the recording and a spacing of 1000 ms.
    EXPECT_EQ(at(2500), samples[2]);
    EXPECT_EQ(at(2501),
              "0:a@7000=180 1:b@5010=20 @7090 "
              "5:gpu@7090 0:on=4000,9,6000 1:off=2000,6,60 2:idle=1,3,0");
    EXPECT_EQ(at(4000),
              "0:a@8000=230 1:b@8010=20 @8090 "
              "5:gpu@8090 0:on=4500,9,6000 1:off=2500,6,60 2:idle=1,4,0");
    EXPECT_EQ(at(2 * 3000 + 2000),
              "0:a@12000=340 1:b@11010=20 @12090 "
              "5:gpu@12090 0:on=6000,13,12000 1:off=4000,6,60 2:idle=1,7,0");
    EXPECT_EQ(at(std::numeric_limits<int64_t>::max() / 1000000).substr(0, 6), "0:a@92");
    play(bytes);
    EXPECT_EQ(at(1000000), samples[2]);
    play(rails(1, {{{0}, "a"}}, {{0, 4000, 100}}), true);
    EXPECT_EQ(at(1000000), "0:a@4000=100 @4000") << "one sample stands still";
    EXPECT_FALSE(mSource->isOver());
    // 100 samples a second; the other sequence is not shown.
    play(rails(1, {{{0}, "a"}}, {{0, 4000, 100}}) + rails(1, {}, {{0, 4010, 110}}) +
             rails(2, {{{0}, "a"}}, {{0, 4300, 1}}),
         true);
    EXPECT_EQ(at(5), "0:a@4000=100 @4000");
    EXPECT_EQ(at(20), "0:a@4020=110 @4020");
}

TEST_F(RecordingTest, EachIntervalHasOneSample) {
    // A sample each 100 ms, with a jitter of a millisecond. Samples 20 to 29 are missing.
    std::string bytes = rails(1, {{{0}, "a"}}, {});
    for (const int64_t i : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 30, 31, 32, 33}) {
        bytes += rails(1, {}, {{0, 1000 + 100 * i + i * 7 % 3 - 1, i}});
    }
    for (const int intervalMs : {100, 300}) {
        play(bytes);
        for (int i = 0; !mSource->isOver(); i += intervalMs / 100) {
            mPlayed = milliseconds(100 * i);
            EXPECT_EQ(mSource->read().rails[0]->energyUWs, i < 10 || i >= 30 ? i : 10) << i;
            EXPECT_EQ(mSource->isOver(), i == 33);
        }
    }
}

TEST_F(RecordingTest, ThingsThatASampleLacks) {
    const std::vector<Name> names = {
        {{0, 0}, "cpu0/on"}, {{1, 0}, "cpu1/on"}, {{1, 1}, "cpu1/off"}};
    // Rails and states of two writers, half a second apart. One CPU goes offline, and the other
    // lacks a state in the last packet. The last energy has the time of its packet.
    play(rails(1, {{{0}, "a"}, {{1}, "b"}}, {{0, 1000, 1}, {1, 1000, 2}}) +
         states(2, 1500, names, {{0, 0, 1, 1, 1}, {1, 0, 2, 2, 2}, {1, 1, 3}}) +
         rails(1, {}, {{0, 2000, 3}}) + states(2, 2500, {}, {{0, 0, 4, 4, 4}}) +
         packet(1, 3000, 40, field(2, std::string("\x08\x00\x18\x05", 4))) +
         states(2, 3500, {}, {{0, 0, 5, 5, 5}, {1, 0, 6, 6, 6}}));
    const std::pair<int64_t, std::string> shown[] = {
        {0, "0:a@1000=1 1:b@1000=2 @1000"},
        {500,
         "0:a@1000=1 1:b@1000=2 @1500 0:cpu0@1500 0:on=1,1,1 1:cpu1@1500 0:on=2,2,2 1:off=3,0,0"},
        {1000,
         "0:a@2000=3 1:b@1000=2 @2000 0:cpu0@1500 0:on=1,1,1 1:cpu1@1500 0:on=2,2,2 1:off=3,0,0"},
        {1500, "0:a@2000=3 1:b@1000=2 @2500 0:cpu0@2500 0:on=4,4,4"},
        {2000, "0:a@3000=5 1:b@1000=2 @3000 0:cpu0@2500 0:on=4,4,4"},
        {2500, "0:a@3000=5 1:b@1000=2 @3500 0:cpu0@3500 0:on=5,5,5"},
    };
    for (const auto& [playedMs, text] : shown) EXPECT_EQ(at(playedMs), text);
    const Reading one = mSource->read(std::vector<size_t>{1}, kNothing);
    EXPECT_FALSE(one.rails[0] || one.entities[0]);
    EXPECT_EQ(one.rails[1]->energyUWs, 2);
}

/// A reading of a service, with rails' stamps 5 ms before its time; with `isLater` it has one more
/// rail.
Reading makeReading(int64_t timeMs, int64_t vddUWs, int64_t negativeUWs, int64_t onMs,
                    bool isLater = false) {
    std::vector<Rail> rails = {{3, "vdd\x1b", "cpu"},
                               {-1, "low", "cpu"},
                               {int64_t{1} << 32, "", "cpu"},
                               {4, "silent", "cpu"}};
    if (isLater) rails.push_back({3, "late", "cpu"});
    const State on{0, "on"};
    Reading reading;
    reading.lists = nameLists(
        rails, {{7, "gpu", EntityType::kDevice, {on}}, {8, "silent", EntityType::kDevice, {on}}},
        true);
    reading.time = milliseconds(timeMs);
    const nanoseconds time = milliseconds(timeMs - 5);
    reading.rails = {Energy{time, time, vddUWs}, Energy{time, time, negativeUWs},
                     Energy{time, time, 20}};
    reading.rails.resize(rails.size());
    reading.entities = {{{reading.time, 0, {{milliseconds(onMs), 5, milliseconds(-1)}}}},
                        std::nullopt};
    return reading;
}

TEST_F(RecordingTest, IsWrittenAndReadBack) {
    const auto writer = TraceWriter::create(mFile, &mError);
    ASSERT_NE(writer, nullptr) << mError;
    EXPECT_EQ(std::filesystem::status(mFile).permissions(), std::filesystem::perms(0600));
    // A reading has nanoseconds, and residencies keep them.
    Reading before = makeReading(10000, 100, 50, 4000);
    before.time += nanoseconds(7);
    ASSERT_TRUE(writer->write(before, &mError)) << mError;
    ASSERT_TRUE(open()) << "a sample is on the disk at once: " << mError;
    const std::string first =
        "3:vdd\\x1B@9995=100 0:low@9995=50 1:id 4294967296@9995=20 @10000 7:gpu@10000 "
        "0:on=4000,5,0\n";
    EXPECT_EQ(at(0) + '\n', first);
    EXPECT_EQ(mSource->read().entities[0]->time, before.time);

    // Negative energy is left out, and so is a reading from before the last one.
    ASSERT_TRUE(writer->write(makeReading(11000, 1000, -1, 4250), &mError)) << mError;
    ASSERT_TRUE(writer->write(makeReading(10999, 2000, 60, 4300), &mError)) << mError;
    // A rail whose total fell, one with a loss that its total does not show, and a rail that comes.
    // The residencies are the old ones.
    Reading last = makeReading(12000, 1000, 40, 4250, true);
    last.rails[2]->resets = 1;
    last.rails[4] = Energy{milliseconds(11995), milliseconds(11995), 7};
    last.entities[0]->time = milliseconds(11000);
    ASSERT_TRUE(writer->write(last, &mError)) << mError;
    // An entity whose total fell, and a rail whose stamps start again with its counter.
    last = makeReading(13000, 1001, 41, 4100, true);
    last.rails[2]->resets = 2;
    last.rails[2]->time = milliseconds(9000);
    ASSERT_TRUE(writer->write(last, &mError)) << mError;
    std::stringstream bytes;
    bytes << std::ifstream(mFile).rdbuf();
    EXPECT_THAT(bytes.str(), HasSubstr("\x50\x05")) << "each reset begins a packet sequence";
    ASSERT_TRUE(open()) << mError;
    EXPECT_THAT(mWarnings, ElementsAre(HasSubstr("both have low (of such names")));
    std::string shown;
    for (int i = 0; i < 4; ++i) shown += at(int64_t{1000} * i) + '\n';
    EXPECT_EQ(
        shown,
        first +
            R"(3:vdd\x1B@10995=1000 0:low@9995=50 1:id 4294967296@10995=20 @11000 7:gpu@11000 0:on=4250,5,0
3:vdd\x1B@11995=1000 0:low@9995=50 1:id 4294967296@10995=20 2:late@11995=7 @11995 7:gpu@11000 0:on=4250,5,0
3:vdd\x1B@12995=1001 0:low@9995=50 1:id 4294967296@10995=20 2:late@11995=7 @12995 7:gpu@11000 0:on=4250,5,0
)");
}

TEST_F(RecordingTest, IsANewFileOfWholeSamplesEvenOnAFullDisk) {
    mTree.link("nowhere", "link");
    EXPECT_EQ(TraceWriter::create(mTree.path("link").string(), &mError), nullptr);
    EXPECT_THAT(mError, HasSubstr("/link: File exists (name a new file, in a folder"));
    const auto writer = TraceWriter::create(mFile, &mError);
    EXPECT_EQ(TraceWriter::create(mFile, &mError), nullptr);

    ASSERT_TRUE(writer->write(makeReading(10000, 100, 50, 4000), &mError)) << mError;
    const rlim_t size = std::filesystem::file_size(mFile);
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{size + 10, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_FALSE(writer->write(makeReading(11000, 200, 60, 4500), &mError));
    EXPECT_THAT(mError, HasSubstr("/trace: No space left on device (free space on the disk"));
    EXPECT_EQ(std::filesystem::file_size(mFile), size);
}

}  // namespace
}  // namespace powerstats
