// SPDX-License-Identifier: Apache-2.0

#include "power/linux/Sysfs.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <limits>
#include <system_error>
#include <utility>

namespace powerstats {

namespace fs = std::filesystem;

namespace {

/// An attribute of sysfs holds at most one page.
constexpr size_t kMaxFileSize = 4096;

/// Whether the kernel says so that a device has gone, on opening its file or in the middle of
/// reading.
bool meansAbsent(int error) {
    return error == ENOENT || error == ENOTDIR || error == ENODEV || error == ENXIO;
}

const char* remedyFor(int error) {
    if (error == EMFILE || error == ENFILE) return "raise the limit of open files";
    if (error == EISDIR) return "expected a file: check that this is a sysfs tree";
    return "left out until it can be read; the kernel log may say more";
}

std::string withoutSpaceAround(const std::string& text) {
    constexpr char kSpace[] = " \t\r\n";
    const size_t first = text.find_first_not_of(kSpace);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

std::string withoutSlashAtEnd(const std::string& folder) {
    return folder.substr(0, folder.find_last_not_of('/') + 1);
}

bool isOnSysfs(const std::string& folder) {
    struct statfs info {};
    return statfs(folder.c_str(), &info) == 0 && info.f_type == SYSFS_MAGIC;
}

/// Descriptors that are left to the rest of the process.
constexpr rlim_t kFreeDescriptors = 64;

/// The kernel gives out the lowest free number, so a descriptor below this one leaves enough.
int keepBelow() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur <= kFreeDescriptors) return 0;
    const rlim_t below = limit.rlim_cur - kFreeDescriptors;
    return static_cast<int>(std::min<rlim_t>(below, std::numeric_limits<int>::max()));
}

int openToRead(const std::string& file) {
    return open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

}  // namespace

void raiseOpenFileLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

Sysfs::Sysfs(const std::string& root, WarningCallback warn, Pread pread)
    : mRoot(withoutSlashAtEnd(root)),
      mIsKernels(isOnSysfs(root)),
      mWarn(std::move(warn)),
      mPread(std::move(pread)),
      mKeepBelow(mIsKernels ? keepBelow() : 0) {}

std::vector<std::string> Sysfs::refusedFiles(const std::string& folder) const {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::string> files;
    for (const std::string& path : mRefusedPaths) {
        if (path.compare(0, folder.size(), folder) == 0) files.push_back(fullPath(path));
    }
    return files;
}

std::optional<int64_t> Sysfs::parseNumber(const std::string& path, const std::string& text) const {
    const std::string digits = withoutSpaceAround(text);
    int64_t number = 0;
    const char* end = digits.data() + digits.size();
    const auto [rest, error] = std::from_chars(digits.data(), end, number);
    const bool isWhole = text.size() <= kMaxFileSize;
    if (!isWhole || error != std::errc() || rest != end || number < 0) {
        warnOnce(path, "not a whole number from 0 to 2^63 - 1",
                 "left out until it is one; check the driver that provides it");
        return std::nullopt;
    }
    return number;
}

std::optional<std::string> Sysfs::readName(const std::string& path) const {
    std::string name = withoutSpaceAround(readText(path).value_or(""));
    return name.empty() ? std::nullopt : std::optional(std::move(name));
}

/// The contents of a file, which comes whole in one reading. Of a file larger than kMaxFileSize,
/// one byte more than that.
std::optional<std::string> Sysfs::readText(const std::string& path) const {
    const int descriptor = openToRead(fullPath(path));
    char buffer[kMaxFileSize + 1];
    const ssize_t size =
        descriptor < 0 ? -1 : TEMP_FAILURE_RETRY(read(descriptor, buffer, sizeof(buffer)));
    const int error = errno;
    if (descriptor >= 0) close(descriptor);
    if (size < 0) {
        warnUnlessAbsent(path, error);
        return std::nullopt;
    }
    return std::string(buffer, static_cast<size_t>(size));
}

std::optional<std::string> Sysfs::resolveLink(const std::string& path) const {
    std::error_code error;
    const fs::path target = fs::canonical(fullPath(path), error);
    if (error) return std::nullopt;
    const std::string root = fs::canonical(mRoot + "/", error).string() + "/";
    const std::string found = target.string();
    return found.compare(0, root.size(), root) == 0 ? found.substr(root.size()) : found;
}

bool Sysfs::hasFolder(const std::string& folder) const {
    std::error_code error;
    return fs::is_directory(fullPath(folder), error);
}

std::vector<std::string> Sysfs::entries(const std::string& folder, bool ownFoldersOnly) const {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(fullPath(folder), error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code ofEntry;
        if (ownFoldersOnly && (entry->is_symlink(ofEntry) || !entry->is_directory(ofEntry))) {
            continue;
        }
        names.push_back(entry->path().filename().string());
    }
    if (error) warnUnlessAbsent(folder, error.value());
    std::sort(names.begin(), names.end());
    return names;
}

void Sysfs::warnUnlessAbsent(const std::string& path, int error) const {
    if (meansAbsent(error)) return;
    if (error == EACCES || error == EPERM) {
        std::lock_guard<std::mutex> lock(mMutex);
        mRefusedPaths.insert(path);
        return;
    }
    warnOnce(path, std::generic_category().message(error), remedyFor(error));
}

void Sysfs::warnOnce(const std::string& path, const std::string& reason,
                     const std::string& remedy) const {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mWarnedPaths.insert(path).second) return;
    }
    // Outside of the lock: the callback is not ours.
    warn(path, reason, remedy);
}

