// The worker pool. One mutex guards the queue, the count of tasks in hand
// and the failure; workers sleep on one condition, waiters on another. A
// task runs, and its captures are destroyed, with the mutex released.

#include "orn_thread.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <exception>
#include <set>
#include <vector>

namespace ORN {

namespace {
// The pool whose worker the current thread is, if any.
thread_local const void *tPool = nullptr;

// The libraries whose threads the pools size, and the limits of the pools
// alive now. While any pool holds a limit, each library runs on the least
// of them; the counts the libraries had before the first are kept and given
// back when the last one ends.
class LibraryRegistry {
public:
    static LibraryRegistry &instance() {
        // Never destroyed: a pool may end during the program's exit.
        static LibraryRegistry *const registry = new LibraryRegistry;
        return *registry;
    }

    void add(const LIBRARY_THREADS &library) {
        const std::lock_guard<std::mutex> lock(mMutex);
        std::size_t i = 0;
        while (i < mLibraries.size() && std::string_view(mLibraries[i].mName) != library.mName)
            ++i;
        if (i == mLibraries.size()) {
            mLibraries.push_back(library);
            mSaved.push_back(0);
        } else {
            mLibraries[i] = library;
        }
        if (!mLimits.empty()) {
            mSaved[i] = library.mGet();
            set(library, *mLimits.begin());
        }
    }

    int threads(std::string_view name) {
        const std::lock_guard<std::mutex> lock(mMutex);
        for (const LIBRARY_THREADS &library : mLibraries)
            if (name == library.mName)
                return library.mGet();
        return -1;
    }

    void begin(INDEX limit) {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mLimits.empty())
            for (std::size_t i = 0; i < mLibraries.size(); ++i)
                mSaved[i] = mLibraries[i].mGet();
        mLimits.insert(std::max<INDEX>(limit, 1));
        for (const LIBRARY_THREADS &library : mLibraries)
            set(library, *mLimits.begin());
    }

    void end(INDEX limit) noexcept {
        const std::lock_guard<std::mutex> lock(mMutex);
        const auto held = mLimits.find(std::max<INDEX>(limit, 1));
        if (held == mLimits.end())
            return;
        mLimits.erase(held);
        for (std::size_t i = 0; i < mLibraries.size(); ++i)
            set(mLibraries[i], mLimits.empty() ? mSaved[i] : *mLimits.begin());
    }

private:
    static void set(const LIBRARY_THREADS &library, INDEX count) noexcept {
        const int wanted = static_cast<int>(std::min<INDEX>(count, 1 << 20));
        try {
            if (library.mGet() != wanted)
                library.mSet(wanted);
        } catch (...) {
            // A library that refuses keeps its own count.
        }
    }

    std::mutex mMutex;
    std::vector<LIBRARY_THREADS> mLibraries;
    std::vector<int> mSaved;
    std::multiset<INDEX> mLimits;
};
} // namespace

class WorkThread::Private::Implement {
public:
    // `library_threads`: the limit this pool puts on the libraries' threads
    // while it lives; 0 for none.
    explicit Implement(INDEX concurrency, INDEX library_threads = 0) : mLibraryThreads(library_threads) {
        if (mLibraryThreads > 0)
            LibraryRegistry::instance().begin(mLibraryThreads);
        const INDEX count = std::clamp<INDEX>(concurrency, 1, WorkThread::MAX_WORKERS);
        mThreads.reserve(static_cast<std::size_t>(count));
        try {
            for (INDEX i = 0; i < count; ++i)
                mThreads.emplace_back([this] { work(); });
        } catch (...) {
            // The system refused a thread: go on with those made, if any.
            if (mThreads.empty()) {
                if (mLibraryThreads > 0)
                    LibraryRegistry::instance().end(mLibraryThreads);
                throw;
            }
        }
    }

    Implement(const Implement &) = delete;
    Implement &operator=(const Implement &) = delete;

    ~Implement() {
        std::deque<Function<void()>> dropped;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mStop = true;
            dropped.swap(mQueue);
        }
        mWork.notify_all();
        dropped.clear();
        for (Thread &thread : mThreads)
            thread.join();
        if (mLibraryThreads > 0)
            LibraryRegistry::instance().end(mLibraryThreads);
    }

    INDEX concurrency() const noexcept { return static_cast<INDEX>(mThreads.size()); }

    void submit(Function<void()> task) {
        _DYNAMIC_ASSERT_(task.exist ());
        bool wake = false;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            // A dropped task is destroyed on return, after the unlock.
            if (mStop || mFailure)
                return;
            mQueue.push_back(std::move(task));
            // While every worker is busy, the next one to finish finds the
            // task without being woken.
            wake = mSleeping > 0;
        }
        if (wake)
            mWork.notify_one();
    }

    void wait() {
        _DYNAMIC_ASSERT_(tPool != this);
        std::unique_lock<std::mutex> lock(mMutex);
        mIdle.wait(lock, [this] { return mQueue.empty() && mInHand == 0; });
        if (!mFailure)
            return;
        const std::exception_ptr failure = std::exchange(mFailure, nullptr);
        mFailed.store(false, std::memory_order_release);
        lock.unlock();
        std::rethrow_exception(failure);
    }

    bool failed() const noexcept { return mFailed.load(std::memory_order_acquire); }

