#pragma once

// Root of the core library: the index type, the assertion exception and its
// macros, narrow text, the owning references, type-erased functions and the
// two-member record. Everything else in the library builds on these.

#include <cstdint>
#include <exception>
#include <functional>
#include <new>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace ORN {

// Sizes and indices are signed 64-bit; VAR_NONE marks "no index".
using INDEX = std::int64_t;
using int64 = std::int64_t;
using uint64 = std::uint64_t;
inline constexpr INDEX VAR_NONE = -1;

// Root of every polymorphic object of the library.
class Interface {
public:
    virtual ~Interface() = default;
};

// The exception every failed check raises; what() is the full assertion text.
class Exception : public std::exception {
public:
    explicit Exception(std::string text) noexcept : mText(std::move(text)) {}
    // Defined out of line so that the type's identity lives in the core
    // library and an exception thrown in one module is caught in another.
    ~Exception() override;
    const char *what() const noexcept override;
    const std::string &text() const noexcept { return mText; }

private:
    std::string mText;
};

namespace Private {
// Builds "dynamic_assert failed : <cond> : at <function> in <file> ,<line>"
// and throws it. Out of line so that every check site stays one branch.
[[noreturn]] void raise_assertion(const char *condition, const char *function, const char *file, long line);
} // namespace Private

// Narrow text; paths, setting values and JSON scalars are held in it. A thin
// face over std::basic_string: every member of the standard string is its
// own, and the two convert into each other implicitly in both directions, so
// a standard string can be passed wherever a String is taken. A view
// converts explicitly, as it does to the standard string. Being a class of
// its own (not an alias), it keeps its name and qualifiers in the function
// signatures that assertion texts quote.
template <class CHAR>
class String : public std::basic_string<CHAR> {
public:
    using Base = std::basic_string<CHAR>;
    using Base::Base;
    using Base::operator=;

    String() = default;
    String(const Base &other) : Base(other) {}
    String(Base &&other) noexcept : Base(std::move(other)) {}

    // A part of a String is a String.
    String substr(typename Base::size_type pos = 0, typename Base::size_type count = Base::npos) const {
        return Base::substr(pos, count);
    }
};

// A character as the unsigned byte the text readers compare against.
constexpr unsigned char STRU8(char c) noexcept { return static_cast<unsigned char>(c); }

} // namespace ORN

