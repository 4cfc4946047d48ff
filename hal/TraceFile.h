// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace powerstats {

/// Finds the packets with power data in a protobuf trace, which may be a phone's: gigabytes of
/// packets of hundreds of other kinds. Of those it reads no more than the field headers. It holds
/// one block of the file, because a mapped file that shrinks ends the process.
class TraceFile {
  public:
    /// @param error [out] one line, when the result is null.
    static std::unique_ptr<TraceFile> open(const std::string& file, std::string* error);
    ~TraceFile();
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    struct Packet {
        /// Of the packet's first byte in the file.
        uint64_t offset = 0;
        /// One encoded TracePacket, until the next call.
        const uint8_t* bytes = nullptr;
        size_t size = 0;
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
    const uint8_t* read(uint64_t offset, uint64_t size);
    const uint8_t* fill(uint64_t offset, uint64_t size);
    bool scan(uint64_t offset, uint64_t end, bool* hasPowerData);

    const std::string mFile;
    const int mDescriptor;
    const uint64_t mSize;
    uint64_t mOffset = 0;
    std::vector<uint8_t> mBlock;
    /// The part of the file that `mBlock` holds.
    uint64_t mBlockOffset = 0;
    uint64_t mBlockSize = 0;
    std::string mError;
};

}  // namespace powerstats
