// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace powerstats {

/// Gives out ids made from paths.
///
/// A client may keep names by their ids across a restart of the service, so an id comes from the
/// thing itself and not from its place in a list: it is the 32-bit FNV-1a hash of the path, folded
/// to `bits` bits, plus `base`. When two paths of one set meet at an id, the later one gets the
/// next free id above it (the lowest follows the highest); the caller adds paths in sorted order,
/// so the same set always gets the same ids.
class PathIds {
  public:
    /// @param base [in] the lowest id.
    /// @param bits [in] ids run from `base` to `base + 2^bits - 1`, which must fit an int32_t.
    PathIds(int32_t base, int bits);

    int32_t add(const std::string& path);

  private:
    const uint32_t mBase;
    const int mBits;
    std::set<uint32_t> mGiven;
};

/// Gives each thing a number of its own: its wish where that is from 0 to `max` and no earlier
/// thing has it, otherwise the least number that is nobody's wish and not given, in the order of
/// the things.
std::vector<int64_t> distinctNumbers(const std::vector<int64_t>& wishes, int64_t max);

struct Utf8Character {
    uint32_t codePoint = 0;
    /// In bytes; 0 where the bytes are not UTF-8.
    size_t size = 0;
};

/// Decodes the character that starts at `position`, which must be below the size of `bytes`.
Utf8Character decodeUtf8(const std::string& bytes, size_t position);

/// Whether a character is of C0, DEL or C1.
bool isControlCharacter(uint32_t codePoint);

/// The size of a name in bytes is at most this.
constexpr size_t kMaxNameSize = 256;

/// Makes a name that every transport carries. Drivers and firmware write names as they like, and
/// one name that a transport refuses would make a whole answer fail.
///
/// Each byte that is not UTF-8 and each byte of a control character becomes `\xB5`. A noncharacter
/// such as U+FFFE, which D-Bus libraries refuse, becomes `\u{FFFE}`, and so does a separator of
/// lines or a control of the direction of writing. The rest stays as it is.
/// @param maxSize [in] in bytes. A longer name is cut before the character or escape that does not
///     fit.
std::string safeName(const std::string& bytes, size_t maxSize = kMaxNameSize);

/// Chooses one safe name for each thing so that no two are the same.
///
/// @param choices [in] per thing its possible names from the plainest to the most qualified, at
///     least one, of any bytes. Things whose safe names are the same all move on to their next
///     choice, until the names differ or the choices end. Names that are still the same get " #2",
///     " #3" and so on, within the greatest size of a name.
/// @return one name per thing, in the order of `choices`.
std::vector<std::string> distinctNames(const std::vector<std::vector<std::string>>& choices);

}  // namespace powerstats
