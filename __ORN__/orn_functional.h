#pragma once

// The node graph evaluator: a lazy, memoising dependency graph.
//
// A node is identified by its type (optionally together with an integer key),
// holds one value of that type, names the nodes it needs and carries up to two
// actions that compute it. The graph runs each needed action once,
// dependencies before dependents, in a deterministic order, measures the time
// of every action, and frees a value as soon as every node that needs it has
// been played.
//
// A node type is a struct constructed from the graph; its constructor declares
// the node:
//
//     struct CON_mSplitDataJson {
//         ORN_NODE(CON_mSplitDataJson);
//         ORN::JsonParser mSelf;
//         explicit CON_mSplitDataJson(ORN::SyntaxTree &tree) {
//             auto &path = tree.stack<VAR_mWorkingPath>();
//             tree.once([this, &path] { mSelf = ...; });
//         }
//     };
//
// Values are built in place on the heap and never move afterwards, so actions
// may capture `this` and references to their dependencies' values.
//
// Order. Every node gets an order stamp when it is first mentioned (a counter,
// so declaration order); stamps spread as a minimum along dependency edges,
// except along the edges leaving the root. Pending nodes run by ascending
// (stamp, -depth): everything a top-level action needs carries that action's
// stamp and runs before anything of a top-level action declared after it, and
// within one stamp deeper nodes run first. Two pending nodes with the same
// stamp and depth run in the order of their node index (the node mentioned
// first runs first).
//
// Iteration. `redo<T>(value)` hands a value (by reference) to the iteration
// node T, which reads it with `later<V>()` in its action. A value can be handed
// only while T has not played, so an iteration node plays at most once, with
// the value handed last; iterations never replay. When an iteration node
// declares another iteration node with `stack`, the pair is recorded as
// linked; as nothing replays, the link only shows in `to_dot` (dotted edge).

#include "orn_array.h"
#include "orn_basic.h"

#include <bit>
#include <concepts>
#include <cstdint>
#include <typeinfo>
#include <vector>

// Gives a node type its name text, e.g. `ORN_NODE(ACT_mWorkingPath);` inside
// `struct ACT_mWorkingPath`. Types without it are named after their
// unqualified type name.
#define ORN_NODE(NAME_) static constexpr const char *NAME = #NAME_

namespace ORN {

namespace Private {
// One tag object per type; its address is the type's identity.
template <class T>
struct TypeTag {
    static constexpr char mTag = 0;
};
// Demangled type name without its namespace and class qualification.
String<char> short_type_name(const char *mangled);
} // namespace Private

template <class T>
inline const void *type_tag() noexcept {
    return &Private::TypeTag<T>::mTag;
}

// Type-erased reference to one object: owning (the object is deleted with the
// reference) or borrowed (the caller keeps the object alive). Access with the
// wrong type asserts "holds<T> ()". Two words: the object and a per-type
// table that tells its type and how it is let go.
class AnyRef {
    struct KIND {
        const void *mType;
        void (*mDrop)(void *) noexcept; // nullptr when borrowed
        bool mPlain;                    // letting go runs no code
    };
    template <class T>
    struct Kinds {
        static void drop(void *p) noexcept { delete static_cast<T *>(p); }
        static void destroy(void *p) noexcept { static_cast<T *>(p)->~T(); }
        static constexpr KIND kOwned{&Private::TypeTag<T>::mTag, &drop, false};
        static constexpr KIND kPlaced{&Private::TypeTag<T>::mTag, &destroy, std::is_trivially_destructible_v<T>};
        static constexpr KIND kBorrowed{&Private::TypeTag<T>::mTag, nullptr, true};
    };

public:
    AnyRef() noexcept = default;
    AnyRef(const AnyRef &) = delete;
    AnyRef &operator=(const AnyRef &) = delete;
    AnyRef(AnyRef &&other) noexcept
        : mPointer(std::exchange(other.mPointer, nullptr)), mKind(std::exchange(other.mKind, nullptr)) {}
    AnyRef &operator=(AnyRef &&other) noexcept {
        if (this != &other) {
            reset();
            mPointer = std::exchange(other.mPointer, nullptr);
            mKind = std::exchange(other.mKind, nullptr);
        }
        return *this;
    }
    ~AnyRef() { reset(); }

