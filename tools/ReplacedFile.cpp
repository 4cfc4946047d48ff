// SPDX-License-Identifier: Apache-2.0

#include "tools/ReplacedFile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace powerstats {

namespace fs = std::filesystem;

ReplacedFile::ReplacedFile(const std::string& path, mode_t mode) : mPath(path) {
    std::error_code error;
    const fs::file_type type = fs::status(path, error).type();
    if (type == fs::file_type::regular || type == fs::file_type::not_found) {
        // A link stays, and the file that it leads to is replaced.
        const fs::path target = fs::canonical(path, error);
        mTemporary = (error ? path : target.string()) + ".XXXXXX";
        mFile = mkostemp(mTemporary.data(), O_CLOEXEC);
        check(mFile >= 0 && fchmod(mFile, mode) == 0);
    } else {
        mFile = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        check(mFile >= 0);
    }
}

ReplacedFile::~ReplacedFile() {
    if (mFile >= 0 && !mTemporary.empty()) unlink(mTemporary.c_str());
    if (mFile >= 0) close(mFile);
}

bool ReplacedFile::replace(const std::string& text) {
    if (!check(dprintf(mFile, "%s", text.c_str()) >= 0)) return false;
    if (mTemporary.empty()) return true;
    std::string path = mTemporary.substr(0, mTemporary.rfind('.'));
    if (!check(fsync(mFile) == 0 && rename(mTemporary.c_str(), path.c_str()) == 0)) return false;
    mTemporary.clear();
    return true;
}

bool ReplacedFile::check(bool isDone) {
    if (!isDone) mFailure = mPath + ": " + std::strerror(errno);
    return isDone;
}

mode_t readableMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

}  // namespace powerstats
