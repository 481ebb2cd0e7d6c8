// Assertion texts, references, functions and containers of the core library.
#include "__ORN__/orn_array.h"
#include "__ORN__/orn_basic.h"

#include "support.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

using zarn_test::failure_of;

int checked_half(int x) {
    _DYNAMIC_ASSERT_(x % 2 == 0);
    return x / 2;
}

TEST(Assertion, TextNamesConditionFunctionRelativeFileAndLine) {
    EXPECT_EQ(checked_half(4), 2);
    const int line = __LINE__ - 6;
    EXPECT_EQ(failure_of([] { checked_half(3); }),
              "dynamic_assert failed : x % 2 == 0 : at int {anonymous}::checked_half(int) in tests/basic_test.cpp ," +
                  std::to_string(line));
}

TEST(Assertion, CallTryTurnsAnyEscapingExceptionIntoFalse) {
    EXPECT_EQ(_CALL_TRY_([] { return 7; }), 7);
    const std::string text = failure_of([] { _CALL_TRY_([] { throw 42; }); });
    EXPECT_EQ(text.rfind("dynamic_assert failed : false : at ", 0), 0u) << text;
    EXPECT_NE(text.find("in tests/basic_test.cpp ,"), std::string::npos);
    // An assertion raised inside is turned into "false" as well.
    EXPECT_EQ(failure_of([] { _CALL_TRY_([] { checked_half(1); }); }).find("x % 2"), std::string::npos);
}

TEST(Assertion, TryInvokeFallsBackOnAnyException) {
    EXPECT_EQ(ORN::try_invoke([] { return 3; }, 9), 3);
    EXPECT_EQ(ORN::try_invoke([]() -> int { throw std::runtime_error("x"); }, 9), 9);
    EXPECT_FALSE(ORN::try_run([] { checked_half(1); }));
    EXPECT_TRUE(ORN::try_run([] {}));
}

TEST(References, EmptyAccessAssertsExist) {
    ORN::StrongRef<int> s;
    ORN::AutoRef<int> a;
    ORN::Function<int()> f;
    ORN::UniqueRef<void *> u;
    for (const std::string &text : {failure_of([&] { *s; }), failure_of([&] { *a; }), failure_of([&] { f(); }),
                                    failure_of([&] { u.self(); })})
        EXPECT_EQ(text.rfind("dynamic_assert failed : exist () : at ", 0), 0u) << text;
}

// Counts live copies of a captured object, to see each callable destroyed once.
struct Census {
    int *mLive;
    explicit Census(int *live) : mLive(live) { ++*mLive; }
    Census(const Census &o) : mLive(o.mLive) { ++*mLive; }
    ~Census() { --*mLive; }
};

TEST(References, FunctionKeepsSmallAndLargeCallablesAndDestroysEachCopyOnce) {
    int live = 0;
    {
        // One word of state with the census: kept in place. Five words: on the heap.
        Census c(&live);
        const long a = 1, b = 2, d = 3, e = 4;
        ORN::Function<long(long)> small = [c, a](long x) { return x + a; };
        ORN::Function<long(long)> large = [c, a, b, d, e](long x) { return x + a + b + d + e; };
        EXPECT_EQ(live, 3);
        ORN::Function<long(long)> small_copy = small, large_copy = large;
        EXPECT_EQ(live, 5);
        ORN::Function<long(long)> moved = std::move(large);
        EXPECT_FALSE(large.exist());
        EXPECT_EQ(live, 5);
        EXPECT_EQ(small(10), 11);
        EXPECT_EQ(small_copy(10), 11);
        EXPECT_EQ(large_copy(10), 20);
        EXPECT_EQ(moved(10), 20);
        small = moved;
        EXPECT_EQ(small(0), 10);
        EXPECT_EQ(live, 5);
        small_copy.reset();
        EXPECT_FALSE(small_copy.exist());
        EXPECT_EQ(live, 4);
    }
    EXPECT_EQ(live, 0);

    // A null function pointer or an empty function makes an empty function.
    int (*none)() = nullptr;
    EXPECT_FALSE(ORN::Function<int()>(none).exist());
    EXPECT_FALSE(ORN::Function<int()>(std::function<int()>()).exist());
    EXPECT_FALSE(ORN::Function<long()>(ORN::Function<int()>()).exist());
    EXPECT_EQ(ORN::Function<long()>(ORN::Function<int()>([] { return 7; }))(), 7);
}

