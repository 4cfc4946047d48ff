// SPDX-License-Identifier: Apache-2.0

#include "tests/support/ChildProcess.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <host/ServiceControl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace support {
namespace {

constexpr unsigned kMostSeconds = 30;

/// Writes the coverage counters of the program and of the library, in a build that has any. A child
/// ends without the exit handlers that would write them.
void writeCoverage() {
#ifdef POWERSTATS_COVERAGE
    for (const char* file : {static_cast<const char*>(nullptr), POWERSTATS_LIBRARY}) {
        void* const object = dlopen(file, RTLD_NOW | RTLD_NOLOAD);
        if (object == nullptr) continue;
        void* const dump = dlsym(object, "__gcov_dump");
        if (dump != nullptr) reinterpret_cast<void (*)()>(dump)();
    }
#endif
}

/// Runs last in a child that aborts.
void onAbort(int /*signal*/) {
    writeCoverage();
    const char* message = host::abortMessage();
    if (message != nullptr) dprintf(STDERR_FILENO, "abort message: %s\n", message);
}

[[noreturn]] void beChild(const std::function<void()>& run, int errors) {
    dup2(errors, STDERR_FILENO);
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    alarm(kMostSeconds);
    signal(SIGABRT, onAbort);
    try {
        run();
    } catch (...) {
        std::fputs("reached the caller\n", stderr);
        _exit(1);
    }
    writeCoverage();
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
    // Leave out the line that an emulator of another processor adds.
    const size_t emulator = ended.errors.find("qemu: uncaught target signal");
    if (emulator != std::string::npos) ended.errors.erase(emulator);
    int status = 0;
    EXPECT_EQ(waitpid(ended.pid, &status, 0), ended.pid);
    if (WIFSIGNALED(status)) ended.signal = WTERMSIG(status);
    if (WIFEXITED(status)) ended.exitCode = WEXITSTATUS(status);
    return ended;
}

}  // namespace support
