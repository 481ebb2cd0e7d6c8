#pragma once

// Reader of PLY files (the Polygon File Format), ascii and binary in either
// byte order. The whole file is parsed at construction; afterwards every
// query is an index operation that hands out the stored values themselves.
//
// Values are widened into three storage classes chosen by the declared type:
// "float" and "double" are read through get_value / get_value_list (double),
// "int" and "int64" through get_index / get_index_list (int64), "uchar",
// "uint16", "uint32" and "uint64" through get_byte / get_byte_list (uint64).
// Asking a property for another class than its own fails an assertion.

#include "__ORN__/orn_array.h"
#include "__ORN__/orn_basic.h"

namespace ORN {

// Non-owning view of `size ()` consecutive items held elsewhere; valid while
// their owner lives.
template <class T>
class ArrayView {
public:
    constexpr ArrayView() noexcept = default;
    constexpr ArrayView(T *data, INDEX size) noexcept : mData(data), mSize(size) {}

    constexpr INDEX size() const noexcept { return mSize; }
    constexpr INDEX length() const noexcept { return mSize; }
    constexpr bool empty() const noexcept { return mSize == 0; }
    constexpr T *data() const noexcept { return mData; }

    T &operator[](INDEX index) const {
        _DYNAMIC_ASSERT_(index >= 0 && index < size ());
        return mData[index];
    }
    constexpr T *begin() const noexcept { return mData; }
    constexpr T *end() const noexcept { return mData + mSize; }

private:
    T *mData = nullptr;
    INDEX mSize = 0;
};

} // namespace ORN

namespace ZARN {

class PlyReader {
public:
    class Abstract;
    class Implement;

    using VALUE_LIST = ORN::ArrayView<const double>;
    using INDEX_LIST = ORN::ArrayView<const ORN::int64>;
    using BYTE_LIST = ORN::ArrayView<const ORN::uint64>;

    PlyReader() = default;
    // Reads and parses the whole file; any malformed input fails an assertion.
    explicit PlyReader(const ORN::String<char> &path);

    bool exist() const noexcept { return mThis.exist(); }

    // Index of the element named `name` in header order, or ORN::VAR_NONE
    // when the file declares no such element.
    ORN::INDEX find_element(const ORN::String<char> &name) const;
    // Number of items of the element.
    ORN::INDEX element_size(ORN::INDEX element_index) const;
    // Index of the property among the element's properties in header order,
    // or ORN::VAR_NONE when the element has no such property.
    ORN::INDEX find_property(ORN::INDEX element_index, const ORN::String<char> &name) const;

    // Typed access to one item's value. References and views stay valid
    // while any handle to the same reader lives.
    const double &get_value(ORN::INDEX element_index, ORN::INDEX property_index, ORN::INDEX item_index) const;
    VALUE_LIST get_value_list(ORN::INDEX element_index, ORN::INDEX property_index, ORN::INDEX item_index) const;
    const ORN::int64 &get_index(ORN::INDEX element_index, ORN::INDEX property_index, ORN::INDEX item_index) const;
    INDEX_LIST get_index_list(ORN::INDEX element_index, ORN::INDEX property_index, ORN::INDEX item_index) const;
    const ORN::uint64 &get_byte(ORN::INDEX element_index, ORN::INDEX property_index, ORN::INDEX item_index) const;
    BYTE_LIST get_byte_list(ORN::INDEX element_index, ORN::INDEX property_index, ORN::INDEX item_index) const;

    // Every item's value of a scalar property at once, in item order: the
    // same stored values get_value / get_byte hand out one by one.
    VALUE_LIST get_values(ORN::INDEX element_index, ORN::INDEX property_index) const;
    BYTE_LIST get_bytes(ORN::INDEX element_index, ORN::INDEX property_index) const;

    // Asserts that the handle holds a reader.
    static void check_avaliable(const ORN::StrongRef<Abstract> &pointer);

private:
    ORN::StrongRef<Abstract> mThis;
};

class PlyReader::Abstract : public ORN::Interface {
public:
    ~Abstract() override = default;
    virtual ORN::INDEX find_element(const ORN::String<char> &name) const = 0;
    virtual ORN::INDEX element_size(ORN::INDEX element_index) const = 0;
    virtual ORN::INDEX find_property(ORN::INDEX element_index, const ORN::String<char> &name) const = 0;
    virtual const double &get_value(ORN::INDEX element_index, ORN::INDEX property_index, ORN::INDEX item_index) const = 0;
    virtual VALUE_LIST get_value_list(ORN::INDEX element_index, ORN::INDEX property_index, ORN::INDEX item_index) const = 0;
    virtual const ORN::int64 &get_index(ORN::INDEX element_index, ORN::INDEX property_index, ORN::INDEX item_index) const = 0;
    virtual INDEX_LIST get_index_list(ORN::INDEX element_index, ORN::INDEX property_index, ORN::INDEX item_index) const = 0;
    virtual const ORN::uint64 &get_byte(ORN::INDEX element_index, ORN::INDEX property_index, ORN::INDEX item_index) const = 0;
    virtual BYTE_LIST get_byte_list(ORN::INDEX element_index, ORN::INDEX property_index, ORN::INDEX item_index) const = 0;
    virtual VALUE_LIST get_values(ORN::INDEX element_index, ORN::INDEX property_index) const = 0;
    virtual BYTE_LIST get_bytes(ORN::INDEX element_index, ORN::INDEX property_index) const = 0;
};

} // namespace ZARN
