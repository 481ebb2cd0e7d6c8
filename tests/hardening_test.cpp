// A job directory as a hostile user would prepare it, run end to end through
// the launcher with a stand-in reconstruction library: nothing outside the
// job may change, the capture record must survive, nothing may hang, and no
// failure may pass for a success.
#include "support.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstring>

#include <map>

namespace {

using namespace zarn_test;

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string REPLAY = std::string(ZARN_BINARY_DIR) + "/tests/fixtures/replay";

const std::string PROJECT = R"({"protocol":"lumora-capture","version":"1.2","description":"Two rooms",)"
                            R"("category":"residential","uuid":"5f3c2a9e","sceneNum":3,"dataSource":"stereo",)"
                            R"("create_time":"2026-11-20 09:41:07","create_time_s":1795599667,)"
                            R"("state":{"done":false,"crashed":true},"expect_time":"2026-11-20 10:30:00",)"
                            R"("expect_time_s":1795602600,"progress":0})";
const std::string PROJECT_DONE = R"({"protocol":"lumora-capture","version":"1.2","description":"Two rooms",)"
                                 R"("category":"residential","uuid":"5f3c2a9e","sceneNum":3,"dataSource":"stereo",)"
                                 R"("create_time":"2026-11-20 09:41:07","create_time_s":1795599667,)"
                                 R"("state":{"done":true,"crashed":false},"expect_time":"2026-11-20 10:30:00",)"
                                 R"("expect_time_s":1795602600,"progress":100})";

// Every entry under a directory: relative name -> what it is (a file's
// inode and content, a link's target, "dir").
std::map<std::string, std::string> snapshot(const fs::path &root) {
    std::map<std::string, std::string> entries;
    for (const auto &e : fs::recursive_directory_iterator(root)) {
        const std::string name = fs::relative(e.path(), root).generic_string();
        if (e.is_symlink())
            entries[name] = "-> " + fs::read_symlink(e.path()).string();
        else if (e.is_regular_file())
            entries[name] = std::to_string(inode_of(e.path())) + " " + read_file(e.path());
        else
            entries[name] = "dir";
    }
    return entries;
}

// Names in a directory that start with a prefix.
std::vector<std::string> names_starting(const fs::path &dir, const std::string &prefix) {
    std::vector<std::string> names;
    for (const auto &e : fs::directory_iterator(dir))
        if (starts_with(e.path().filename().string(), prefix))
            names.push_back(e.path().filename().string());
    return names;
}

class Hardening : public ::testing::Test {
protected:
    void SetUp() override {
        write_file(mOutside / "secret.txt", "outside the job");
        write_file(mOutside / "dir/a.txt", "outside a");
        write_file(mOutside / "dir/y", "outside y");
        mOutsideBefore = snapshot(mOutside.path());
    }
    void TearDown() override { EXPECT_EQ(snapshot(mOutside.path()), mOutsideBefore) << "something outside the job changed"; }

    // A job whose stand-in library writes one up-down and one AR result,
    // their manifests and a vision file.
    fs::path make_job(const std::string &name = "job") {
        const fs::path job = mRoot.path() / name;
        write_file(job / "caches/split_data.json", R"({"VeldaMainProcess":{"Common":{"velda_type":"indoor"}}})");
        write_file(job / "project.json", PROJECT);
        write_file(job / "replay/upload.part3.json", R"({"upload":[{"file":"updown/a.txt"}]})");
        write_file(job / "replay/upload.part9.json", R"({"upload":[{"file":"ar/b.txt"}]})");
        write_file(job / "replay/updown/a.txt", "A");
        write_file(job / "replay/ar/b.txt", "B");
        write_file(job / "replay/vision.json", "{}");
        return job;
    }

    // The launcher over the jobs; a run that hangs is cut after a minute.
    static RunResult velda(const std::vector<fs::path> &jobs, const std::string &env = "",
                           const std::string &options = "") {
        std::string command = "env NO_COLOR=1 ";
        command += env;
        command += " timeout 60 " + quote(ZARN) + " run --process VeldaMainProcess --libs " + quote(REPLAY) + " ";
        command += options;
        for (const auto &job : jobs)
            command.append(" ").append(quote(job.string()));
        return run(command);
    }
    static RunResult velda(const fs::path &job, const std::string &env = "", const std::string &options = "") {
        return velda(std::vector<fs::path>{job}, env, options);
    }

