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
//
// A caller that wants some scalar properties in arrays of its own takes the
// one-pass read instead (the constructor with a PLAN): when the body of an
// element is reached, the plan names those properties and their arrays, and
// their values are decoded from the file straight into them, with nothing
// kept by the reader. Every other property is stored and answered as above.

#include "__ORN__/orn_array.h"
#include "__ORN__/orn_basic.h"

#include <cstdint>

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

    class DELIVERY;
    // Called once for each element that has items and properties, when its
    // body is reached and its item count has been checked against what the
    // file still holds, before any of its values is decoded.
    using PLAN = ORN::Function<void(DELIVERY &delivery)>;

    PlyReader() = default;
    // Reads and parses the whole file; any malformed input fails an assertion.
    explicit PlyReader(const ORN::String<char> &path);
    // The same read, with the properties the plan chooses decoded into the
    // caller's arrays. The file's errors are the same, raised in the same
    // order, as without a plan: a plan should refuse nothing itself but
    // check what it needs once the reader is made.
    PlyReader(const ORN::String<char> &path, const PLAN &plan);

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

// The element whose body is about to be read, and where its chosen
// properties go. A delivered property's item i is written to
// data[i * stride]: "float" and "double" values into float or double arrays
// (rounded as static_cast does), "uchar", "uint16", "uint32" and "uint64"
// values into bytes (values above 255 become 255). The arrays must hold
// element_size () items at that stride and stay valid until the reader is
// made. A delivered property is not kept: its getters fail their
// storage-class assertion.
class PlyReader::DELIVERY {
public:
    ORN::INDEX element_index() const noexcept { return mElement; }
    ORN::INDEX find_element(const ORN::String<char> &name) const;
    ORN::INDEX element_size() const;
    ORN::INDEX find_property(const ORN::String<char> &name) const;

    // True when the property will be delivered: a scalar property of the
    // array's storage class; false leaves it to the reader (a list, another
    // class), whose getters then answer or refuse it as usual.
    bool deliver(ORN::INDEX property_index, float *data, ORN::INDEX stride);
    bool deliver(ORN::INDEX property_index, double *data, ORN::INDEX stride);
    bool deliver(ORN::INDEX property_index, std::uint8_t *data, ORN::INDEX stride);

private:
    friend class PlyReader::Implement;
    // Where one property's values go: mData nullptr while the reader keeps them.
    struct TARGET {
        void *mData = nullptr;
        ORN::INDEX mKind = 0; // 0 float, 1 double, 2 uint8
        ORN::INDEX mStride = 0;
    };
    DELIVERY(const Implement &reader, ORN::INDEX element_index);
    bool deliver(ORN::INDEX property_index, void *data, ORN::INDEX kind, ORN::INDEX stride);

    const Implement &mReader;
    ORN::INDEX mElement;
    ORN::Array<TARGET> mTarget;
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
