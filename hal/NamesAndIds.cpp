// SPDX-License-Identifier: Apache-2.0

#include "hal/NamesAndIds.h"

#include <cstddef>
#include <map>

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

PathIds::PathIds(int32_t base, int bits) : mBase(static_cast<uint32_t>(base)), mBits(bits) {}

int32_t PathIds::add(const std::string& path) {
    const uint32_t mask = (uint32_t{1} << mBits) - 1;
    const uint32_t hash = fnv1a(path);
    uint32_t offset = (hash >> mBits) ^ (hash & mask);
    while (!mGiven.insert(offset).second) offset = (offset + 1) & mask;
    return static_cast<int32_t>(mBase + offset);
}

std::vector<std::string> distinctNames(const std::vector<std::vector<std::string>>& choices) {
    std::vector<size_t> chosen(choices.size(), 0);
    const auto name = [&](size_t thing) { return choices[thing][chosen[thing]]; };

    for (bool moved = true; moved;) {
        moved = false;
        std::map<std::string, std::vector<size_t>> things;
        for (size_t i = 0; i < choices.size(); ++i) things[name(i)].push_back(i);
        for (const auto& [sameName, namesakes] : things) {
            if (namesakes.size() == 1) continue;
            for (const size_t i : namesakes) {
                if (chosen[i] + 1 == choices[i].size()) continue;
                ++chosen[i];
                moved = true;
            }
        }
    }

    std::vector<std::string> names;
    std::set<std::string> taken;
    for (size_t i = 0; i < choices.size(); ++i) taken.insert(name(i));
    std::set<std::string> used;
    for (size_t i = 0; i < choices.size(); ++i) {
        std::string candidate = name(i);
        if (used.count(candidate) != 0) {
            size_t number = 2;
            do {
                candidate = name(i) + " #" + std::to_string(number++);
            } while (taken.count(candidate) != 0);
            taken.insert(candidate);
        }
        used.insert(candidate);
        names.push_back(candidate);
    }
    return names;
}

}  // namespace powerstats
