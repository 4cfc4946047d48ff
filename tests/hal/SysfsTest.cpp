// SPDX-License-Identifier: Apache-2.0

#include "hal/Sysfs.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <deque>
#include <tuple>

namespace powerstats {
namespace {

/// Returns the lowest free descriptor, which tells whether those below it are open.
int nextDescriptor() {
    const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(next);
    return next;
}

/// Files of the kernel's own tree, because only their descriptors are kept.
class NumberFileTest : public testing::Test {
  protected:
    void SetUp() override {
        if (!mSysfs->isKernels()) GTEST_SKIP() << "/sys is not the kernel's";
    }

    NumberFile lo(const char* file) {
        return NumberFile(mSysfs, std::string("class/net/lo/") + file);
    }

    std::shared_ptr<const Sysfs> makeSysfs(rlim_t descriptors) {
        const rlimit limit{descriptors, kMostDescriptors};
        setrlimit(RLIMIT_NOFILE, &limit);
        return std::make_shared<const Sysfs>(
            "/sys", [this](const std::string& text) { mWarnings.push_back(text); },
            [this](int descriptor, void* buffer, size_t size, off_t offset) {
                ++mReads;
                if (mErrors.empty()) return pread(descriptor, buffer, size, offset);
                errno = mErrors.front();
                mErrors.pop_front();
                return ssize_t{-1};
            });
    }

    static constexpr rlim_t kMostDescriptors = 1000;
    std::vector<std::string> mWarnings;
    std::deque<int> mErrors;  // of the next readings
    int mReads = 0;
    std::shared_ptr<const Sysfs> mSysfs = makeSysfs(kMostDescriptors);
};

TEST_F(NumberFileTest, KeepsItsDescriptorUntilTheDeviceGoesAway) {
    const int first = nextDescriptor();
    {
        NumberFile mtu = lo("mtu");
        const std::tuple<std::deque<int>, std::optional<int64_t>, int> cases[] = {
            {{}, 65536, 1},
            {{}, 65536, 1},
            {{EINTR}, 65536, 2},
            {{ENODEV}, 65536, 2},  // the device is back
            {{ENODEV, ENODEV}, {}, 2},
            {{EIO}, {}, 1},
            {{}, 65536, 1},
        };
        for (const auto& [errors, number, reads] : cases) {
            mErrors = errors;
            mReads = 0;
            EXPECT_EQ(mtu.read(), number);
            EXPECT_EQ(mReads, reads);
            EXPECT_EQ(nextDescriptor(), first + 1);
        }
    }
    EXPECT_EQ(nextDescriptor(), first);
    EXPECT_THAT(mWarnings, testing::ElementsAre(testing::HasSubstr("Input/output error")));
}

TEST_F(NumberFileTest, GivesUpDescriptorsWhenTheyRunShort) {
    const int first = nextDescriptor();
    mSysfs = makeSysfs(static_cast<rlim_t>(first) + 1 + 64);
    NumberFile mtu = lo("mtu"), index = lo("ifindex");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(mtu.read(), 65536);
        EXPECT_EQ(index.read(), 1);
        EXPECT_EQ(nextDescriptor(), first + 1) << "64 are left";
    }
    const rlimit none{static_cast<rlim_t>(first) + 1, kMostDescriptors};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(index.read(), std::nullopt);
    EXPECT_THAT(mWarnings, testing::ElementsAre(testing::HasSubstr("raise the limit of open")));
    EXPECT_EQ(mtu.read(), 65536);
    EXPECT_EQ(nextDescriptor(), first);
    EXPECT_EQ(index.read(), 1);
    raiseOpenFileLimit();
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(limit.rlim_cur, kMostDescriptors);
}

}  // namespace
}  // namespace powerstats