    TempDir mRoot, mOutside;
    std::map<std::string, std::string> mOutsideBefore;
};

TEST_F(Hardening, ASoundJobPublishesAndRecordsAsBefore) {
    const fs::path job = make_job();
    const auto r = velda(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(inode_of(job / "results/updown/a.txt"), inode_of(job / "caches/updown/a.txt"));
    EXPECT_EQ(inode_of(job / "results/ar/b.txt"), inode_of(job / "caches/ar/b.txt"));
    EXPECT_EQ(read_file(job / "project.json"), PROJECT_DONE);
    EXPECT_TRUE(fs::is_regular_file(job / "caches/job.lock"));
}

TEST_F(Hardening, LinksInTheJobAreNeverFollowed) {
    struct CASE {
        const char *mWhat;
        std::function<void(const fs::path &)> mPlant;
        std::string mRefused; // relative to the job
    };
    const std::vector<CASE> cases = {
        {"results/updown links to a directory outside",
         [&](const fs::path &job) {
             fs::create_directories(job / "results");
             fs::create_directory_symlink(mOutside / "dir", job / "results/updown");
         },
         "results/updown"},
        {"caches/updown/a.txt links to a file outside",
         [&](const fs::path &job) {
             fs::remove(job / "replay/updown/a.txt");
             fs::create_directories(job / "caches/updown");
             fs::create_symlink(mOutside / "secret.txt", job / "caches/updown/a.txt");
         },
         "caches/updown/a.txt"},
        {"caches/updown/sub links to a directory outside",
         [&](const fs::path &job) {
             write_file(job / "replay/upload.part3.json", R"({"upload":[{"file":"updown/sub/y"}]})");
             fs::create_directories(job / "caches/updown");
             fs::create_directory_symlink(mOutside / "dir", job / "caches/updown/sub");
         },
         "caches/updown/sub"},
        {"caches links to a directory outside",
         [&](const fs::path &job) {
             fs::remove_all(job / "caches");
             fs::create_directory_symlink(mOutside / "dir", job / "caches");
         },
         "caches"},
    };
    for (const auto &c : cases) {
        const fs::path job = make_job(std::string("job") + std::to_string(&c - cases.data()));
        c.mPlant(job);
        const auto r = velda(job);
        EXPECT_EQ(r.status, 1) << c.mWhat << "\n" << r.output;
        EXPECT_TRUE(contains(r.output, (job / c.mRefused).string() + " : symbolic link, not followed\n"))
            << c.mWhat << "\n" << r.output;
        EXPECT_TRUE(contains(r.output, "VeldaMainProcess error\ndynamic_assert failed : ")) << r.output;
        EXPECT_EQ(read_file(job / "project.json"), PROJECT) << c.mWhat;
        if (!fs::is_symlink(job / "results/updown")) {
            EXPECT_FALSE(fs::exists(fs::symlink_status(job / "results/updown/a.txt"))) << c.mWhat;
        }
    }
}

TEST_F(Hardening, APlantedTemporaryRecordIsRemovedNotWrittenThrough) {
    const fs::path job = make_job();
    fs::create_symlink(mOutside / "secret.txt", job / "project.json.tmp");
    fs::create_symlink(mOutside / "secret.txt", job / "project.json.tmp-1-0");
    fs::permissions(job / "project.json", fs::perms(0640));
    const auto r = velda(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_FALSE(fs::is_symlink(job / "project.json"));
    EXPECT_EQ(read_file(job / "project.json"), PROJECT_DONE);
    EXPECT_EQ(fs::status(job / "project.json").permissions(), fs::perms(0640)) << "the record's mode is kept";
    EXPECT_TRUE(names_starting(job, "project.json.tmp").empty());
}

TEST_F(Hardening, ConcurrentRunsOfOneJobTakeTurns) {
    for (int round = 0; round < 3; ++round) {
        const fs::path job = make_job("job" + std::to_string(round));
        const std::string one = quote(ZARN) + " run --process VeldaMainProcess --libs " + quote(REPLAY) + " " +
                                quote(job.string());
        const std::string out = mRoot / ("out" + std::to_string(round));
        const auto r = run("export NO_COLOR=1 ZARN_REPLAY_DELAY_MS=300; (" + one + " > " + out + "1 2>&1; echo $? >> " +
                           out + "s) & (" + one + " > " + out + "2 2>&1; echo $? >> " + out + "s) & wait");
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(read_file(out + "s"), "0\n0\n") << read_file(out + "1") << read_file(out + "2");
        const std::string both = read_file(out + "1") + read_file(out + "2");
        EXPECT_TRUE(contains(both, "waiting for the job lock : " + (job / "caches/job.lock").string() + "\n")) << both;
        // One run did the work, the other found it done.
        EXPECT_TRUE(contains(both, "\nreturn value = 0\n")) << both;
        EXPECT_TRUE(contains(both, "\nalready done\n")) << both;
        EXPECT_EQ(read_file(job / "project.json"), PROJECT_DONE);
        EXPECT_TRUE(names_starting(job, "project.json.").empty());
    }
}

TEST_F(Hardening, NoWaitRefusesABusyJobAtOnce) {
    const fs::path job = make_job();
    const std::string out = mRoot / "first";
    const std::string first = "(NO_COLOR=1 ZARN_REPLAY_DELAY_MS=1500 " + quote(ZARN) +
                              " run --process VeldaMainProcess --libs " + quote(REPLAY) + " " + quote(job.string()) +
                              " > " + out + " 2>&1; echo $? >> " + out + ".status) &";
    const auto r = run(first + " sleep 0.5; NO_COLOR=1 " + quote(ZARN) + " run --no-wait --process VeldaMainProcess --libs " +
                       quote(REPLAY) + " " + quote(job.string()) + "; echo second=$?; wait");
    EXPECT_TRUE(contains(r.output, "lock : " + (job / "caches/job.lock").string() +
                                       " : the job is locked by another run\nVeldaMainProcess error\n"
                                       "dynamic_assert failed : locked : at "))
        << r.output;
    EXPECT_TRUE(contains(r.output, "second=1\n")) << r.output;
    EXPECT_EQ(read_file(out + ".status"), "0\n") << read_file(out);
    EXPECT_EQ(read_file(job / "project.json"), PROJECT_DONE);
}

TEST_F(Hardening, ARunKilledWhileReplacingTheRecordLosesNothing) {
    for (const char *point : {"save_file:before_rename", "save_file:after_rename"}) {
        const fs::path job = make_job(point + 10);
        for (int kill = 0; kill < 2; ++kill) {
            const auto r = velda(job, std::string("ZARN_FAULT_POINT=") + point + "@project.json");
            EXPECT_EQ(r.status, 1) << r.output;
            EXPECT_TRUE(contains(r.output, "VeldaMainProcess error\nthe program was ended by signal 9 (Killed) during "
                                           "VeldaMainProcess\n"))
                << r.output;
            // The record is either the old one or the new one, never less.
            const std::string record = read_file(job / "project.json");
            EXPECT_EQ(record, std::string(point).ends_with("before_rename") ? PROJECT : PROJECT_DONE);
        }
        const auto r = velda(job);
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_EQ(read_file(job / "project.json"), PROJECT_DONE);
        EXPECT_TRUE(names_starting(job, "project.json.").empty());
    }
}

TEST_F(Hardening, ALibraryThatEndsOrCrashesTheProgramFailsItsProcess) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"exit:0", "a library ended the program with exit status 0 during VeldaMainProcess"},
        {"exit:3", "a library ended the program with exit status 3 during VeldaMainProcess"},
        {"_exit:0", "a library ended the program with exit status 0 during VeldaMainProcess"},
        {"segv", "the program was ended by signal 11 (Segmentation fault) during VeldaMainProcess"},
        {"abort", "the program was ended by signal 6 (Aborted) during VeldaMainProcess"},
    };
    for (const auto &[how, line] : cases) {
        const fs::path job = make_job("job-" + how);
        const fs::path later = mRoot.path() / ("later-" + how);
        write_file(later / "caches/split_data.json", "{}");
        const auto r = velda({job, later}, "ZARN_REPLAY_END=" + how);
        EXPECT_EQ(r.status, 1) << how << "\n" << r.output;
        EXPECT_TRUE(contains(r.output, "\nVeldaMainProcess error\n" + line + "\n")) << how << "\n" << r.output;
        // The next job still runs.
        EXPECT_TRUE(contains(r.output, "\nskip VeldaMainProcess\ntotal time costs : ") &&
                    contains(r.output, "\nall done\nsummary :\nfailed : VeldaMainProcess : "))
            << how << "\n" << r.output;
        EXPECT_EQ(read_file(job / "project.json"), PROJECT);
    }
}

