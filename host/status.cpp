// `zarn status`: one line per job and a total line, or one JSON document.

#include "host/status.h"

#include "host/launcher.h"
#include "host/submit.h"

#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_runtime.h"
#include "__ORN__/orn_serialization.h"

#include "host/platform.h"

#include <cmath>
#include <ctime>
#include <fstream>
#include <iostream>
#include <vector>

namespace ZARN::Host {

namespace {

using Platform::epoch_of;

bool launcher_alive(std::int64_t pid) { return pid > 0 && Platform::process_alive(pid); }

constexpr const char *STATES[] = {"done", "failed", "interrupted", "running", "not run", "unreadable"};

} // namespace

std::vector<std::string> jobs_from_file(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    if (!in)
        throw UsageError{"cannot read the job list " + file};
    std::vector<std::string> jobs;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty())
            jobs.push_back(absolute_path(line));
    }
    return jobs;
}

JOB_STATUS job_status(const std::string &workdir) {
    JOB_STATUS s;
    s.mWorkdir = workdir;
    s.mLoaded = load_run_record(workdir);
    if (!s.mLoaded.mPresent) {
        s.mState = "not run";
        return s;
    }
    if (!s.mLoaded.mProblem.empty()) {
        s.mState = "unreadable";
        s.mLine = s.mLoaded.mProblem;
        return s;
    }
    const RUN_RECORD &r = s.mLoaded.mRecord;
    s.mState = r.mState;
    if (s.mState != "done" && s.mState != "failed" && s.mState != "interrupted" && s.mState != "running")
        s.mState = "unreadable";
    for (const auto &p : r.mProcesses)
        s.mSeconds += p.mSeconds;
    if (const PROCESS_RECORD *p = r.stopped_in()) {
        s.mProcess = p->mName;
        s.mLine = p->mFailureLine;
        if (p->mState == "running")
            if (const auto started = epoch_of(p->mStarted); started >= 0)
                s.mSeconds += static_cast<double>(std::max<std::int64_t>(0, std::time(nullptr) - started));
    }
    if (s.mState == "running" && r.mHost == host_name() && !launcher_alive(r.mPid)) {
        s.mState = "interrupted";
        s.mLine = "the run of process " + std::to_string(r.mPid) + " on " + r.mHost + " ended without finishing its record";
    }
    return s;
}

int status_command(int argc, char **argv) {
    bool json = false;
    std::vector<std::string> workdirs;
    for (int i = 0; i < argc; ++i) {
        const std::string_view a = argv[i];
        if (a == "--json") {
            json = true;
        } else if (a == "--from") {
            if (i + 1 >= argc)
                throw UsageError{"option --from needs a value"};
            for (const auto &w : jobs_from_file(argv[++i]))
                workdirs.push_back(working_directory(w));
        } else if (a.size() > 1 && a[0] == '-') {
            throw UsageError{"unknown option " + std::string(a)};
        } else {
            workdirs.push_back(working_directory(std::string(a)));
        }
    }
    if (workdirs.empty())
        throw UsageError{"no working directory given"};

    std::vector<JOB_STATUS> jobs;
    for (const auto &w : workdirs)
        jobs.push_back(job_status(w));
    std::size_t counts[std::size(STATES)] = {};
    for (const auto &j : jobs)
        for (std::size_t k = 0; k < std::size(STATES); ++k)
            if (j.mState == STATES[k])
                ++counts[k];
    const bool all_done = counts[0] == jobs.size();

    if (json) {
        ORN::JsonWriter w(4096);
        w.raw("{").key("jobs").raw("[");
        for (std::size_t i = 0; i < jobs.size(); ++i) {
            const auto &j = jobs[i];
            if (i > 0)
                w.comma();
            w.raw("{").key("workdir").string(j.mWorkdir);
            w.comma().key("state").string(j.mState);
            w.comma().key("process").string(j.mProcess);
            w.comma().key("failure_line").string(j.mLine);
            w.comma().key("seconds").number(std::round(j.mSeconds * 1000.0) / 1000.0);
            w.comma().key("record");
            if (j.mLoaded.mPresent && j.mLoaded.mProblem.empty())
                w.raw(to_json(j.mLoaded.mRecord));
            else
                w.null();
            w.raw("}");
        }
        w.raw("]").comma().key("total").raw("{").key("jobs").number(static_cast<std::int64_t>(jobs.size()));
        for (std::size_t k = 0; k < std::size(STATES); ++k)
            w.comma().key(STATES[k]).number(static_cast<std::int64_t>(counts[k]));
        w.raw("}").comma().key("all_done").boolean(all_done).raw("}\n");
        std::cout << w.text() << std::flush;
    } else {
        // Through the console, which writes out control bytes: a name from a
        // job cannot forge a line.
        auto &console = ORN::console();
        for (const auto &j : jobs) {
            ORN::String<char> line = ORN::ConsoleService::compose(j.mState, " : ", j.mWorkdir);
            if (!j.mProcess.empty())
                line += ORN::ConsoleService::compose(" : ", j.mProcess);
            if (j.mState != "not run" && j.mState != "unreadable")
                line += ORN::ConsoleService::compose(" : ", ORN::Duration::from_seconds(j.mSeconds).text());
            if (!j.mLine.empty())
                line += ORN::ConsoleService::compose(" : ", j.mLine);
            console.print(line);
        }
        ORN::String<char> total = ORN::ConsoleService::compose("total : ", static_cast<ORN::INDEX>(jobs.size()),
                                                               jobs.size() == 1 ? " job" : " jobs");
        const char *separator = " : ";
        for (std::size_t k = 0; k < std::size(STATES); ++k)
            if (counts[k] > 0) {
                total += ORN::ConsoleService::compose(separator, static_cast<ORN::INDEX>(counts[k]), " ", STATES[k]);
                separator = ", ";
            }
        console.print(total);
    }
    return all_done ? EXIT_DONE : EXIT_FAILED;
}

} // namespace ZARN::Host
