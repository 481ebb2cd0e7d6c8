// Worker pool (order, waiting, failures, shutdown), the thread primitives,
// and the console's progress line on plain output, in the log and on a
// terminal.
#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_images.h"
#include "__ORN__/orn_thread.h"

#include "support.h"

#ifndef _WIN32
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#endif

#include <atomic>
#include <cmath>
#include <cstring>
#include <optional>
#include <regex>
#include <stdexcept>

namespace {

using namespace zarn_test;
using ORN::INDEX;

void check_index(INDEX i) { _DYNAMIC_ASSERT_(i != 3); }

TEST(WorkThread, TasksStartInSubmissionOrderAndWaitCoversNestedTasks) {
    for (const INDEX workers : {INDEX(0), INDEX(-2), INDEX(1)}) {
        ORN::WorkThread pool(workers);
        EXPECT_EQ(pool.concurrency(), 1);
        std::vector<INDEX> order;
        pool.submit_range(5, [&](INDEX i) { order.push_back(i); });
        pool.submit([&, owned = std::make_unique<INDEX>(5)] { order.push_back(*owned); });
        pool.submit(ORN::Function<void()>([&] {
            // Tasks queued by a task are waited for as well.
            pool.submit([&] { order.push_back(7); });
            order.push_back(6);
        }));
        pool.wait();
        EXPECT_EQ(order, (std::vector<INDEX>{0, 1, 2, 3, 4, 5, 6, 7}));
    }
    ORN::WorkThread pool(16);
    pool.wait(); // nothing submitted
    for (const INDEX n : {3, 2000}) {
        std::vector<int> runs(static_cast<std::size_t>(n), 0);
        pool.parallel_for(n, [&](INDEX i) { ++runs[static_cast<std::size_t>(i)]; });
        EXPECT_EQ(runs, std::vector<int>(static_cast<std::size_t>(n), 1)) << n;
    }
    EXPECT_EQ(failure_of([&] { pool.submit(ORN::Function<void()>()); }).rfind("dynamic_assert failed : task.exist () : at ", 0), 0u);
}

TEST(WorkThread, FirstFailureIsRethrownUnchangedAndStopsWhatHasNotStarted) {
    ORN::WorkThread pool(1);
    std::vector<INDEX> ran;
    pool.submit_range(10, [&](INDEX i) {
        ran.push_back(i);
        check_index(i);
    });
    EXPECT_EQ(failure_of([&] { pool.wait(); }), failure_of([] { check_index(3); }));
    EXPECT_EQ(ran, (std::vector<INDEX>{0, 1, 2, 3}));
    EXPECT_TRUE(starts_with(failure_of([] { check_index(3); }),
                            "dynamic_assert failed : i != 3 : at void {anonymous}::check_index(ORN::INDEX) in tests/thread_test.cpp ,"));
    // The rethrow clears the failure: the pool works again, and other
    // exception types come back as they are.
    EXPECT_FALSE(pool.failed());
    pool.submit([] { throw std::runtime_error("disk full"); });
    try {
        pool.wait();
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error &e) {
        EXPECT_STREQ(e.what(), "disk full");
    }
    pool.submit([] { throw 42; });
    EXPECT_THROW(pool.wait(), int);
    pool.wait();

    // Two workers: a running task finishes after another fails, and tasks
    // submitted after the failure are dropped. Of many failures one is kept.
    ORN::WorkThread two(2);
    std::atomic<bool> finished{false}, dropped_ran{false};
    two.submit([&] {
        while (!two.failed())
            std::this_thread::yield();
        finished = true;
    });
    two.submit([] { throw std::logic_error("first"); });
    while (!two.failed())
        std::this_thread::yield();
    two.submit([&] { dropped_ran = true; });
    EXPECT_EQ(failure_of([&] { two.wait(); }), "first");
    EXPECT_TRUE(finished);
    EXPECT_FALSE(dropped_ran);
    EXPECT_THROW(two.parallel_for(50, [](INDEX i) { throw std::out_of_range(std::to_string(i)); }), std::out_of_range);
    two.wait();
}

TEST(WorkThread, WaitFromItsOwnTaskAssertsInsteadOfDeadlocking) {
    ORN::WorkThread pool(2);
    pool.submit([&] { pool.wait(); });
    EXPECT_TRUE(starts_with(failure_of([&] { pool.wait(); }), "dynamic_assert failed : tPool != this : at "));
}

TEST(WorkThread, DestructionDropsPendingTasksAndJoinsAfterRunningOnes) {
    ORN::ConditionLock gate;
    bool started = false, open = false, first_done = false;
    std::atomic<int> later_runs{0};
    const auto token = std::make_shared<int>(0);
    std::optional<ORN::WorkThread> pool(std::in_place, 1);
    pool->submit([&] {
        gate.notify_all([&] { started = true; });
        gate.wait([&] { return open; });
        first_done = true;
    });
    gate.wait([&] { return started; });
    for (int i = 0; i < 100; ++i)
        pool->submit([&, token] { ++later_runs; });
    ORN::Thread destroyer([&] { pool.reset(); });
    // The destructor drops the queued tasks (and their captures) while the
    // first one still runs; it then waits for it.
    while (token.use_count() > 1)
        std::this_thread::yield();
    gate.notify_all([&] { open = true; });
    destroyer.join();
    EXPECT_TRUE(first_done);
    EXPECT_EQ(later_runs, 0);

    // A failure nobody collected goes with the pool.
    ORN::WorkThread failing(4);
    failing.parallel_for(0, [](INDEX) {});
    failing.submit_range(8, [](INDEX) { throw std::runtime_error("lost"); });
}

// How many workers run: the least of the setting, the tasks, the cores and
// what fits in the memory, with the first bound reached named; a pool never
// starts more than MAX_WORKERS threads, whatever it is asked for.
TEST(WorkThread, TheWorkersAreBoundedByTheTasksTheCoresAndTheMemory) {
    constexpr ORN::int64 MiB = ORN::int64(1) << 20;
    ORN::WORKER_RESOURCES two;
    two.mCores = 2;
    two.mMemory = 10240 * MiB;
    two.mMemoryFrom = "MemAvailable";
    auto plan = ORN::WorkThread::plan(64, 10, 496 * MiB, two);
    EXPECT_EQ(plan.mWorkers, 2);
    EXPECT_EQ(plan.mLibraryThreads, 1);
    EXPECT_EQ(plan.mReason, "async processing 10 on 2 threads (bounded by the cores : mThreadConcurrency 64, 10 tasks, "
                            "2 cores (affinity), memory for 20 of 512 MiB in 10.0 GiB (MemAvailable)), "
                            "1 library thread each");
    EXPECT_EQ(ORN::WorkThread::plan(100000000, 3, 0, two).mWorkers, 2);
    EXPECT_EQ(ORN::WorkThread::plan(1, 10, 0, two).mWorkers, 1);
    EXPECT_TRUE(starts_with(ORN::WorkThread::plan(0, 10, 0, two).mReason, "async processing 10 on 1 threads (bounded by mThreadConcurrency :"));
    EXPECT_TRUE(starts_with(ORN::WorkThread::plan(64, 1, 0, two).mReason, "async processing 1 on 1 threads (bounded by the tasks :"));
    // One worker on two cores leaves both to the library inside its task.
    EXPECT_EQ(ORN::WorkThread::plan(64, 1, 0, two).mLibraryThreads, 2);
    EXPECT_TRUE(ORN::WorkThread::plan(64, 1, 0, two).mReason.ends_with("), 2 library threads each"));

    ORN::WORKER_RESOURCES many = two;
    many.mCores = 64;
    many.mMemory = 1100 * MiB;
    many.mMemoryFrom = "cgroup";
    plan = ORN::WorkThread::plan(64, 10, 496 * MiB, many);
    EXPECT_EQ(plan.mWorkers, 2);
    EXPECT_EQ(plan.mLibraryThreads, 32);
    EXPECT_TRUE(contains(plan.mReason, "(bounded by the memory : ")) << plan.mReason;
    EXPECT_TRUE(plan.mReason.ends_with("memory for 2 of 512 MiB in 1.1 GiB (cgroup)), 32 library threads each"))
        << plan.mReason;
    // 64 cores over 3 workers: 21 each, the remainder left idle.
    EXPECT_EQ(ORN::WorkThread::plan(3, 10, 0, many).mLibraryThreads, 21);
    // Not even one fits: one runs all the same.
    many.mMemory = 100 * MiB;
    EXPECT_EQ(ORN::WorkThread::plan(64, 10, 496 * MiB, many).mWorkers, 1);
    many.mMemory = -1;
    plan = ORN::WorkThread::plan(1000000, 5000, 496 * MiB, many);
    EXPECT_EQ(plan.mWorkers, 64);
    EXPECT_TRUE(plan.mReason.ends_with(", memory unknown), 1 library thread each")) << plan.mReason;

    EXPECT_EQ(ORN::WorkThread(100000).concurrency(), ORN::WorkThread::MAX_WORKERS);
}

// A pool made from a plan sizes every registered library's threads while it
// lives: pools alive at once hold the least of their limits, and the count
// the library had before the first comes back when the last one ends, in
// whatever order they end. OpenCV is registered by the image layer.
int gLibraryThreads = 7;
int gLibrarySets = 0;

TEST(WorkThread, APoolFromAPlanSizesTheLibrariesAndRestoresThem) {
    ORN::WorkThread::own_library_threads(ORN::LIBRARY_THREADS{
        "test library", [] { return gLibraryThreads; }, [](int n) { ++gLibrarySets, gLibraryThreads = n; }});
    EXPECT_EQ(ORN::WorkThread::library_threads("test library"), 7);
    EXPECT_EQ(ORN::WorkThread::library_threads("no such library"), -1);
    const auto plan_of = [](INDEX workers, INDEX threads) {
        ORN::WORKER_PLAN plan;
        plan.mWorkers = workers;
        plan.mLibraryThreads = threads;
        return plan;
    };
    {
        // A plain pool leaves the libraries alone.
        ORN::WorkThread plain(2);
        EXPECT_EQ(gLibraryThreads, 7);
    }
    EXPECT_EQ(gLibrarySets, 0);
    // Not in the Windows build, which has no OpenCV.
#ifdef _WIN32
    constexpr bool OPENCV = false;
#else
    constexpr bool OPENCV = true;
#endif
    const int opencv = ORN::WorkThread::library_threads("OpenCV");
    EXPECT_EQ(opencv >= 1, OPENCV) << opencv;
    {
        std::optional<ORN::WorkThread> outer(std::in_place, plan_of(3, 2));
        EXPECT_EQ(outer->concurrency(), 3);
        EXPECT_EQ(gLibraryThreads, 2);
        std::atomic<int> seen{0};
        outer->parallel_for(4, [&](INDEX) { seen += ORN::WorkThread::library_threads("OpenCV") == (OPENCV ? 2 : -1); });
        EXPECT_EQ(seen.load(), 4);
        std::optional<ORN::WorkThread> inner(std::in_place, plan_of(1, 1));
        EXPECT_EQ(gLibraryThreads, 1);
        EXPECT_EQ(ORN::WorkThread::library_threads("OpenCV"), OPENCV ? 1 : -1);
        // The outer pool ends first: the inner one's limit still holds.
        outer.reset();
        EXPECT_EQ(gLibraryThreads, 1);
        inner.reset();
        EXPECT_EQ(gLibraryThreads, 7);
        EXPECT_EQ(ORN::WorkThread::library_threads("OpenCV"), opencv);
    }
    // A library registered while a pool lives takes its limit at once, and
    // gets its own count back with the rest.
    {
        ORN::WorkThread pool(plan_of(1, 2));
        gLibraryThreads = 5;
        ORN::WorkThread::own_library_threads(ORN::LIBRARY_THREADS{
            "test library", [] { return gLibraryThreads; }, [](int n) { gLibraryThreads = n; }});
        EXPECT_EQ(gLibraryThreads, 2);
    }
    EXPECT_EQ(gLibraryThreads, 5);
    // Both functions are needed.
    EXPECT_THROW(ORN::WorkThread::own_library_threads(ORN::LIBRARY_THREADS{"broken", nullptr, nullptr}),
                 ORN::Exception);
    ORN::WorkThread::own_library_threads(ORN::LIBRARY_THREADS{"test library", [] { return 1; }, [](int) {}});
}

// A worker keeps the pixels of the images it releases for its next image of
// the same size: the second record's decode and panorama take no fresh pages,
// a buffer still shown by another image is never handed out, and a bytes
// that do not decode still fail on a worker with nothing made.
TEST(WorkThread, AWorkerReusesThePixelsOfTheImagesItReleased) {
#ifdef _WIN32
    GTEST_SKIP() << "POSIX only: page-fault counts (getrusage), and image codecs (OpenCV)";
#else
    constexpr INDEX SIDE = 1536;
    ORN::Image source(SIDE, SIDE, 3, ORN::ImageDepth::U8);
    for (INDEX y = 0; y < SIDE; ++y)
        for (INDEX x = 0; x < SIDE * 3; ++x)
            source.data()[y * source.step() + x] = static_cast<unsigned char>((x * 7 + y * 13) % 251);
    const ORN::Buffer<unsigned char> png = ORN::Image::encode(".png", source);
    const auto faults = [] {
        struct rusage usage {};
        getrusage(RUSAGE_THREAD, &usage);
        return usage.ru_minflt;
    };
    long first = 0, second = 0;
    const unsigned char *first_pixels = nullptr;
    bool same_bytes = false, distinct = false;
    ORN::WorkThread pool(1);
    pool.parallel_for(1, [&](INDEX) {
        long before = faults();
        {
            const ORN::Image decoded = ORN::Image::decode(png.data(), png.size(), ORN::ImageReadMode::COLOR);
            ORN::Image panorama(SIDE, SIDE, 3, ORN::ImageDepth::U8);
            std::memset(panorama.data(), 1, static_cast<std::size_t>(panorama.step() * SIDE));
            first_pixels = decoded.data();
        }
        first = faults() - before;
        before = faults();
        {
            const ORN::Image decoded = ORN::Image::decode(png.data(), png.size(), ORN::ImageReadMode::COLOR);
            const ORN::Image panorama = ORN::Image::zeros(SIDE, SIDE, 3, ORN::ImageDepth::U8);
            second = faults() - before;
            same_bytes = std::memcmp(decoded.data(), source.data(), static_cast<std::size_t>(source.step() * SIDE)) == 0 &&
                         panorama.data()[panorama.step() * SIDE - 1] == 0;
            // Held here: the next image of its size gets other pixels.
            const ORN::Image held = decoded;
            const ORN::Image other = ORN::Image::decode(png.data(), png.size(), ORN::ImageReadMode::COLOR);
            distinct = other.data() != held.data() && other.data() != panorama.data();
        }
        EXPECT_THROW(ORN::Image::decode(png.data(), png.size() / 2, ORN::ImageReadMode::COLOR), ORN::Exception);
    });
    // Each image is 6.75 MiB: about 1700 pages each the first time.
    EXPECT_GT(first, 2000);
    EXPECT_LT(second, 200) << "first " << first;
    EXPECT_NE(first_pixels, nullptr);
    EXPECT_TRUE(same_bytes);
    EXPECT_TRUE(distinct);
#endif
}

// The resources as the system reports them, in a child whose affinity,
// SLURM_CPUS_PER_TASK and address space limit are set first.
TEST(WorkThread, TheResourcesFollowTheAffinityTheSchedulerAndTheLimits) {
#ifdef _WIN32
    GTEST_SKIP() << "POSIX only: child processes (fork)";
#else
    const auto resources_in_child = [](const std::function<void()> &setup) {
        return in_child([&] {
            setup();
            const ORN::WORKER_RESOURCES r = ORN::WorkThread::resources();
            return std::to_string(r.mCores) + " " + r.mCoresFrom + " " + std::to_string(r.mMemory) + " " + r.mMemoryFrom;
        });
    };
    const std::string one = resources_in_child([] {
        // The first processor the test may run on, alone.
        cpu_set_t set;
        CPU_ZERO(&set);
        sched_getaffinity(0, sizeof(set), &set);
        int first = 0;
        while (!CPU_ISSET(first, &set))
            ++first;
        CPU_ZERO(&set);
        CPU_SET(first, &set);
        sched_setaffinity(0, sizeof(set), &set);
    });
    EXPECT_TRUE(starts_with(one, "1 affinity ")) << one;
    if (ORN::Thread::hardware_concurrency() > 1) {
        const std::string slurm = resources_in_child([] { ::setenv("SLURM_CPUS_PER_TASK", "1", 1); });
        EXPECT_TRUE(starts_with(slurm, "1 SLURM_CPUS_PER_TASK ")) << slurm;
        // The launcher's share of a job run beside others caps it the same
        // way; a share above what the process has, or not a number, does not.
        const std::string share = resources_in_child([] { ::setenv("ZARN_CORES", "1", 1); });
        EXPECT_TRUE(starts_with(share, "1 ZARN_CORES ")) << share;
        for (const char *ignored : {"100000", "x", "0"}) {
            const std::string wide = resources_in_child([ignored] { ::setenv("ZARN_CORES", ignored, 1); });
            EXPECT_TRUE(starts_with(wide, std::to_string(ORN::WorkThread::resources().mCores) + " affinity ")) << wide;
        }
    }
    // 64 MiB more address space than the child uses now.
    const std::string limited = resources_in_child([] {
        limit_address_space_growth(64 << 20);
    });
    EXPECT_TRUE(limited.ends_with(" address space limit")) << limited;
    const long long room = std::stoll(limited.substr(limited.find(' ', limited.find(' ') + 1)));
    EXPECT_GT(room, 32ll << 20) << limited;
    EXPECT_LE(room, 64ll << 20) << limited;
#endif
}

TEST(Thread, ConditionLockHandsTurnsBackAndForth) {
    ORN::ConditionLock turn;
    int value = 0;
    {
        ORN::Thread other([&] {
            for (int i = 0; i < 100; ++i)
                turn.wait([&] { return value % 2 == 1; }), turn.notify_all([&] { ++value; });
        });
        for (int i = 0; i < 100; ++i)
            turn.notify_all([&] { ++value; }), turn.wait([&] { return value % 2 == 0; });
    } // joined here
    EXPECT_EQ(value, 200);
    ORN::Mutex mutex;
    EXPECT_EQ(mutex.locked([&] { return value + 1; }), 201);
}

// ---------------------------------------------------------------------------
// Progress line.

TEST(ConsoleProgress, LineText) {
    using P = ORN::ConsoleProgress;
    EXPECT_EQ(P::text("image stitch : ", 7, 20, 35, 2.9), "image stitch : 7/20 35% 2.41/s 5.4 s left");
    EXPECT_EQ(P::text("image stitch : ", 0, 20, 0, 1.0), "image stitch : 0/20 0%");
    EXPECT_EQ(P::text("video stitch : ", 20, 20, 100, 4.0), "video stitch : 20/20 100% 5.00/s 0.0 s left");
    EXPECT_EQ(P::text("video stitch : ", 0, 0, 100, 0.5), "video stitch : 0/0 100%");
    EXPECT_EQ(P::text("x ", 3, 9, 30, 0.0), "x 3/9 30%");
}

// The tenth lines of a report over `total` items advanced by `workers`
// threads, as standard output and the log show them.
struct Shown {
    std::vector<std::string> out, log;
};
Shown tenth_lines(INDEX total, INDEX workers, INDEX advances, bool finish) {
    TempDir dir;
    ORN::ConsoleService service;
    Shown shown;
    shown.out = lines_of(capture_stdout([&] {
        service.attach_log(dir.str());
        auto progress = service.progress("image stitch : ", total);
        ORN::WorkThread(workers).parallel_for(advances, [&](INDEX) { progress.advance(); });
        if (finish)
            progress.finish(), progress.finish();
        service.detach_log();
    }));
    static const std::regex stamp(R"(\[[-0-9: .]+\]\[INFO\] : (.*))");
    std::smatch m;
    for (const auto &line : lines_of(read_file(dir / "console.log")))
        shown.log.push_back(std::regex_match(line, m, stamp) ? std::string(m[1]) : "malformed: " + line);
    return shown;
}

TEST(ConsoleProgress, OneLinePerCompletedTenthOnPlainOutputAndInTheLog) {
    const std::regex form(R"(image stitch : (\d+)/(\d+) (\d+)% \d+\.\d\d/s \d+\.\d s left)");
    for (const INDEX total : {1, 3, 10, 25})
        for (const INDEX workers : {1, 4}) {
            const Shown shown = tenth_lines(total, workers, total, true);
            // One worker: a line at every advance that completes a tenth;
            // several: advances that complete tenths together make one line.
            const std::size_t crossings = std::size_t(std::min<INDEX>(total, 10));
            if (workers == 1) {
                EXPECT_EQ(shown.out.size(), crossings) << total;
            }
            ASSERT_GE(shown.out.size(), 1u);
            ASSERT_LE(shown.out.size(), crossings);
            EXPECT_EQ(shown.log, shown.out);
            INDEX last_done = 0, last_percent = 0;
            for (const std::string &line : shown.out) {
                std::smatch m;
                ASSERT_TRUE(std::regex_match(line, m, form)) << line;
                const INDEX done = std::stoll(m[1]), percent = std::stoll(m[3]);
                EXPECT_EQ(std::stoll(m[2]), total);
                EXPECT_EQ(percent, done * 100 / total) << line;
                EXPECT_GT(done, last_done) << line;
                EXPECT_GT(percent / 10, last_percent / 10) << "one line per tenth: " << line;
                last_done = done;
                last_percent = percent;
            }
            EXPECT_EQ(last_done, total);
            EXPECT_EQ(last_percent, 100);
        }
    // An empty report, one finished early, one dropped unfinished.
    EXPECT_EQ(tenth_lines(0, 1, 0, true).out, std::vector<std::string>{"image stitch : 0/0 100%"});
    const Shown early = tenth_lines(10, 1, 4, true);
    ASSERT_EQ(early.out.size(), 5u);
    EXPECT_TRUE(std::regex_match(early.out[4], std::regex(R"(image stitch : 4/10 100% .* s left)"))) << early.out[4];
    EXPECT_EQ(early.log, early.out);
    EXPECT_EQ(tenth_lines(10, 1, 7, false).out.size(), 7u);
    // More than the total is a failure of the advancing task.
    EXPECT_TRUE(starts_with(failure_of([] { tenth_lines(2, 1, 3, true); }), "dynamic_assert failed : done <= mTotal : at "));
}

// A terminal: what it finally shows, one row per line, rows rewritten from
// their start by a carriage return.
TEST(ConsoleProgress, RedrawnInPlaceOnATerminalBelowOtherLines) {
#ifdef _WIN32
    GTEST_SKIP() << "POSIX only: pseudo-terminals";
#else
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0)
        GTEST_SKIP() << "no pseudo-terminal available";
    ASSERT_TRUE(::grantpt(master) == 0 && ::unlockpt(master) == 0);
    const int slave = ::open(::ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0);
    const char *env = std::getenv("NO_COLOR");
    const std::optional<std::string> saved_env = env ? std::optional<std::string>(env) : std::nullopt;
    ::setenv("NO_COLOR", "1", 1);
    TempDir dir;
    ORN::ConsoleService service;
    service.attach_log(dir.str());
    std::fflush(stdout);
    const int saved = ::dup(STDOUT_FILENO);
    ::dup2(slave, STDOUT_FILENO);
    {
        auto progress = service.progress("copy : ", 4);
        progress.advance(2);
        service.info("between");
        progress.advance(), progress.advance();
        progress.finish();
        service.info("after");
    }
    std::fflush(stdout);
    ::dup2(saved, STDOUT_FILENO);
    ::close(saved);
    saved_env ? ::setenv("NO_COLOR", saved_env->c_str(), 1) : ::unsetenv("NO_COLOR");
    std::string raw;
    char buffer[256];
    pollfd p{master, POLLIN, 0};
    for (ssize_t n; ::poll(&p, 1, 200) > 0 && (n = ::read(master, buffer, sizeof(buffer))) > 0;)
        raw.append(buffer, std::size_t(n));
    ::close(slave);
    ::close(master);

