// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <google/protobuf/io/zero_copy_stream_impl.h>

#include <cstdint>
#include <memory>
#include <string>

#include "power/trace/power_trace.pb.h"

namespace powerstats {

/// Finds the packets with power data in a protobuf trace, which may be a phone's: gigabytes of
/// packets of hundreds of other kinds. Of those it reads no more than the field headers. It holds
/// one block of the file, because a mapped file that shrinks ends the process.
class TraceFile {
  public:
    /// @param error [out] one line, when the result is null.
    static std::unique_ptr<TraceFile> open(const std::string& file, std::string* error);

    struct Packet {
        /// Of the packet's first byte in the file.
        uint64_t offset = 0;
        /// Without its other fields.
        com::tavrel::android::ferrolith::powertrace::TracePacket message = {};
    };
    enum class Next {
        kPacket,
        kEnd,     ///< `offset` is the file's size
        kCutOff,  ///< the file ends within the packet at `offset`, and nothing follows
        kFailed,
    };
    /// Goes to the next packet with rails or residencies.
    /// @param error [out] one line, when the result is kFailed.
    Next next(Packet* packet, std::string* error);

    /// One line about a place of the file: "FILE: at byte OFFSET: TEXT".
    std::string at(uint64_t offset, const std::string& text) const;

  private:
    TraceFile(std::string file, int descriptor, uint64_t size);
    std::string explain(const std::string& text) const;

    const std::string mFile;
    const int mDescriptor;
    const uint64_t mSize;
    /// Closes the file.
    google::protobuf::io::FileInputStream mInput;
    uint64_t mOffset = 0;
};

}  // namespace powerstats
