// Many jobs: the run record of each job, `zarn status`, `zarn run -j N`, and
// `zarn submit` on a private Slurm cluster started on this machine.
#include "support.h"

#include "__ORN__/orn_serialization.h"

#include <sched.h>
#include <signal.h>

#include <regex>
#include <set>

namespace {

using namespace zarn_test;

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";
const std::string CLUSTER = std::string(ZARN_SOURCE_DIR) + "/scripts/slurm-private-cluster.sh";

// A small generated capture whose only work is one panorama.
fs::path capture(const fs::path &job) {
    EXPECT_EQ(run(quote(CAPTURE) + " " + quote(job.string()) + " --width 256 --points 1 --videos 0").status, 0);
    return job;
}

RunResult zarn(const std::string &arguments, const std::string &env = "") {
    return run("env NO_COLOR=1 " + env + " timeout 120 " + quote(ZARN) + " " + arguments);
}

ORN::JsonParser record_of(const fs::path &job) { return ORN::JsonParser(read_file(job / "caches/zarn_run.json")); }

std::string text(const ORN::JsonParser &node) { return node.exist() ? std::string(node.view()) : std::string("<absent>"); }

// The states of the record's processes, "name=state" joined by spaces.
std::string states(const ORN::JsonParser &record) {
    std::string s;
    for (const auto &p : record.child("processes").children())
        s += (s.empty() ? "" : " ") + text(p.child("name")) + "=" + text(p.child("state"));
    return s;
}

const std::regex UTC_TIME("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z");

TEST(RunRecord, DoneSkippedAndFailedWithItsLine) {
    TempDir root;
    const fs::path good = capture(root.path() / "good"), bad = capture(root.path() / "bad");
    fs::remove(bad / "captures/point_000_up.jpg");
    const auto r = zarn("run --process CalibMainProcess --process StitchMainProcess --process VideoROIProcess --libs " +
                        quote(BACKENDS) + " " + quote(good.string()) + " " + quote(bad.string()));
    ASSERT_EQ(r.status, 1) << r.output;

    const auto done = record_of(good);
    EXPECT_EQ(text(done.child("state")), "done");
    EXPECT_EQ(states(done), "CalibMainProcess=skipped StitchMainProcess=done VideoROIProcess=skipped");
    // The module's stamp is the one its banners show.
    std::smatch banner;
    ASSERT_TRUE(std::regex_search(r.output, banner, std::regex("BUILD-TIME = ([^\n]+)\n"))) << r.output;
    EXPECT_EQ(text(done.child("build")), banner[1].str());
    EXPECT_TRUE(starts_with(text(done.child("launcher")), "zarn "));
    char host[256] = {};
    ::gethostname(host, sizeof(host) - 1);
    EXPECT_EQ(text(done.child("host")), host);
    EXPECT_TRUE(std::regex_match(text(done.child("started")), UTC_TIME)) << text(done.child("started"));
    EXPECT_TRUE(std::regex_match(text(done.child("ended")), UTC_TIME)) << text(done.child("ended"));
    EXPECT_GT(done.child("processes").children()[1].child("seconds").value(0.0), 0.0);

    const auto failed = record_of(bad);
    EXPECT_EQ(text(failed.child("state")), "failed");
    EXPECT_EQ(states(failed), "CalibMainProcess=skipped StitchMainProcess=failed VideoROIProcess=not run");
    const auto stitch = failed.child("processes").children()[1];
    EXPECT_EQ(text(stitch.child("failure_line")), "missing file : " + (bad / "captures/point_000_up.jpg").string());
    EXPECT_TRUE(starts_with(text(stitch.child("failure_text")), "dynamic_assert failed : ")) << text(stitch.child("failure_text"));
    EXPECT_TRUE(contains(r.output, "StitchMainProcess error\n" + text(stitch.child("failure_text")) + "\n")) << r.output;
}

TEST(RunRecord, ARecordOfThisHostWhoseRunIsGoneIsInterrupted) {
    TempDir root;
    const fs::path job = root.path() / "job";
    char host[256] = {};
    ::gethostname(host, sizeof(host) - 1);
    // A process id that is free: a child that has been waited for.
    const pid_t gone = ::fork();
    if (gone == 0)
        ::_exit(0);
    ::waitpid(gone, nullptr, 0);
    write_file(job / "caches/zarn_run.json",
               std::string(R"({"launcher":"zarn 0","build":"","host":")") + host + R"(","pid":)" + std::to_string(gone) +
                   R"(,"started":"2026-01-01T00:00:00Z","ended":"","state":"running","processes":[)"
                   R"({"name":"StitchMainProcess","state":"running","started":"2026-01-01T00:00:00Z","seconds":0}]})");
    const auto r = zarn("status " + quote(job.string()));
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(starts_with(r.output, "interrupted : " + job.string() + " : StitchMainProcess : ")) << r.output;
    EXPECT_TRUE(contains(r.output, " : the run of process " + std::to_string(gone) + " on " + host +
                                       " ended without finishing its record\n"))
        << r.output;
}

TEST(ZarnStatus, LinesJsonAndExitStatus) {
    TempDir root;
    const fs::path done = capture(root.path() / "done"), failed = capture(root.path() / "failed");
    const fs::path never = root.path() / "never", linked = root.path() / "linked", broken = root.path() / "broken";
    fs::create_directories(never);
    fs::remove(failed / "captures/point_000_up.jpg");
    ASSERT_EQ(zarn("run --process StitchMainProcess --libs " + quote(BACKENDS) + " " + done.string() + " " + failed.string())
                  .status,
              1);
    fs::create_directories(linked / "caches");
    fs::create_symlink(done / "caches/zarn_run.json", linked / "caches/zarn_run.json");
    write_file(broken / "caches/zarn_run.json", R"({"state":"done",)");

    const auto all = zarn("status " + done.string() + " " + failed.string() + " " + never.string() + " " + linked.string() +
                          " " + broken.string());
    EXPECT_EQ(all.status, 1);
    auto lines = lines_of(all.output);
    ASSERT_EQ(lines.size(), 7u) << all.output;
    // The parser's own line about the broken record, on standard error,
    // comes while the records are read, before the lines of the jobs.
    EXPECT_EQ(lines[0], (broken / "caches/zarn_run.json").string() + " : line 1, column 17 : not valid JSON");
    lines.erase(lines.begin());
    EXPECT_TRUE(std::regex_match(lines[0], std::regex("done : " + done.string() + " : [0-9.]+ s"))) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], std::regex("failed : " + failed.string() +
                                                      " : StitchMainProcess : [0-9.]+ s : missing file : " +
                                                      (failed / "captures/point_000_up.jpg").string())))
        << lines[1];
    EXPECT_EQ(lines[2], "not run : " + never.string());
    EXPECT_EQ(lines[3], "unreadable : " + linked.string() + " : " + (linked / "caches/zarn_run.json").string() +
                            " : symbolic link, not followed");
    EXPECT_TRUE(starts_with(lines[4], "unreadable : " + broken.string() + " : " + (broken / "caches/zarn_run.json").string() +
                                          " : dynamic_assert failed : "))
        << lines[4];
    EXPECT_EQ(lines[5], "total : 5 jobs : 1 done, 1 failed, 1 not run, 2 unreadable");

    const auto json = zarn("status --json " + done.string() + " " + failed.string() + " " + never.string());
    EXPECT_EQ(json.status, 1);
    const ORN::JsonParser doc(json.output);
    const auto jobs = doc.child("jobs").children();
    ASSERT_EQ(jobs.size(), 3);
    EXPECT_EQ(text(jobs[0].child("workdir")), done.string());
    EXPECT_EQ(text(jobs[0].child("state")), "done");
    EXPECT_EQ(text(jobs[0].child("record").child("state")), "done");
    EXPECT_EQ(text(jobs[1].child("process")), "StitchMainProcess");
    EXPECT_EQ(text(jobs[1].child("failure_line")), "missing file : " + (failed / "captures/point_000_up.jpg").string());
    EXPECT_EQ(text(jobs[2].child("state")), "not run");
    EXPECT_TRUE(jobs[2].child("record").null_type());
    EXPECT_EQ(doc.child("total").child("failed").value(-1), 1);
    EXPECT_EQ(text(doc.child("all_done")), "false");

    const auto only_done = zarn("status --json " + done.string());
    EXPECT_EQ(only_done.status, 0) << only_done.output;
    EXPECT_EQ(text(ORN::JsonParser(only_done.output).child("all_done")), "true");
    // The same jobs listed in a file, one a line.
    write_file(root.path() / "list", done.string() + "\n\n" + done.string() + "\n");
    const auto listed = zarn("status --from " + quote(root / "list"));
    EXPECT_EQ(listed.status, 0) << listed.output;
    EXPECT_TRUE(contains(listed.output, "total : 2 jobs : 2 done\n")) << listed.output;
    for (const std::string &usage : {std::string("status"), std::string("status --bogus ") + done.string(),
                                     "status " + (root / "absent")}) {
        const auto u = zarn(usage);
        EXPECT_EQ(u.status, 2) << usage;
        EXPECT_TRUE(starts_with(u.output, "zarn: ")) << u.output;
    }
}