TEST(References, UniqueRefReleasesOnceOnResetMoveAndDestruction) {
    int released = 0;
    {
        ORN::UniqueRef<int> a(5, [&](int &v) { released += v; });
        ORN::UniqueRef<int> b = std::move(a);
        EXPECT_FALSE(a.exist());
        EXPECT_EQ(b.self(), 5);
        EXPECT_EQ(released, 0);
        b = ORN::UniqueRef<int>(7, [&](int &v) { released += v; });
        EXPECT_EQ(released, 5);
    }
    EXPECT_EQ(released, 12);
}

TEST(References, StrongRefSharesAndReleasesWithLastCopy) {
    auto counter = std::make_shared<int>(0);
    struct Probe {
        std::shared_ptr<int> c;
        ~Probe() { ++*c; }
    };
    auto a = ORN::StrongRef<Probe>::make(Probe{counter});
    *counter = 0;
    {
        auto b = a;
        EXPECT_EQ(a.use_count(), 2);
    }
    EXPECT_EQ(*counter, 0);
    a.reset();
    EXPECT_EQ(*counter, 1);
}

TEST(Containers, OutOfRangeAccessAsserts) {
    ORN::Array<int> a{1, 2, 3};
    ORN::ArrayList<int> l;
    l.append(4);
    ORN::Buffer<unsigned char> b(2);
    ORN::BitSet bits(3);
    for (const std::string &text : {failure_of([&] { a[3]; }), failure_of([&] { a[-1]; }), failure_of([&] { l[1]; }),
                                    failure_of([&] { b[2]; }), failure_of([&] { bits.set(3); })})
        EXPECT_EQ(text.rfind("dynamic_assert failed : index >= 0 && index < size () : at ", 0), 0u) << text;
}

TEST(Containers, SetMapsItemsToPositionsAndAssertsMissingKey) {
    ORN::Set<ORN::INDEX> s{10, 20, 30};
    EXPECT_EQ(s.find(20), 1);
    EXPECT_EQ(s.find(99), ORN::VAR_NONE);
    EXPECT_EQ(s.insert(20), 1);
    EXPECT_TRUE(s.erase(10));
    EXPECT_EQ(s.find(30), 0); // the last item fills the freed position
    EXPECT_EQ(s[0], 30);
    EXPECT_EQ(s.size(), 2);
    EXPECT_EQ(failure_of([&] { s.map(10); }).rfind("dynamic_assert failed : used (index) : at ", 0), 0u);
}

TEST(Containers, ArrayListKeepsAddressesWhileGrowing) {
    ORN::ArrayList<std::string> l;
    const std::string *first = &l.append("first");
    for (int i = 0; i < 10000; ++i)
        l.append(std::to_string(i));
    EXPECT_EQ(first, &l[0]);
    EXPECT_EQ(*first, "first");
}

TEST(Containers, BitSetAndBuffer) {
    ORN::BitSet bits(130);
    bits.set(0);
    bits.set(129);
    bits.set(64);
    bits.set(64, false);
    EXPECT_TRUE(bits.get(129));
    EXPECT_FALSE(bits.get(64));
    EXPECT_EQ(bits.count(), 2);

    auto b = ORN::Buffer<unsigned char>::from_text("abc");
    b.resize(5);
    b[3] = 'd';
    b.resize(4);
    EXPECT_EQ(b.text(), "abcd");
    ORN::Buffer<unsigned char> c = b;
    EXPECT_EQ(c, b);
    EXPECT_TRUE(ORN::Buffer<unsigned char>(0).empty());
}

} // namespace
