// SPDX-License-Identifier: Apache-2.0

#include "hal/TraceFile.h"

#include <endian.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "proto/power_trace.pb.h"

namespace powerstats {

namespace {

using com::tavrel::android::ferrolith::powertrace::Trace;
using com::tavrel::android::ferrolith::powertrace::TracePacket;

/// Small enough for a processor's cache, where the block is scanned after it is read.
constexpr uint64_t kBlockSize = 256 << 10;
/// Thousands of rails take less, and a message in memory is many times its encoding.
constexpr uint64_t kMaxPowerPacketSize = 1 << 20;
constexpr uint64_t kMaxVarintSize = 10;
/// A key and a number or length.
constexpr uint64_t kMaxHeaderSize = 2 * kMaxVarintSize;

enum WireType : uint32_t { kVarint = 0, kFixed64 = 1, kLengthDelimited = 2, kFixed32 = 5 };

constexpr uint64_t kPacketKey = Trace::kPacketFieldNumber << 3 | kLengthDelimited;
constexpr uint64_t kRailsKey = TracePacket::kPowerRailsFieldNumber << 3 | kLengthDelimited;
constexpr uint64_t kResidenciesKey =
    TracePacket::kEntityStateResidencyFieldNumber << 3 | kLengthDelimited;

constexpr char kDamaged[] = " (the file is damaged: copy or record it again)";

/// Decodes a number of seven bits a byte, least significant first.
/// @param bytes [in] at least kMaxVarintSize of them.
/// @return the byte after it; null when it is longer than any number.
const uint8_t* readVarint(const uint8_t* bytes, uint64_t* value) {
    *value = 0;
    for (unsigned shift = 0; shift < 7 * kMaxVarintSize; shift += 7) {
        const uint8_t byte = *bytes++;
        *value |= static_cast<uint64_t>(byte & 0x7f) << shift;
        if (byte < 0x80) return bytes;
    }
    return nullptr;
}

/// The header of a field. A number is part of it.
struct Header {
    uint64_t key = 0;
    /// Of what follows the header.
    uint64_t contentSize = 0;
    /// 0 when the header is malformed.
    uint64_t size = 0;
};

/// Decodes a header.
/// @param bytes [in] at least kMaxHeaderSize of them.
[[gnu::noinline]] Header readAnyHeader(const uint8_t* bytes) {
    Header header;
    const uint8_t* next = readVarint(bytes, &header.key);
    if (next == nullptr || header.key >> 3 == 0) return {};
    uint64_t number = 0;
    switch (header.key & 7) {
        case kVarint:
            next = readVarint(next, &number);
            break;
        case kLengthDelimited:
            next = readVarint(next, &header.contentSize);
            break;
        case kFixed64:
            header.contentSize = 8;
            break;
        case kFixed32:
            header.contentSize = 4;
            break;
        default:
            return {};
    }
    if (next == nullptr) return {};
    header.size = static_cast<uint64_t>(next - bytes);
    return header;
}

/// As readAnyHeader(). Decodes common headers at once: a key of one or two bytes, then a number
/// that ends within the first eight bytes or a size of at most three.
inline Header readHeader(const uint8_t* bytes) {
    uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof(word));
    word = le64toh(word);
    Header header;
    header.key = word & 0x7f;
    header.size = 1;
    if ((word & 0x80) != 0) {
        if ((word & 0x8000) != 0) return readAnyHeader(bytes);
        header.key |= word >> 1 & 0x3f80;
        header.size = 2;
        word >>= 8;
    }
    word >>= 8;
    if (header.key < 8) return readAnyHeader(bytes);
    if ((header.key & 7) == kLengthDelimited) {
        header.contentSize = word & 0x7f;
        ++header.size;
        if ((word & 0x80) == 0) return header;
        header.contentSize |= word >> 1 & 0x3f80;
        ++header.size;
        if ((word & 0x8000) == 0) return header;
        header.contentSize |= word >> 2 & 0x1fc000;
        ++header.size;
        if ((word & 0x800000) == 0) return header;
    } else if ((header.key & 7) == kVarint) {
        // The last byte of a number is the first one without the highest bit. Looking for it is
        // faster than a loop, whose end a processor cannot predict.
        const uint64_t ends = ~word & (0x0080808080808080 >> 8 * (header.size - 1));
        if (ends != 0) {
            header.size += static_cast<unsigned>(__builtin_ctzll(ends)) / 8 + 1;
            return header;
        }
    }
    return readAnyHeader(bytes);
}

std::string reason(int error) {
    return std::generic_category().message(error);
}

}  // namespace

std::unique_ptr<TraceFile> TraceFile::open(const std::string& file, std::string* error) {
    // Opening a pipe would wait for its writer.
    const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat status {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0) {
        *error = file + ": " + reason(errno) + " (name a trace that you may read)";
        if (descriptor >= 0) close(descriptor);
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        *error = file + ": not a regular file (name a trace)";
        close(descriptor);
        return nullptr;
    }
    return std::unique_ptr<TraceFile>(
        new TraceFile(file, descriptor, static_cast<uint64_t>(status.st_size)));
}