// Processors this test may use.
int own_processors() {
    cpu_set_t set;
    CPU_ZERO(&set);
    return ::sched_getaffinity(0, sizeof(set), &set) == 0 ? CPU_COUNT(&set) : 1;
}

// Every file below a folder with its content.
std::map<std::string, std::string> contents(const fs::path &root) {
    std::map<std::string, std::string> files;
    for (const auto &[name, inode] : tree(root))
        files[name] = read_file(root / name);
    return files;
}

// A job's files as a run leaves them, less what differs from run to run by
// design: the run record (times, process id), the fingerprints (the files'
// identities) and the images' fresh UUIDs.
std::map<std::string, std::string> outcome(const fs::path &job) {
    auto files = contents(job);
    files.erase("caches/zarn_run.json");
    std::erase_if(files, [](const auto &file) { return starts_with(file.first, "caches/fingerprints/"); });
    if (files.count("caches/images.json"))
        files["caches/images.json"] =
            std::regex_replace(files["caches/images.json"], std::regex(R"("uuid":"[^"]*")"), R"("uuid":"")");
    return files;
}

TEST(ParallelRun, SixJobsTwoAtOnceAsAloneEachOnItsShareWithItsOwnLog) {
    TempDir root, logs;
    std::vector<fs::path> jobs, alone;
    std::string list, alone_list;
    for (const char *name : {"a", "b", "c", "d", "e", "f"}) {
        jobs.push_back(capture(root.path() / "parallel" / name));
        alone.push_back(capture(root.path() / "alone" / name));
        list += " " + jobs.back().string();
        alone_list += " " + alone.back().string();
    }
    const auto r = zarn("run -j 2 --process StitchMainProcess --libs " + quote(BACKENDS) + " --log " + logs.str() + list);
    ASSERT_EQ(r.status, 0) << r.output;
    ASSERT_EQ(zarn("run -j 1 --process StitchMainProcess --libs " + quote(BACKENDS) + alone_list).status, 0);

    // Each job's lines carry its name; the summary is the launcher's own.
    bool summary = false;
    for (const auto &line : lines_of(r.output)) {
        summary = summary || line == "summary :";
        if (!summary) {
            EXPECT_TRUE(std::regex_search(line, std::regex("^\\[[a-f]\\] "))) << line;
        }
    }
    const int share = (own_processors() + 1) / 2;
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        const std::string name = jobs[i].filename().string();
        EXPECT_TRUE(contains(r.output, "[" + name + "] in " + jobs[i].string() + " (" + name + ")\n")) << r.output;
        EXPECT_TRUE(contains(r.output, "done : StitchMainProcess : " + jobs[i].string() + " : ")) << r.output;
        EXPECT_EQ(text(record_of(jobs[i]).child("state")), "done");
        // Its own log holds its own lines and nobody else's.
        const std::string log = read_file(logs / (name + "/console.log"));
        EXPECT_TRUE(contains(log, "][PRINT] : in " + jobs[i].string() + " (" + name + ")\n")) << log;
        for (const auto &other : jobs)
            if (other != jobs[i]) {
                EXPECT_FALSE(contains(log, other.string())) << log;
            }
        // Its workers were bounded by its share of the processors.
        std::smatch cores;
        // (capped through ZARN_CORES, not pinned: its affinity is the launcher's)
        ASSERT_TRUE(std::regex_search(log, cores, std::regex(", ([0-9]+) cores \\((affinity|ZARN_CORES)\\)"))) << log;
        EXPECT_LE(std::stoi(cores[1].str()), std::max(share, 1)) << log;
        EXPECT_EQ(cores[2].str(), own_processors() > 1 ? "ZARN_CORES" : "affinity") << log;
        // Every file the run made is, byte for byte, that of the same job
        // run alone.
        EXPECT_EQ(outcome(jobs[i]), outcome(alone[i])) << name;
        EXPECT_EQ(contents(jobs[i] / "caches/images").size(), 1u);
    }
    EXPECT_TRUE(contains(read_file(logs / "console.log"), "][PRINT] : [b] StitchMainProcess:\n"));
    const auto usage = zarn("run -j 0 " + jobs[0].string());
    EXPECT_EQ(usage.status, 2);
    EXPECT_EQ(usage.output, "zarn: -j needs a whole number of jobs, at least 1, not 0\n");
}

// A job whose only work is one call of the reconstruction library (which
// ZARN_BACKEND_HANG=run_velda_main makes hang).
fs::path reconstruction_job(const fs::path &job) {
    fs::create_directories(job / "images");
    for (const char *image : {"point_000_down.png", "point_000_up.png"})
        fs::copy_file(fs::path(ZARN_SOURCE_DIR) / "examples/sample-job/images" / image, job / "images" / image);
    write_file(job / "caches/split_data.json", R"({"VeldaMainProcess":{"Common":{"velda_type":"indoor"}}})");
    return job;
}

TEST(ParallelRun, AStopSignalEndsBothRunningJobsAndStartsNoOther) {
    TempDir root, logs;
    std::vector<fs::path> jobs;
    std::string list;
    for (const char *name : {"a", "b", "c", "d"}) {
        jobs.push_back(reconstruction_job(root.path() / name));
        list += " " + quote(jobs.back().string());
    }
    const std::string pid = root / "pid", status = root / "status", out = root / "out";
    ASSERT_EQ(run("(env NO_COLOR=1 ZARN_BACKEND_HANG=run_velda_main " + quote(ZARN) +
                  " run -j 2 --process VeldaMainProcess --libs " + quote(BACKENDS) + " --log " + logs.str() + list +
                  " > " + quote(out) + " 2>&1 & echo $! > " + quote(pid) + "; wait $!; echo $? > " + quote(status) +
                  ") > /dev/null 2>&1 &")
                  .status,
              0);
    // Once both running jobs hang, the launcher is sent SIGTERM.
    auto hanging = [&](const fs::path &job) {
        return contains(read_file(logs.path() / job.filename() / "console.log"), "run_velda_main : hanging");
    };
    for (int i = 0; i < 600 && !(hanging(jobs[0]) && hanging(jobs[1])); ++i)
        ::usleep(100000);
    ASSERT_TRUE(hanging(jobs[0]) && hanging(jobs[1])) << read_file(out);
    ASSERT_EQ(::kill(std::stoi(read_file(pid)), SIGTERM), 0);
    for (int i = 0; i < 600 && read_file(status).empty(); ++i)
        ::usleep(100000);
    EXPECT_EQ(read_file(status), "143\n") << read_file(out);

    const std::string output = read_file(out);
    for (const auto &job : {jobs[0], jobs[1]}) {
        const auto record = record_of(job);
        EXPECT_EQ(text(record.child("state")), "interrupted") << job;
        EXPECT_EQ(states(record), "VeldaMainProcess=interrupted") << job;
        EXPECT_EQ(text(record.child("processes").children()[0].child("failure_line")),
                  "zarn was sent signal 15 (Terminated) during VeldaMainProcess; the job was stopped");
        // Its child and everything the child started are gone: the lock is free.
        EXPECT_EQ(run("flock -n " + quote(job / "caches/job.lock") + " true").status, 0) << job;
    }
    for (const auto &job : {jobs[2], jobs[3]}) {
        EXPECT_FALSE(fs::exists(job / "caches/zarn_run.json")) << job;
        EXPECT_TRUE(contains(output, "not run : VeldaMainProcess : " + job.string() + " : ")) << output;
    }
}

TEST(LogInJob, KeptInTheJobRotatedAndNeverThroughALinkOrAFifo) {
    TempDir root, outside;
    const fs::path good = capture(root.path() / "good"), file_link = capture(root.path() / "file link"),
                   folder_link = capture(root.path() / "folder link"), fifo = capture(root.path() / "fifo");
    const fs::path victim = outside.path() / "console.log";
    write_file(victim, "kept\n");
    fs::create_directories(file_link / "caches/logs");
    fs::create_symlink(victim, file_link / "caches/logs/console.log");
    fs::create_symlink(outside.path(), folder_link / "caches/logs");
    fs::create_directories(fifo / "caches/logs");
    ASSERT_EQ(::mkfifo((fifo / "caches/logs/console.log").c_str(), 0644), 0);
    const std::string arguments = "run --log-in-job --process StitchMainProcess --libs " + quote(BACKENDS) + " ";
    ASSERT_EQ(zarn(arguments + quote(good.string())).status, 0);
    const auto r = zarn(arguments + quote(good.string()) + " " + quote(file_link.string()) + " " +
                        quote(folder_link.string()) + " " + quote(fifo.string()));
    EXPECT_EQ(r.status, 1) << r.output;

    // Each run of the good job has its own log in the job, the one before
    // kept once.
    const std::string log = read_file(good / "caches/logs/console.log"),
                      old = read_file(good / "caches/logs/console.old.log");
    EXPECT_TRUE(contains(log, "][PRINT] : in " + good.string() + " (good)\n")) << log;
    EXPECT_TRUE(contains(old, "][INFO] : all done\n")) << old;
    EXPECT_NE(log, old);
    EXPECT_EQ(tree(good / "caches/logs").size(), 2u);

    // The refused ones fail with one line naming the file and why, and
    // nothing outside the job is written.
    const std::map<fs::path, std::string> refusals = {
        {file_link, (file_link / "caches/logs/console.log").string() + " : symbolic link, not followed"},
        {folder_link, (folder_link / "caches/logs").string() + " : symbolic link, not followed"},
        {fifo, (fifo / "caches/logs/console.log").string() + " : not a regular file"}};
    for (const auto &[job, reason] : refusals) {
        EXPECT_TRUE(contains(r.output, "open : " + reason + "\nStitchMainProcess error\n")) << r.output;
        const auto record = record_of(job);
        EXPECT_EQ(states(record), "StitchMainProcess=failed") << job;
        EXPECT_EQ(text(record.child("processes").children()[0].child("failure_line")), "open : " + reason);
        EXPECT_TRUE(tree(job / "caches/images").empty()) << job;
    }
    EXPECT_EQ(read_file(victim), "kept\n");
    EXPECT_EQ(tree(outside.path()).size(), 1u);
    EXPECT_TRUE(fs::is_symlink(file_link / "caches/logs/console.log"));
}

// A private Slurm cluster (scripts/slurm-private-cluster.sh) shared by the
// cluster cases of this program: started once, stopped by its process ids
// when the cases are over whatever their outcome, and by the script's
// watcher if this program dies first.
class PrivateCluster : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        sCluster = new TempDir;
        const auto r = run("timeout 60 " + quote(CLUSTER) + " start " + quote(sCluster->str()) + " " +
                           std::to_string(::getpid()));
        sStarted = r.status;
        sOutput = r.output;
        sEnv = "SLURM_CONF=" + quote(*sCluster / "slurm.conf");
    }
    static void TearDownTestSuite() {
        if (sStarted == 0)
            run("timeout 60 " + quote(CLUSTER) + " stop " + quote(sCluster->str()));
        delete sCluster;
        sCluster = nullptr;
    }
    void SetUp() override {
        if (sStarted == 3)
            GTEST_SKIP() << "Slurm or munge is not installed (scripts/install-deps.sh installs slurm-wlm and munge): "
                         << sOutput;
        if (sStarted == 4)
            GTEST_SKIP() << "this user may not start the Slurm daemons: " << sOutput;
        ASSERT_EQ(sStarted, 0) << "the private cluster did not start:\n" << sOutput;
    }

    static RunResult slurm(const std::string &command) { return run("env " + sEnv + " timeout 60 " + command); }
    static RunResult submit(const std::string &arguments, const std::string &env = "") {
        return zarn("submit " + arguments, sEnv + " " + env);
    }
    // The Slurm job ID of a submission's last line, which must be exactly
    // "submitted <folder> as Slurm job <ID>".
    static std::string job_id(const RunResult &r, const std::string &folder) {
        const auto lines = lines_of(r.output);
        std::smatch id;
        const std::string last = lines.empty() ? std::string() : lines.back();
        if (r.status != 0 || !std::regex_match(last, id, std::regex("submitted (.*) as Slurm job ([0-9]+)")) ||
            id[1].str() != folder)
            return "";
        return id[2].str();
    }
    // Waits (at most two minutes) until Slurm has nothing of the job left.
    static void wait_for(const std::string &id) {
        for (int i = 0; i < 1200; ++i) {
            const auto q = slurm("squeue -h -j " + id);
            if (q.status == 0 && q.output.empty())
                return;
            ::usleep(100000);
        }
        ADD_FAILURE() << "Slurm job " << id << " did not end";
    }
    // The exit code of each array task of a Slurm job, by task number.
    static std::map<std::string, std::string> exit_codes(const std::string &id) {
        std::map<std::string, std::string> codes;
        for (const auto &line : lines_of(slurm("scontrol -o show job " + id).output)) {
            std::smatch m;
            if (std::regex_search(line, m, std::regex("ArrayTaskId=([0-9]+) .* ExitCode=([0-9:]+)")))
                codes[m[1].str()] = m[2].str();
        }
        return codes;
    }

    static inline TempDir *sCluster = nullptr;
    static inline int sStarted = -1;
    static inline std::string sOutput, sEnv;
    TempDir mRoot;
};

