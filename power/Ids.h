// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace powerstats {

/// Makes ids from paths.
///
/// A client may keep names by their ids across a restart of the service, so an id comes from the
/// thing itself and not from its place in a list: it is the 32-bit FNV-1a hash of the path, folded
/// to `bits` bits, plus `base`. When two paths meet at an id, the later one gets the next free id
/// above it (the lowest follows the highest); the caller sorts the paths, so the same set always
/// gets the same ids.
/// @param base [in] the lowest id.
/// @param bits [in] ids run from `base` to `base + 2^bits - 1`, which must fit an int32_t.
std::vector<int32_t> pathIds(const std::vector<std::string>& paths, int32_t base, int bits);

/// Gives each thing a number of its own: its wish where that is from 0 to `max` and no earlier
/// thing has it, otherwise the least number that is nobody's wish and not given, in the order of
/// the things.
std::vector<int64_t> distinctNumbers(const std::vector<int64_t>& wishes, int64_t max);

}  // namespace powerstats