// Checks a condition and raises ORN::Exception with the condition text exactly
// as written at the call site. Never compiled out: assertions are behaviour.
#define _DYNAMIC_ASSERT_(...)                                                                                          \
    do {                                                                                                               \
        if (!(__VA_ARGS__)) [[unlikely]]                                                                               \
            ::ORN::Private::raise_assertion(#__VA_ARGS__, __PRETTY_FUNCTION__, __FILE__, __LINE__);                    \
    } while (false)

// Runs a callable; any exception escaping it becomes the assertion "false" of
// the calling function, after a console line with the exception's own text.
// Yields the callable's result.
#define _CALL_TRY_(...) ::ORN::Private::call_try(__VA_ARGS__, __PRETTY_FUNCTION__, __FILE__, __LINE__)

namespace ORN::Private {
// Logs the text of an exception that escaped a guarded call (its what(), or
// "unknown exception"), on the line before the assertion that replaces it.
void report_escaped(const char *text) noexcept;

template <class F>
decltype(auto) call_try(F &&f, const char *function, const char *file, long line) {
    try {
        return std::forward<F>(f)();
    } catch (const std::exception &e) {
        report_escaped(e.what());
    } catch (...) {
        report_escaped(nullptr);
    }
    raise_assertion("false", function, file, line);
}
} // namespace ORN::Private

// A String hashes as the standard string it is, so that it keys unordered
// containers the same way.
template <class CHAR>
struct std::hash<ORN::String<CHAR>> : std::hash<std::basic_string<CHAR>> {};

namespace ORN {

// The try-with-fallback pair: try_invoke runs a callable and yields its
// result, or the fallback when anything is thrown; try_run only swallows.
template <class F, class T>
auto try_invoke(F &&f, T &&fallback) noexcept(std::is_nothrow_constructible_v<std::decay_t<T>, T &&>) {
    using R = std::decay_t<T>;
    try {
        return static_cast<R>(std::forward<F>(f)());
    } catch (...) {
        return static_cast<R>(std::forward<T>(fallback));
    }
}

template <class F>
bool try_run(F &&f) noexcept {
    try {
        std::forward<F>(f)();
        return true;
    } catch (...) {
        return false;
    }
}

// ---------------------------------------------------------------------------
// References. Access through a reference that holds nothing asserts "exist ()".

// Counted shared reference.
template <class T>
class StrongRef {
public:
    StrongRef() noexcept = default;
    StrongRef(std::nullptr_t) noexcept {}
    explicit StrongRef(std::shared_ptr<T> p) noexcept : mPointer(std::move(p)) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U *, T *>>>
    StrongRef(const StrongRef<U> &other) noexcept : mPointer(other.shared()) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U *, T *>>>
    StrongRef(StrongRef<U> &&other) noexcept : mPointer(std::move(other).shared()) {}

    template <class... A>
    static StrongRef make(A &&...args) {
        return StrongRef(std::make_shared<T>(std::forward<A>(args)...));
    }

    bool exist() const noexcept { return static_cast<bool>(mPointer); }
    T &self() const {
        _DYNAMIC_ASSERT_(exist ());
        return *mPointer;
    }
    T *operator->() const { return &self(); }
    T &operator*() const { return self(); }
    T *get() const noexcept { return mPointer.get(); }
    void reset() noexcept { mPointer.reset(); }
    INDEX use_count() const noexcept { return mPointer.use_count(); }

    const std::shared_ptr<T> &shared() const & noexcept { return mPointer; }
    std::shared_ptr<T> shared() && noexcept { return std::move(mPointer); }

    friend bool operator==(const StrongRef &a, const StrongRef &b) noexcept { return a.mPointer == b.mPointer; }

private:
    std::shared_ptr<T> mPointer;
};

// Unique owning reference.
template <class T>
class AutoRef {
public:
    AutoRef() noexcept = default;
    AutoRef(std::nullptr_t) noexcept {}
    explicit AutoRef(std::unique_ptr<T> p) noexcept : mPointer(std::move(p)) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U *, T *>>>
    AutoRef(AutoRef<U> &&other) noexcept : mPointer(std::move(other).unique()) {}

    template <class... A>
    static AutoRef make(A &&...args) {
        return AutoRef(std::make_unique<T>(std::forward<A>(args)...));
    }

    bool exist() const noexcept { return static_cast<bool>(mPointer); }
    T &self() const {
        _DYNAMIC_ASSERT_(exist ());
        return *mPointer;
    }
    T *operator->() const { return &self(); }
    T &operator*() const { return self(); }
    T *get() const noexcept { return mPointer.get(); }
    void reset() noexcept { mPointer.reset(); }
    std::unique_ptr<T> unique() && noexcept { return std::move(mPointer); }

private:
    std::unique_ptr<T> mPointer;
};

// Type-erased callable. Calling an empty one asserts "exist ()".
//
// A callable of up to three words (a lambda capturing `this` and two
// references, say) is kept inside the object; a larger one on the heap. The
// object is four words, like std::function, which keeps only two words in
// place. Made from a null function pointer or an empty function, it is empty.
template <class>
class Function;

namespace Private {
template <class>
struct IsStdFunction : std::false_type {};
template <class S>
struct IsStdFunction<std::function<S>> : std::true_type {};
template <class>
struct IsOwnFunction : std::false_type {};
template <class S>
struct IsOwnFunction<Function<S>> : std::true_type {};
} // namespace Private

template <class R, class... A>
class Function<R(A...)> {
    static constexpr std::size_t kInline = 3 * sizeof(void *);

    // What the object does with the callable it holds; one table per type
    // and place (in the object or on the heap).
    struct OPS {
        R (*mCall)(void *, A &&...);
        void (*mCopy)(void *to, const void *from);
        void (*mMove)(void *to, void *from) noexcept; // and destroys the source
        void (*mDestroy)(void *) noexcept;
        bool mPlain; // destroying runs no code
    };
    template <class F>
    static constexpr bool kInPlace =
        sizeof(F) <= kInline && alignof(F) <= alignof(void *) && std::is_nothrow_move_constructible_v<F>;

    template <class F>
    static R invoke(F &f, A &&...args) {
        if constexpr (std::is_void_v<R>)
            std::invoke(f, std::forward<A>(args)...);
        else
            return std::invoke(f, std::forward<A>(args)...);
    }
    template <class F>
    struct InPlace {
        static F &self(void *p) noexcept { return *std::launder(static_cast<F *>(p)); }
        static R call(void *p, A &&...args) { return invoke(self(p), std::forward<A>(args)...); }
        static void copy(void *to, const void *from) { ::new (to) F(*std::launder(static_cast<const F *>(from))); }
        static void move(void *to, void *from) noexcept {
            ::new (to) F(std::move(self(from)));
            self(from).~F();
        }
        static void destroy(void *p) noexcept { self(p).~F(); }
        static constexpr OPS kOps{&call, &copy, &move, &destroy, std::is_trivially_destructible_v<F>};
    };
    template <class F>
    struct OnHeap {
        static F *&self(void *p) noexcept { return *std::launder(static_cast<F **>(p)); }
        static R call(void *p, A &&...args) { return invoke(*self(p), std::forward<A>(args)...); }
        static void copy(void *to, const void *from) { ::new (to) F *(new F(**std::launder(static_cast<F *const *>(from)))); }
        static void move(void *to, void *from) noexcept { ::new (to) F *(self(from)); }
        static void destroy(void *p) noexcept { delete self(p); }
        static constexpr OPS kOps{&call, &copy, &move, &destroy, false};
    };

public:
    Function() noexcept = default;
    Function(std::nullptr_t) noexcept {}
    template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, Function> &&
                                                std::is_invocable_r_v<R, F &, A...>>>
    Function(F &&f) {
        using D = std::decay_t<F>;
        static_assert(std::is_copy_constructible_v<D>, "a function is copyable, so is what it holds");
        if constexpr (std::is_pointer_v<D> || std::is_member_pointer_v<D>) {
            if (f == nullptr)
                return;
        } else if constexpr (Private::IsStdFunction<D>::value) {
            if (!f)
                return;
        } else if constexpr (Private::IsOwnFunction<D>::value) {
            if (!f.exist())
                return;
        }
        if constexpr (kInPlace<D>) {
            ::new (static_cast<void *>(mBuffer)) D(std::forward<F>(f));
            mOps = &InPlace<D>::kOps;
        } else {
            ::new (static_cast<void *>(mBuffer)) D *(new D(std::forward<F>(f)));
            mOps = &OnHeap<D>::kOps;
        }
    }
    Function(const Function &other) {
        if (other.mOps) {
            other.mOps->mCopy(mBuffer, other.mBuffer);
            mOps = other.mOps;
        }
    }
    Function(Function &&other) noexcept {
        if (other.mOps) {
            other.mOps->mMove(mBuffer, other.mBuffer);
            mOps = std::exchange(other.mOps, nullptr);
        }
    }
    Function &operator=(const Function &other) {
        if (this != &other)
            *this = Function(other);
        return *this;
    }
    Function &operator=(Function &&other) noexcept {
        if (this != &other) {
            reset();
            if (other.mOps) {
                other.mOps->mMove(mBuffer, other.mBuffer);
                mOps = std::exchange(other.mOps, nullptr);
            }
        }
        return *this;
    }
    ~Function() { reset(); }

    bool exist() const noexcept { return mOps != nullptr; }
    R operator()(A... args) const {
        _DYNAMIC_ASSERT_(exist ());
        return mOps->mCall(const_cast<unsigned char *>(mBuffer), std::forward<A>(args)...);
    }
    void reset() noexcept {
        if (const OPS *ops = std::exchange(mOps, nullptr))
            ops->mDestroy(mBuffer);
    }
    // True when reset runs no code: empty, or holding in place a callable
    // without a destructor (a lambda that captures pointers and references).
    bool plain() const noexcept { return !mOps || mOps->mPlain; }

private:
    alignas(void *) unsigned char mBuffer[kInline];
    const OPS *mOps = nullptr;
};

// Owner with release: holds a plain value (a handle, a pointer) together with
// the function that releases it. The release runs when the owner is reset,
// reassigned or destroyed.
template <class T>
class UniqueRef {
public:
    UniqueRef() noexcept = default;
    UniqueRef(T value, Function<void(T &)> release) : mValue(std::move(value)), mRelease(std::move(release)), mExist(true) {}
    UniqueRef(const UniqueRef &) = delete;
    UniqueRef &operator=(const UniqueRef &) = delete;
    UniqueRef(UniqueRef &&other) noexcept
        : mValue(std::move(other.mValue)), mRelease(std::move(other.mRelease)), mExist(std::exchange(other.mExist, false)) {}
    UniqueRef &operator=(UniqueRef &&other) noexcept {
        if (this != &other) {
            reset();
            mValue = std::move(other.mValue);
            mRelease = std::move(other.mRelease);
            mExist = std::exchange(other.mExist, false);
        }
        return *this;
    }
    ~UniqueRef() { reset(); }

    bool exist() const noexcept { return mExist; }
    T &self() {
        _DYNAMIC_ASSERT_(exist ());
        return mValue;
    }
    const T &self() const {
        _DYNAMIC_ASSERT_(exist ());
        return mValue;
    }
    void reset() noexcept {
        if (!mExist)
            return;
        mExist = false;
        if (mRelease.exist())
            try_run([&] { mRelease(mValue); });
        mValue = T();
    }

private:
    T mValue{};
    Function<void(T &)> mRelease;
    bool mExist = false;
};

// Two-member record; the first member is the object.
template <class A, class B>
struct PACK {
    A mP1;
    B mP2;
    friend bool operator==(const PACK &, const PACK &) = default;
};

} // namespace ORN
