// SPDX-License-Identifier: Apache-2.0

#include <host/JavaRuntime.h>

#include <android/log.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

namespace host {

namespace {

constexpr char kResidenciesMethod[] =
    "Java_com_tavrel_android_ferrolith_TavrelPowerStatsHalDataProvider_getResidenciesNative";
constexpr char kRailEnergyMethod[] =
    "Java_com_tavrel_android_ferrolith_TavrelPowerStatsHalDataProvider_getRailEnergyNative";

[[noreturn]] void endProcess(const std::string& call, const char* reason) {
    std::fprintf(stderr, "JNI: %s: %s\n", call.c_str(), reason);
    std::abort();
}

std::string withoutPrefix(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0 ? text.substr(prefix.size()) : text;
}

}  // namespace

HostJniEnv::HostJniEnv() {
    functions = &mFunctions;
    mFunctions.NewByteArray = [](JNIEnv* env, jsize length) {
        return static_cast<HostJniEnv*>(env)->create(length);
    };
    mFunctions.SetByteArrayRegion = [](JNIEnv* env, jbyteArray array, jsize start, jsize length,
                                       const jbyte* bytes) {
        static_cast<HostJniEnv*>(env)->fill(array, start, length, bytes);
    };
}

jbyteArray HostJniEnv::create(jsize length) {
    if (onCall) onCall("NewByteArray(" + std::to_string(length) + ")");
    if (heapIsFull) return nullptr;
    std::lock_guard<std::mutex> lock(mMutex);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a handle is never used as an address
    jbyteArray array = reinterpret_cast<jbyteArray>(++mLastHandle);
    mArrays.emplace(array, std::vector<uint8_t>(static_cast<size_t>(length)));
    return array;
}

void HostJniEnv::fill(jbyteArray array, jsize start, jsize length, const jbyte* bytes) {
    // Formatted only where somebody reads it, because benchmarks come through here.
    const auto call = [&] {
        return "SetByteArrayRegion(" + std::to_string(start) + ", " + std::to_string(length) + ")";
    };
    if (onCall) onCall(call());
    if (array == nullptr) endProcess(call(), "the array is null");
    std::lock_guard<std::mutex> lock(mMutex);
    auto found = mArrays.find(array);
    if (found == mArrays.end()) endProcess(call(), "not an array of this environment");
    std::vector<uint8_t>& content = found->second;
    if (start < 0 || length < 0 ||
        static_cast<size_t>(start) + static_cast<size_t>(length) > content.size()) {
        endProcess(call(), "the region is outside of the array");
    }
    std::copy_n(reinterpret_cast<const uint8_t*>(bytes), length, content.begin() + start);
}

JavaBytes HostJniEnv::take(jbyteArray array) {
    if (array == nullptr) return std::nullopt;
    std::lock_guard<std::mutex> lock(mMutex);
    auto taken = mArrays.extract(array);
    if (taken.empty()) endProcess("take", "not an array of this environment, or taken already");
    return std::move(taken.mapped());
}

size_t HostJniEnv::arrays() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mArrays.size();
}

std::string LoadedLibrary::defaultFile() {
    Dl_info platform{};
    dladdr(reinterpret_cast<const void*>(&__android_log_print), &platform);
    const std::filesystem::path folder =
        std::filesystem::path(platform.dli_fname != nullptr ? platform.dli_fname : "")
            .parent_path();
    const char name[] = "libpowerstatshaldataprovider.so";
    const std::filesystem::path installed = folder.parent_path() / "jni" / name;
    std::error_code error;
    return (std::filesystem::exists(installed, error) ? installed : folder / name).string();
}

std::unique_ptr<LoadedLibrary> LoadedLibrary::load(const std::string& file, std::string* error) {
    // dlopen searches other folders than the current one for a name without a slash.
    const std::string path = std::filesystem::absolute(file).string();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        *error = file + ": " + withoutPrefix(dlerror(), path + ": ");
        return nullptr;
    }
    std::unique_ptr<LoadedLibrary> library(new LoadedLibrary(handle));
    for (const auto& [name, method] : {std::pair(kResidenciesMethod, &library->mResidencies),
                                       std::pair(kRailEnergyMethod, &library->mRailEnergy)}) {
        *method = reinterpret_cast<NativeMethod>(dlsym(handle, name));
        if (*method == nullptr) {
            *error = file + ": does not export " + name;
            return nullptr;
        }
    }
    return library;
}

LoadedLibrary::~LoadedLibrary() {
    dlclose(mHandle);
}

}  // namespace host
