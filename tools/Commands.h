// SPDX-License-Identifier: Apache-2.0
//
// The subcommands of powerstats.

#pragma once

#include "tools/CommandLine.h"

namespace powerstats {

CommandLine makeDump();
CommandLine makeMetrics();
CommandLine makeWatch();
CommandLine makeRecord();
CommandLine makeRun();
CommandLine makeCheck();

}  // namespace powerstats
