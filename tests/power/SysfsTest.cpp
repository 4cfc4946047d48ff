// SPDX-License-Identifier: Apache-2.0

#include "power/linux/Sysfs.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <deque>
#include <utility>

namespace powerstats {
namespace {

/// Returns the lowest free descriptor, which tells whether those below it are open.
rlim_t nextDescriptor() {
    const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(next);
    return static_cast<rlim_t>(next);
}

/// Files of the kernel's own tree, because only their descriptors are kept.
class NumberFileTest : public testing::Test {
  protected:
    void SetUp() override {
        if (!makeSysfs(kMostDescriptors)->isKernels()) GTEST_SKIP() << "/sys is not the kernel's";
    }

    static void limitDescriptors(rlim_t descriptors) {
        const rlimit limit{descriptors, kMostDescriptors};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    std::shared_ptr<const Sysfs> makeSysfs(rlim_t descriptors) {
        limitDescriptors(descriptors);
        return std::make_shared<const Sysfs>(
            "/sys", [this](const std::string& text) { mWarnings.push_back(text); },
            [this](int descriptor, void* buffer, size_t size, off_t offset) {
                if (mErrors.empty()) return pread(descriptor, buffer, size, offset);
                errno = mErrors.front();
                mErrors.pop_front();
                return ssize_t{-1};
            });
    }

    static constexpr rlim_t kMostDescriptors = 1000;
    std::vector<std::string> mWarnings;
    std::deque<int> mErrors;  // of the next readings
    const rlim_t mFirst = nextDescriptor();
};

TEST_F(NumberFileTest, KeepsItsDescriptorUntilTheDeviceGoesAway) {
    {
        NumberFile mtu(makeSysfs(kMostDescriptors), "class/net/lo/mtu");
        const std::pair<std::deque<int>, std::optional<int64_t>> cases[] = {
            {{}, 65536},
            {{EINTR}, 65536},
            {{ENODEV}, 65536},  // the device is back
            {{ENODEV, ENODEV}, {}},
            {{EIO}, {}},
            {{}, 65536},
        };
        for (const auto& [errors, number] : cases) {
            mErrors = errors;
            EXPECT_EQ(mtu.read(), number);
            EXPECT_THAT(mErrors, testing::IsEmpty());
            EXPECT_EQ(nextDescriptor(), mFirst + 1);
        }
    }
    EXPECT_EQ(nextDescriptor(), mFirst);
    EXPECT_THAT(mWarnings, testing::ElementsAre(testing::HasSubstr("Input/output error")));
}

TEST_F(NumberFileTest, GivesUpDescriptorsWhenTheyRunShort) {
    const auto sysfs = makeSysfs(mFirst + 1 + 64);
    NumberFile mtu(sysfs, "class/net/lo/mtu"), index(sysfs, "class/net/lo/ifindex");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(mtu.read(), 65536);
        EXPECT_EQ(index.read(), 1);
        EXPECT_EQ(nextDescriptor(), mFirst + 1) << "64 are left";
    }
    limitDescriptors(mFirst + 1);
    EXPECT_EQ(index.read(), std::nullopt);
    EXPECT_THAT(mWarnings, testing::ElementsAre(testing::HasSubstr("raise the limit of open")));
    EXPECT_EQ(mtu.read(), 65536);
    EXPECT_EQ(nextDescriptor(), mFirst);
    EXPECT_EQ(index.read(), 1);
    raiseOpenFileLimit();
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(limit.rlim_cur, kMostDescriptors);
}

}  // namespace
}  // namespace powerstats
