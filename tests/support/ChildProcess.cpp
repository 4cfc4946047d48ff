// SPDX-License-Identifier: Apache-2.0

#include "tests/support/ChildProcess.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace support {
namespace {

/// Writes the coverage counters of the program and of the library, in a build that has any. A child
/// ends without the exit handlers that would write them.
void writeCoverage() {
#ifdef POWERSTATS_COVERAGE
    for (const char* file : {static_cast<const char*>(nullptr), POWERSTATS_LIBRARY}) {
        void* const object = dlopen(file, RTLD_NOW | RTLD_NOLOAD);
        void* const dump = object != nullptr ? dlsym(object, "__gcov_dump") : nullptr;
        if (dump != nullptr) reinterpret_cast<void (*)()>(dump)();
    }
#endif
}

}  // namespace

Ended runInChild(const std::function<void()>& run) {
    Ended ended;
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        const rlimit noCore{0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        alarm(300);
        signal(SIGABRT, [](int) { writeCoverage(); });
        try {
            run();
        } catch (...) {
            std::fputs("reached the caller\n", stderr);
            _exit(1);
        }
        writeCoverage();
        _exit(testing::Test::HasFailure() ? 1 : kReturned);
    }
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
    EXPECT_EQ(waitpid(child, &status, 0), child);
    ended.signal = WTERMSIG(status);       // 0 after an exit
    ended.exitCode = WEXITSTATUS(status);  // 0 after a signal
    return ended;
}

}  // namespace support
