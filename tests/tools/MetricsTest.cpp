// SPDX-License-Identifier: Apache-2.0
//
// The text for Prometheus, from names and totals as a hostile service reports them. The script
// metrics_test hands the same text to Prometheus's own parsers.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tools/MetricsText.h"

namespace powerstats {
namespace {

TEST(Metrics, AreExactAndDistinctWhateverTheServiceReports) {
    Snapshot snapshot;
    snapshot.rails = {{1, "quote\" backslash\\ newline\n byte\xff", "S", Snapshot::Energy{0, 0, 1}},
                      {2, "in two subsystems", "A", Snapshot::Energy{0, 0, INT64_MAX}},
                      {3, "in two subsystems", "B", Snapshot::Energy{0, 0, 1'000'000}},
                      {4, "line\n", "S", Snapshot::Energy{0, 0, 2}},
                      {5, "line\\x0A", "S", Snapshot::Energy{0, 0, 3}},
                      {6, "negative", "S", Snapshot::Energy{0, 0, -1}},
                      {7, "not read", "S", std::nullopt}};
    snapshot.entities = {
        {1,
         "cpu",
         {{0, "C1", Snapshot::Residency{1001, 1, 0}}, {1, "C1", Snapshot::Residency{2, 2, 0}}}},
        {2, "cpu", {{0, "C1", Snapshot::Residency{-1, 3, 0}}, {1, "C2", std::nullopt}}},
        {3, "", {{0, "", Snapshot::Residency{0, INT64_MAX, 0}}}}};
    std::stringstream prometheus, openMetrics;
    prometheus << std::ifstream(HOSTILE_METRICS ".prometheus").rdbuf();
    openMetrics << std::ifstream(HOSTILE_METRICS ".openmetrics").rdbuf();
    EXPECT_EQ(formatMetrics(snapshot, MetricsFormat::kPrometheus), prometheus.str());
    EXPECT_EQ(formatMetrics(snapshot, MetricsFormat::kOpenMetrics), openMetrics.str());
}

}  // namespace
}  // namespace powerstats
