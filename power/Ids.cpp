// SPDX-License-Identifier: Apache-2.0

#include "power/Ids.h"

#include <set>

namespace powerstats {

std::vector<int32_t> pathIds(const std::vector<std::string>& paths, int32_t base, int bits) {
    const uint32_t mask = (uint32_t{1} << bits) - 1;
    std::set<uint32_t> given;
    std::vector<int32_t> ids;
    for (const std::string& path : paths) {
        uint32_t hash = 2166136261u;
        for (const char character : path) {
            hash = (hash ^ static_cast<unsigned char>(character)) * 16777619u;
        }
        uint32_t offset = (hash >> bits) ^ (hash & mask);
        while (!given.insert(offset).second) offset = (offset + 1) & mask;
        ids.push_back(static_cast<int32_t>(static_cast<uint32_t>(base) + offset));
    }
    return ids;
}

}  // namespace powerstats
