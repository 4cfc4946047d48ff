// SPDX-License-Identifier: Apache-2.0

#pragma once

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

}  // namespace powerstats
