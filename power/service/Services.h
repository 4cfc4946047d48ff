// SPDX-License-Identifier: Apache-2.0
//
// A source as a power stats service, over either interface.

#pragma once

#include <memory>

#include "power/Source.h"
#include "power/service/Interfaces.h"

namespace powerstats {

/// Makes a source the AIDL power stats service.
///
/// An empty list of ids asks for everything. Another list is answered in its order; one that has an
/// unknown id or an id twice fails with EX_ILLEGAL_ARGUMENT and a message. So the work that a
/// client can cause is bounded by the lists of the source. Rails and entities that cannot be read
/// now are left out. `durationMs` equals `timestampMs` for a channel that is since boot. There are
/// no consumers: the counters do not divide energy among them.
std::shared_ptr<stats_aidl::IPowerStats> serveAidl(std::shared_ptr<Source> source);

/// Whether the HIDL service has rails. The system bus cannot guard a single HIDL method: a refusal
/// by the bus is a failed transaction, and that ends the client's process. Energy is for privileged
/// clients only, so there it is served over AIDL alone.
enum class HidlRails { kServed, kNotServed };

/// Makes a source the HIDL 1.0 power stats service.
///
/// Requests are as over AIDL, and a refused one has INVALID_INPUT and no records. Rails and
/// entities that cannot be read now are left out; when that leaves none, the answer is
/// FILESYSTEM_ERROR. `samplingRate` is 0, because it is not known. There is no stream of energy.
///
/// A HIDL record has no duration, so all energy is since boot here. Only the rails that are since
/// boot when this object is made are announced and known, and one that stops being so is left out
/// of the answers. When none is left, or rails are not served, both calls for rails answer
/// NOT_SUPPORTED.
android::sp<stats_V1_0::IPowerStats> serveHidl(std::shared_ptr<Source> source,
                                               HidlRails rails = HidlRails::kServed);

}  // namespace powerstats