    // Takes ownership of an object made with `new`.
    template <class T>
    static AnyRef own(T *object) noexcept {
        return AnyRef(object, &Kinds<T>::kOwned);
    }
    // Takes ownership of an object built in storage that someone else keeps:
    // letting it go runs its destructor only.
    template <class T>
    static AnyRef place(T *object) noexcept {
        return AnyRef(object, &Kinds<T>::kPlaced);
    }
    // Refers to an object kept alive by someone else.
    template <class T>
    static AnyRef borrow(const T &object) noexcept {
        return AnyRef(const_cast<T *>(&object), &Kinds<T>::kBorrowed);
    }

    bool exist() const noexcept { return mPointer != nullptr; }
    bool owning() const noexcept { return mKind && mKind->mDrop; }
    // True when reset runs no code: empty, borrowed, or placed without a
    // destructor.
    bool plain() const noexcept { return !mKind || mKind->mPlain; }
    template <class T>
    bool holds() const noexcept {
        return mKind && mKind->mType == type_tag<T>();
    }
    template <class T>
    T &self() const {
        _DYNAMIC_ASSERT_(exist ());
        _DYNAMIC_ASSERT_(holds<T> ());
        return *static_cast<T *>(mPointer);
    }
    // Drops the reference; an owned object is destroyed.
    void reset() noexcept {
        void *p = std::exchange(mPointer, nullptr);
        const KIND *kind = std::exchange(mKind, nullptr);
        if (p && kind->mDrop)
            kind->mDrop(p);
    }

private:
    AnyRef(void *pointer, const KIND *kind) noexcept : mPointer(pointer), mKind(kind) {}

    void *mPointer = nullptr;
    const KIND *mKind = nullptr;
};

class SyntaxTree {
public:
    // Set of node indices, as ORN::Set: positions run from 0 to size () - 1 in
    // insertion order, find yields the position or VAR_NONE, and erasing moves
    // the last item into the freed position. Most nodes have one or two
    // parents and children, so up to three items are kept inside the object
    // (no allocation at all); beyond that they live in one heap array, and a
    // set of more than kLinear items adds an open-addressing index of
    // positions for find.
    class EDGE_SET {
    public:
        EDGE_SET() noexcept {}
        EDGE_SET(const EDGE_SET &) = delete;
        EDGE_SET &operator=(const EDGE_SET &) = delete;
        ~EDGE_SET() { release(); }

        INDEX size() const noexcept { return mSize; }
        INDEX length() const noexcept { return mSize; }
        bool empty() const noexcept { return mSize == 0; }
        INDEX find(INDEX item) const noexcept {
            if (hashed())
                return find_hashed(item);
            const INDEX *items = data();
            for (std::uint32_t i = 0; i < mSize; ++i)
                if (items[i] == item)
                    return static_cast<INDEX>(i);
            return VAR_NONE;
        }
        // Inserts the item if absent; returns its position either way.
        INDEX insert(INDEX item) {
            const INDEX found = find(item);
            return found != VAR_NONE ? found : push(item);
        }
        // Removes the item if present; returns whether it was.
        bool erase(INDEX item);
        void clear() noexcept {
            release();
            mSize = 0;
            mCapacity = kInline;
        }
        INDEX operator[](INDEX index) const {
            _DYNAMIC_ASSERT_(index >= 0 && index < size ());
            return data()[index];
        }
        const INDEX *begin() const noexcept { return data(); }
        const INDEX *end() const noexcept { return data() + mSize; }

    private:
        static constexpr std::uint32_t kInline = 3;
        static constexpr std::uint32_t kLinear = 16;

        bool on_heap() const noexcept { return mCapacity > kInline; }
        bool hashed() const noexcept { return on_heap() && mHeap.mTable; }
        const INDEX *data() const noexcept { return on_heap() ? mHeap.mItems : mInline; }
        INDEX push(INDEX item);
        void grow();
        void build_table();
        INDEX find_hashed(INDEX item) const noexcept;
        std::uint32_t home(INDEX item) const noexcept {
            return static_cast<std::uint32_t>((static_cast<std::uint64_t>(item) * 0x9E3779B97F4A7C15ull) >> mHeap.mShift);
        }
        void release() noexcept;