void Sysfs::warn(const std::string& path, const std::string& reason,
                 const std::string& remedy) const {
    if (mWarn) mWarn(fullPath(path) + ": " + reason + " (" + remedy + ")");
}

NumberFile::NumberFile(std::shared_ptr<const Sysfs> sysfs, std::string path)
    : mSysfs(std::move(sysfs)), mPath(std::move(path)) {}

NumberFile::~NumberFile() {
    close();
}

std::optional<int64_t> NumberFile::read() {
    std::unique_lock<std::mutex> lock(mMutex);
    char buffer[kMaxFileSize + 1];
    const auto readAll = [&]() -> ssize_t {
        if (mDescriptor < 0) return -1;
        return TEMP_FAILURE_RETRY(mSysfs->mPread(mDescriptor, buffer, sizeof(buffer), 0));
    };
    ssize_t size = readAll();
    if (mDescriptor < 0 || (size < 0 && meansAbsent(errno))) {
        // Another device may have taken the path of one that went away.
        close();
        mDescriptor = openToRead(mSysfs->fullPath(mPath));
        size = readAll();
    }
    const int error = size < 0 ? errno : 0;
    if (error == EMFILE || error == ENFILE) mSysfs->mKeepBelow = 0;
    if (mDescriptor >= mSysfs->mKeepBelow) close();
    lock.unlock();
    if (size < 0) {
        mSysfs->warnUnlessAbsent(mPath, error);
        return std::nullopt;
    }
    return mSysfs->parseNumber(mPath, std::string(buffer, static_cast<size_t>(size)));
}

/// REQUIRES: mMutex is held, except in the destructor
void NumberFile::close() {
    if (mDescriptor >= 0) ::close(mDescriptor);
    mDescriptor = -1;
}

std::optional<int32_t> numberInName(const std::string& name, const std::string& prefix,
                                    const std::string& suffix, int32_t max) {
    if (name.size() <= prefix.size() + suffix.size()) return std::nullopt;
    const char* end = name.data() + name.size() - suffix.size();
    int32_t number = 0;
    const auto [rest, error] = std::from_chars(name.data() + prefix.size(), end, number);
    const bool fits = name.compare(0, prefix.size(), prefix) == 0 && suffix == end;
    if (!fits || error != std::errc() || rest != end || number < 0 || number > max) {
        return std::nullopt;
    }
    return number;
}

}  // namespace powerstats