TEST_F(Hardening, AThrowingLibraryKeepsItsExceptionText) {
    const fs::path job = make_job();
    const auto r = velda(job, "ZARN_BACKEND_THROW=run_velda_main");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nrun_velda_main : injected fault\nVeldaMainProcess error\n"
                                   "dynamic_assert failed : false : at "))
        << r.output;
}

TEST_F(Hardening, SpecialFilesAreRefusedWithoutBlocking) {
    for (const char *file : {"caches/split_data.json", "project.json", "caches/upload.part3.json", "setting.xml"}) {
        const fs::path job = make_job(fs::path(file).stem().string());
        fs::remove(job / file);
        fs::remove(job / "replay" / fs::path(file).filename());
        ASSERT_EQ(::mkfifo((job / file).c_str(), 0600), 0);
        const auto r = velda(job);
        if (std::string(file) == "setting.xml") {
            // A settings file that cannot be read is left out, as a missing one.
            EXPECT_EQ(r.status, 0) << r.output;
            EXPECT_TRUE(contains(r.output, "setting file ignored : " + (job / file).string())) << r.output;
            continue;
        }
        EXPECT_EQ(r.status, 1) << file << "\n" << r.output;
        // Read whole, or checked first as a file the process needs.
        EXPECT_TRUE(contains(r.output, "load_file : " + (job / file).string() + " : not a regular file\n") ||
                    contains(r.output, "refused file : " + (job / file).string() + " : not a regular file\n"))
            << file << "\n" << r.output;
        EXPECT_TRUE(fs::is_fifo(job / file));
    }
    // A directory where the record should be.
    const fs::path job = make_job("directory");
    fs::remove(job / "project.json");
    fs::create_directory(job / "project.json");
    const auto r = velda(job);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "load_file : " + (job / "project.json").string() + " : not a regular file\n"))
        << r.output;
}

