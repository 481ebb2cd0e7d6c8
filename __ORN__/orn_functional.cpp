#include "orn_functional.h"
#include "orn_stream.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <new>

namespace ORN {

namespace Private {

String<char> short_type_name(const char *mangled) {
    int status = 0;
    char *demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    String<char> full = status == 0 && demangled ? String<char>(demangled) : String<char>(mangled);
    std::free(demangled);
    // Keep the text after the last "::" that is not inside template brackets.
    std::size_t start = 0;
    int level = 0;
    for (std::size_t i = 0; i < full.size(); ++i) {
        const char c = full[i];
        if (c == '<' || c == '(')
            ++level;
        else if (c == '>' || c == ')')
            --level;
        else if (level == 0 && c == ':' && i + 1 < full.size() && full[i + 1] == ':') {
            start = i + 2;
            ++i;
        }
    }
    return full.substr(start);
}

} // namespace Private

namespace {

INDEX now_ns() noexcept {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

// ---------------------------------------------------------------------------
// EDGE_SET

void SyntaxTree::EDGE_SET::release() noexcept {
    if (on_heap()) {
        delete[] mHeap.mItems;
        delete[] mHeap.mTable;
    }
}

INDEX SyntaxTree::EDGE_SET::push(INDEX item) {
    if (mSize == mCapacity)
        grow();
    INDEX *items = on_heap() ? mHeap.mItems : mInline;
    const std::uint32_t pos = mSize;
    items[pos] = item;
    ++mSize;
    if (hashed()) {
        const std::uint64_t mask = (std::uint64_t(1) << (64 - mHeap.mShift)) - 1;
        std::uint64_t slot = home(item);
        while (mHeap.mTable[slot] != -1)
            slot = (slot + 1) & mask;
        mHeap.mTable[slot] = static_cast<std::int32_t>(pos);
    } else if (mSize > kLinear)
        build_table();
    return static_cast<INDEX>(pos);
}

void SyntaxTree::EDGE_SET::grow() {
    _DYNAMIC_ASSERT_(mCapacity < 0x40000000u);
    const std::uint32_t capacity = on_heap() ? 2 * mCapacity : 8;
    INDEX *items = new INDEX[capacity];
    std::copy(data(), data() + mSize, items);
    const bool table = hashed();
    release();
    mHeap.mItems = items;
    mHeap.mTable = nullptr;
    mHeap.mShift = 0;
    mCapacity = capacity;
    if (table)
        build_table();
}

// The index has at least twice as many slots as the items can be, so that
// it stays at most half full until the next growth rebuilds it.
void SyntaxTree::EDGE_SET::build_table() {
    const int bits = std::bit_width(std::uint64_t(mCapacity) * 2 - 1);
    const std::size_t slots = std::size_t(1) << bits;
    auto *table = new std::int32_t[slots];
    std::fill(table, table + slots, -1);
    delete[] mHeap.mTable;
    mHeap.mTable = table;
    mHeap.mShift = static_cast<std::uint32_t>(64 - bits);
    const std::uint64_t mask = slots - 1;
    for (std::uint32_t i = 0; i < mSize; ++i) {
        std::uint64_t slot = home(mHeap.mItems[i]);
        while (table[slot] != -1)
            slot = (slot + 1) & mask;
        table[slot] = static_cast<std::int32_t>(i);
    }
}

INDEX SyntaxTree::EDGE_SET::find_hashed(INDEX item) const noexcept {
    const std::uint64_t mask = (std::uint64_t(1) << (64 - mHeap.mShift)) - 1;
    for (std::uint64_t slot = home(item);; slot = (slot + 1) & mask) {
        const std::int32_t pos = mHeap.mTable[slot];
        if (pos == -1)
            return VAR_NONE;
        if (mHeap.mItems[pos] == item)
            return pos;
    }
}

bool SyntaxTree::EDGE_SET::erase(INDEX item) {
    const INDEX found = find(item);
    if (found == VAR_NONE)
        return false;
    const auto pos = static_cast<std::uint32_t>(found);
    const std::uint32_t last = mSize - 1;
    INDEX *items = on_heap() ? mHeap.mItems : mInline;
    if (hashed()) {
        std::int32_t *table = mHeap.mTable;
        const std::uint64_t mask = (std::uint64_t(1) << (64 - mHeap.mShift)) - 1;
        const auto slot_of = [&](std::uint32_t p) {
            std::uint64_t slot = home(items[p]);
            while (table[slot] != static_cast<std::int32_t>(p))
                slot = (slot + 1) & mask;
            return slot;
        };
        // Free the item's slot, shifting back the entries of its probe run
        // that would no longer be reachable across the gap.
        std::uint64_t gap = slot_of(pos);
        for (std::uint64_t j = (gap + 1) & mask; table[j] != -1; j = (j + 1) & mask) {
            const std::uint64_t k = home(items[table[j]]);
            const bool stays = gap <= j ? (gap < k && k <= j) : (gap < k || k <= j);
            if (!stays) {
                table[gap] = table[j];
                gap = j;
            }
        }
        table[gap] = -1;
        if (pos != last)
            table[slot_of(last)] = static_cast<std::int32_t>(pos);
    }
    items[pos] = items[last];
    --mSize;
    return true;
}

// ---------------------------------------------------------------------------
// Storage

SyntaxTree::VALUE_ARENA::~VALUE_ARENA() {
    for (unsigned char *block : mBlocks)
        ::operator delete(static_cast<void *>(block), std::align_val_t(kAlign));
}

void SyntaxTree::VALUE_ARENA::next_block() {
    mBlocks.reserve(mBlocks.size() + 1);
    auto *block = static_cast<unsigned char *>(::operator new(kBlock, std::align_val_t(kAlign)));
    mBlocks.push_back(block);
    mNext = block;
    mEnd = block + kBlock;
}

SyntaxTree::NODE_LIST::~NODE_LIST() {
    if (!mEmptied)
        for (INDEX i = 0; i < mSize; ++i)
            locate(i)->~NODE();
    for (NODE *chunk : mChunks)
        if (chunk)
            ::operator delete(static_cast<void *>(chunk), std::align_val_t(alignof(NODE)));
}

SyntaxTree::NODE &SyntaxTree::NODE_LIST::append() {
    const auto j = (static_cast<std::uint64_t>(mSize) >> kFirstBits) + 1;
    const int c = 63 - std::countl_zero(j);
    if (!mChunks[c])
        mChunks[c] = static_cast<NODE *>(
            ::operator new(sizeof(NODE) * (std::size_t(1) << (c + kFirstBits)), std::align_val_t(alignof(NODE))));
    NODE *slot = locate(mSize);
    new (slot) NODE();
    ++mSize;
    return *slot;
}

SyntaxTree::SyntaxTree() : mSlots(16) {
    NODE &root = mTree.append();
    root.mName = "root";
    mStack.append(root_node());
}

SyntaxTree::~SyntaxTree() {
    // Actions hold references into other values: they go first, with the
    // edge sets. Values then go in the reverse order of their completion,
    // dependents before the values they were built on. After that no node
    // holds anything, and the node list lets its storage go as it is.
    for (INDEX i = 0; i < mTree.size(); ++i) {
        NODE &n = mTree[i];
        n.mOnceActor.reset();
        n.mActor.reset();
        n.mLater.reset();
        n.mChild.clear();
        n.mParent.clear();
        n.mMaybe.clear();
    }
    for (INDEX k = mBuilt.size(); k-- > 0;)
        mTree[mBuilt[k]].mValue.reset();
    mTree.emptied();
}

String<char> SyntaxTree::node_name(INDEX ix) const {
    const NODE &n = mTree[ix];
    String<char> name = n.mName ? n.mName : "";
    if (n.mKey != VAR_NONE) {
        name += '[';
        TextWriter::append_number(name, n.mKey);
        name += ']';
    }
    return name;
}

INDEX SyntaxTree::find_slot(const void *type, INDEX key) const noexcept {
    // Eight consecutive keys of one type share a group of eight slots (three
    // cache lines), so nodes declared by key order are found without a miss
    // each; the groups themselves are spread by the hash.
    const auto k = static_cast<std::uint64_t>(key);
    std::uint64_t h = reinterpret_cast<std::uintptr_t>(type) ^ ((k >> 3) * 0x9E3779B97F4A7C15ull);
    h = (h ^ (h >> 31)) * 0xBF58476D1CE4E5B9ull;
    h ^= h >> 29;
    const std::uint64_t mask = static_cast<std::uint64_t>(mSlots.size()) - 1;
    const SLOT *slots = mSlots.data();
    for (std::uint64_t i = ((h & ~std::uint64_t(7)) | (k & 7)) & mask;; i = (i + 1) & mask) {
        const SLOT &s = slots[i];
        if (s.mIndex == VAR_NONE || (s.mType == type && s.mKey == key))
            return static_cast<INDEX>(i);
    }
}

INDEX SyntaxTree::node_of(const void *type, INDEX key, const char *name) {
    INDEX slot = find_slot(type, key);
    if (mSlots[slot].mIndex != VAR_NONE)
        return mSlots[slot].mIndex;
    if (2 * (mSlotsUsed + 1) > mSlots.size()) {
        Array<SLOT> old(2 * mSlots.size());
        std::swap(old, mSlots);
        for (const SLOT &s : old)
            if (s.mIndex != VAR_NONE)
                mSlots[find_slot(s.mType, s.mKey)] = s;
        slot = find_slot(type, key);
    }
    const INDEX ix = mTree.size();
    NODE &n = mTree.append();
    mSlots[slot] = SLOT{type, key, ix};
    ++mSlotsUsed;
    n.mOrder = ++mOrderCounter;
    n.mName = name;
    n.mKey = key;
    return ix;
}

bool SyntaxTree::link_child(INDEX ix, INDEX iy) {
    if (mTree[ix].mChild.find(iy) != VAR_NONE)
        return false;
    mTree[iy].mParent.insert(ix);
    mTree[ix].mChild.insert(iy);
    depth_track(ix, iy);
    return true;
}

void SyntaxTree::link_maybe(INDEX ix, INDEX iy) {
    if (mTree[ix].mMaybe.find(iy) != VAR_NONE)
        return;
    mTree[iy].mParent.insert(ix);
    mTree[ix].mMaybe.insert(iy);
    mMaybeEdges.append(PACK<INDEX, INDEX>{ix, iy});
    depth_track(ix, iy);
}

void SyntaxTree::link_iteration(INDEX ix, INDEX iy) { mIterationLinks.append(PACK<INDEX, INDEX>{ix, iy}); }

void SyntaxTree::value_built(INDEX iy, AnyRef &&value) {
    mBuilt.append(iy);
    mTree[iy].mValue = std::move(value);
}

void SyntaxTree::once(Function<void()> &&f) {
    const INDEX ix = mStack.back();
    _DYNAMIC_ASSERT_(ix != root_node ());
    _DYNAMIC_ASSERT_(!(mTree[ix].mOnceActor.exist ()));
    _DYNAMIC_ASSERT_(!(mTree[ix].mActor.exist ()));
    _DYNAMIC_ASSERT_(!(mTree[ix].mPlaying));
    _DYNAMIC_ASSERT_(!(mTree[ix].mIsFunction));
    _DYNAMIC_ASSERT_(!(mTree[ix].mIsIteration));
    mTree[ix].mOnceActor = std::move(f);
}

void SyntaxTree::then(Function<void()> &&f) {
    const INDEX ix = mStack.back();
    _DYNAMIC_ASSERT_(ix != root_node ());
    _DYNAMIC_ASSERT_(!(mTree[ix].mActor.exist ()));
    _DYNAMIC_ASSERT_(!(mTree[ix].mOncePlayed));
    mTree[ix].mActor = std::move(f);
}

void SyntaxTree::mark_as_function() {
    const INDEX ix = mStack.back();
    _DYNAMIC_ASSERT_(ix != root_node ());
    _DYNAMIC_ASSERT_(!(mTree[ix].mOnceActor.exist ()));
    _DYNAMIC_ASSERT_(!(mTree[ix].mActor.exist ()));
    _DYNAMIC_ASSERT_(!(mTree[ix].mPlaying));
    mTree[ix].mIsFunction = true;
}

void SyntaxTree::mark_as_iteration() {
    const INDEX ix = mStack.back();
    _DYNAMIC_ASSERT_(ix != root_node ());
    _DYNAMIC_ASSERT_(!(mTree[ix].mOnceActor.exist ()));
    _DYNAMIC_ASSERT_(!(mTree[ix].mActor.exist ()));
    _DYNAMIC_ASSERT_(!(mTree[ix].mPlaying));
    mTree[ix].mIsIteration = true;
}

// Walks the edges below a new edge ix -> iy, first in first out, raising
// depths to (parent depth + 1) and lowering stamps to the parent's stamp; the
// root's edges carry no stamp. A playing node whose key changed is queued
// again (its older entry, now of lower priority, is skipped when it comes
// out). Reaching ix again means the new edge closed a cycle.
void SyntaxTree::depth_track(INDEX ix, INDEX iy) {
    const INDEX curr = ix;
    const INDEX bottom = mStack.front();
    mTrack.clear();
    PACK<INDEX, INDEX> edge{ix, iy};
    for (;;) {
        const NODE &a = mTree[edge.mP1];
        NODE &b = mTree[edge.mP2];
        const bool deep = b.mDepth >= a.mDepth + 1;
        const bool ranked = edge.mP1 == bottom || b.mOrder <= a.mOrder;
        if (!deep || !ranked) {
            if (!deep)
                b.mDepth = a.mDepth + 1;
            if (!ranked)
                b.mOrder = a.mOrder;
            if (b.mPlaying)
                schedule(edge.mP2);
            for (const INDEX i : b.mChild) {
                _DYNAMIC_ASSERT_(i != curr);
                mTrack.append(PACK<INDEX, INDEX>{edge.mP2, i});
            }
        }
        if (mTrack.empty())
            return;
        edge = mTrack.front();
        mTrack.pop_front();
    }
}

void SyntaxTree::SCHEDULE_QUEUE::push(ENTRY e) {
    std::size_t i = mHeap.size();
    mHeap.push_back(e);
    while (i > 0) {
        const std::size_t parent = (i - 1) / 4;
        if (!(e < mHeap[parent]))
            break;
        mHeap[i] = mHeap[parent];
        i = parent;
    }
    mHeap[i] = e;
}

void SyntaxTree::SCHEDULE_QUEUE::push_batch(std::vector<ENTRY> &batch) {
    if (batch.size() < kRunMin) {
        for (const ENTRY &e : batch)
            push(e);
        return;
    }
    std::sort(batch.begin(), batch.end());
    RUN run;
    run.mItems.swap(batch);
    mRuns.push_back(std::move(run));
    while (mRuns.size() >= 2 && mRuns[mRuns.size() - 2].left() <= 2 * mRuns.back().left()) {
        RUN &a = mRuns[mRuns.size() - 2];
        const RUN &b = mRuns.back();
        std::vector<ENTRY> merged(a.left() + b.left());
        std::merge(a.mItems.begin() + std::ptrdiff_t(a.mHead), a.mItems.end(), b.mItems.begin() + std::ptrdiff_t(b.mHead),
                   b.mItems.end(), merged.begin());
        a.mItems.swap(merged);
        a.mHead = 0;
        mRuns.pop_back();
    }
}

const SyntaxTree::SCHEDULE_QUEUE::ENTRY *SyntaxTree::SCHEDULE_QUEUE::least(const RUN **from) const {
    const ENTRY *best = mHeap.empty() ? nullptr : &mHeap.front();
    const RUN *source = nullptr;
    for (const RUN &r : mRuns) {
        const ENTRY *head = &r.mItems[r.mHead];
        if (!best || *head < *best) {
            best = head;
            source = &r;
        }
    }
    if (from)
        *from = source;
    return best;
}

void SyntaxTree::SCHEDULE_QUEUE::pop() {
    const RUN *from = nullptr;
    least(&from);
    if (!from) {
        pop_heap();
        return;
    }
    RUN &r = mRuns[static_cast<std::size_t>(from - mRuns.data())];
    if (++r.mHead == r.mItems.size())
        mRuns.erase(mRuns.begin() + (from - mRuns.data()));
}

void SyntaxTree::SCHEDULE_QUEUE::pop_heap() {
    const ENTRY last = mHeap.back();
    mHeap.pop_back();
    const std::size_t n = mHeap.size();
    if (n == 0)
        return;
    std::size_t i = 0;
    for (;;) {
        const std::size_t first = 4 * i + 1;
        if (first >= n)
            break;
        std::size_t best = first;
        const std::size_t end = first + 4 < n ? first + 4 : n;
        for (std::size_t c = first + 1; c < end; ++c)
            if (mHeap[c] < mHeap[best])
                best = c;
        if (!(mHeap[best] < last))
            break;
        mHeap[i] = mHeap[best];
        i = best;
    }
    mHeap[i] = last;
}

void SyntaxTree::schedule(INDEX ix) {
    const NODE &n = mTree[ix];
    mQueue.push({SCHEDULE_QUEUE::rank(n.mOrder, n.mDepth), ix});
}

// Marks playing and queues every node below ix that is neither playing nor
// played. The subgraph of a playing or played node has been scheduled
// already, so the walk stops there.
void SyntaxTree::schedule_below(INDEX ix) {
    mWalk.clear();
    mWalk.append(ix);
    mBatch.clear();
    for (INDEX head = 0; head < mWalk.size(); ++head) {
        const INDEX b = mWalk[head];
        for (const INDEX c : mTree[b].mChild) {
            NODE &n = mTree[c];
            if (n.mPlaying || n.mPlayed)
                continue;
            n.mPlaying = true;
            mWalk.append(c);
            mBatch.push_back({SCHEDULE_QUEUE::rank(n.mOrder, n.mDepth), c});
        }
    }
    mQueue.push_batch(mBatch);
}

void SyntaxTree::finish_one(INDEX ix) {
    NODE &n = mTree[ix];
    ++n.mFinishCount;
    if (n.mFinishCount >= n.mParent.size())
        mCleanQueue.append(ix);
}

void SyntaxTree::run_actor(INDEX iy, Function<void()> &actor) {
    // An exception leaves the current-node stack and the flags as they are.
    mStack.append(iy);
    const INDEX start = now_ns();
    actor();
    mTree[iy].mActionTime += now_ns() - start;
    mStack.pop();
}

void SyntaxTree::play() {
    const INDEX curr = mStack.back();
    schedule_below(curr);
    while (!mQueue.empty()) {
        const INDEX iy = mQueue.top().mIndex;
        NODE &n = mTree[iy];
        if (n.mDepth <= mTree[curr].mDepth)
            return;
        if (n.mOncePlayed && n.mPlayed) {
            mQueue.pop();
            n.mPlaying = false;
            play_clean();
            continue;
        }
        if (!n.mOncePlayed) {
            _DYNAMIC_ASSERT_(mTree[iy].mValue.exist ());
            if (mObserver.exist())
                mObserver(iy);
            if (n.mOnceActor.exist())
                run_actor(iy, n.mOnceActor);
            n.mOncePlayed = true;
            n.mFinishCount = 0;
            // Optional dependencies the first action did not fetch are let go;
            // those it fetched are children now and play before the second
            // phase, which waits for them.
            if (!n.mMaybe.empty()) {
                for (const INDEX c : n.mMaybe) {
                    if (n.mChild.find(c) != VAR_NONE)
                        continue;
                    NODE &m = mTree[c];
                    m.mParent.erase(iy);
                    if (m.mFinishCount >= m.mParent.size())
                        mCleanQueue.append(c);
                }
                n.mMaybe.clear();
                schedule_below(iy);
                continue;
            }
            // Without optional dependencies an action can fetch nothing, so
            // nothing new is below iy: it is still the top entry, and its
            // second phase follows at once.
        }
        _DYNAMIC_ASSERT_(mTree[iy].mValue.exist ());
        if (n.mActor.exist())
            run_actor(iy, n.mActor);
        n.mPlayed = true;
        n.mFinishCount = 0;
        if (!n.mIsFunction && !n.mIsIteration)
            for (const INDEX c : n.mChild)
                finish_one(c);
        // The second action cannot fetch anything either (its optional
        // dependencies are settled): iy is still on top, done.
        mQueue.pop();
        n.mPlaying = false;
        play_clean();
    }
}

void SyntaxTree::clean() {
    const INDEX ix = mStack.back();
    _DYNAMIC_ASSERT_(ix == root_node ());
    mCleanSwitch = StrongRef<bool>::make(true);
    mCleanQueue.clear();
    for (INDEX i = root_node() + 1; i < mTree.size(); ++i)
        if (mTree[i].mFinishCount >= mTree[i].mParent.size())
            mCleanQueue.append(i);
    play_clean();
}

// Frees the queued values. A function or iteration node kept its
// dependencies alive while it lived (they may be used whenever it is
// called); its release passes on to them. A node is released once: an entry
// for a node whose value is already gone does nothing.
void SyntaxTree::play_clean() {
    if (!mCleanSwitch.exist() || !*mCleanSwitch)
        return;
    while (!mCleanQueue.empty()) {
        const INDEX ix = mCleanQueue.front();
        mCleanQueue.pop_front();
        _DYNAMIC_ASSERT_(!(mTree[ix].mPlaying));
        if (!mTree[ix].mValue.exist())
            continue;
        if (mTree[ix].mIsFunction || mTree[ix].mIsIteration)
            for (const INDEX c : mTree[ix].mChild)
                finish_one(c);
        NODE &n = mTree[ix];
        // A release that runs no code (a plain value in the graph's blocks,
        // actions capturing only addresses) takes no time worth a clock read.
        if (n.mActor.plain() && n.mOnceActor.plain() && n.mValue.plain()) {
            n.mActor.reset();
            n.mOnceActor.reset();
            n.mValue.reset();
            continue;
        }
        const INDEX start = now_ns();
        n.mActor.reset();
        n.mOnceActor.reset();
        n.mValue.reset();
        n.mReleaseTime += now_ns() - start;
    }
}

Array<SyntaxTree::TIME_RECORD> SyntaxTree::time_report() const {
    Array<INDEX> order;
    order.reserve(mTree.size());
    for (INDEX i = root_node() + 1; i < mTree.size(); ++i)
        order.append(i);
    std::stable_sort(order.begin(), order.end(), [this](INDEX a, INDEX b) {
        return mTree[a].mActionTime + mTree[a].mReleaseTime > mTree[b].mActionTime + mTree[b].mReleaseTime;
    });
    Array<TIME_RECORD> report;
    report.reserve(order.size());
    for (const INDEX i : order)
        report.append(TIME_RECORD{node_name(i), mTree[i].mActionTime, mTree[i].mReleaseTime});
    return report;
}

String<char> SyntaxTree::time_report_text() const {
    String<char> text;
    char line[96];
    for (const TIME_RECORD &r : time_report()) {
        std::snprintf(line, sizeof(line), " : action %.3f ms, release %.3f ms\n", double(r.mActionTime) * 1e-6,
                      double(r.mReleaseTime) * 1e-6);
        text.append(r.mName).append(line);
    }
    return text;
}

namespace {

const char *shape_of(const String<char> &name) {
    static const struct {
        const char *mPrefix;
        const char *mShape;
    } shapes[] = {{"ACT_m", "box"}, {"CON_m", "ellipse"}, {"VAR_m", "diamond"}, {"SUB_m", "hexagon"}, {"NDS_m", "note"}};
    for (const auto &s : shapes)
        if (name.starts_with(s.mPrefix))
            return s.mShape;
    return "plaintext";
}

void append_quoted(String<char> &out, const String<char> &text) {
    out += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    out += '"';
}

} // namespace

String<char> SyntaxTree::to_dot() const {
    String<char> out = "digraph SyntaxTree {\n  rankdir=TB;\n  node [fontname=\"Helvetica\"];\n";
    out += "  n0 [label=\"root\", shape=point, width=0.15];\n";
    // Nodes every run plays: those that stack edges from the root reach.
    std::vector<bool> required(static_cast<std::size_t>(mTree.size()), false);
    std::vector<INDEX> walk{root_node()};
    required[0] = true;
    while (!walk.empty()) {
        const INDEX i = walk.back();
        walk.pop_back();
        for (const INDEX c : mTree[i].mChild)
            if (!required[static_cast<std::size_t>(c)]) {
                required[static_cast<std::size_t>(c)] = true;
                walk.push_back(c);
            }
    }
    for (INDEX i = root_node() + 1; i < mTree.size(); ++i) {
        const String<char> name = node_name(i);
        out += "  n";
        TextWriter::append_number(out, i);
        out += " [label=";
        append_quoted(out, name);
        out += ", shape=";
        out += shape_of(name);
        if (mTree[i].mIsFunction || mTree[i].mIsIteration)
            out += ", peripheries=2";
        if (!required[static_cast<std::size_t>(i)])
            out += ", style=dashed";
        out += "];\n";
    }
    const auto edge = [&out](INDEX a, INDEX b, const char *style) {
        out += "  n";
        TextWriter::append_number(out, a);
        out += " -> n";
        TextWriter::append_number(out, b);
        out += style;
        out += ";\n";
    };
    for (INDEX i = root_node(); i < mTree.size(); ++i)
        for (const INDEX c : mTree[i].mChild)
            edge(i, c, "");
    for (const auto &m : mMaybeEdges)
        if (mTree[m.mP1].mChild.find(m.mP2) == VAR_NONE)
            edge(m.mP1, m.mP2, " [style=dashed]");
    for (const auto &l : mIterationLinks)
        edge(l.mP1, l.mP2, " [style=dotted, arrowhead=none]");
    out += "}\n";
    return out;
}

} // namespace ORN
