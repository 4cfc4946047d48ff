// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <memory>
#include <string>

#include "tools/SourceOptions.h"

namespace powerstats {

/// Which service look-ups of this process find: a source that this process serves itself, or a
/// service on a bus.
struct ServiceOptions {
    SourceOptions source;
    std::string hal;  ///< "aidl" or "hidl"; empty: AIDL if it is there
};

/// Adds the options of the source, and `--hal`.
void addServiceOptions(CommandLine command, ServiceOptions* options);

/// Registers a source as a service of this process, or waits until one is on the bus. From then on
/// look-ups find that service, and no other.
/// @param playingTime [in] that of a recording; empty: the clock.
/// @param own [out] the source of this process; null with `--bus`.
/// @return 0, or after one line the exit status, as of openSource().
int openService(ServiceOptions* options, const RecordedSource::PlayingTime& playingTime,
                std::shared_ptr<Source>* own);

}  // namespace powerstats
