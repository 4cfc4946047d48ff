// SPDX-License-Identifier: Apache-2.0

#include <utils/RefBase.h>

namespace android {

RefBase::RefBase() : mRefs(new weakref_type(this)) {}

RefBase::~RefBase() {
    mRefs->mStrong = 0;  // so that weak references give null even if no sp<> held the object
    mRefs->decWeak(this);
}

void RefBase::incStrong(const void* /*id*/) const {
    if (mRefs->mStrong.fetch_add(1) == weakref_type::kNeverHeld) {
        mRefs->mStrong -= weakref_type::kNeverHeld;
    }
}

void RefBase::decStrong(const void* /*id*/) const {
    if (mRefs->mStrong.fetch_sub(1) == 1) delete this;
}

int32_t RefBase::getStrongCount() const {
    return mRefs->mStrong;
}

RefBase::weakref_type* RefBase::createWeak(const void* id) const {
    mRefs->incWeak(id);
    return mRefs;
}

void RefBase::weakref_type::incWeak(const void* /*id*/) {
    mWeak.fetch_add(1);
}

void RefBase::weakref_type::decWeak(const void* /*id*/) {
    if (mWeak.fetch_sub(1) == 1) delete this;
}

bool RefBase::weakref_type::attemptIncStrong(const void* id) {
    int32_t count = mStrong;
    while (count != 0) {
        if (count == kNeverHeld) {
            mBase->incStrong(id);
            return true;
        }
        if (mStrong.compare_exchange_weak(count, count + 1)) return true;
    }
    return false;
}

}  // namespace android