        struct HEAP {
            INDEX *mItems;
            std::int32_t *mTable; // positions, -1 in a free slot; nullptr up to kLinear items
            std::uint32_t mShift; // 64 - log2 (table size)
        };
        std::uint32_t mSize = 0;
        std::uint32_t mCapacity = kInline; // inline exactly while it is kInline
        union {
            INDEX mInline[kInline];
            HEAP mHeap;
        };
    };

    // One node, four cache lines. The fields that scheduling and release
    // read for every node come first, so that a walk over many nodes touches
    // few cache lines of each.
    struct alignas(64) NODE {
        bool mIsFunction = false;    // set by mark_as_function
        bool mIsIteration = false;   // set by mark_as_iteration; the value comes from redo
        bool mPlaying = false;       // scheduled by the current play
        bool mOncePlayed = false;    // the first phase (mOnceActor) is done
        bool mPlayed = false;        // both phases are done
        INDEX mFinishCount = 0;      // how many nodes of mParent have finished
        INDEX mOrder = 0;            // order stamp
        INDEX mDepth = 0;            // longest distance from the root
        EDGE_SET mChild;             // nodes this one depends on (stack)
        EDGE_SET mParent;            // nodes that depend on this one
        EDGE_SET mMaybe;             // optional dependencies (maybe)
        AnyRef mValue;               // the node's value; absent until declared
        Function<void()> mOnceActor; // first action (once)
        INDEX mActionTime = 0;       // ns spent in the actions
        INDEX mReleaseTime = 0;      // ns spent freeing the value
        Function<void()> mActor;     // second action (then)
        AnyRef mLater;               // value handed by redo (borrowed)
        const char *mName = nullptr; // name text (ORN_NODE, or the type's name)
        INDEX mKey = VAR_NONE;       // integer part of the identity; VAR_NONE for plain types
    };

    struct TIME_RECORD {
        String<char> mName;
        INDEX mActionTime = 0;  // ns
        INDEX mReleaseTime = 0; // ns
    };

    SyntaxTree();
    ~SyntaxTree();
    // Actions capture the graph and its values by address: never copied or moved.
    SyntaxTree(const SyntaxTree &) = delete;
    SyntaxTree &operator=(const SyntaxTree &) = delete;

    INDEX root_node() const noexcept { return 0; }
    // The node whose declaration or action is running (the root outside).
    INDEX current_node() const { return mStack.back(); }
    INDEX size() const noexcept { return mTree.size(); }
    const NODE &node(INDEX ix) const { return mTree[ix]; }
    // Node of T (and key), or VAR_NONE when it was never mentioned.
    template <class T>
    INDEX find_node(INDEX key = VAR_NONE) const {
        return mSlots[find_slot(type_tag<T>(), key)].mIndex;
    }
    // Name text of a node; keyed nodes read "NAME[key]", the root "root".
    String<char> node_name(INDEX ix) const;

    // Declares T as a dependency of the current node and yields its value
    // (which may not be computed yet: read it in an action). The keyed form
    // identifies the node by T and key together; T is then constructed with
    // (graph, key) when it has such a constructor.
    template <class T>
    const T &stack() {
        return stack<T>(VAR_NONE);
    }
    template <class T>
    const T &stack(INDEX key);
    // Declares T as an optional dependency: the first action may fetch it
    // with stack; if it does not, the edge is dropped after that action.
    template <class T>
    void maybe() {
        maybe<T>(VAR_NONE);
    }
    template <class T>
    void maybe(INDEX key);

    void once(Function<void()> &&f);
    void then(Function<void()> &&f);
    void mark_as_function();
    void mark_as_iteration();

    // Hands `value` to the iteration node T; kept by reference until T plays.
    template <class T, class V>
    void redo(const V &value, INDEX key = VAR_NONE);
    template <class T, class V>
    void redo(const V &&value, INDEX key = VAR_NONE) = delete;
    // The value handed to the current iteration node (inside its action).
    template <class V>
    const V &later();

    void play();
    void clean();
    void play_clean();

    // Called with a node's index each time a node starts to play (before its
    // first action), e.g. to log the evaluation; an empty function stops it.
    void observe(Function<void(INDEX)> &&observer) { mObserver = std::move(observer); }

    // The switch made by clean: while absent or false, no value is freed.
    StrongRef<bool> clean_switch() const { return mCleanSwitch; }

