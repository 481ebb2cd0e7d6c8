#pragma once

// Threads of the core library: a joining thread, a mutex, a condition with
// its own mutex, and WorkThread, the pool of workers that processes hand
// their per-record work to (one image, one video per task).
//
// Guarantees of WorkThread:
//
// - It starts `concurrency` workers at once (at least one) and keeps them
//   until it is destroyed. More workers than tasks is fine: idle workers
//   sleep on a condition, they never spin.
// - submit() only queues the task (one lock, one wake-up). Tasks start in
//   the order they were submitted; with one worker they also run and finish
//   in that order. A worker holds no lock while it runs a task, so a task
//   may submit more tasks, read failed(), or print to the console.
// - wait() blocks the calling thread, without busy waiting, until every task
//   submitted so far has either run to its end or been dropped, including
//   the destruction of what the tasks captured. It must not be called from a
//   task of the same pool (that would wait for itself); doing so asserts.
// - Failure: the first task that throws marks the pool as failed. From then
//   on, tasks not yet started are dropped (queued ones at once, later
//   submissions as they come), tasks already running finish normally, and
//   the next wait() rethrows that first exception in its caller's thread
//   exactly as it was thrown: an ORN::Exception keeps its text, any other
//   exception keeps its type. Later exceptions of tasks already running are
//   dropped. The rethrow clears the failure, so the pool can be used again.
//   An exception never leaves a worker thread, so it never ends the program.
// - failed() tells whether a failure has been seen and not yet rethrown;
//   a long task may check it to stop early.
// - Destruction drops the tasks not yet started, lets running ones finish,
//   and joins every worker. A failure not collected by wait() is dropped
//   with the pool. Callers that need their tasks done call wait() first.
//
// ORN::Thread is a std::thread that joins when destroyed or reassigned
// instead of ending the program; an exception escaping its body ends the
// program, as with std::thread. Hand fallible work to a WorkThread instead.

#include "orn_basic.h"
#include "orn_core.h"

#include <concepts>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

namespace ORN {

class Thread {
public:
    Thread() noexcept = default;
    // Starts a thread that runs body(args...) on copies of its arguments.
    template <class F, class... A>
        requires std::invocable<std::decay_t<F>, std::decay_t<A>...>
    explicit Thread(F &&body, A &&...args) : mThread(std::forward<F>(body), std::forward<A>(args)...) {}
    Thread(Thread &&) noexcept = default;
    // Joins the thread held so far, then takes the other one.
    Thread &operator=(Thread &&other) noexcept {
        if (this != &other) {
            release();
            mThread = std::move(other.mThread);
        }
        return *this;
    }
    ~Thread() { release(); }

    bool joinable() const noexcept { return mThread.joinable(); }
    std::thread::id id() const noexcept { return mThread.get_id(); }
    // Waits for the thread to end; nothing to do when none is held. A thread
    // cannot join itself.
    void join() {
        if (!mThread.joinable())
            return;
        _DYNAMIC_ASSERT_(mThread.get_id () != std::this_thread::get_id ());
        mThread.join();
    }

    // Threads the machine runs at once; at least 1.
    static INDEX hardware_concurrency() noexcept {
        const unsigned count = std::thread::hardware_concurrency();
        return count > 0 ? static_cast<INDEX>(count) : 1;
    }

private:
    // A thread that drops its own last handle cannot join itself; it is
    // let go instead, and ends on its own.
    void release() noexcept {
        if (!mThread.joinable())
            return;
        if (mThread.get_id() == std::this_thread::get_id())
            mThread.detach();
        else
            mThread.join();
    }

    std::thread mThread;
};

// A mutex usable with std::lock_guard, std::unique_lock and std::scoped_lock.
class Mutex {
public:
    void lock() { mMutex.lock(); }
    bool try_lock() { return mMutex.try_lock(); }
    void unlock() { mMutex.unlock(); }

    // Runs `f` while holding the mutex and yields its result.
    template <class F>
    decltype(auto) locked(F &&f) {
        const std::lock_guard<std::mutex> guard(mMutex);
        return std::forward<F>(f)();
    }

private:
    std::mutex mMutex;
};

// A condition variable together with the mutex that guards its state.
// Waiters state what they wait for as a predicate, evaluated under the lock,
// so spurious wake-ups and notifications sent before the wait are harmless.
class ConditionLock {
public:
    using Lock = std::unique_lock<std::mutex>;

    // Holds the mutex for as long as the returned lock lives.
    Lock lock() { return Lock(mMutex); }

    // Blocks until pred() holds; the lock is held again on return.
    template <class P>
    void wait(Lock &lock, P pred) {
        mCondition.wait(lock, std::move(pred));
    }
    template <class P>
    void wait(P pred) {
        Lock held(mMutex);
        mCondition.wait(held, std::move(pred));
    }

