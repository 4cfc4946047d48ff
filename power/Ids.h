// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <set>
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

/// Gives each thing a number of its own that fits an int32_t: its `id` where that is not negative
/// and no earlier thing has it, otherwise the least number that is nobody's id and not given, in
/// the order of the things.
template <typename Thing>
std::vector<int64_t> distinctNumbers(const std::vector<Thing>& things) {
    std::set<int64_t> taken;
    for (const Thing& thing : things) taken.insert(thing.id);
    std::set<int64_t> given;
    std::vector<int64_t> numbers;
    int64_t next = 0;
    for (const Thing& thing : things) {
        if (thing.id >= 0 && thing.id <= INT32_MAX && given.insert(thing.id).second) {
            numbers.push_back(thing.id);
            continue;
        }
        while (!taken.insert(next).second) ++next;
        numbers.push_back(next);
    }
    return numbers;
}

}  // namespace powerstats