    // Action and release time of every node, most expensive first (ties in
    // node order), and the same as text, one line per node.
    Array<TIME_RECORD> time_report() const;
    String<char> time_report_text() const;
    // Graphviz digraph of the declared graph: solid edges for stack, dashed
    // for maybe declarations not fetched, dotted for iteration links. Nodes
    // that no chain of stack edges from the root reaches (those only an
    // optional dependency leads to) have a dashed outline.
    String<char> to_dot() const;

    // While on, `maybe<T>()` also declares T (constructs its value, so that
    // T names its own dependencies), as `stack` would, without making it a
    // dependency: the whole graph a run can play is declared, for to_dot.
    // Declaring runs no action. A graph declared so is for inspection: it
    // must not be played.
    void declare_optional(bool on) noexcept { mDeclareOptional = on; }

private:
    // The node list: nodes never move once appended. Chunk c holds 64 * 2^c
    // nodes, so a small graph takes one small block and a large one grows by
    // doubling without touching earlier nodes.
    class NODE_LIST {
    public:
        NODE_LIST() noexcept = default;
        NODE_LIST(const NODE_LIST &) = delete;
        NODE_LIST &operator=(const NODE_LIST &) = delete;
        ~NODE_LIST();

        INDEX size() const noexcept { return mSize; }
        NODE &operator[](INDEX index) {
            _DYNAMIC_ASSERT_(index >= 0 && index < size ());
            return *locate(index);
        }
        const NODE &operator[](INDEX index) const {
            _DYNAMIC_ASSERT_(index >= 0 && index < size ());
            return *locate(index);
        }
        NODE &append();
        // Every node holds nothing any more (no value, action or heap edge
        // set): the storage is let go without running the nodes' destructors.
        void emptied() noexcept { mEmptied = true; }

    private:
        static constexpr int kFirstBits = 6;
        NODE *locate(INDEX index) const noexcept {
            const auto j = (static_cast<std::uint64_t>(index) >> kFirstBits) + 1;
            const int c = 63 - std::countl_zero(j);
            const auto start = ((std::uint64_t(1) << c) - 1) << kFirstBits;
            return mChunks[c] + (static_cast<std::uint64_t>(index) - start);
        }
        NODE *mChunks[64 - kFirstBits] = {};
        INDEX mSize = 0;
        bool mEmptied = false;
    };

    // Bump allocator for small values: blocks that live as long as the graph.
    class VALUE_ARENA {
    public:
        static constexpr std::size_t kSmall = 64;
        static constexpr std::size_t kAlign = 16;
        VALUE_ARENA() noexcept = default;
        VALUE_ARENA(const VALUE_ARENA &) = delete;
        VALUE_ARENA &operator=(const VALUE_ARENA &) = delete;
        ~VALUE_ARENA();
        // Room for `size` bytes aligned to `align` (at most kAlign).
        void *take(std::size_t size, std::size_t align) {
            auto at = (reinterpret_cast<std::uintptr_t>(mNext) + align - 1) & ~std::uintptr_t(align - 1);
            if (at + size > reinterpret_cast<std::uintptr_t>(mEnd)) {
                next_block();
                at = reinterpret_cast<std::uintptr_t>(mNext);
            }
            mNext = reinterpret_cast<unsigned char *>(at + size);
            return reinterpret_cast<void *>(at);
        }

    private:
        static constexpr std::size_t kBlock = std::size_t(64) << 10;
        void next_block();
        std::vector<unsigned char *> mBlocks;
        unsigned char *mNext = nullptr;
        unsigned char *mEnd = nullptr;
    };

