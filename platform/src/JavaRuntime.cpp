// SPDX-License-Identifier: Apache-2.0

#include <host/JavaRuntime.h>

#include <android/log.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <type_traits>
#include <unordered_map>
#include <utility>

namespace host {

namespace {

/// Derived from JNIEnv, because the name of this structure differs between Java runtimes.
using JniFunctions = std::remove_cv_t<std::remove_pointer_t<decltype(JNIEnv::functions)>>;

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

/// The JNIEnv itself. A native method passes it back.
struct HostJniEnv::Impl : JNIEnv {
    explicit Impl(HostJniEnv* owner) : JNIEnv{&table}, owner(owner) {
        table.NewByteArray = [](JNIEnv* env, jsize length) {
            return static_cast<Impl*>(env)->create(length);
        };
        table.SetByteArrayRegion = [](JNIEnv* env, jbyteArray array, jsize start, jsize length,
                                      const jbyte* bytes) {
            static_cast<Impl*>(env)->fill(array, start, length, bytes);
        };
    }

    /// Calls onCall if it is set. Formats the text only then, because benchmarks come through here.
    template <typename Text>
    void announce(Text text) const {
        if (owner->onCall) owner->onCall(text());
    }

    jbyteArray create(jsize length) {
        const auto text = [&] { return "NewByteArray(" + std::to_string(length) + ")"; };
        announce(text);
        if (length < 0) endProcess(text(), "the length is negative");
        if (owner->heapIsFull) return nullptr;
        std::lock_guard<std::mutex> lock(mutex);
        // NOLINTNEXTLINE(performance-no-int-to-ptr): a handle is never used as an address
        jbyteArray array = reinterpret_cast<jbyteArray>(++lastHandle);
        arrays.emplace(array, std::vector<uint8_t>(static_cast<size_t>(length)));
        return array;
    }

    void fill(jbyteArray array, jsize start, jsize length, const jbyte* bytes) {
        const auto text = [&] {
            return "SetByteArrayRegion(" + std::to_string(start) + ", " + std::to_string(length) +
                   ")";
        };
        announce(text);
        if (array == nullptr) endProcess(text(), "the array is null");
        std::lock_guard<std::mutex> lock(mutex);
        auto found = arrays.find(array);
        if (found == arrays.end()) endProcess(text(), "not an array of this environment");
        std::vector<uint8_t>& content = found->second;
        if (start < 0 || length < 0 ||
            static_cast<size_t>(start) + static_cast<size_t>(length) > content.size()) {
            endProcess(text(), "the region is outside of the array");
        }
        std::copy_n(reinterpret_cast<const uint8_t*>(bytes), length, content.begin() + start);
    }

    HostJniEnv* const owner;
    JniFunctions table{};
    mutable std::mutex mutex;
    std::unordered_map<jbyteArray, std::vector<uint8_t>> arrays;
    /// Handles are numbers that are never used twice, so that a stale one is recognised.
    uintptr_t lastHandle = 0;
};

HostJniEnv::HostJniEnv() : mImpl(std::make_unique<Impl>(this)) {}

HostJniEnv::~HostJniEnv() = default;

JNIEnv* HostJniEnv::get() {
    return mImpl.get();
}

JavaBytes HostJniEnv::take(jbyteArray array) {
    if (array == nullptr) return std::nullopt;
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    auto taken = mImpl->arrays.extract(array);
    if (taken.empty()) endProcess("take", "not an array of this environment, or taken already");
    return std::move(taken.mapped());
}

size_t HostJniEnv::arrays() const {
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    return mImpl->arrays.size();
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
    void* methods[] = {dlsym(handle, kResidenciesMethod), dlsym(handle, kRailEnergyMethod)};
    if (methods[0] == nullptr || methods[1] == nullptr) {
        *error = file + ": does not export " +
                 (methods[0] == nullptr ? kResidenciesMethod : kRailEnergyMethod);
        dlclose(handle);
        return nullptr;
    }
    return std::unique_ptr<LoadedLibrary>(
        new LoadedLibrary(handle, reinterpret_cast<NativeMethod>(methods[0]),
                          reinterpret_cast<NativeMethod>(methods[1])));
}

LoadedLibrary::LoadedLibrary(void* handle, NativeMethod residencies, NativeMethod railEnergy)
    : mHandle(handle), mResidencies(residencies), mRailEnergy(railEnergy) {}

LoadedLibrary::~LoadedLibrary() {
    dlclose(mHandle);
}

JavaBytes LoadedLibrary::residencies(HostJniEnv* env) const {
    return env->take(mResidencies(env->get(), nullptr));
}

JavaBytes LoadedLibrary::railEnergy(HostJniEnv* env) const {
    return env->take(mRailEnergy(env->get(), nullptr));
}

}  // namespace host
