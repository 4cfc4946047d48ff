// SPDX-License-Identifier: Apache-2.0

#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace support {
namespace {

constexpr unsigned kMostSeconds = 30;

[[noreturn]] void beChild(const std::function<void()>& run, int errors) {
    dup2(errors, STDERR_FILENO);
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    alarm(kMostSeconds);
    try {
        run();
    } catch (...) {
        std::fputs("reached the caller\n", stderr);
        _exit(1);
    }
    _exit(testing::Test::HasFailure() ? 1 : kReturned);
}

}  // namespace

Ended runInChild(const std::function<void()>& run) {
    Ended ended;
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    ended.pid = fork();
    EXPECT_GE(ended.pid, 0);
    if (ended.pid == 0) beChild(run, ends[1]);
    close(ends[1]);
    char bytes[4096];
    for (ssize_t size; (size = read(ends[0], bytes, sizeof(bytes))) > 0;) {
        ended.errors.append(bytes, static_cast<size_t>(size));
    }
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(ended.pid, &status, 0), ended.pid);
    if (WIFSIGNALED(status)) ended.signal = WTERMSIG(status);
    if (WIFEXITED(status)) ended.exitCode = WEXITSTATUS(status);
    return ended;
}

}  // namespace support