TEST_F(Hardening, AnOversizedSplitDataIsRefusedUnread) {
    const fs::path job = make_job();
    fs::resize_file(job / "caches/split_data.json", (64 << 20) + 1); // sparse: no disk used
    const auto r = velda(job);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "load_file : " + (job / "caches/split_data.json").string() +
                                       " : 67108865 bytes, over the limit of 67108864 bytes\n"
                                       "VeldaMainProcess error\ndynamic_assert failed : r2x < size_limit : at "))
        << r.output;
}

TEST_F(Hardening, RecordsAndManifestsMustHaveTheirShape) {
    int n = 0;
    for (const char *record : {"[1,2,3]", "42", "null", ""}) {
        const fs::path job = make_job("record" + std::to_string(n++));
        write_file(job / "project.json", record);
        const auto r = velda(job);
        EXPECT_EQ(r.status, 1) << record << "\n" << r.output;
        EXPECT_TRUE(contains(r.output, "capture record is not a JSON object : " + (job / "project.json").string() +
                                           "\nVeldaMainProcess error\n"
                                           "dynamic_assert failed : document.object_type () : at "))
            << record << "\n" << r.output;
        EXPECT_EQ(read_file(job / "project.json"), record);
    }
    for (const char *manifest : {"", "{}", R"({"upload":{}})", R"({"upload":null})", "[]"}) {
        const fs::path job = make_job("manifest" + std::to_string(n++));
        write_file(job / "replay/upload.part3.json", manifest);
        const auto r = velda(job);
        EXPECT_EQ(r.status, 1) << manifest << "\n" << r.output;
        EXPECT_TRUE(contains(r.output, "manifest without an \"upload\" array : " +
                                           (job / "caches/upload.part3.json").string() + "\nVeldaMainProcess error\n"
                                           "dynamic_assert failed : upload.array_type () : at "))
            << manifest << "\n" << r.output;
        EXPECT_EQ(read_file(job / "project.json"), PROJECT);
    }
}

