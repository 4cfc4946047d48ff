// SPDX-License-Identifier: Apache-2.0

#include "power/trace/TraceFile.h"

#include <fcntl.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <system_error>

namespace powerstats {

namespace {

using com::tavrel::android::ferrolith::powertrace::Trace;
using com::tavrel::android::ferrolith::powertrace::TracePacket;
using google::protobuf::io::CodedInputStream;
using google::protobuf::io::FileInputStream;

/// Small enough for a processor's cache, where the block is scanned after it is read.
constexpr int kBlockSize = 256 << 10;
/// Thousands of rails take less, and a message in memory is many times its encoding.
constexpr uint64_t kMaxPowerPacketSize = 1 << 20;
constexpr uint64_t kMaxVarintSize = 10;

enum WireType : uint32_t { kVarint = 0, kFixed64 = 1, kLengthDelimited = 2, kFixed32 = 5 };

constexpr uint32_t keyOf(int field, WireType type) {
    return static_cast<uint32_t>(field) << 3 | type;
}

constexpr uint32_t kPacketKey = keyOf(Trace::kPacketFieldNumber, kLengthDelimited);

constexpr char kMalformed[] = "a malformed packet";

/// Reads the power data of a packet, and skips its other fields.
/// @return the damage, or an empty text.
std::string readFields(CodedInputStream* stream, uint64_t size, TracePacket* packet) {
    while (const uint32_t key = stream->ReadTag()) {
        uint64_t number = 0;
        bool isRead = key >> 3 != 0;
        switch (key & 7) {
            case kVarint:
                isRead &= stream->ReadVarint64(&number);
                break;
            case kLengthDelimited:
                isRead &= stream->ReadVarint64(&number) &&
                          number <= static_cast<uint64_t>(stream->BytesUntilLimit());
                break;
            case kFixed64:
                number = sizeof(uint64_t);
                break;
            case kFixed32:
                number = sizeof(uint32_t);
                break;
            default:
                isRead = false;
        }
        if (!isRead) return kMalformed;

        const bool isOfRails = key == keyOf(TracePacket::kPowerRailsFieldNumber, kLengthDelimited);
        if (isOfRails ||
            key == keyOf(TracePacket::kEntityStateResidencyFieldNumber, kLengthDelimited)) {
            if (size > kMaxPowerPacketSize) {
                return "a packet with power data of " + std::to_string(size) +
                       " bytes, more than " + std::to_string(kMaxPowerPacketSize);
            }
            std::string bytes;
            const bool isWhole = stream->ReadString(&bytes, static_cast<int>(number));
            if (!isWhole ||
                !(isOfRails ? packet->mutable_power_rails()->MergeFromString(bytes)
                            : packet->mutable_entity_state_residency()->MergeFromString(bytes))) {
                return "malformed power data";
            }
        } else if (key == keyOf(TracePacket::kTimestampFieldNumber, kVarint)) {
            packet->set_timestamp(number);
        } else if (key == keyOf(TracePacket::kTrustedPacketSequenceIdFieldNumber, kVarint)) {
            packet->set_trusted_packet_sequence_id(static_cast<uint32_t>(number));
        } else if ((key & 7) != kVarint && !stream->Skip(static_cast<int>(number))) {
            return kMalformed;
        }
    }
    return stream->ConsumedEntireMessage() ? "" : kMalformed;
}

std::string reason(int error) {
    return std::generic_category().message(error);
}

/// Returns the reason for a failure: `text`, unless the file could not be read.
/// @param size [in] of the file when it was opened.
std::string explain(const FileInputStream& input, int descriptor, uint64_t size,
                    const std::string& text) {
    if (input.GetErrno() != 0) return reason(input.GetErrno()) + " (copy it to another disk)";
    struct stat status {};
    const bool isShorter =
        fstat(descriptor, &status) == 0 && static_cast<uint64_t>(status.st_size) < size;
    return isShorter ? "the file became shorter (wait until it is complete)" : text;
}

}  // namespace

std::string atByte(const std::string& file, uint64_t offset, const std::string& text) {
    return file + ": at byte " + std::to_string(offset) + ": " + text;
}

TraceEnd readTrace(const std::string& file, const PacketCallback& add, std::string* error) {
    // Opening a pipe would wait for its writer.
    const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat status {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0) {
        *error = file + ": " + reason(errno) + " (name a trace that you may read)";
        if (descriptor >= 0) close(descriptor);
        return {};
    }
    FileInputStream input(descriptor, kBlockSize);
    input.SetCloseOnDelete(true);
    if (!S_ISREG(status.st_mode)) {
        *error = file + ": not a regular file (name a trace)";
        return {};
    }
    const auto fileSize = static_cast<uint64_t>(status.st_size);
    TraceEnd end;
    const auto fail = [&](const std::string& text) {
        *error = atByte(file, end.offset, explain(input, descriptor, fileSize, text));
        return end;
    };
    TracePacket packet;
    while (end.offset < fileSize) {
        packet.Clear();
        const uint64_t available = fileSize - end.offset;
        CodedInputStream stream(&input);
        uint64_t size = 0;
        const bool isPacket = stream.ReadTag() == kPacketKey;
        const bool isSized = isPacket && stream.ReadVarint64(&size);
        const auto headerSize = static_cast<uint64_t>(stream.CurrentPosition());
        if (!isPacket || (!isSized && available > kMaxVarintSize)) {
            return fail("not a packet of a trace (give an uncompressed protobuf trace)");
        }
        end.isCutOff = !isSized || size > available - headerSize;
        if (end.isCutOff) break;
        // Protobuf has no larger messages.
        std::string damage = kMalformed;
        if (size <= std::numeric_limits<int>::max() - headerSize) {
            stream.PushLimit(static_cast<int>(size));
            damage = readFields(&stream, size, &packet);
        }
        if (!damage.empty()) {
            return fail(damage + " (the file is damaged: copy or record it again)");
        }
        if ((packet.has_power_rails() || packet.has_entity_state_residency()) &&
            !add(end.offset, packet)) {
            return end;
        }
        end.offset += headerSize + size;
    }
    end.isReached = true;
    return end;
}

}  // namespace powerstats
