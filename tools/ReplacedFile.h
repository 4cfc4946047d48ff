// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <sys/types.h>

#include <string>

namespace powerstats {

/// A file that is written as a whole: readers have the old text or the new one, and the old one
/// stays when nothing is written. What is not a plain file, such as a pipe, is written to in place.
class ReplacedFile {
  public:
    /// Creates a file in the same folder, so that a folder that cannot be written is found early.
    /// @param mode [in] of the new file.
    ReplacedFile(const std::string& path, mode_t mode);
    /// Removes what was not put in place.
    ~ReplacedFile();
    ReplacedFile(const ReplacedFile&) = delete;
    ReplacedFile& operator=(const ReplacedFile&) = delete;

    bool isOpen() const { return mFile >= 0; }
    /// Puts a text in place, once. REQUIRES: isOpen()
    bool replace(const std::string& text);
    /// Why a call failed, after the path.
    const std::string& failure() const { return mFailure; }

  private:
    bool check(bool isDone);

    const std::string mPath;
    /// Of the file that is to replace the other one; empty: written in place.
    std::string mTemporary;
    int mFile = -1;
    std::string mFailure;
};

/// The mode of a file that others may read, as far as the user's umask lets them.
mode_t readableMode();

}  // namespace powerstats
