// SPDX-License-Identifier: Apache-2.0
//
// Why a service shows no energy, or not all of it.

#pragma once

#include <string>

#include "tools/Service.h"
#include "tools/Snapshot.h"

namespace powerstats {

/// Finds the cause that keeps rails out of a snapshot. REQUIRES: openService() has returned 0
/// @return one line with the cause and the remedy. Empty when nothing is kept out, and when the
///     service failed for reasons of its own, which railsError has.
std::string whyNoEnergy(const ServiceOptions& options, const Snapshot& snapshot);

/// Prints that line, if there is one.
void sayWhyNoEnergy(const ServiceOptions& options, const Snapshot& snapshot);

}  // namespace powerstats