TEST_F(Hardening, AMissingWorkingDirectoryIsAUsageError) {
    const std::string missing = (mRoot.path() / "absent").string();
    const auto r = velda(fs::path(missing));
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_EQ(r.output, "zarn: working directory " + missing + " does not exist\n");
    write_file(mRoot / "plain", "x");
    const auto f = velda(mRoot.path() / "plain");
    EXPECT_EQ(f.status, 2) << f.output;
    EXPECT_EQ(f.output, "zarn: working directory " + (mRoot / "plain") + " is not a directory\n");
}

// Permissions bind only a user other than root: the run is made as "nobody".
TEST_F(Hardening, AReadOnlyResultsFolderFailsWithThePathAndTheReason) {
    if (run("setpriv --reuid=nobody --regid=nogroup --clear-groups true").status != 0)
        GTEST_SKIP() << "cannot run as another user here (setpriv), so permissions cannot be tested";
    const fs::path job = make_job();
    ASSERT_EQ(velda(job).status, 0);
    write_file(job / "project.json", PROJECT);
    // Everything is the other user's, but "results/updown" may not be written.
    run("chmod -R a+rwX " + quote(mRoot.str()) + " && chmod a-w " + quote((job / "results/updown").string()));
    fs::remove(job / "results/updown/a.txt");
    const auto r = run("env NO_COLOR=1 setpriv --reuid=nobody --regid=nogroup --clear-groups " + quote(ZARN) +
                       " run --process VeldaMainProcess --libs " + quote(REPLAY) + " " + quote(job.string()));
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "publish_file : " + (job / "results/updown/a.txt").string() +
                                       " : Permission denied\nVeldaMainProcess error\n"
                                       "dynamic_assert failed : linked : at "))
        << r.output;
    EXPECT_EQ(read_file(job / "project.json"), PROJECT);
}

TEST_F(Hardening, AFullDiskKeepsTheOldRecord) {
    const fs::path mount = mRoot.path() / "small";
    fs::create_directories(mount);
    if (::mount("tmpfs", mount.c_str(), "tmpfs", 0, "size=256k") != 0)
        GTEST_SKIP() << "cannot mount a small file system here (" << std::strerror(errno) << ")";
    struct Unmount {
        fs::path mPath;
        ~Unmount() { ::umount2(mPath.c_str(), MNT_DETACH); }
    } unmount{mount};
    // A done job: the run needs no library, only a new record.
    const fs::path job = mount / "job";
    write_file(job / "caches/split_data.json", R"({"VeldaMainProcess":{}})");
    write_file(job / "caches/upload.part3.json", R"({"upload":[]})");
    write_file(job / "caches/upload.part9.json", R"({"upload":[]})");
    write_file(job / "project.json", PROJECT_DONE);
    fs::create_directories(job / "results/updown");
    fs::create_directories(job / "results/ar");
    fs::create_directories(job / "caches/floorplan");
    write_file(job / "caches/job.lock", "");
    // Fill what is left of the file system.
    {
        std::ofstream filler(mount / "filler", std::ios::binary);
        const std::string block(4096, 'x');
        while (filler.write(block.data(), block.size()) && filler.flush()) {
        }
    }
    const auto r = velda(job);
    EXPECT_EQ(r.status, 1) << r.output;
    // The first durable write that needs a block fails: nothing is published.
    EXPECT_TRUE(contains(r.output, " : No space left on device\nVeldaMainProcess error\n")) << r.output;
    EXPECT_EQ(read_file(job / "project.json"), PROJECT_DONE);
    EXPECT_TRUE(names_starting(job, "project.json.").empty());
}

} // namespace
