// SPDX-License-Identifier: Apache-2.0

#include "power/Ids.h"

#include <set>

namespace powerstats {

namespace {

uint32_t fnv1a(const std::string& text) {
    uint32_t hash = 2166136261u;
    for (const char character : text) {
        hash = (hash ^ static_cast<unsigned char>(character)) * 16777619u;
    }
    return hash;
}

}  // namespace

std::vector<int32_t> pathIds(const std::vector<std::string>& paths, int32_t base, int bits) {
    const uint32_t mask = (uint32_t{1} << bits) - 1;
    std::set<uint32_t> given;
    std::vector<int32_t> ids;
    for (const std::string& path : paths) {
        const uint32_t hash = fnv1a(path);
        uint32_t offset = (hash >> bits) ^ (hash & mask);
        while (!given.insert(offset).second) offset = (offset + 1) & mask;
        ids.push_back(static_cast<int32_t>(static_cast<uint32_t>(base) + offset));
    }
    return ids;
}

}  // namespace powerstats
