// SPDX-License-Identifier: Apache-2.0

#include "bench/Workload.h"

#include <fmt/format.h>

namespace bench {

std::string Workload::text() const {
    const char* const interface = backend == Backend::kAidl ? "aidl" : "hidl";
    if (call == Call::kRails) return fmt::format("{}/rails/{}/{}", interface, elements, nameLength);
    return fmt::format("{}/residencies/{}x{}/{}", interface, elements, states, nameLength);
}

Names::Names(const Workload& workload) {
    const auto name = [&](const char* prefix, int index) {
        return fmt::format("{}{:0{}}", prefix, index, workload.nameLength - 2);
    };
    for (int i = 0; i < workload.elements; ++i) {
        elements.push_back(name("E_", i));
        auto& ofElement = states.emplace_back();
        for (int j = 0; j < workload.states; ++j) ofElement.push_back(name("S_", j));
    }
}

}  // namespace bench