    // The type-to-node map: open addressing over (type identity, key), a
    // power-of-two table kept at most half full. mIndex is VAR_NONE in an
    // empty slot.
    struct SLOT {
        const void *mType = nullptr;
        INDEX mKey = VAR_NONE;
        INDEX mIndex = VAR_NONE;
    };
    // The scheduling queue: a priority queue of (rank, node index). The rank
    // packs the key (order stamp, -depth) into one word, the stamp in the high
    // half and 2^32 - 1 - depth in the low half, so equal ranks mean equal
    // keys and the node index breaks the tie.
    //
    // A play schedules most nodes in one batch (everything below the current
    // node), so a large batch is sorted once and kept as a run read from the
    // front, in order, without the cache misses of a heap as large as the
    // graph. Single entries and small batches go into a four-way heap. Runs
    // are merged so that each is at least twice as long as the next one
    // (few runs, each item merged O(log n) times); the top is the least of the
    // heap's top and the runs' fronts.
    class SCHEDULE_QUEUE {
    public:
        struct ENTRY {
            std::uint64_t mRank;
            INDEX mIndex;
            bool operator<(const ENTRY &o) const noexcept { return mRank < o.mRank || (mRank == o.mRank && mIndex < o.mIndex); }
        };
        static std::uint64_t rank(INDEX order, INDEX depth) noexcept {
            return (static_cast<std::uint64_t>(order) << 32) | (0xFFFFFFFFull - static_cast<std::uint64_t>(depth));
        }
        bool empty() const noexcept { return mHeap.empty() && mRuns.empty(); }
        const ENTRY &top() const { return *least(); }
        void push(ENTRY e);
        // Adds every entry of the batch (the batch is reordered).
        void push_batch(std::vector<ENTRY> &batch);
        void pop();

    private:
        static constexpr std::size_t kRunMin = 64;
        struct RUN {
            std::vector<ENTRY> mItems;
            std::size_t mHead = 0;
            std::size_t left() const noexcept { return mItems.size() - mHead; }
        };
        // The least entry, and the run it heads (nullptr: the heap's top).
        const ENTRY *least(const RUN **from = nullptr) const;
        void pop_heap();

        std::vector<ENTRY> mHeap;
        std::vector<RUN> mRuns;
    };

    template <class T>
    static const char *name_of() {
        if constexpr (requires {
                          { T::NAME } -> std::convertible_to<const char *>;
                      })
            return T::NAME;
        else {
            static const String<char> name = Private::short_type_name(typeid(T).name());
            return name.c_str();
        }
    }
    template <class T>
    T *make_value(void *place, INDEX key) {
        if constexpr (std::is_constructible_v<T, SyntaxTree &, INDEX>)
            return place ? ::new (place) T(*this, key) : new T(*this, key);
        else {
            static_assert(std::is_constructible_v<T, SyntaxTree &>, "a node type is constructed from the graph");
            return place ? ::new (place) T(*this) : new T(*this);
        }
    }
    // A small value is built in the graph's own blocks (no allocation of its
    // own, and next to the values declared just before it); its release runs
    // its destructor, and the bytes go with the graph. A larger one is built
    // on the heap and freed with its release.
    template <class T>
    AnyRef build_value(INDEX key) {
        if constexpr (sizeof(T) <= VALUE_ARENA::kSmall && alignof(T) <= VALUE_ARENA::kAlign)
            return AnyRef::place(make_value<T>(mArena.take(sizeof(T), alignof(T)), key));
        else
            return AnyRef::own(make_value<T>(nullptr, key));
    }

    // Slot of (type, key): the one holding it, or the empty one where it goes.
    INDEX find_slot(const void *type, INDEX key) const noexcept;
    // Node of a type identity, created on first mention.
    INDEX node_of(const void *type, INDEX key, const char *name);
    // Adds ix -> iy to mChild/mParent (if new) and keeps depths consistent;
    // true when the edge is new.
    bool link_child(INDEX ix, INDEX iy);
    void link_maybe(INDEX ix, INDEX iy);
    // Records the link of step 6 (both nodes are iteration nodes).
    void link_iteration(INDEX ix, INDEX iy);
    void value_built(INDEX iy, AnyRef &&value);
    void depth_track(INDEX ix, INDEX iy);
    void schedule(INDEX ix);
    void schedule_below(INDEX ix);
    // One more dependent of ix has finished; queue ix for release when all have.
    void finish_one(INDEX ix);
    void run_actor(INDEX iy, Function<void()> &actor);

