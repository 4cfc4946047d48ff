// SPDX-License-Identifier: Apache-2.0
//
// A bus that answers anything. One end of a socket pair is a connection as the platform has it; the
// other end is this program, which puts the reply there before the call is made.

#include <fuzzer/FuzzedDataProvider.h>
#include <host/BusControl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "BusConnection.h"
#include "Records.h"

namespace fuzz {
namespace {

using host::dbus::kIsNumber;
using host::dbus::kIsText;

[[noreturn]] void fail(const std::string& why) {
    std::fprintf(stderr, "\nfuzz_bus: %s\n", why.c_str());
    std::abort();
}

/// Values as they stand in a message, by hand.
class Marshaller {
  public:
    explicit Marshaller(bool bigEndian) : mBigEndian(bigEndian) {}

    void align(size_t size) { bytes.resize((bytes.size() + size - 1) / size * size); }

    void number(uint64_t value, size_t size) {
        align(size);
        for (size_t i = 0; i < size; ++i) {
            bytes += static_cast<char>(value >> 8 * (mBigEndian ? size - 1 - i : i));
        }
    }

    void text(const std::string& value) {
        number(value.size(), 4);
        bytes += value + '\0';
    }

    /// A list of records or of other things that are aligned to 8 bytes.
    template <typename AppendElements>
    void list(AppendElements appendElements) {
        number(0, 4);
        const size_t end = bytes.size();
        align(8);
        const size_t start = bytes.size();
        appendElements();
        Marshaller length(mBigEndian);
        length.number(bytes.size() - start, 4);
        bytes.replace(end - 4, 4, length.bytes);
    }

    /// Members of a record that was read, to see whether they are what was sent.
    template <typename... Members>
    int operator()(const Members&... member) {
        (append(member), ...);
        return 0;
    }

    std::string bytes;

  private:
    template <typename T>
    void append(const T& member) {
        if constexpr (kIsNumber<T>) {
            number(static_cast<uint64_t>(member), sizeof(T));
        } else if constexpr (kIsText<T>) {
            text(member);
        } else {
            list([&] {
                for (const auto& element : member) {
                    align(8);
                    host::dbus::members(*this, const_cast<typename T::value_type&>(element));
                }
            });
        }
    }

    const bool mBigEndian;
};

/// A reply, and what is known of it.
struct Reply {
    std::string frame;
    std::string body;
    bool bigEndian = false;
    bool isValid = false;  ///< it must be accepted
    bool isLast = true;    ///< nothing more comes, whoever waits for it
};

class ReplyMaker {
  public:
    ReplyMaker(FuzzedDataProvider* data, uint32_t serial) : mData(*data), mSerial(serial) {}

    Reply make(const std::string& signature) {
        enum { kRightBody, kValid, kAlmostValid, kAnySignature, kError, kAlmostAFrame, kAnyFrame };
        const int kind = mData.ConsumeIntegralInRange<int>(kRightBody, kAnyFrame);
        mReply.bigEndian = mData.ConsumeBool();
        mReply.isLast = kind >= kAnySignature;
        mReply.isValid = kind == kValid;
        Marshaller body(mReply.bigEndian);
        if (kind == kValid || kind == kAlmostValid || kind == kAlmostAFrame) {
            appendValues(signature, &body);
        }
        mReply.body = body.bytes;
        if (kind == kAlmostValid) damage(&mReply.body);
        std::string sent = signature;
        std::string errorName;
        if (kind == kAnySignature) sent = mData.ConsumeRandomLengthString(32);
        if (kind == kError) {
            sent = "s";
            errorName = mData.ConsumeBool() ? "org.freedesktop.DBus.Error.NoReply"
                                            : mData.ConsumeRandomLengthString(64);
        }
        if (kind == kRightBody || kind == kAnySignature || kind == kError) {
            mReply.body = mData.ConsumeRemainingBytesAsString();
        }
        mReply.frame =
            kind == kAnyFrame ? mData.ConsumeRemainingBytesAsString() : frame(sent, errorName);
        if (kind == kAlmostAFrame) damage(&mReply.frame);
        return std::move(mReply);
    }

