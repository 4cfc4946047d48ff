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

/// Chooses one name for each thing so that no two are the same.
///
/// @param choices [in] per thing its possible names from the plainest to the most qualified, at
///     least one. Things whose names are the same all move on to their next choice, until the names
///     differ or the choices end; what is still the same then gets " #2", " #3" and so on.
/// @return one name per thing, in the order of `choices`.
std::vector<std::string> distinctNames(const std::vector<std::vector<std::string>>& choices);

}  // namespace powerstats
