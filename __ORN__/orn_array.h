#pragma once

// Containers of the core library: thin faces over the standard containers
// with signed sizes and checked access. Out-of-range access asserts
// "index >= 0 && index < size ()"; a missing key asserts "used (index)".

#include "orn_basic.h"

#include <cstring>
#include <deque>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ORN {

namespace Private {
template <class C>
class IndexedFace {
public:
    using value_type = typename C::value_type;

    IndexedFace() = default;
    explicit IndexedFace(INDEX n) : mItems(static_cast<std::size_t>(n)) {}
    IndexedFace(INDEX n, const value_type &fill) : mItems(static_cast<std::size_t>(n), fill) {}
    IndexedFace(std::initializer_list<value_type> items) : mItems(items) {}
    template <class It>
    IndexedFace(It first, It last) : mItems(first, last) {}

    INDEX size() const noexcept { return static_cast<INDEX>(mItems.size()); }
    INDEX length() const noexcept { return size(); }
    bool empty() const noexcept { return mItems.empty(); }

    value_type &operator[](INDEX index) {
        _DYNAMIC_ASSERT_(index >= 0 && index < size ());
        return mItems[static_cast<std::size_t>(index)];
    }
    const value_type &operator[](INDEX index) const {
        _DYNAMIC_ASSERT_(index >= 0 && index < size ());
        return mItems[static_cast<std::size_t>(index)];
    }
    value_type &front() { return (*this)[0]; }
    const value_type &front() const { return (*this)[0]; }
    value_type &back() { return (*this)[size() - 1]; }
    const value_type &back() const { return (*this)[size() - 1]; }

    template <class... A>
    value_type &append(A &&...args) {
        return mItems.emplace_back(std::forward<A>(args)...);
    }
    void pop() {
        _DYNAMIC_ASSERT_(!empty ());
        mItems.pop_back();
    }
    void resize(INDEX n) { mItems.resize(static_cast<std::size_t>(n)); }
    void clear() noexcept { mItems.clear(); }

    auto begin() noexcept { return mItems.begin(); }
    auto end() noexcept { return mItems.end(); }
    auto begin() const noexcept { return mItems.begin(); }
    auto end() const noexcept { return mItems.end(); }

    C &self() noexcept { return mItems; }
    const C &self() const noexcept { return mItems; }

    friend bool operator==(const IndexedFace &a, const IndexedFace &b) { return a.mItems == b.mItems; }

protected:
    C mItems;
};
} // namespace Private

// Contiguous array.
template <class T>
class Array : public Private::IndexedFace<std::vector<T>> {
    using Base = Private::IndexedFace<std::vector<T>>;

public:
    using Base::Base;
    T *data() noexcept { return this->mItems.data(); }
    const T *data() const noexcept { return this->mItems.data(); }
    void reserve(INDEX n) { this->mItems.reserve(static_cast<std::size_t>(n)); }
};

// Growable list whose items never move once appended (indices and addresses
// stay valid while the list grows).
template <class T>
class ArrayList : public Private::IndexedFace<std::deque<T>> {
    using Base = Private::IndexedFace<std::deque<T>>;

public:
    using Base::Base;
};

// Double-ended queue.
template <class T>
class Deque : public Private::IndexedFace<std::deque<T>> {
    using Base = Private::IndexedFace<std::deque<T>>;

public:
    using Base::Base;
    template <class... A>
    T &push_front(A &&...args) {
        return this->mItems.emplace_front(std::forward<A>(args)...);
    }
    void pop_front() {
        _DYNAMIC_ASSERT_(!this->empty ());
        this->mItems.pop_front();
    }
    // True when the deque holds at least n items.
    bool varify_space(INDEX n) const noexcept { return this->size() >= n; }
};

