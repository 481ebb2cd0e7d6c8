// The worker pool. One mutex guards the queue, the count of tasks in hand
// and the failure; workers sleep on one condition, waiters on another. A
// task runs, and its captures are destroyed, with the mutex released.

#include "orn_thread.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <exception>
#include <vector>

namespace ORN {

namespace {
// The pool whose worker the current thread is, if any.
thread_local const void *tPool = nullptr;
} // namespace

class WorkThread::Private::Implement {
public:
    explicit Implement(INDEX concurrency) {
        const INDEX count = std::clamp<INDEX>(concurrency, 1, WorkThread::MAX_WORKERS);
        mThreads.reserve(static_cast<std::size_t>(count));
        try {
            for (INDEX i = 0; i < count; ++i)
                mThreads.emplace_back([this] { work(); });
        } catch (...) {
            // The system refused a thread: go on with those made, if any.
            if (mThreads.empty())
                throw;
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
    String<char> memory = resources.mMemory < 0
                              ? String<char>("memory unknown")
                              : "memory for " + std::to_string(fit) + " of " + bytes_text(each) + " in " +
                                    bytes_text(resources.mMemory) + " (" + resources.mMemoryFrom + ")";
    out.mReason = "async processing " + std::to_string(tasks) + " on " + std::to_string(out.mWorkers) +
                  " threads (bounded by " + least->second + " : mThreadConcurrency " + std::to_string(requested) +
                  ", " + std::to_string(tasks) + " tasks, " + std::to_string(cores) + " cores (" +
                  resources.mCoresFrom + "), " + memory + ")";
    return out;
}

WorkThread::WorkThread(INDEX concurrency) : mThis(AutoRef<Private::Implement>::make(concurrency)) {}
WorkThread::WorkThread(WorkThread &&) noexcept = default;
WorkThread &WorkThread::operator=(WorkThread &&) noexcept = default;
WorkThread::~WorkThread() = default;

INDEX WorkThread::concurrency() const { return mThis->concurrency(); }
void WorkThread::submit(Function<void()> task) { mThis->submit(std::move(task)); }
void WorkThread::wait() { mThis->wait(); }
bool WorkThread::failed() const noexcept { return mThis.exist() && mThis.get()->failed(); }

} // namespace ORN