    // Runs `change` under the mutex, then wakes the waiters.
    template <class F>
    void notify_all(F &&change) {
        {
            const std::lock_guard<std::mutex> guard(mMutex);
            std::forward<F>(change)();
        }
        mCondition.notify_all();
    }
    template <class F>
    void notify_one(F &&change) {
        {
            const std::lock_guard<std::mutex> guard(mMutex);
            std::forward<F>(change)();
        }
        mCondition.notify_one();
    }
    void notify_all() noexcept { mCondition.notify_all(); }
    void notify_one() noexcept { mCondition.notify_one(); }

private:
    std::mutex mMutex;
    std::condition_variable mCondition;
};

// What the machine lends this process for its workers.
struct WORKER_RESOURCES {
    // Processors the process may run on: its affinity mask, and no more
    // than SLURM_CPUS_PER_TASK or ZARN_CORES (the launcher's share for a
    // job it runs beside others) where those are set. At least 1.
    INDEX mCores = 1;
    String<char> mCoresFrom = "affinity";
    // Bytes the process may still take: the least of MemAvailable of
    // /proc/meminfo, what its memory cgroup's limit leaves, and what its
    // address space limit (RLIMIT_AS) leaves; -1 when none is known.
    int64 mMemory = -1;
    String<char> mMemoryFrom;
};

// How many tasks run at once, how many threads each task's library work
// may use, and the line that says why.
struct WORKER_PLAN {
    INDEX mWorkers = 1;
    // The cores left to each worker (cores / workers, at least 1): what a
    // library's own thread pool may use inside one task.
    INDEX mLibraryThreads = 1;
    String<char> mReason;
};

// A library in this process that runs its own pool of threads (OpenCV's, for
// one): how to read and set how many it uses. The layer that links the
// library registers it (WorkThread::own_library_threads), so that the core
// library needs none of them; a pool made from a plan then sizes them.
struct LIBRARY_THREADS {
    const char *mName = "";
    int (*mGet)() = nullptr;
    void (*mSet)(int) = nullptr;
};

// The pool of worker threads; see the guarantees at the top of this file.
class ORN_API WorkThread {
public:
    struct Private {
        class Implement;
    };

    // The most workers a pool starts, whatever it is asked for.
    static constexpr INDEX MAX_WORKERS = 256;
    // What each worker costs besides its task's own memory (its stack and
    // the allocator's arena).
    static constexpr int64 WORKER_BYTES = int64(16) << 20;

    // The resources of this process now.
    static WORKER_RESOURCES resources();
    // How many of `tasks` tasks, each expected to take `task_bytes` bytes at
    // its peak, run at once: no more than `requested` (the setting
    // mThreadConcurrency, at least 1), than the tasks, than the cores, and
    // than fit in the memory (but always one). mReason is one line for the
    // log: "async processing <tasks> on <workers> threads (bounded by ...),
    // <n> library thread(s) each", n being mLibraryThreads.
    static WORKER_PLAN plan(int64 requested, INDEX tasks, int64 task_bytes, const WORKER_RESOURCES &resources);
    static WORKER_PLAN plan(int64 requested, INDEX tasks, int64 task_bytes) {
        return plan(requested, tasks, task_bytes, resources());
    }

    // Registers a library whose threads the pools size; registering the
    // same mName again replaces the earlier entry. Both functions asserted.
    static void own_library_threads(const LIBRARY_THREADS &library);
    // The threads a registered library uses now; -1 when none is registered
    // under that name.
    static int library_threads(std::string_view name);

    // Starts max(concurrency, 1) workers, at most MAX_WORKERS; the libraries'
    // threads are left as they are.
    explicit WorkThread(INDEX concurrency);
    // Starts plan.mWorkers workers, and while the pool lives every registered
    // library runs on at most plan.mLibraryThreads threads (the least over
    // the pools alive at once); when the last of them ends, each library gets
    // back the count it had before the first.
    explicit WorkThread(const WORKER_PLAN &plan);
    WorkThread(WorkThread &&) noexcept;
    WorkThread &operator=(WorkThread &&) noexcept;
    // Drops the tasks not yet started, waits for the running ones, joins.
    ~WorkThread();

    // Number of worker threads.
    INDEX concurrency() const;

    // Queues a task; an empty function asserts. After a failure the task is
    // dropped instead.
    void submit(Function<void()> task);
    // Callables that cannot be copied (a lambda owning a unique_ptr) are kept
    // behind a shared pointer.
    template <class F>
        requires(std::invocable<std::decay_t<F> &> && !std::copy_constructible<std::decay_t<F>>)
    void submit(F &&task) {
        auto held = std::make_shared<std::decay_t<F>>(std::forward<F>(task));
        submit(Function<void()>([held] { (*held)(); }));
    }

    // Queues body(i) for every i in [0, count), one task per index, in index
    // order; stops queueing once a failure is seen.
    template <class F>
        requires std::invocable<std::decay_t<F> &, INDEX>
    void submit_range(INDEX count, F &&body) {
        if (count <= 0)
            return;
        const auto shared = std::make_shared<std::decay_t<F>>(std::forward<F>(body));
        for (INDEX i = 0; i < count && !failed(); ++i)
            submit(Function<void()>([shared, i] { (*shared)(i); }));
    }
    // submit_range, then wait(): runs the loop and rethrows its first failure.
    template <class F>
        requires std::invocable<std::decay_t<F> &, INDEX>
    void parallel_for(INDEX count, F &&body) {
        submit_range(count, std::forward<F>(body));
        wait();
    }

    // Blocks until every task submitted so far has run or been dropped, then
    // rethrows the first failure, if any, and clears it.
    void wait();

    // True on a worker thread of any pool (while it runs a task).
    static bool on_worker() noexcept;

    // True once a task has thrown, until wait() rethrows the exception.
    bool failed() const noexcept;

private:
    AutoRef<Private::Implement> mThis;
};

} // namespace ORN