    VALUE_ARENA mArena; // before mTree: values placed in it go first
    NODE_LIST mTree;
    Function<void(INDEX)> mObserver;
    Array<SLOT> mSlots;
    INDEX mSlotsUsed = 0;
    Array<INDEX> mStack; // current-node stack, the root at the bottom
    SCHEDULE_QUEUE mQueue;
    Deque<INDEX> mCleanQueue;
    StrongRef<bool> mCleanSwitch;
    INDEX mOrderCounter = 0;
    bool mDeclareOptional = false; // maybe declares the node too (to_dot)
    Array<INDEX> mBuilt;                   // nodes in the order their values were made (each value once)
    Array<PACK<INDEX, INDEX>> mMaybeEdges; // every maybe declaration, for to_dot
    Array<PACK<INDEX, INDEX>> mIterationLinks;
    Deque<PACK<INDEX, INDEX>> mTrack; // depth_track's edge queue
    Array<INDEX> mWalk;               // schedule_below's breadth-first list
    std::vector<SCHEDULE_QUEUE::ENTRY> mBatch; // schedule_below's entries
};

template <class T>
const T &SyntaxTree::stack(INDEX key) {
    const INDEX ix = mStack.back();
    _DYNAMIC_ASSERT_(!(mTree[ix].mActor.exist ()));
    _DYNAMIC_ASSERT_(!(mTree[ix].mOncePlayed));
    const INDEX iy = node_of(type_tag<T>(), key, name_of<T>());
    _DYNAMIC_ASSERT_(ix != iy);
    if (mTree[ix].mPlaying) {
        _DYNAMIC_ASSERT_(mTree[iy].mParent.find (ix) != VAR_NONE);
        _DYNAMIC_ASSERT_(mTree[ix].mMaybe.find (iy) != VAR_NONE);
    }
    const bool added = link_child(ix, iy);
    if (!mTree[iy].mValue.exist()) {
        _DYNAMIC_ASSERT_(!(mTree[iy].mOncePlayed));
        _DYNAMIC_ASSERT_(!(mTree[iy].mPlayed));
        mStack.append(iy);
        value_built(iy, build_value<T>(key));
        mStack.pop();
    }
    if (added && mTree[ix].mIsIteration && mTree[iy].mIsIteration)
        link_iteration(ix, iy);
    return mTree[iy].mValue.self<T>();
}

template <class T>
void SyntaxTree::maybe(INDEX key) {
    const INDEX ix = mStack.back();
    _DYNAMIC_ASSERT_(!(mTree[ix].mOnceActor.exist ()));
    _DYNAMIC_ASSERT_(!(mTree[ix].mActor.exist ()));
    _DYNAMIC_ASSERT_(!(mTree[ix].mPlaying));
    const INDEX iy = node_of(type_tag<T>(), key, name_of<T>());
    _DYNAMIC_ASSERT_(ix != iy);
    _DYNAMIC_ASSERT_(!(mTree[iy].mOncePlayed));
    _DYNAMIC_ASSERT_(!(mTree[iy].mPlayed));
    link_maybe(ix, iy);
    if (mDeclareOptional && !mTree[iy].mValue.exist()) {
        mStack.append(iy);
        value_built(iy, build_value<T>(key));
        mStack.pop();
    }
}

template <class T, class V>
void SyntaxTree::redo(const V &value, INDEX key) {
    const INDEX ix = mStack.back();
    _DYNAMIC_ASSERT_(!(mTree[ix].mActor.exist ()));
    _DYNAMIC_ASSERT_(!(mTree[ix].mOncePlayed));
    _DYNAMIC_ASSERT_(!(mTree[ix].mIsFunction));
    _DYNAMIC_ASSERT_(!(mTree[ix].mIsIteration));
    const INDEX iy = node_of(type_tag<T>(), key, name_of<T>());
    _DYNAMIC_ASSERT_(!(mTree[iy].mPlayed));
    _DYNAMIC_ASSERT_(ix != iy);
    _DYNAMIC_ASSERT_(mTree[iy].mIsIteration);
    _DYNAMIC_ASSERT_(mTree[ix].mDepth < mTree[iy].mDepth);
    mTree[iy].mLater = AnyRef::borrow(value);
}

template <class V>
const V &SyntaxTree::later() {
    const INDEX ix = mStack.back();
    _DYNAMIC_ASSERT_(ix != root_node ());
    _DYNAMIC_ASSERT_(mTree[ix].mPlaying);
    _DYNAMIC_ASSERT_(mTree[ix].mIsIteration);
    _DYNAMIC_ASSERT_(mTree[ix].mLater.exist ());
    return mTree[ix].mLater.self<V>();
}

} // namespace ORN
