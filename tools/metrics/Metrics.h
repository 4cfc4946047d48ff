// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>

#include "power/Reading.h"

namespace powerstats {

/// Writes a reading's totals as counters, for Prometheus. docs/formats.md has their names and
/// units.
/// @param format [in] "prometheus" or "openmetrics".
/// @return whole lines; without any figure, no counter.
std::string formatMetrics(const Reading& reading, const std::string& format);

}  // namespace powerstats
