// SPDX-License-Identifier: Apache-2.0

#include "tests/bus/Support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

namespace support {
namespace {

constexpr char kNoBus[] = "unix:path=/nonexistent/bus";

/// The programs and files of tests are named relative to the build folder, so that a copy of it
/// works wherever it is.
const bool kInBuildFolder = [] {
    const auto program = std::filesystem::read_symlink("/proc/self/exe");
    std::filesystem::current_path(program.parent_path().parent_path());
    return true;
}();

/// Writes the configuration of a system bus into a folder. Root of the installed policy is the user
/// who runs the test.
/// @return the file.
std::string writeSystemBusConfig(const std::string& folder) {
    std::string file = folder + "/bus.conf";
    std::filesystem::copy_file(SOURCE_FOLDER "/tests/bus/system-bus.conf", file);
    std::ostringstream policy;
    policy << std::ifstream(SOURCE_FOLDER "/packaging/powerstats.conf").rdbuf();
    std::ofstream(folder + "/powerstats.conf") << std::regex_replace(
        policy.str(), std::regex("user=\"root\""), "user=\"" + std::to_string(geteuid()) + '"');
    return file;
}

}  // namespace

Process::Process(const std::vector<std::string>& arguments) {
    int pipes[2];
    if (pipe2(pipes, O_CLOEXEC) != 0) abort();
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    mPid = fork();
    if (mPid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(pipes[1], STDERR_FILENO);
        dup2(pipes[1], STDOUT_FILENO);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(pipes[1]);
    mPipe = pipes[0];
}

Process::~Process() {
    if (!mEnded) kill();
    close(mPipe);
}

bool Process::waitFor(const std::string& text, size_t from) {
    pollfd readable{mPipe, POLLIN, 0};
    char buffer[4096];
    while (mText.find(text, from) == std::string::npos) {
        if (poll(&readable, 1, 300'000) <= 0) return false;
        const ssize_t count = read(mPipe, buffer, sizeof(buffer));
        if (count <= 0) return false;
        mText.append(buffer, static_cast<size_t>(count));
    }
    return true;
}

int Process::wait() {
    waitFor(std::string(1, '\0'));  // no program here writes this
    // A program that does not end meets the time limit of the test.
    if (!mEnded) mEnded = waitpid(mPid, &mStatus, 0) == mPid;
    return WIFSIGNALED(mStatus) ? -WTERMSIG(mStatus) : WEXITSTATUS(mStatus);
}

void Process::signal(int number) const {
    ::kill(mPid, number);
}

void Process::kill() {
    if (mEnded) return;
    signal(SIGKILL);
    mEnded = waitpid(mPid, &mStatus, 0) == mPid;
}

PrivateBus::PrivateBus(host::Bus bus)
    : mVariable(bus == host::Bus::kSession ? "DBUS_SESSION_BUS_ADDRESS"
                                           : "DBUS_SYSTEM_BUS_ADDRESS") {
    // No test reaches the machine's own buses.
    setenv("DBUS_SESSION_BUS_ADDRESS", kNoBus, 0);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", kNoBus, 0);
    std::string folder = (std::filesystem::temp_directory_path() / "bus-XXXXXX").string();
    mFolder = mkdtemp(folder.data());
    std::filesystem::permissions(mFolder, std::filesystem::perms(0755));  // for other users' tests
    mAddress = "unix:path=" + mFolder + "/socket";
    mDaemon = std::make_unique<Process>(std::vector<std::string>{
        "dbus-daemon", "--nofork", "--print-address=2", "--address=" + mAddress,
        bus == host::Bus::kSession ? "--session"
                                   : "--config-file=" + writeSystemBusConfig(mFolder)});
    EXPECT_TRUE(mDaemon->waitFor("unix:path=")) << mDaemon->text();
    setenv(mVariable, mAddress.c_str(), 1);
}

PrivateBus::~PrivateBus() {
    mDaemon.reset();
    // Another bus may have taken its place.
    if (getenv(mVariable) == mAddress) setenv(mVariable, kNoBus, 1);
    std::filesystem::remove_all(mFolder);
}

std::unique_ptr<Process> startDaemon(const std::string& hal, const std::string& sysfs,
                                     host::Bus bus, bool untilItServes) {
    auto daemon = std::make_unique<Process>(std::vector<std::string>{
        POWERSTATSD_PROGRAM, "--bus", bus == host::Bus::kSession ? "session" : "system", "--hal",
        hal, "--sysfs", sysfs});
    EXPECT_TRUE(!untilItServes || daemon->waitFor("powerstatsd: serving")) << daemon->text();
    return daemon;
}

std::string busResult(Call call, int generation, int namedAs) {
    const std::string names = std::to_string(namedAs != 0 ? namedAs : generation);
    return call == Call::kRails
               ? rail("VDD_CPU" + std::to_string(generation), generation)
               : entity("SOC" + names,
                        {residency("S0" + names, {0, generation, 2L * generation, 0})});
}

std::vector<std::string> wordsOf(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

std::unique_ptr<Process> startPeer(const std::vector<std::string>& arguments, bool untilReady) {
    std::vector<std::string> command{BUS_PEER_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    auto peer = std::make_unique<Process>(command);
    EXPECT_TRUE(!untilReady || peer->waitFor("ready")) << peer->text();
    return peer;
}

}  // namespace support
