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

/// Who is told when the process of a HIDL service dies.
struct hidl_death_recipient : public virtual RefBase {
    hidl_death_recipient();
    ~hidl_death_recipient() override;

    /// Called on a thread of the platform's own, once for every link.
    /// @param cookie [in] as given when the link was made.
    /// @param who [in] the proxy whose service died.
    virtual void serviceDied(uint64_t cookie,
                             const ::android::wp<::android::hidl::base::V1_0::IBase>& who) = 0;
};

/// A list of records. It owns them, unless it was set to records that somebody else owns.
template <typename T>
class hidl_vec {
  public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    hidl_vec() = default;
    hidl_vec(std::initializer_list<T> list) : hidl_vec(list.begin(), list.end()) {}
    hidl_vec(const std::vector<T>& other) : hidl_vec(other.begin(), other.end()) {}
    template <typename Iterator, typename = typename Iterator::iterator_category>
    hidl_vec(Iterator first, Iterator last) {
        copyFrom(first, last);
    }
    hidl_vec(const T* first, const T* last) { copyFrom(first, last); }
    hidl_vec(const hidl_vec& other) { copyFrom(other.begin(), other.end()); }
    hidl_vec(hidl_vec&& other) noexcept { swap(other); }
    ~hidl_vec() {
        if (mOwned) delete[] mRecords;
    }
    hidl_vec& operator=(hidl_vec other) noexcept {
        swap(other);
        return *this;
    }

    /// Refers to records that the caller owns and keeps for as long as this list refers to them.
    void setToExternal(T* records, size_t size) {
        *this = hidl_vec();
        mRecords = records;
        mSize = static_cast<uint32_t>(size);
        mOwned = false;
    }

    /// Keeps the first records; new ones are as their constructor makes them.
    void resize(size_t size) {
        hidl_vec resized;
        resized.allocate(size);
        for (size_t i = 0; i < size && i < mSize; ++i) resized[i] = std::move(mRecords[i]);
        swap(resized);
    }

    size_t size() const { return mSize; }
    T* data() { return mRecords; }
    const T* data() const { return mRecords; }
    T& operator[](size_t index) { return mRecords[index]; }
    const T& operator[](size_t index) const { return mRecords[index]; }
    iterator begin() { return mRecords; }
    iterator end() { return mRecords + mSize; }
    const_iterator begin() const { return mRecords; }
    const_iterator end() const { return mRecords + mSize; }
    operator std::vector<T>() const { return std::vector<T>(begin(), end()); }

  private:
    void allocate(size_t size) {
        if (size != 0) mRecords = new T[size]();
        mSize = static_cast<uint32_t>(size);
    }
    template <typename Iterator>
    void copyFrom(Iterator first, Iterator last) {
        allocate(static_cast<size_t>(last - first));
        for (T* record = mRecords; first != last; ++first, ++record) *record = *first;
    }
    void swap(hidl_vec& other) noexcept {
        std::swap(mRecords, other.mRecords);
        std::swap(mSize, other.mSize);
        std::swap(mOwned, other.mOwned);
    }

    T* mRecords = nullptr;
    uint32_t mSize = 0;
    bool mOwned = true;
};

/// A string of any bytes. It owns them, and a NUL behind them.
class hidl_string {
  public:
    hidl_string() = default;
    hidl_string(const char* text) : mText(text != nullptr ? text : "") {}
    hidl_string(const char* bytes, size_t size) : mText(bytes, size) {}
    hidl_string(const std::string& text) : mText(text) {}
    hidl_string(std::string&& text) : mText(std::move(text)) {}

    const char* c_str() const { return mText.c_str(); }
    size_t size() const { return mText.size(); }
    bool empty() const { return mText.empty(); }
    void clear() { mText.clear(); }
    operator std::string() const { return mText; }

    friend bool operator==(const hidl_string& a, const hidl_string& b) {
        return a.mText == b.mText;
    }
    friend bool operator!=(const hidl_string& a, const hidl_string& b) { return !(a == b); }

  private:
    std::string mText;
};

}  // namespace android::hardware
