// SPDX-License-Identifier: Apache-2.0
//
// The rules of the library a second time, without its code, its platform or its encoder: what can
// be seen of a session from outside, line by line.

#pragma once

#include <cstddef>

#include "tests/fuzz/Session.h"

namespace fuzz {

struct Prediction {
    /// Log lines, clock readings, JNI calls and transactions that reach a service, in order; after
    /// each call what it returned, and after each step what was asked of the services so far.
    support::Lines events;
    /// Steps that run to their end, and how many of the events are theirs; with fewer steps than
    /// the session has, the next one ends the process and the rest of the events is its own.
    size_t steps = 0;
    size_t eventsOfSteps = 0;
};

Prediction predict(const Session& session);

/// How a returned array stands in the events; nothing is null.
std::string returnedLine(const std::optional<std::string>& bytes);

/// How what was asked of one interface's services stands in the events.
std::string trafficLine(Backend backend, int64_t lookups, int64_t links, int64_t unlinks,
                        int64_t transactions);

}  // namespace fuzz
