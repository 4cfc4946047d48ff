// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>

#include "power/Reading.h"

namespace powerstats {

enum class MetricsFormat { kPrometheus, kOpenMetrics };

/// Writes a reading's totals as counters, for Prometheus. docs/formats.md has their names and
/// units.
/// @return whole lines; without any figure, no counter.
std::string formatMetrics(const Reading& reading, MetricsFormat format);

}  // namespace powerstats