TraceFile::TraceFile(std::string file, int descriptor, uint64_t size)
    : mFile(std::move(file)),
      mDescriptor(descriptor),
      mSize(size),
      mBlock(kBlockSize + kMaxHeaderSize) {}

TraceFile::~TraceFile() {
    close(mDescriptor);
}

std::string TraceFile::at(uint64_t offset, const std::string& text) const {
    return mFile + ": at byte " + std::to_string(offset) + ": " + text;
}

TraceFile::Next TraceFile::next(Packet* packet, std::string* error) {
    const auto fail = [&](uint64_t offset, const std::string& text) {
        // A failure to read explains itself.
        *error = mError.empty() ? at(offset, text) : mError;
        return Next::kFailed;
    };
    while (mOffset < mSize) {
        packet->offset = mOffset;
        const uint64_t available = mSize - mOffset;
        const uint8_t* const block = read(mOffset, std::min(available, kMaxHeaderSize));
        if (block == nullptr) return fail(mOffset, "");
        const Header header = readHeader(block);
        if (header.key != kPacketKey) {
            return fail(mOffset, "not a packet of a trace (give an uncompressed protobuf trace)");
        }
        const uint64_t size = header.contentSize;
        if (header.size > available || size > available - header.size) return Next::kCutOff;
        const uint64_t offset = mOffset + header.size;
        bool hasPowerData = false;
        if (!scan(offset, offset + size, &hasPowerData)) {
            return fail(mOffset, std::string("a malformed packet") + kDamaged);
        }
        const uint64_t packetOffset = std::exchange(mOffset, offset + size);
        if (!hasPowerData) continue;
        if (size > kMaxPowerPacketSize) {
            return fail(packetOffset, "a packet with power data of " + std::to_string(size) +
                                          " bytes, more than " +
                                          std::to_string(kMaxPowerPacketSize) + kDamaged);
        }
        packet->bytes = read(offset, size);
        packet->size = static_cast<size_t>(size);
        return packet->bytes == nullptr ? fail(packetOffset, "") : Next::kPacket;
    }
    packet->offset = mSize;
    return Next::kEnd;
}

/// Looks at the headers of a packet's fields up to the first with power data.
/// @return whether they are well-formed and could be read.
bool TraceFile::scan(uint64_t offset, uint64_t end, bool* hasPowerData) {
    while (offset < end) {
        const uint8_t* const block = read(offset, std::min(end - offset, kMaxHeaderSize));
        if (block == nullptr) return false;
        // As many headers as the block holds. It is followed by the bytes that the last may lack.
        const uint64_t size = end - offset;
        const uint64_t held = std::min(size, mBlockOffset + mBlockSize - offset);
        const uint64_t limit = held == size ? size : held - kMaxHeaderSize + 1;
        uint64_t position = 0;
        while (position < limit) {
            const Header header = readHeader(block + position);
            position += header.size;
            if (header.size == 0 || position > size || header.contentSize > size - position) {
                return false;
            }
            if (header.key == kRailsKey || header.key == kResidenciesKey) {
                *hasPowerData = true;
                return true;
            }
            position += header.contentSize;
        }
        offset += position;
    }
    return true;
}

/// Returns a part of the file, which lies within it, until the next call. Null, with `mError`, when
/// it cannot be read.
inline const uint8_t* TraceFile::read(uint64_t offset, uint64_t size) {
    const uint64_t start = offset - mBlockOffset;  // huge when it is before the block
    if (start <= mBlockSize && size <= mBlockSize - start) return mBlock.data() + start;
    return fill(offset, size);
}

const uint8_t* TraceFile::fill(uint64_t offset, uint64_t size) {
    mBlockOffset = offset;
    mBlockSize = 0;
    // The bytes after the block let a header be decoded without a look at the end.
    if (mBlock.size() < size + kMaxHeaderSize) {
        mBlock.resize(static_cast<size_t>(size + kMaxHeaderSize));
    }
    while (mBlockSize < size) {
        const ssize_t count =
            pread(mDescriptor, mBlock.data() + mBlockSize,
                  static_cast<size_t>(mBlock.size() - kMaxHeaderSize - mBlockSize),
                  static_cast<off_t>(offset + mBlockSize));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) {
            mError = at(offset + mBlockSize,
                        count == 0 ? "the file became shorter (wait until it is complete)"
                                   : reason(errno) + " (copy it to another disk)");
            return nullptr;
        }
        mBlockSize += static_cast<uint64_t>(count);
    }
    // A number that the file's end cuts off ends here.
    std::fill_n(mBlock.data() + mBlockSize, kMaxHeaderSize, 0);
    return mBlock.data();
}

}  // namespace powerstats
