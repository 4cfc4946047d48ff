// SPDX-License-Identifier: Apache-2.0
//
// The text for Prometheus, from names and totals as a hostile service reports them. The script
// metrics_test hands the same text to Prometheus's own parsers.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "power/text/Names.h"
#include "tools/metrics/Metrics.h"

namespace powerstats {
namespace {

TEST(Metrics, AreExactAndDistinctWhateverTheServiceReports) {
    const auto ofEnergy = [](int64_t energyUWs) { return Energy{{}, {}, energyUWs, 0}; };
    const auto ofTime = [](int64_t timeMs, int64_t entries) {
        return Residency{fromMilliseconds(timeMs), entries, {}};
    };
    Reading reading;
    reading.lists = nameLists({{1, "quote\" backslash\\ newline\n byte\xff", "S"},
                               {2, "in two subsystems", "A"},
                               {3, "in two subsystems", "B"},
                               {4, "line\n", "S"},
                               {5, "line\\x0A", "S"},
                               {7, "not read", "S"}},
                              {{1, "cpu", EntityType::kCpu, {{0, "C1"}, {1, "C1"}}},
                               {2, "cpu", EntityType::kCpu, {{0, "C1"}}},
                               {3, "", EntityType::kDevice, {{0, ""}}}},
                              false);
    reading.rails = {ofEnergy(1), ofEnergy(INT64_MAX), ofEnergy(1'000'000),
                     ofEnergy(2), ofEnergy(3),         std::nullopt};
    reading.entities = {Residencies{{}, 0, {ofTime(1001, 1), ofTime(2, 2)}}, std::nullopt,
                        Residencies{{}, 0, {ofTime(0, INT64_MAX)}}};
    reading.time = nanoseconds(61'000'000'007);
    std::stringstream prometheus, openMetrics;
    prometheus << std::ifstream(HOSTILE_METRICS ".prometheus").rdbuf();
    openMetrics << std::ifstream(HOSTILE_METRICS ".openmetrics").rdbuf();
    EXPECT_EQ(formatMetrics(reading, "prometheus"), prometheus.str());
    EXPECT_EQ(formatMetrics(reading, "openmetrics"), openMetrics.str());
}

}  // namespace
}  // namespace powerstats
