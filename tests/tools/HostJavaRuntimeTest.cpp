// SPDX-License-Identifier: Apache-2.0

#include "tools/HostJavaRuntime.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/hal/TemporaryTree.h"

namespace powerstats {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr jbyte kBytes[] = {1, -2, 3};

TEST(HostJniEnv, HandsAnArrayOverOnceAndKeepsNothing) {
    HostJniEnv env;
    std::vector<std::string> calls;
    env.onCall = [&](const std::string& call) { calls.push_back(call); };
    jbyteArray array = env.get()->NewByteArray(4);
    jbyteArray empty = env.get()->NewByteArray(0);
    env.get()->SetByteArrayRegion(array, 1, 3, kBytes);
    EXPECT_EQ(env.arrays(), 2u);
    EXPECT_THAT(env.take(array).value(), ElementsAre(0, 1, 254, 3));
    EXPECT_THAT(env.take(empty).value(), testing::IsEmpty()) << "which is not null";
    EXPECT_EQ(env.take(nullptr), std::nullopt);
    EXPECT_EQ(env.arrays(), 0u);
    EXPECT_THAT(calls,
                ElementsAre("NewByteArray(4)", "NewByteArray(0)", "SetByteArrayRegion(1, 3)"));
}

TEST(HostJniEnvDeathTest, EndsTheProcessAtWhatAJavaRuntimeWouldRefuse) {
    HostJniEnv env;
    HostJniEnv other;
    JNIEnv* jni = env.get();
    jbyteArray array = jni->NewByteArray(3);
    EXPECT_DEATH(jni->SetByteArrayRegion(array, 1, 3, kBytes), "outside of the array");
    EXPECT_DEATH(jni->SetByteArrayRegion(array, -1, 1, kBytes), "outside of the array");
    EXPECT_DEATH(jni->SetByteArrayRegion(nullptr, 0, 1, kBytes), "the array is null");
    EXPECT_DEATH(jni->NewByteArray(-1), "negative");
    EXPECT_DEATH(other.take(array), "not an array of this environment");
    env.take(array);
    EXPECT_DEATH(env.take(array), "taken already");
}

TEST(LoadedLibrary, TellsWhyAFileCannotBeUsed) {
    std::string error;
    EXPECT_EQ(LoadedLibrary::load("no-such-library.so", &error), nullptr);
    EXPECT_THAT(error, StartsWith("no-such-library.so: cannot open"));
    EXPECT_EQ(LoadedLibrary::load(OTHER_LIBRARY, &error), nullptr);
    EXPECT_THAT(error, StartsWith(OTHER_LIBRARY ": "));
    EXPECT_THAT(error, HasSubstr("getResidenciesNative"));
}

TEST(LoadedLibrary, IsFoundBesideTheProgramAndLoadsAgainAfterUnloading) {
    for (int i = 0; i < 2; ++i) {
        std::string error;
        const auto library = LoadedLibrary::load(LoadedLibrary::defaultFile(), &error);
        ASSERT_NE(library, nullptr) << error;
        EXPECT_EQ(library->symbol("no_such_symbol"), nullptr);
    }
}

TEST(LoadedLibrary, TakesANameWithoutASlashForAFileOfTheWorkingFolder) {
    const std::filesystem::path before = std::filesystem::current_path();
    const TemporaryTree folder;
    std::filesystem::create_symlink(LoadedLibrary::defaultFile(), folder.path("copy.so"));
    std::filesystem::current_path(folder.root());
    std::string error;
    EXPECT_NE(LoadedLibrary::load("copy.so", &error), nullptr) << error;
    std::filesystem::current_path(before);
}

}  // namespace
}  // namespace powerstats
