// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "power/trace/power_trace.pb.h"

namespace powerstats {

/// Receives a packet without its fields of other data.
/// @param offset [in] of the packet's first byte in the file.
/// @return false to stop.
using PacketCallback = std::function<bool(
    uint64_t offset, const com::tavrel::android::ferrolith::powertrace::TracePacket& packet)>;

/// How reading a trace ended.
struct TraceEnd {
    /// Whether all packets were read, and none was refused.
    bool isReached = false;
    /// Whether the file ends within the packet at `offset`.
    bool isCutOff = false;
    /// Of the end of the last whole packet, when the end is reached.
    uint64_t offset = 0;
};

/// Calls a function with each packet with rails or residencies of a protobuf trace, which may be a
/// phone's: gigabytes of packets of hundreds of other kinds. Of those it reads no more than the
/// field headers. It holds one block of the file, because a mapped file that shrinks ends the
/// process.
/// @param error [out] one line, when the end is not reached and `add` refused no packet.
TraceEnd readTrace(const std::string& file, const PacketCallback& add, std::string* error);

/// One line about a place of a file: "FILE: at byte OFFSET: TEXT".
std::string atByte(const std::string& file, uint64_t offset, const std::string& text);

}  // namespace powerstats