TEST_F(PrivateCluster, SixJobsTwoFailingThenAgainFinishesThem) {
    // Six jobs with names a shell would split or unquote; the first run
    // alone gives the panorama every job must have.
    std::vector<fs::path> jobs;
    std::string list;
    for (const char *name : {"one", "two words", "it's three", "four;$(x)", "five", "six"}) {
        jobs.push_back(capture(mRoot.path() / "jobs" / name));
        list += "\n" + jobs.back().string();
    }
    const fs::path reference = capture(mRoot.path() / "reference");
    ASSERT_EQ(zarn("run --process StitchMainProcess --libs " + quote(BACKENDS) + " " + quote(reference.string())).status, 0);
    const auto panorama = contents(reference / "caches/images");
    ASSERT_EQ(panorama.size(), 1u);
    write_file(mRoot.path() / "list", list + "\n");
    // Two faults in the jobs' input: a capture of the second job is away,
    // the fifth job's split data is cut short.
    const fs::path away = jobs[1] / "captures/point_000_up.jpg", split = jobs[4] / "caches/split_data.json";
    const std::string split_text = read_file(split);
    fs::rename(away, mRoot.path() / "away.jpg");
    write_file(split, "{\"StitchMainProcess\":");

    const std::string folder = mRoot / "submission";
    const auto r = submit("--max-parallel 2 --cpus 1 --process StitchMainProcess --libs " + quote(BACKENDS) + " --into " +
                          quote(folder) + " --from " + quote(mRoot / "list"));
    const std::string id = job_id(r, folder);
    ASSERT_FALSE(id.empty()) << r.output;
    const auto lines = lines_of(r.output);
    EXPECT_EQ(lines[lines.size() - 2], quote(ZARN) + " status --from " + quote(folder + "/jobs.txt"));
    std::string listed;
    for (const auto &job : jobs)
        listed += job.string() + "\n";
    EXPECT_EQ(read_file(folder + "/jobs.txt"), listed);
    EXPECT_EQ(read_file(folder + "/round-1/jobs.txt"), listed);
    EXPECT_TRUE(contains(slurm("scontrol -o show job " + id).output, "ArrayTaskThrottle=2"));
    wait_for(id);

    // Each task's exit status is its job's; each job has its panorama and
    // its record, or its failure line and nothing made.
    EXPECT_EQ(exit_codes(id), (std::map<std::string, std::string>{
                                  {"0", "0:0"}, {"1", "1:0"}, {"2", "0:0"}, {"3", "0:0"}, {"4", "1:0"}, {"5", "0:0"}}));
    const std::map<std::size_t, std::string> failure_lines = {
        {1, "missing file : " + away.string()}, {4, split.string() + " : line 1, column 22 : not valid JSON"}};
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        const auto record = record_of(jobs[i]);
        const auto process = record.child("processes").children()[0];
        if (failure_lines.count(i)) {
            EXPECT_EQ(text(record.child("state")), "failed") << jobs[i];
            EXPECT_EQ(text(process.child("failure_line")), failure_lines.at(i)) << jobs[i];
            EXPECT_TRUE(tree(jobs[i] / "caches/images").empty()) << jobs[i];
        } else {
            EXPECT_EQ(text(record.child("state")), "done") << jobs[i];
            EXPECT_EQ(states(record), "StitchMainProcess=done") << jobs[i];
            EXPECT_EQ(contents(jobs[i] / "caches/images"), panorama) << jobs[i];
        }
    }
    // Each task's log is in its job; Slurm's own output stays in the
    // submission folder.
    EXPECT_TRUE(contains(read_file(jobs[1] / "caches/logs/console.log"), "][ERROR] : StitchMainProcess error\n"));
    EXPECT_TRUE(contains(read_file(jobs[0] / "caches/logs/console.log"), "][INFO] : all done\n"));
    EXPECT_TRUE(contains(read_file(folder + "/round-1/slurm-" + id + "_4.out"), "StitchMainProcess error\n"));
    EXPECT_FALSE(fs::exists(folder + "/round-1/logs"));
    const auto status = zarn("status --from " + quote(folder + "/jobs.txt"));
    EXPECT_EQ(status.status, 1);
    EXPECT_TRUE(contains(status.output, "total : 6 jobs : 4 done, 2 failed\n")) << status.output;

    // The faults removed, only the failed jobs go again.
    fs::rename(mRoot.path() / "away.jpg", away);
    write_file(split, split_text);
    const auto again = submit("--again " + quote(folder));
    const std::string again_id = job_id(again, folder);
    ASSERT_FALSE(again_id.empty()) << again.output;
    EXPECT_EQ(read_file(folder + "/round-2/jobs.txt"), jobs[1].string() + "\n" + jobs[4].string() + "\n");
    wait_for(again_id);
    EXPECT_EQ(exit_codes(again_id), (std::map<std::string, std::string>{{"0", "0:0"}, {"1", "0:0"}}));
    const auto finished = zarn("status --from " + quote(folder + "/jobs.txt"));
    EXPECT_EQ(finished.status, 0) << finished.output;
    EXPECT_TRUE(contains(finished.output, "total : 6 jobs : 6 done\n")) << finished.output;
    for (const auto &job : jobs) {
        EXPECT_EQ(text(record_of(job).child("state")), "done") << job;
        EXPECT_EQ(contents(job / "caches/images"), panorama) << job;
    }
    const auto nothing = submit("--again " + quote(folder));
    EXPECT_EQ(nothing.status, 0);
    EXPECT_EQ(nothing.output, "every job of " + folder + " is done; nothing submitted\n");
    EXPECT_FALSE(fs::exists(folder + "/round-3"));
}