private:
    void work() {
        tPool = this;
        std::unique_lock<std::mutex> lock(mMutex);
        for (;;) {
            while (!mStop && mQueue.empty()) {
                ++mSleeping;
                mWork.wait(lock);
                --mSleeping;
            }
            if (mQueue.empty())
                return; // stopping
            Function<void()> task = std::move(mQueue.front());
            mQueue.pop_front();
            ++mInHand;
            lock.unlock();

            std::exception_ptr failure;
            try {
                task();
            } catch (...) {
                failure = std::current_exception();
            }
            task.reset();

            lock.lock();
            // Only the first failure is kept; a later one is dropped.
            if (failure && !mFailure) {
                mFailure = std::move(failure);
                mFailed.store(true, std::memory_order_release);
                // The tasks not yet started are dropped; this worker keeps
                // counting as busy until their captures are gone, so wait()
                // returns only after that.
                std::deque<Function<void()>> dropped;
                dropped.swap(mQueue);
                lock.unlock();
                dropped.clear();
                lock.lock();
            }
            if (--mInHand == 0 && mQueue.empty())
                mIdle.notify_all();
        }
    }

    std::mutex mMutex;
    std::condition_variable mWork; // a task is queued, or the pool stops
    std::condition_variable mIdle; // nothing queued and nothing in hand
    std::deque<Function<void()>> mQueue;
    INDEX mInHand = 0; // tasks taken from the queue and not yet done with
    INDEX mSleeping = 0; // workers waiting on mWork
    bool mStop = false;
    std::exception_ptr mFailure;
    std::atomic<bool> mFailed{false};
    INDEX mLibraryThreads = 0;
    std::vector<Thread> mThreads;
};

namespace {

String<char> bytes_text(int64 bytes) {
    char text[32];
    if (bytes >= (int64(1) << 30))
        std::snprintf(text, sizeof(text), "%.1f GiB", double(bytes) / double(int64(1) << 30));
    else
        std::snprintf(text, sizeof(text), "%lld MiB", static_cast<long long>((bytes + (1 << 20) - 1) >> 20));
    return text;
}

} // namespace

WORKER_PLAN WorkThread::plan(int64 requested, INDEX tasks, int64 task_bytes, const WORKER_RESOURCES &resources) {
    const int64 setting = std::clamp<int64>(requested, 1, MAX_WORKERS);
    const int64 work = std::max<INDEX>(tasks, 1);
    const int64 cores = std::max<INDEX>(resources.mCores, 1);
    const int64 each = std::max<int64>(task_bytes, 0) + WORKER_BYTES;
    const int64 fit = resources.mMemory < 0 ? MAX_WORKERS : std::clamp<int64>(resources.mMemory / each, 0, MAX_WORKERS);
    // The first bound that is reached names the reason.
    const std::pair<int64, const char *> bounds[] = {
        {setting, "mThreadConcurrency"}, {work, "the tasks"}, {cores, "the cores"}, {std::max<int64>(fit, 1), "the memory"}};
    const auto least = std::min_element(std::begin(bounds), std::end(bounds),
                                        [](const auto &a, const auto &b) { return a.first < b.first; });
    WORKER_PLAN out;
    out.mWorkers = static_cast<INDEX>(least->first);
    // The cores the workers leave idle go to the libraries inside each task.
    out.mLibraryThreads = static_cast<INDEX>(std::max<int64>(cores / out.mWorkers, 1));
    String<char> memory = resources.mMemory < 0
                              ? String<char>("memory unknown")
                              : "memory for " + std::to_string(fit) + " of " + bytes_text(each) + " in " +
                                    bytes_text(resources.mMemory) + " (" + resources.mMemoryFrom + ")";
    out.mReason = "async processing " + std::to_string(tasks) + " on " + std::to_string(out.mWorkers) +
                  " threads (bounded by " + least->second + " : mThreadConcurrency " + std::to_string(requested) +
                  ", " + std::to_string(tasks) + " tasks, " + std::to_string(cores) + " cores (" +
                  resources.mCoresFrom + "), " + memory + "), " + std::to_string(out.mLibraryThreads) +
                  (out.mLibraryThreads == 1 ? " library thread each" : " library threads each");
    return out;
}

void WorkThread::own_library_threads(const LIBRARY_THREADS &library) {
    _DYNAMIC_ASSERT_(library.mGet != nullptr && library.mSet != nullptr);
    LibraryRegistry::instance().add(library);
}

int WorkThread::library_threads(std::string_view name) { return LibraryRegistry::instance().threads(name); }

WorkThread::WorkThread(INDEX concurrency) : mThis(AutoRef<Private::Implement>::make(concurrency)) {}
WorkThread::WorkThread(const WORKER_PLAN &plan)
    : mThis(AutoRef<Private::Implement>::make(plan.mWorkers, std::max<INDEX>(plan.mLibraryThreads, 1))) {}
WorkThread::WorkThread(WorkThread &&) noexcept = default;
WorkThread &WorkThread::operator=(WorkThread &&) noexcept = default;
WorkThread::~WorkThread() = default;

INDEX WorkThread::concurrency() const { return mThis->concurrency(); }
void WorkThread::submit(Function<void()> task) { mThis->submit(std::move(task)); }
void WorkThread::wait() { mThis->wait(); }
bool WorkThread::on_worker() noexcept { return tPool != nullptr; }
bool WorkThread::failed() const noexcept { return mThis.exist() && mThis.get()->failed(); }

} // namespace ORN
