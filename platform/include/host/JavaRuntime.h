// SPDX-License-Identifier: Apache-2.0
//
// Stands in for the Java runtime that loads the library: a JNIEnv that offers byte arrays, and a
// loader that finds the library by its file and its two native methods by their exported names.

#pragma once

#include <jni.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace host {

/// The bytes of a Java `byte[]`; std::nullopt stands for Java's null.
using JavaBytes = std::optional<std::vector<uint8_t>>;

/// A JNIEnv with the two functions that the library needs, `NewByteArray` and `SetByteArrayRegion`.
/// A call of any other JNI function ends the process: its slot in the table is null.
///
/// Many threads may use one object at once. Each object has arrays of its own.
class HostJniEnv : JNIEnv {
  public:
    HostJniEnv();

    JNIEnv* get() { return this; }

    /// Takes the array out of this environment, as a Java caller takes a returned local reference.
    /// @param array [in] the result of a native method; null is allowed and gives std::nullopt. An
    ///     array of another environment, or one that was taken already, ends the process.
    JavaBytes take(jbyteArray array);

    /// Returns the number of arrays that were created and not yet taken. A native method that
    /// returns has left only the array that it returned.
    size_t arrays() const;

    /// Is called before each JNI call takes effect, with a text such as "NewByteArray(27)" or
    /// "SetByteArrayRegion(0, 27)". Empty by default.
    std::function<void(const std::string& call)> onCall;

    /// Makes `NewByteArray` return null, as a Java runtime does when its heap is full (it would
    /// also leave an OutOfMemoryError pending). `SetByteArrayRegion` of null ends the process.
    bool heapIsFull = false;

  private:
    jbyteArray create(jsize length);
    void fill(jbyteArray array, jsize start, jsize length, const jbyte* bytes);

    // By this type, because the name of the structure differs between Java runtimes.
    std::remove_cv_t<std::remove_pointer_t<decltype(JNIEnv::functions)>> mFunctions{};
    mutable std::mutex mMutex;
    std::unordered_map<jbyteArray, std::vector<uint8_t>> mArrays;
    /// Handles are numbers that are never used twice, so that a stale one is recognised.
    uintptr_t mLastHandle = 0;
};

/// One loaded copy of `libpowerstatshaldataprovider`.
class LoadedLibrary {
  public:
    /// The library in the folder jni/ next to libandroid_host.so's folder, as installed, or else in
    /// that folder itself, as built.
    static std::string defaultFile();

    /// Loads the library and finds its two native methods.
    /// @param file [in] path of the library.
    /// @param error [out] on failure one line with the file and the reason.
    /// @return null on failure.
    static std::unique_ptr<LoadedLibrary> load(const std::string& file, std::string* error);

    /// Unloads the library (`dlclose`). REQUIRES: no HIDL service that it is connected to is dying
    ~LoadedLibrary();
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    /// Calls `getResidenciesNative` as a Java caller does.
    JavaBytes residencies(HostJniEnv* env) const {
        return env->take(mResidencies(env->get(), nullptr));
    }
    /// Calls `getRailEnergyNative` as a Java caller does.
    JavaBytes railEnergy(HostJniEnv* env) const {
        return env->take(mRailEnergy(env->get(), nullptr));
    }

  private:
    using NativeMethod = jbyteArray (*)(JNIEnv* env, jclass clazz);

    explicit LoadedLibrary(void* handle) : mHandle(handle) {}

    void* const mHandle;
    NativeMethod mResidencies = nullptr;
    NativeMethod mRailEnergy = nullptr;
};

}  // namespace host
