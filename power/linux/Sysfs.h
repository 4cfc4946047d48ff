// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "power/Source.h"

namespace powerstats {

/// pread(), which tests replace.
using Pread = std::function<ssize_t(int descriptor, void* buffer, size_t size, off_t offset)>;

/// Raises this process's soft limit of open files to its hard limit, for a program to call before
/// it makes a Sysfs. Does nothing when that fails.
void raiseOpenFileLimit();

/// The kernel's files below one root folder, which is `/sys` or a tree that looks like it.
///
/// Paths are relative to the root ("class/powercap/intel-rapl:0/energy_uj"). A file or folder that
/// is not there is no fault: devices come and go. One that is there and cannot be used gives one
/// warning in the life of this object, which names it, the reason and the remedy.
///
/// Safe to use from any thread.
class Sysfs {
  public:
    Sysfs(const std::string& root, WarningCallback warn, Pread pread = ::pread);

    /// Whether the root is on the kernel's sysfs, and not on a tree that looks like it.
    bool isKernels() const { return mIsKernels; }

    /// Gives a warning about a file, each time.
    void warn(const std::string& path, const std::string& reason, const std::string& remedy) const;

    /// The files in a folder or below that this user may not read, as a user would type them. For
    /// those the callback gets no warning.
    std::vector<std::string> refusedFiles(const std::string& folder) const;

    /// The path of a file as a user would type it.
    std::string fullPath(const std::string& path) const { return mRoot + "/" + path; }

    /// Reads a file that holds a name: its text without white space around it.
    /// @return std::nullopt when the file is absent, cannot be read or is blank.
    std::optional<std::string> readName(const std::string& path) const;

    /// The path below the root of the thing that a symbolic link leads to, or its full path when it
    /// is elsewhere. std::nullopt when the link is absent or leads nowhere.
    std::optional<std::string> resolveLink(const std::string& path) const;

    /// The names of all entries of a folder, sorted. Empty when there is no such folder.
    /// @param ownFoldersOnly [in] leaves out files, and symbolic links whatever they lead to.
    std::vector<std::string> entries(const std::string& folder, bool ownFoldersOnly = false) const;

    bool hasFolder(const std::string& folder) const;

  private:
    friend class NumberFile;

    std::optional<std::string> readText(const std::string& path) const;
    std::optional<int64_t> parseNumber(const std::string& path, const std::string& text) const;
    void warnOnce(const std::string& path, const std::string& reason,
                  const std::string& remedy) const;
    void warnUnlessAbsent(const std::string& path, int error) const;

    const std::string mRoot;
    const bool mIsKernels;
    const WarningCallback mWarn;
    const Pread mPread;
    /// Descriptors from this number on are not kept. 0 once descriptors have run short.
    mutable std::atomic<int> mKeepBelow;
    mutable std::mutex mMutex;
    mutable std::set<std::string> mWarnedPaths;
    mutable std::set<std::string> mRefusedPaths;
};

/// A file that holds one whole number from 0 to 2^63 - 1, with white space around it.
///
/// On the kernel's sysfs a descriptor is opened on first use and kept, because reading it again
/// costs an eighth of opening, reading and closing the file. It is opened again when the kernel
/// says that the device went away. The last 64 descriptors that the process may open are never
/// kept, and none is kept any more once an open failed for want of one. Elsewhere each reading
/// opens the file: files of a made-up tree are replaced.
///
/// Safe to use from any thread.
class NumberFile {
  public:
    NumberFile(std::shared_ptr<const Sysfs> sysfs, std::string path);
    ~NumberFile();
    NumberFile(const NumberFile&) = delete;
    NumberFile& operator=(const NumberFile&) = delete;

    /// @return std::nullopt when the file is absent, cannot be read, holds something else or is
    ///     larger than 4,096 bytes.
    std::optional<int64_t> read();

  private:
    void close();

    const std::shared_ptr<const Sysfs> mSysfs;
    const std::string mPath;
    std::mutex mMutex;
    /// Negative when none is kept.
    int mDescriptor = -1;
};

/// The number in a name that is `prefix`, decimal digits, `suffix`: 12 for "energy12_input" between
/// "energy" and "_input". std::nullopt for any other name, and for a number above `max`.
std::optional<int32_t> numberInName(const std::string& name, const std::string& prefix,
                                    const std::string& suffix, int32_t max);

}  // namespace powerstats
