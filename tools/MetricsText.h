// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>

#include "tools/Snapshot.h"

namespace powerstats {

enum class MetricsFormat { kPrometheus, kOpenMetrics };

/// Writes a snapshot's totals as counters, for Prometheus. docs/formats.md has their names and
/// units. No two readings get the same name and labels, or the whole text would be refused.
/// @return whole lines; without any reading, no counter.
std::string formatMetrics(const Snapshot& snapshot, MetricsFormat format);

}  // namespace powerstats
