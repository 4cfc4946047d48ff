// SPDX-License-Identifier: Apache-2.0
//
// The containers of HIDL interfaces, and the recipient of death notices.

#pragma once

#include <utils/RefBase.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace android::hidl::base::V1_0 {
struct IBase;
}

namespace android::hardware {

/// A receiver of notices that the process of a HIDL service has died.
struct hidl_death_recipient : public virtual RefBase {
    /// The platform calls this on a thread of its own, once for every link.
    /// @param cookie [in] as given when the link was made.
    /// @param who [in] the proxy whose service died.
    virtual void serviceDied(uint64_t cookie,
                             const ::android::wp<::android::hidl::base::V1_0::IBase>& who) = 0;
};

/// A list of records, which it owns.
template <typename T>
class hidl_vec {
  public:
    using value_type = T;

    hidl_vec() = default;
    hidl_vec(std::initializer_list<T> list) : mRecords(list) {}
    hidl_vec(std::vector<T> records) : mRecords(std::move(records)) {}

    size_t size() const { return mRecords.size(); }
    T& operator[](size_t index) { return mRecords[index]; }
    const T& operator[](size_t index) const { return mRecords[index]; }
    const T* begin() const { return mRecords.data(); }
    const T* end() const { return mRecords.data() + mRecords.size(); }
    operator std::vector<T>() const { return mRecords; }

  private:
    std::vector<T> mRecords;
};

/// A string of any bytes, which it owns, with a NUL behind them.
class hidl_string {
  public:
    hidl_string() = default;
    hidl_string(const char* text) : mText(text != nullptr ? text : "") {}
    hidl_string(const std::string& text) : mText(text) {}
    hidl_string(std::string&& text) : mText(std::move(text)) {}

    const char* c_str() const { return mText.c_str(); }
    size_t size() const { return mText.size(); }
    operator std::string() const { return mText; }

    friend bool operator==(const hidl_string& a, const hidl_string& b) {
        return a.mText == b.mText;
    }

  private:
    std::string mText;
};

}  // namespace android::hardware