    std::vector<std::string> rows{""};
    std::size_t column = 0;
    for (std::size_t i = 0; i < raw.size(); ++i)
        if (raw[i] == '\r' && raw.compare(i, 2, "\r\n") == 0)
            rows.emplace_back(), column = 0, ++i;
        else if (raw[i] == '\r')
            column = 0;
        else
            rows.back().resize(std::max(rows.back().size(), column + 1)), rows.back()[column++] = raw[i];
    for (auto &row : rows)
        row.erase(row.find_last_not_of(' ') + 1);
    ASSERT_EQ(rows.size(), 4u) << raw;
    EXPECT_EQ(rows[0], "between");
    EXPECT_TRUE(std::regex_match(rows[1], std::regex(R"(copy : 4/4 100% \d+\.\d\d/s 0\.0 s left)"))) << rows[1];
    EXPECT_EQ(rows[2], "after");
    // The log has one line per advance that completed tenths, and the
    // other lines; not the redraws.
    const auto logged = lines_of(read_file(dir / "console.log"));
    ASSERT_EQ(logged.size(), 5u);
    EXPECT_TRUE(contains(logged[0], "] : copy : 2/4 50% "));
    EXPECT_TRUE(contains(logged[1], "] : between"));
    EXPECT_TRUE(contains(logged[2], "] : copy : 3/4 75% "));
    EXPECT_TRUE(contains(logged[3], "] : copy : 4/4 100% "));
    EXPECT_TRUE(contains(logged[4], "] : after"));
#endif
}

} // namespace