// Set of distinct items, each mapped to its position: positions run from 0
// to size () - 1 in insertion order; erasing moves the last item into the
// freed position. Small sets (most sets hold a handful of items) are searched
// in place; the hash index is built once a set grows past kLinear items.
template <class T, class HASH = std::hash<T>>
class Set {
    using Index = std::unordered_map<T, INDEX, HASH>;
    static constexpr std::size_t kLinear = 8;

public:
    Set() = default;
    Set(std::initializer_list<T> items) {
        for (const auto &i : items)
            insert(i);
    }
    Set(const Set &other) : mItems(other.mItems), mPositions(other.mPositions ? std::make_unique<Index>(*other.mPositions) : nullptr) {}
    Set(Set &&) noexcept = default;
    Set &operator=(const Set &other) {
        if (this != &other)
            *this = Set(other);
        return *this;
    }
    Set &operator=(Set &&) noexcept = default;

    INDEX size() const noexcept { return static_cast<INDEX>(mItems.size()); }
    INDEX length() const noexcept { return size(); }
    bool empty() const noexcept { return mItems.empty(); }

    // Position of the item, or VAR_NONE.
    INDEX find(const T &item) const {
        if (!mPositions) {
            for (std::size_t i = 0; i < mItems.size(); ++i)
                if (std::equal_to<T>()(mItems[i], item))
                    return static_cast<INDEX>(i);
            return VAR_NONE;
        }
        const auto it = mPositions->find(item);
        return it == mPositions->end() ? VAR_NONE : it->second;
    }
    bool used(INDEX index) const noexcept { return index != VAR_NONE; }
    // Position of an item that must be present.
    INDEX map(const T &item) const {
        const INDEX index = find(item);
        _DYNAMIC_ASSERT_(used (index));
        return index;
    }
    // Inserts the item if absent; returns its position either way.
    INDEX insert(const T &item) {
        const INDEX found = find(item);
        if (found != VAR_NONE)
            return found;
        mItems.push_back(item);
        if (mPositions)
            mPositions->emplace(mItems.back(), size() - 1);
        else if (mItems.size() > kLinear)
            build_index();
        return size() - 1;
    }
    // Removes the item if present; returns whether it was.
    bool erase(const T &item) {
        const INDEX found = find(item);
        if (found == VAR_NONE)
            return false;
        const auto pos = static_cast<std::size_t>(found);
        if (mPositions)
            mPositions->erase(item);
        if (pos + 1 != mItems.size()) {
            mItems[pos] = std::move(mItems.back());
            if (mPositions)
                (*mPositions)[mItems[pos]] = static_cast<INDEX>(pos);
        }
        mItems.pop_back();
        return true;
    }
    void clear() noexcept {
        mItems.clear();
        mPositions.reset();
    }
    void reserve(INDEX n) {
        mItems.reserve(static_cast<std::size_t>(n));
        if (static_cast<std::size_t>(n) > kLinear) {
            if (!mPositions)
                build_index();
            mPositions->reserve(static_cast<std::size_t>(n));
        }
    }

    const T &operator[](INDEX index) const {
        _DYNAMIC_ASSERT_(index >= 0 && index < size ());
        return mItems[static_cast<std::size_t>(index)];
    }
    auto begin() const noexcept { return mItems.begin(); }
    auto end() const noexcept { return mItems.end(); }

private:
    void build_index() {
        auto index = std::make_unique<Index>();
        index->reserve(mItems.size() * 2);
        for (std::size_t i = 0; i < mItems.size(); ++i)
            index->emplace(mItems[i], static_cast<INDEX>(i));
        mPositions = std::move(index);
    }

    std::vector<T> mItems;
    std::unique_ptr<Index> mPositions;
};

// Fixed-size bit set.
class BitSet {
public:
    BitSet() = default;
    explicit BitSet(INDEX n) : mSize(n), mWords(static_cast<std::size_t>((n + 63) / 64), 0) {}