  private:
    std::string frame(const std::string& signature, const std::string& errorName) const {
        Marshaller frame(mReply.bigEndian);
        frame.bytes = {mReply.bigEndian ? 'B' : 'l', errorName.empty() ? '\2' : '\3', '\1', '\1'};
        frame.number(mReply.body.size(), 4);
        frame.number(1, 4);
        frame.list([&] {
            frame.bytes += std::string("\5\1u\0", 4);
            frame.number(mSerial, 4);
            if (!errorName.empty()) {
                frame.align(8);
                frame.bytes += std::string("\4\1s\0", 4);
                frame.text(errorName);
            }
            frame.align(8);
            frame.bytes +=
                std::string("\10\1g\0", 4) + static_cast<char>(signature.size()) + signature + '\0';
        });
        frame.align(8);
        return frame.bytes + mReply.body;
    }

    void damage(std::string* bytes) {
        for (int i = 0; i < 3 && !bytes->empty(); ++i) {
            const auto at = mData.ConsumeIntegralInRange<size_t>(0, bytes->size() - 1);
            (*bytes)[at] = mData.ConsumeIntegral<char>();
        }
    }

    void appendValues(const std::string& signature, Marshaller* body) {
        for (size_t i = 0; i < signature.size(); ++i) {
            switch (signature[i]) {
                case 's':
                    appendText(body);
                    break;
                case 'i':
                case 'u':
                    body->number(mData.ConsumeIntegral<uint32_t>(), 4);
                    break;
                case 'x':
                case 't':
                    body->number(mData.ConsumeIntegral<uint64_t>(), 8);
                    break;
                case 'a':
                    i = appendList(signature, i + 1, body);
                    break;
                default:
                    fail("a signature that no method has");
            }
        }
    }

    /// @return where the list's signature, "(...)" from `start`, ends
    size_t appendList(const std::string& signature, size_t start, Marshaller* body) {
        size_t end = start;
        for (int depth = 1; depth != 0;) {
            ++end;
            depth += signature[end] == '(' ? 1 : signature[end] == ')' ? -1 : 0;
        }
        body->list([&] {
            for (int count = mData.ConsumeIntegralInRange(0, 3); count != 0; --count) {
                body->align(8);
                appendValues(signature.substr(start + 1, end - start - 1), body);
            }
        });
        return end;
    }

    void appendText(Marshaller* body) {
        std::string text = mData.ConsumeRandomLengthString(16);
        for (char& byte : text) {
            byte = static_cast<char>(byte & 0x7f);
            if (byte == '\0') byte = ' ';
        }
        body->text(mData.ConsumeBool() ? text + "\xc2\xb5W" : text);
    }

    FuzzedDataProvider& mData;
    const uint32_t mSerial;
    Reply mReply;
};

/// What came of the replies; a target that refuses them all would find nothing.
struct Tally {
    uint64_t calls = 0;
    uint64_t accepted = 0;

    ~Tally() {
        if (calls == 0) return;
        std::fprintf(stderr, "replies: %.1f%% accepted\n",
                     100.0 * static_cast<double>(accepted) / static_cast<double>(calls));
    }
};
Tally gTally;

/// A connection of the platform's, and the other end of it.
class Line {
  public:
    Line() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
            fail("no socket pair");
        }
        mFarEnd = ends[1];
        put("DATA\r\nOK 0123456789abcdef0123456789abcdef\r\n");
        sd_bus* made = nullptr;
        sd_bus_new(&made);
        host::dbus::UniqueBus bus(made);
        if (sd_bus_set_fd(made, ends[0], ends[0]) < 0 || sd_bus_negotiate_fds(made, 0) < 0 ||
            sd_bus_start(made) < 0) {
            fail("no connection");
        }
        while (sd_bus_is_ready(made) == 0) {
            if (sd_bus_process(made, nullptr) < 0) fail("the greeting was not understood");
        }
        connection = std::make_unique<host::dbus::BusConnection>(std::move(bus), sd_id128_t{});
    }

