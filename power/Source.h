// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "power/Reading.h"

namespace powerstats {

/// Positions in a list of rails or entities; std::nullopt stands for all.
using Positions = std::optional<std::vector<size_t>>;
inline const Positions kNothing = std::vector<size_t>();

/// Calls a function with each position.
/// @param count [in] of the list.
template <typename Function>
void forPositions(const Positions& positions, size_t count, const Function& function) {
    for (size_t i = 0; i < (positions ? positions->size() : count); ++i) {
        function(positions ? (*positions)[i] : i);
    }
}

/// Receives one line of text, without the program's name and without an end of line. May be called
/// on any thread that reads.
using WarningCallback = std::function<void(const std::string& text)>;

/// Where readings come from: this machine, a recording, or a service on a bus.
class Source {
  public:
    Source() = default;
    virtual ~Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    /// Reads the rails and entities at these positions; the others have no figures. With two empty
    /// lists it tells the lists and the time only.
    ///
    /// The lists of this machine and of a recording never change, because some clients end on an id
    /// that they do not know. A service that is asked may have others after a restart.
    ///
    /// Safe to call from any thread, unless a source says otherwise.
    virtual Reading read(const Positions& rails, const Positions& entities) = 0;

    /// Reads everything.
    Reading read() { return read(std::nullopt, std::nullopt); }

    /// Whether this is a recording that has no further sample.
    virtual bool isOver() const { return false; }
};

}  // namespace powerstats
