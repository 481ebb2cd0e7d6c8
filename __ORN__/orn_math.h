#pragma once

// Small dense vectors. A point is a Vector<double> of three components;
// vectors of up to four components live inline, so making one per point of
// a large cloud costs no allocation.

#include "orn_basic.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <vector>

namespace ORN {

template <class T>
class Vector {
public:
    static constexpr INDEX INLINE_SIZE = 4;

    Vector() noexcept = default;
    // `size` components, value-initialised.
    explicit Vector(INDEX size) : mSize(size > 0 ? size : 0) {
        if (mSize > INLINE_SIZE)
            mHeap.resize(static_cast<std::size_t>(mSize));
    }
    Vector(std::initializer_list<T> items) : Vector(static_cast<INDEX>(items.size())) {
        std::copy(items.begin(), items.end(), data());
    }

    INDEX size() const noexcept { return mSize; }
    bool empty() const noexcept { return mSize == 0; }

    T *data() noexcept { return mSize > INLINE_SIZE ? mHeap.data() : mInline.data(); }
    const T *data() const noexcept { return mSize > INLINE_SIZE ? mHeap.data() : mInline.data(); }

    T &operator[](INDEX index) {
        _DYNAMIC_ASSERT_(index >= 0 && index < size ());
        return data()[index];
    }
    const T &operator[](INDEX index) const {
        _DYNAMIC_ASSERT_(index >= 0 && index < size ());
        return data()[index];
    }

    T *begin() noexcept { return data(); }
    T *end() noexcept { return data() + mSize; }
    const T *begin() const noexcept { return data(); }
    const T *end() const noexcept { return data() + mSize; }

    friend bool operator==(const Vector &a, const Vector &b) { return std::equal(a.begin(), a.end(), b.begin(), b.end()); }

private:
    std::array<T, INLINE_SIZE> mInline{};
    std::vector<T> mHeap;
    INDEX mSize = 0;
};

} // namespace ORN
