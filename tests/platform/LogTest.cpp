// SPDX-License-Identifier: Apache-2.0

#include <android/log.h>
#include <android/set_abort_message.h>
#include <gtest/gtest.h>
#include <host/ServiceControl.h>

#include <cstdio>
#include <string>

#include "tests/support/ChildProcess.h"

namespace {

void logAloud(const __android_log_message* message) {
    std::fprintf(stderr, "%d|%s|%s\n", message->priority, message->tag, message->message);
}

TEST(Log, DefaultIsOneBriefLineForEachLineOfTheText) {
    const support::Ended ended = support::runInChild([] {
        __android_log_print(ANDROID_LOG_ERROR, "Tag", "%s is %d", "answer", 42);
        __android_log_write(ANDROID_LOG_INFO, "Tag", "100%s\ntwo\n\n");
        __android_log_write(ANDROID_LOG_WARN, nullptr, nullptr);
    });
    char pid[16];
    std::snprintf(pid, sizeof(pid), "(%5d): ", static_cast<int>(ended.pid));
    const std::string tag = std::string("Tag") + pid;
    EXPECT_EQ(ended.errors, "E/" + tag + "answer is 42\nI/" + tag + "100%s\nI/" + tag + "two\nI/" +
                                tag + "\nW/" + pid + "\n");
}

TEST(Log, LoggerTakesItsPlaceAndGivesItBack) {
    const support::Ended ended = support::runInChild([] {
        __android_log_set_logger(logAloud);
        __android_log_print(ANDROID_LOG_WARN, "Tag", "%s", std::string(2000, 'x').c_str());
        __android_log_set_logger(nullptr);
        __android_log_write(ANDROID_LOG_DEBUG, "Tag", "last");
    });
    EXPECT_EQ(ended.errors.substr(0, 1031), "5|Tag|" + std::string(1023, 'x') + "\nD");
    EXPECT_NE(ended.errors.find("): last\n"), std::string::npos);
}

TEST(AbortMessage, TheFirstOneStays) {
    EXPECT_EQ(host::abortMessage(), nullptr);
    android_set_abort_message("first");
    android_set_abort_message("second");
    EXPECT_STREQ(host::abortMessage(), "first");
}

}  // namespace
