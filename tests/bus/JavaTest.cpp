// SPDX-License-Identifier: Apache-2.0
//
// The library in a real Java virtual machine, which checks every JNI call, with the service in
// another process.

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "tests/bus/Support.h"
#include "tests/hal/TemporaryTree.h"

namespace support {
namespace {

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
    return parts;
}

class JavaTest : public testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(Test, JavaTest, testing::Values("aidl", "hidl"),
                         [](const auto& hal) { return hal.param; });

TEST_P(JavaTest, ReaderPrintsTheTreeAndTheJniCheckPrintsNothing) {
#ifndef JAVA_PROGRAM
    GTEST_SKIP()
        << "no Java reader was built (it needs a JDK and libprotobuf-java, and no sanitizer)";
#else
    powerstats::TemporaryTree tree;
    tree.writeZone("intel-rapl:0", "package-0", 123456789012);
    tree.writeZone("intel-rapl:0:0", "core", 1999);
    tree.writeIdleState(0, 1, "C1", 5000999, 12);
    tree.writeIdleState(0, 2, "C2", 7000000, 34);
    tree.writeDevice("pci0/usb1", 321, 654);
    const PrivateBus bus;
    const auto daemon = startDaemon(GetParam(), tree.root());
    const std::string libraryPath = std::string("-Djava.library.path=") + LIBRARY_FOLDER;
    Process reader(
        {JAVA_PROGRAM, "-Xcheck:jni", libraryPath, "-jar", READER_JAR, "--format", "tsv"}, true);
    EXPECT_EQ(reader.wait(), 0);

    std::vector<std::string> facts;
    for (const auto& line : split(reader.text(), '\n')) {
        const auto fields = split(line, '\t');
        const bool chosen = line.find("Native(") != std::string::npos &&
                            line.find(": Using power.stats ") != std::string::npos;
        // Newer virtual machines say this of Java's own protobuf runtime.
        const bool ofProtobuf = line.find("sun.misc.Unsafe") != std::string::npos ||
                                line.find("com.google.protobuf") != std::string::npos;
        if (chosen || ofProtobuf) continue;
        ASSERT_GE(fields.size(), 4u) << "unexpected: " << line;
        if (fields[2] == "system") continue;  // whose times are this machine's
        std::string fact = fields[0];
        for (size_t i = 2; i < fields.size(); ++i) fact += ' ' + fields[i];
        facts.push_back(fact);
    }
    EXPECT_EQ(facts, (std::vector<std::string>{
                         "rail package-0 123456792",
                         "rail package-0/core 1",
                         "residency cpu0 C1 5000 12",
                         "residency cpu0 C2 7000 34",
                         "residency pci0/usb1 active 321 0",
                         "residency pci0/usb1 suspended 654 0",
                     }))
        << reader.text();
#endif
}

}  // namespace
}  // namespace support
