// SPDX-License-Identifier: Apache-2.0
//
// What only a host can set about services in other processes.

#pragma once

namespace host {

/// How long a service on the bus may take to answer; 25 s in a fresh process. After that the
/// transaction has failed.
void setBusTimeLimit(double seconds);

}  // namespace host