    ~Line() { close(mFarEnd); }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    void put(const std::string& bytes) const {
        if (write(mFarEnd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            fail("a reply does not fit into the socket");
        }
    }

    /// Nothing will come any more, so that nobody waits for it.
    void hangUp() const { shutdown(mFarEnd, SHUT_WR); }

    /// Forgets the calls that were made.
    void drain() const {
        char bytes[4096];
        while (read(mFarEnd, bytes, sizeof(bytes)) > 0) {
        }
    }

    std::unique_ptr<host::dbus::BusConnection> connection;
    uint32_t calls = 0;

  private:
    int mFarEnd;
};

/// Makes one call whose reply consists of these members, and looks at what is read.
template <typename... Members>
void call(FuzzedDataProvider* data, const char* method) {
    static std::unique_ptr<Line> line;
    if (line == nullptr) line = std::make_unique<Line>();
    const std::string signature = (host::dbus::signatureOf<Members>() + ...);
    const Reply reply = ReplyMaker(data, ++line->calls).make(signature);
    line->put(reply.frame);
    if (reply.isLast) line->hangUp();

    std::tuple<Members...> answer{};
    const auto failure = line->connection->call(
        {":1.1", "/default", "an.interface"}, method, signature,
        [](host::dbus::Writer&) { return 0; },
        [&](host::dbus::Reader& read) {
            return std::apply([&](auto&... member) { return read(member...); }, answer);
        });
    ++gTally.calls;
    if (!failure) ++gTally.accepted;
    if (failure) {
        if (reply.isValid) fail(std::string(method) + " was refused: " + failure->message);
        if (!reply.isLast && failure->transactionError == android::TIMED_OUT) {
            fail(std::string(method) + " waited for a reply that was there");
        }
        if (failure->exceptionCode != -129 || failure->transactionError == 0) {
            fail(std::string(method) + " failed, but says that it did not");
        }
    } else if (!reply.isLast) {
        Marshaller again(reply.bigEndian);
        std::apply(again, answer);
        // What is behind it a bus would not have let through.
        if (reply.body.compare(0, again.bytes.size(), again.bytes) != 0) {
            fail(std::string(method) + " was read as something else than was sent");
        }
    }
    line->drain();
    if (!line->connection->isOpen() || reply.isLast || failure) line = nullptr;
}

template <typename Record>
void callAidl(FuzzedDataProvider* data, const char* method) {
    call<std::vector<Record>>(data, method);
}

template <typename Record>
void callHidl(FuzzedDataProvider* data, const char* method) {
    call<host::dbus::hidl_vec<Record>, host::dbus::stats_V1_0::Status>(data, method);
}

namespace aidl = host::dbus::stats_aidl;
namespace hidl = host::dbus::stats_V1_0;

constexpr struct {
    void (*call)(FuzzedDataProvider* data, const char* method);
    const char* method;
} kMethods[] = {
    {callAidl<aidl::Channel>, "getEnergyMeterInfo"},
    {callAidl<aidl::EnergyMeasurement>, "readEnergyMeter"},
    {callAidl<aidl::PowerEntity>, "getPowerEntityInfo"},
    {callAidl<aidl::StateResidencyResult>, "getStateResidency"},
    {callHidl<hidl::RailInfo>, "getRailInfo"},
    {callHidl<hidl::EnergyData>, "getEnergyData"},
    {callHidl<hidl::PowerEntityInfo>, "getPowerEntityInfo"},
    {callHidl<hidl::PowerEntityStateSpace>, "getPowerEntityStateInfo"},
    {callHidl<hidl::PowerEntityStateResidencyResult>, "getPowerEntityStateResidencyData"},
};

}  // namespace
}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    host::setBusTimeLimit(0.1);
    FuzzedDataProvider provider(data, size);
    const auto& chosen = provider.PickValueInArray(fuzz::kMethods);
    chosen.call(&provider, chosen.method);
    return 0;
}
