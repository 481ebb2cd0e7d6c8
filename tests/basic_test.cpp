// Assertion texts, references, functions and containers of the core library.
#include "__ORN__/orn_array.h"
#include "__ORN__/orn_basic.h"

#include "support.h"

namespace {

using namespace zarn_test;

constexpr int kCheckedHalfLine = __LINE__ + 2; // the assertion's line below
int checked_half(int x) {
    _DYNAMIC_ASSERT_(x % 2 == 0);
    return x / 2;
}

// Each of `texts` is the assertion text of `condition`.
void expect_asserts(const std::string &condition, std::initializer_list<std::string> texts) {
    for (const std::string &text : texts)
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : " + condition + " : at ")) << text;
}

TEST(Assertion, TextNamesConditionFunctionRelativeFileAndLine) {
    EXPECT_EQ(failure_of([] { checked_half(3); }),
              "dynamic_assert failed : x % 2 == 0 : at int {anonymous}::checked_half(int) in tests/basic_test.cpp ," +
                  std::to_string(kCheckedHalfLine));
}

TEST(Assertion, CallTryTurnsAnyExceptionIntoFalseAndTryFallsBack) {
    EXPECT_EQ(_CALL_TRY_([] { return 7; }), 7);
    const std::string text = failure_of([] { _CALL_TRY_([] { throw 42; }); });
    EXPECT_TRUE(contains(text, " in tests/basic_test.cpp ,")) << text;
    // An assertion raised inside is turned into "false" as well.
    expect_asserts("false", {text, failure_of([] { _CALL_TRY_([] { checked_half(1); }); })});
    EXPECT_EQ(ORN::try_invoke([] { return 3; }, 9), 3);
    EXPECT_EQ(ORN::try_invoke([]() -> int { throw std::runtime_error("x"); }, 9), 9);
    EXPECT_FALSE(ORN::try_run([] { checked_half(1); }));
    EXPECT_TRUE(ORN::try_run([] {}));
}

TEST(References, EmptyAccessAssertsExist) {
    expect_asserts("exist ()", {failure_of([] { *ORN::StrongRef<int>(); }), failure_of([] { *ORN::AutoRef<int>(); }),
                                failure_of([] { ORN::Function<int()>()(); }),
                                failure_of([] { ORN::UniqueRef<void *>().self(); })});
}

TEST(References, FunctionKeepsSmallAndLargeCallablesAndDestroysEachCopyOnce) {
    // Every live copy of a callable holds one count of `census`.
    const auto census = std::make_shared<int>();
    {
        // Three words of state: kept in place. Six words: on the heap.
        const long a = 1, b = 2, d = 3, e = 4;
        ORN::Function<long(long)> small = [census, a](long x) { return x + a; };
        ORN::Function<long(long)> large = [census, a, b, d, e](long x) { return x + a + b + d + e; };
        ORN::Function<long(long)> small_copy = small, large_copy = large, moved = std::move(large);
        EXPECT_FALSE(large.exist());
        EXPECT_EQ(census.use_count(), 5);
        EXPECT_EQ((std::vector<long>{small(10), small_copy(10), large_copy(10), moved(10)}),
                  (std::vector<long>{11, 11, 20, 20}));
        small = moved;
        small_copy.reset();
        EXPECT_EQ(small(0), 10);
        EXPECT_EQ(census.use_count(), 4);
    }
    EXPECT_EQ(census.use_count(), 1);
    // A null function pointer or an empty function makes an empty function.
    int (*none)() = nullptr;
    EXPECT_FALSE(ORN::Function<int()>(none).exist());
    EXPECT_FALSE(ORN::Function<int()>(std::function<int()>()).exist());
    EXPECT_FALSE(ORN::Function<long()>(ORN::Function<int()>()).exist());
}

TEST(References, UniqueAndStrongRefsReleaseOnce) {
    int released = 0;
    {
        ORN::UniqueRef<int> a(5, [&](int &v) { released += v; });
        ORN::UniqueRef<int> b = std::move(a);
        EXPECT_FALSE(a.exist());
        EXPECT_EQ(released, 0);
        b = ORN::UniqueRef<int>(7, [&](int &v) { released += v; });
        EXPECT_EQ(released, 5);
    }
    EXPECT_EQ(released, 12);
    // A strong reference lets its value go with the last copy.
    const auto token = std::make_shared<int>();
    auto strong = ORN::StrongRef<std::shared_ptr<int>>::make(token);
    auto copy = strong;
    strong.reset();
    EXPECT_EQ(token.use_count(), 2);
    copy.reset();
    EXPECT_EQ(token.use_count(), 1);
}

TEST(Containers, OutOfRangeAccessAsserts) {
    const ORN::Array<int> a{1, 2, 3};
    expect_asserts("index >= 0 && index < size ()",
                   {failure_of([&] { a[3]; }), failure_of([&] { a[-1]; }), failure_of([] { ORN::ArrayList<int>()[0]; }),
                    failure_of([] { ORN::Buffer<unsigned char>(2)[2]; }), failure_of([] { ORN::BitSet(3).set(3); })});
}

TEST(Containers, SetMapsItemsToPositionsAndAssertsMissingKey) {
    ORN::Set<ORN::INDEX> s{10, 20, 30};
    EXPECT_EQ(s.insert(20), 1);
    EXPECT_EQ(s.find(99), ORN::VAR_NONE);
    EXPECT_TRUE(s.erase(10));
    EXPECT_EQ(s.find(30), 0); // the last item fills the freed position
    expect_asserts("used (index)", {failure_of([&] { s.map(10); })});
}

TEST(Containers, ArrayListKeepsAddressesBitSetAndBufferKeepContents) {
    ORN::ArrayList<std::string> l;
    const std::string *first = &l.append("first");
    for (int i = 0; i < 10000; ++i)
        l.append(std::to_string(i));
    EXPECT_EQ(first, &l[0]);
    EXPECT_EQ(*first, "first");

    ORN::BitSet bits(130);
    for (const int i : {0, 129, 64})
        bits.set(i);
    bits.set(64, false);
    EXPECT_TRUE(bits.get(129) && !bits.get(64));
    EXPECT_EQ(bits.count(), 2);

    auto b = ORN::Buffer<unsigned char>::from_text("abc");
    b.resize(5);
    b[3] = 'd';
    b.resize(4);
    EXPECT_EQ(b.text(), "abcd");
    EXPECT_EQ(ORN::Buffer<unsigned char>(b), b);
}

} // namespace