    INDEX size() const noexcept { return mSize; }
    bool get(INDEX index) const {
        _DYNAMIC_ASSERT_(index >= 0 && index < size ());
        return (mWords[static_cast<std::size_t>(index >> 6)] >> (index & 63)) & 1u;
    }
    void set(INDEX index, bool value = true) {
        _DYNAMIC_ASSERT_(index >= 0 && index < size ());
        auto &w = mWords[static_cast<std::size_t>(index >> 6)];
        const std::uint64_t bit = std::uint64_t(1) << (index & 63);
        w = value ? (w | bit) : (w & ~bit);
    }
    INDEX count() const noexcept {
        INDEX n = 0;
        for (auto w : mWords)
            n += __builtin_popcountll(w);
        return n;
    }

private:
    INDEX mSize = 0;
    std::vector<std::uint64_t> mWords;
};

// Plain buffer of trivially copyable items with its length. Made with a size,
// its items are left uninitialised, so filling a large buffer from a file
// costs no extra pass.
template <class T>
class Buffer {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    Buffer() noexcept = default;
    explicit Buffer(INDEX n) : mData(n > 0 ? std::make_unique_for_overwrite<T[]>(static_cast<std::size_t>(n)) : nullptr), mSize(n > 0 ? n : 0) {}
    Buffer(const T *data, INDEX n) : Buffer(n) {
        if (mSize > 0)
            std::memcpy(mData.get(), data, static_cast<std::size_t>(mSize) * sizeof(T));
    }
    Buffer(const Buffer &other) : Buffer(other.data(), other.size()) {}
    Buffer(Buffer &&other) noexcept : mData(std::move(other.mData)), mSize(std::exchange(other.mSize, 0)) {}
    Buffer &operator=(const Buffer &other) {
        if (this != &other)
            *this = Buffer(other);
        return *this;
    }
    Buffer &operator=(Buffer &&other) noexcept {
        mData = std::move(other.mData);
        mSize = std::exchange(other.mSize, 0);
        return *this;
    }

    // Byte buffer from text, and back.
    static Buffer from_text(std::string_view text) {
        static_assert(sizeof(T) == 1);
        return Buffer(reinterpret_cast<const T *>(text.data()), static_cast<INDEX>(text.size()));
    }
    std::string_view text() const noexcept {
        static_assert(sizeof(T) == 1);
        return {reinterpret_cast<const char *>(mData.get()), static_cast<std::size_t>(mSize)};
    }

    INDEX size() const noexcept { return mSize; }
    INDEX length() const noexcept { return mSize; }
    bool empty() const noexcept { return mSize == 0; }
    T *data() noexcept { return mData.get(); }
    const T *data() const noexcept { return mData.get(); }
    T &operator[](INDEX index) {
        _DYNAMIC_ASSERT_(index >= 0 && index < size ());
        return mData[static_cast<std::size_t>(index)];
    }
    const T &operator[](INDEX index) const {
        _DYNAMIC_ASSERT_(index >= 0 && index < size ());
        return mData[static_cast<std::size_t>(index)];
    }
    T *begin() noexcept { return mData.get(); }
    T *end() noexcept { return mData.get() + mSize; }
    const T *begin() const noexcept { return mData.get(); }
    const T *end() const noexcept { return mData.get() + mSize; }

    // Shrinks or grows, keeping the first min(old, n) items.
    void resize(INDEX n) {
        Buffer next(n);
        const INDEX keep = n < mSize ? n : mSize;
        if (keep > 0)
            std::memcpy(next.mData.get(), mData.get(), static_cast<std::size_t>(keep) * sizeof(T));
        *this = std::move(next);
    }

    friend bool operator==(const Buffer &a, const Buffer &b) noexcept {
        return a.mSize == b.mSize && (a.mSize == 0 || std::memcmp(a.mData.get(), b.mData.get(), static_cast<std::size_t>(a.mSize) * sizeof(T)) == 0);
    }

private:
    std::unique_ptr<T[]> mData;
    INDEX mSize = 0;
};

} // namespace ORN
