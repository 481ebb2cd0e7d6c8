// `zarn submit`: a submission folder and one Slurm array job over its jobs.
//
// A submission folder holds
//   submission.json   the options every round runs with, and its rounds
//   jobs.txt          every job of the submission, one absolute path a line
//   round-<r>/        one submitted round: its jobs.txt (line i is array task
//                     i), its batch script zarn.sbatch and Slurm's output of
//                     each task (slurm-<job>_<task>.out)
// Each task keeps its console log in its job, caches/logs/console.log.
// `--again` adds a round of the jobs whose run record is not done.

#include "host/submit.h"

#include "host/launcher.h"
#include "host/status.h"

#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_serialization.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace ZARN::Host {

namespace {

namespace fs = std::filesystem;

struct SUBMISSION {
    std::string mPartition, mMemory, mTime, mLibs;
    std::int64_t mCpus = 1, mMaxParallel = 0; // 0: no throttle
    std::vector<std::string> mProcesses;
};

// A word for /bin/sh, in single quotes: nothing in it is ever expanded.
std::string shell_word(const std::string &word) {
    std::string q = "'";
    for (const char c : word)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

std::int64_t positive(const std::string &text, const std::string &option) {
    std::int64_t n = 0;
    const auto r = std::from_chars(text.data(), text.data() + text.size(), n);
    if (r.ec != std::errc() || r.ptr != text.data() + text.size() || n < 1)
        throw UsageError{option + " needs a whole number, at least 1, not " + text};
    return n;
}

// Option values handed to sbatch must be what Slurm reads them as: no
// spaces or control bytes, characters of the option's kind only.
void check_value(const std::string &value, const std::string &allowed, const std::string &option) {
    if (value.empty() || value.find_first_not_of(allowed) != std::string::npos)
        throw UsageError{option + " : " + value + " : not a value Slurm takes"};
}

constexpr const char *DIGITS = "0123456789";

std::string to_json(const SUBMISSION &s, const std::vector<std::pair<std::string, std::int64_t>> &rounds) {
    ORN::JsonWriter w(512);
    w.raw("{").key("partition").string(s.mPartition);
    w.comma().key("cpus").number(s.mCpus);
    w.comma().key("mem").string(s.mMemory);
    w.comma().key("time").string(s.mTime);
    w.comma().key("max_parallel").number(s.mMaxParallel);
    w.comma().key("libs").string(s.mLibs);
    w.comma().key("processes").raw("[");
    for (std::size_t i = 0; i < s.mProcesses.size(); ++i)
        (i > 0 ? w.comma() : w).string(s.mProcesses[i]);
    w.raw("]").comma().key("rounds").raw("[");
    for (std::size_t i = 0; i < rounds.size(); ++i)
        (i > 0 ? w.comma() : w).raw("{").key("slurm_job").string(rounds[i].first).comma().key("jobs").number(rounds[i].second).raw("}");
    w.raw("]}\n");
    return std::string(std::move(w).text());
}

std::string load_text(const ORN::JobDirectory &folder, std::string_view name) {
    return std::string(folder.load_file(name).text());
}

std::string list_text(const std::vector<std::string> &jobs) {
    std::string text;
    for (const auto &j : jobs)
        text += j + "\n";
    return text;
}

// A folder that did not exist before: "./zarn-submissions/<UTC time>-<n>"
// with the first free n, or the one asked for (which may exist, empty).
std::string new_submission_folder(const std::string &into) {
    if (!into.empty()) {
        const std::string folder = absolute_path(into);
        std::error_code ec;
        fs::create_directories(folder, ec);
        if (!fs::is_directory(folder) || !fs::is_empty(folder, ec))
            throw UsageError{"--into " + folder + " : must be a new or empty directory"};
        return folder;
    }
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    char stamp[32];
    std::strftime(stamp, sizeof(stamp), "%Y%m%dT%H%M%SZ", &parts);
    const std::string parent = absolute_path("zarn-submissions");
    std::error_code ec;
    fs::create_directories(parent, ec);
    for (int n = 1;; ++n) {
        const std::string folder = parent + "/" + stamp + "-" + std::to_string(n);
        if (::mkdir(folder.c_str(), 0777) == 0)
            return folder;
        if (errno != EEXIST)
            throw UsageError{"cannot make the submission folder " + folder + " : " + std::strerror(errno)};
    }
}

// Runs sbatch with the arguments as they are (no shell); its standard output
// is the result, its standard error reaches ours. Empty when it failed.
std::string run_sbatch(const std::vector<std::string> &arguments) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return {};
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(ends[1], STDOUT_FILENO);
        std::vector<char *> argv;
        for (const auto &a : arguments)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());
        std::fprintf(stderr, "zarn: cannot run %s : %s\n", argv[0], std::strerror(errno));
        ::_exit(127);
    }
    ::close(ends[1]);
    std::string out;
    char buffer[1024];
    for (ssize_t n; (n = ::read(ends[0], buffer, sizeof(buffer))) != 0;) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            break;
        out.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(ends[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (child < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return {};
    return out;
}

// The batch script of a round. Every array task reads its job from the
// round's list, line SLURM_ARRAY_TASK_ID + 1, and hands it to zarn as one
// argument: no job name is ever read by the shell as code.
std::string batch_script(const SUBMISSION &s, const std::string &zarn, const std::string &round) {
    std::string command = shell_word(zarn) + " run";
    for (const auto &p : s.mProcesses)
        command += " --process " + shell_word(p);
    if (!s.mLibs.empty())
        command += " --libs " + shell_word(s.mLibs);
    command += " --log-in-job";
    return "#!/bin/sh\n"
           "# One task of a zarn submission: runs the job on line SLURM_ARRAY_TASK_ID + 1\n"
           "# of the round's job list, as `zarn run` does; its exit status is the task's.\n"
           "set -eu\n"
           "list=" + shell_word(round + "/jobs.txt") + "\n"
           "job=$(sed -n \"$((SLURM_ARRAY_TASK_ID + 1))p\" \"$list\")\n"
           "if [ -z \"$job\" ]; then\n"
           "    echo \"zarn: no job on line $((SLURM_ARRAY_TASK_ID + 1)) of $list\" >&2\n"
           "    exit 2\n"
           "fi\n"
           "exec " + command + " \"$job\"\n";
}

// Writes round `r` of the submission for `jobs` and submits it; prints the
// lines of a submission and returns the exit status.
int submit_round(const std::string &folder, const SUBMISSION &s, std::vector<std::pair<std::string, std::int64_t>> rounds,
                 const std::vector<std::string> &jobs) {
    const ORN::JobDirectory submission(folder);
    const std::string name = "round-" + std::to_string(rounds.size() + 1);
    const std::string round = folder + "/" + name;
    submission.build_directory(name);
    submission.save_file(name + "/jobs.txt", list_text(jobs));
    const std::string zarn = launcher_directory() + "/zarn";
    submission.save_file(name + "/zarn.sbatch", batch_script(s, zarn, round));

    std::vector<std::string> sbatch = {"sbatch", "--parsable", "--job-name=zarn", "--chdir=" + round,
                                       "--output=" + round + "/slurm-%A_%a.out",
                                       "--cpus-per-task=" + std::to_string(s.mCpus)};
    std::string array = "--array=0-" + std::to_string(jobs.size() - 1);
    if (s.mMaxParallel > 0)
        array += "%" + std::to_string(s.mMaxParallel);
    sbatch.push_back(array);
    if (!s.mPartition.empty())
        sbatch.push_back("--partition=" + s.mPartition);
    if (!s.mMemory.empty())
        sbatch.push_back("--mem=" + s.mMemory);
    if (!s.mTime.empty())
        sbatch.push_back("--time=" + s.mTime);
    sbatch.push_back(round + "/zarn.sbatch");

    const std::string out = run_sbatch(sbatch);
    const std::string id = out.substr(0, out.find_first_of(";\n"));
    if (id.empty() || id.find_first_not_of(DIGITS) != std::string::npos) {
        std::cerr << "zarn: sbatch did not take " << round << "/zarn.sbatch\n";
        std::error_code ec;
        fs::remove_all(round, ec);
        return EXIT_FAILED;
    }
    submission.save_file(name + "/slurm-job", id + "\n");
    rounds.emplace_back(id, static_cast<std::int64_t>(jobs.size()));
    submission.save_file("submission.json", to_json(s, rounds));
    std::cout << name << " of " << folder << " : " << jobs.size() << (jobs.size() == 1 ? " job" : " jobs") << "\n";
    std::cout << shell_word(zarn) << " status --from " << shell_word(folder + "/jobs.txt") << "\n";
    std::cout << "submitted " << folder << " as Slurm job " << id << std::endl;
    return EXIT_DONE;
}

int submit_again(const std::string &folder_given) {
    const std::string folder = absolute_path(folder_given);
    const ORN::JobDirectory submission(folder);
    if (!submission.find_file("submission.json") || !submission.find_file("jobs.txt"))
        throw UsageError{folder + " is no submission folder (no submission.json and jobs.txt)"};
    const ORN::JsonParser record(load_text(submission, "submission.json"), folder + "/submission.json");
    SUBMISSION s;
    s.mPartition = record.child("partition").value("");
    s.mCpus = record.child("cpus").value(std::int64_t(1));
    s.mMemory = record.child("mem").value("");
    s.mTime = record.child("time").value("");
    s.mMaxParallel = record.child("max_parallel").value(std::int64_t(0));
    s.mLibs = record.child("libs").value("");
    for (const auto &p : record.child("processes").children())
        s.mProcesses.emplace_back(p.value(""));
    std::vector<std::pair<std::string, std::int64_t>> rounds;
    for (const auto &r : record.child("rounds").children())
        rounds.emplace_back(r.child("slurm_job").value(""), r.child("jobs").value(std::int64_t(0)));

    std::vector<std::string> again;
    for (const auto &job : jobs_from_file(folder + "/jobs.txt"))
        if (job_status(job).mState != "done")
            again.push_back(job);
    if (again.empty()) {
        std::cout << "every job of " << folder << " is done; nothing submitted\n";
        return EXIT_DONE;
    }
    return submit_round(folder, s, rounds, again);
}

} // namespace

int submit_command(int argc, char **argv) {
    SUBMISSION s;
    std::string into, from, again;
    std::vector<std::string> given;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&] {
            if (i + 1 >= argc)
                throw UsageError{"option " + a + " needs a value"};
            return std::string(argv[++i]);
        };
        if (a == "--partition") {
            s.mPartition = value();
            check_value(s.mPartition, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.,-", a);
        } else if (a == "--cpus") {
            s.mCpus = positive(value(), a);
        } else if (a == "--mem") {
            s.mMemory = value();
            check_value(s.mMemory, "0123456789KMGTkmgt", a);
        } else if (a == "--time") {
            s.mTime = value();
            check_value(s.mTime, "0123456789:-", a);
        } else if (a == "--max-parallel") {
            s.mMaxParallel = positive(value(), a);
        } else if (a == "--process") {
            const std::string name = value();
            if (!known_process(name))
                throw UsageError{"unknown process " + name + " (see zarn list)"};
            s.mProcesses.push_back(name);
        } else if (a == "--libs") {
            s.mLibs = absolute_path(value());
        } else if (a == "--into") {
            into = value();
        } else if (a == "--from") {
            from = value();
        } else if (a == "--again") {
            again = value();
        } else if (a.size() > 1 && a[0] == '-') {
            throw UsageError{"unknown option " + a};
        } else {
            given.push_back(a);
        }
    }
    if (!again.empty()) {
        if (argc != 2)
            throw UsageError{"--again takes the submission folder and nothing else"};
        return submit_again(again);
    }
    if (!from.empty() && !given.empty())
        throw UsageError{"give the jobs either as WORKDIR... or with --from FILE"};
    if (!from.empty())
        given = jobs_from_file(from);
    if (given.empty())
        throw UsageError{"no working directory given"};
    if (!s.mLibs.empty() && !fs::is_directory(s.mLibs))
        throw UsageError{"library directory " + s.mLibs + " is not a directory"};
    std::vector<std::string> jobs;
    for (const auto &g : given) {
        const std::string job = working_directory(g);
        if (job.find('\n') != std::string::npos)
            throw UsageError{"working directory " + job + " has a line feed in its name"};
        jobs.push_back(job);
    }
    const std::string folder = new_submission_folder(into);
    const ORN::JobDirectory submission(folder);
    submission.save_file("jobs.txt", list_text(jobs));
    return submit_round(folder, s, {}, jobs);
}

} // namespace ZARN::Host
