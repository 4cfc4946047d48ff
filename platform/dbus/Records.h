// SPDX-License-Identifier: Apache-2.0
//
// The records of both interfaces in a D-Bus message: the members of each record in order, their
// signature, a writer and a reader.

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace host::dbus {

namespace stats_aidl = ::aidl::android::hardware::power::stats;
namespace stats_V1_0 = ::android::hardware::power::stats::V1_0;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;

/// Converts to the type of any member, to count the members of a record.
struct Anything {
    template <typename Member>
    operator Member() const;
};

/// Returns whether a record can be made of this many values.
template <typename Record, typename... Values, typename = decltype(Record{Values()...})>
constexpr bool isMadeOf(int /*preferred*/) {
    return true;
}
template <typename Record, typename... Values>
constexpr bool isMadeOf(int64_t /*otherwise*/) {
    return false;
}

/// Returns references to a record's two to four members. Their order on the bus is the order of
/// their declaration.
template <typename Record>
auto members(Record& record) {
    if constexpr (isMadeOf<Record, Anything, Anything, Anything, Anything>(0)) {
        auto& [first, second, third, fourth] = record;
        return std::tie(first, second, third, fourth);
    } else if constexpr (isMadeOf<Record, Anything, Anything, Anything>(0)) {
        auto& [first, second, third] = record;
        return std::tie(first, second, third);
    } else {
        auto& [first, second] = record;
        return std::tie(first, second);
    }
}

/// The D-Bus type of a number. The interfaces' enumerations are unsigned.
template <typename T>
inline constexpr char kNumberType = sizeof(T) == 8 ? (std::is_signed_v<T> ? 'x' : 't')
                                                   : (std::is_signed_v<T> ? 'i' : 'u');

template <typename T>
inline constexpr bool kIsNumber = std::is_integral_v<T> || std::is_enum_v<T>;
template <typename T>
inline constexpr bool kIsText = std::is_same_v<T, std::string> || std::is_same_v<T, hidl_string>;
template <typename T>
inline constexpr bool kIsList = false;
template <typename T>
inline constexpr bool kIsList<std::vector<T>> = true;
template <typename T>
inline constexpr bool kIsList<hidl_vec<T>> = true;

template <typename T>
std::string signatureOf();

/// Returns the signature of members.
template <typename... Members>
std::string signatureOf(const std::tuple<Members&...>& /*members*/) {
    return (signatureOf<std::remove_const_t<Members>>() + ...);
}

/// Returns the signature of a member: of a number, a text, a list or a record.
template <typename T>
std::string signatureOf() {
    if constexpr (kIsNumber<T>) {
        return {kNumberType<T>};
    } else if constexpr (kIsText<T>) {
        return "s";
    } else if constexpr (kIsList<T>) {
        return "a" + signatureOf<typename T::value_type>();
    } else {
        T record;
        return "(" + signatureOf(members(record)) + ")";
    }
}

/// Appends members to a message. Every result is negative when sd-bus refuses a member, for example
/// a text that is not UTF-8 or contains a NUL.
class Writer {
  public:
    explicit Writer(sd_bus_message* message) : mMessage(message) {}

    template <typename... Members>
    int operator()(const Members&... member) {
        int result = 0;
        ((result = result < 0 ? result : write(member)), ...);
        return result;
    }

  private:
    template <typename T>
    int write(const T& member) {
        if constexpr (kIsNumber<T>) {
            return sd_bus_message_append_basic(mMessage, kNumberType<T>, &member);
        } else if constexpr (kIsText<T>) {
            // Check first: sd-bus would cut the text at a NUL without an error.
            if (std::string(member).find('\0') != std::string::npos) return -EINVAL;
            return sd_bus_message_append_basic(mMessage, 's', member.c_str());
        } else if constexpr (kIsList<T>) {
            static const std::string contents = signatureOf<typename T::value_type>();
            int result = sd_bus_message_open_container(mMessage, 'a', contents.c_str());
            for (size_t i = 0; result >= 0 && i < member.size(); ++i) result = write(member[i]);
            return result < 0 ? result : sd_bus_message_close_container(mMessage);
        } else {
            static const std::string contents = signatureOf(members(member));
            int result = sd_bus_message_open_container(mMessage, 'r', contents.c_str());
            if (result >= 0) result = std::apply(*this, members(member));
            return result < 0 ? result : sd_bus_message_close_container(mMessage);
        }
    }

    sd_bus_message* const mMessage;
};

/// Reads the members of a message. A message may come from anybody: every result is negative when
/// the contents do not fit, and `error` says why. REQUIRES: the message's signature has been
/// checked
class Reader {
  public:
    static constexpr size_t kMostBytes = 1 << 20;       ///< of one text
    static constexpr size_t kMostElements = 1'000'000;  ///< of all lists of a message

    explicit Reader(sd_bus_message* message, size_t mostElements = kMostElements)
        : mMessage(message), mMostElements(mostElements) {}

    template <typename... Members>
    int operator()(Members&... member) {
        int result = 0;
        ((result = result < 0 ? result : read(&member)), ...);
        return result;
    }

    std::string error = "its contents do not fit its signature";

  private:
    template <typename T>
    int read(T* member) {
        if constexpr (kIsNumber<T>) {
            return taken(sd_bus_message_read_basic(mMessage, kNumberType<T>, member));
        } else if constexpr (kIsText<T>) {
            const char* text = nullptr;
            const int result = taken(sd_bus_message_read_basic(mMessage, 's', &text));
            if (result < 0) return result;
            std::string copy(text);
            if (copy.size() > kMostBytes) {
                error = "a text is longer than " + std::to_string(kMostBytes) + " bytes";
                return -EMSGSIZE;
            }
            *member = std::move(copy);
            return 0;
        } else if constexpr (kIsList<T>) {
            std::vector<typename T::value_type> list;
            const int result = readList(&list);
            *member = std::move(list);
            return result;
        } else {
            // No need to name the kind of container: the whole signature has been checked.
            int result = taken(sd_bus_message_enter_container(mMessage, 0, nullptr));
            if (result >= 0) result = std::apply(*this, members(*member));
            return result < 0 ? result : sd_bus_message_exit_container(mMessage);
        }
    }

    template <typename Element>
    int readList(std::vector<Element>* list) {
        if constexpr (kIsNumber<Element>) {
            const void* numbers = nullptr;
            size_t size = 0;
            int result =
                taken(sd_bus_message_read_array(mMessage, kNumberType<Element>, &numbers, &size));
            if (result >= 0) result = count(size / sizeof(Element));
            const auto* first = static_cast<const Element*>(numbers);
            if (result >= 0 && size != 0) list->assign(first, first + size / sizeof(Element));
            return result;
        } else {
            int result = taken(sd_bus_message_enter_container(mMessage, 0, nullptr));
            while (result >= 0 && (result = sd_bus_message_at_end(mMessage, 0)) == 0) {
                result = count(1);
                if (result >= 0) result = read(&list->emplace_back());
            }
            return result < 0 ? result : sd_bus_message_exit_container(mMessage);
        }
    }

    int count(size_t elements) {
        mElements += elements;
        if (mElements <= mMostElements) return 1;
        error = "it has more than " + std::to_string(mMostElements) + " elements";
        return -EMSGSIZE;
    }

    /// Turns sd-bus's 0, which means that no member is left, into an error.
    static int taken(int result) { return result == 0 ? -EBADMSG : result; }

    sd_bus_message* const mMessage;
    const size_t mMostElements;
    size_t mElements = 0;
};

}  // namespace host::dbus