TEST_F(PrivateCluster, ACancelledTaskLeavesItsJobConsistentAndAgainCompletesIt) {
    const fs::path job = reconstruction_job(mRoot.path() / "hung");
    const std::string folder = mRoot / "submission";
    const auto r = submit("--process VeldaMainProcess --libs " + quote(BACKENDS) + " --into " + quote(folder) + " " +
                              quote(job.string()),
                          "ZARN_BACKEND_HANG=run_velda_main");
    const std::string id = job_id(r, folder);
    ASSERT_FALSE(id.empty()) << r.output;
    const fs::path log = job / "caches/logs/console.log";
    for (int i = 0; i < 600 && !contains(read_file(log), "run_velda_main : hanging"); ++i)
        ::usleep(100000);
    ASSERT_TRUE(contains(read_file(log), "run_velda_main : hanging")) << read_file(log);
    EXPECT_EQ(text(record_of(job).child("state")), "running");
    ASSERT_EQ(slurm("scancel " + id).status, 0);
    wait_for(id);

    const auto record = record_of(job);
    EXPECT_EQ(text(record.child("state")), "interrupted");
    EXPECT_EQ(states(record), "VeldaMainProcess=interrupted");
    EXPECT_TRUE(contains(text(record.child("processes").children()[0].child("failure_line")), "signal 15 (Terminated)"));
    EXPECT_FALSE(text(record.child("build")).empty());
    EXPECT_TRUE(tree(job / "results").empty());
    // Nothing of the task lives on: the job's lock is free.
    EXPECT_EQ(run("flock -n " + quote(job / "caches/job.lock") + " true").status, 0);
    EXPECT_EQ(zarn("status " + quote(job.string())).status, 1);

    const auto again = submit("--again " + quote(folder));
    const std::string again_id = job_id(again, folder);
    ASSERT_FALSE(again_id.empty()) << again.output;
    wait_for(again_id);
    const auto finished = zarn("status " + quote(job.string()));
    EXPECT_EQ(finished.status, 0) << finished.output << read_file(log);
}

TEST(ZarnSubmit, UsageErrorsSubmitNothing) {
    TempDir root;
    const fs::path job = root.path() / "job";
    fs::create_directories(job);
    for (const std::string &arguments :
         {std::string("submit"), "submit --mem '1G; rm -rf /' " + job.string(), "submit --cpus 0 " + job.string(),
          "submit --process Nope " + job.string(), "submit " + (root / "absent"), "submit --again " + root.str(),
          "submit --from " + (root / "absent-list")}) {
        const auto r = run("cd " + root.str() + " && " + quote(ZARN) + " " + arguments);
        EXPECT_EQ(r.status, 2) << arguments << ": " << r.output;
        EXPECT_TRUE(starts_with(r.output, "zarn: ")) << r.output;
    }
    EXPECT_FALSE(fs::exists(root / "zarn-submissions"));
}

} // namespace
