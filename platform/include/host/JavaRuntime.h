// SPDX-License-Identifier: Apache-2.0
//
// Stands in for the Java runtime that loads the library: a JNIEnv that offers byte arrays, and a
// loader that finds the library by its file and its two native methods by their exported names.

#pragma once

#include <jni.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace host {

/// The bytes of a Java `byte[]`; std::nullopt stands for Java's null.
using JavaBytes = std::optional<std::vector<uint8_t>>;

/// A JNIEnv with the two functions that the library needs, `NewByteArray` and `SetByteArrayRegion`.
/// A call of any other JNI function ends the process: its slot in the table is null.
///
/// Many threads may use one object at once. Each object has arrays of its own.
class HostJniEnv {
  public:
    HostJniEnv();
    ~HostJniEnv();
    HostJniEnv(const HostJniEnv&) = delete;
    HostJniEnv& operator=(const HostJniEnv&) = delete;

    JNIEnv* get();

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
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

/// One loaded copy of `libpowerstatshaldataprovider`.
class LoadedLibrary {
  public:
    using NativeMethod = jbyteArray (*)(JNIEnv* env, jclass clazz);

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
    JavaBytes residencies(HostJniEnv* env) const;
    /// Calls `getRailEnergyNative` as a Java caller does.
    JavaBytes railEnergy(HostJniEnv* env) const;

  private:
    LoadedLibrary(void* handle, NativeMethod residencies, NativeMethod railEnergy);

    void* mHandle;
    NativeMethod mResidencies;
    NativeMethod mRailEnergy;
};

}  // namespace host
