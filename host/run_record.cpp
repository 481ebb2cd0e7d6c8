// The run record: its JSON form, its durable write under the job lock, and
// its reading as untrusted input.

#include "host/run_record.h"

#include "__ORN__/orn_basic.h"
#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_serialization.h"

#include "host/platform.h"

#include <cmath>
#include <ctime>

namespace ZARN::Host {

const PROCESS_RECORD *RUN_RECORD::stopped_in() const {
    for (const auto &p : mProcesses)
        if (p.mState == "running" || p.mState == "failed" || p.mState == "interrupted")
            return &p;
    return nullptr;
}

std::string utc_now() {
    const std::time_t now = std::time(nullptr);
    const std::tm parts = Platform::utc_parts(now);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::string host_name() { return Platform::host_name(); }

std::string to_json(const RUN_RECORD &record) {
    ORN::JsonWriter w(1024);
    w.raw("{").key("launcher").string(record.mLauncher);
    w.comma().key("build").string(record.mBuild);
    w.comma().key("host").string(record.mHost);
    w.comma().key("pid").number(record.mPid);
    w.comma().key("started").string(record.mStarted);
    w.comma().key("ended").string(record.mEnded);
    w.comma().key("state").string(record.mState);
    w.comma().key("processes").raw("[");
    for (std::size_t i = 0; i < record.mProcesses.size(); ++i) {
        const auto &p = record.mProcesses[i];
        if (i > 0)
            w.comma();
        w.raw("{").key("name").string(p.mName);
        w.comma().key("state").string(p.mState);
        w.comma().key("started").string(p.mStarted);
        w.comma().key("seconds").number(std::round(p.mSeconds * 1000.0) / 1000.0);
        if (p.mState == "failed" || p.mState == "interrupted") {
            w.comma().key("failure_line").string(p.mFailureLine);
            w.comma().key("failure_text").string(p.mFailureText);
        }
        w.raw("}");
    }
    w.raw("]}");
    return std::string(std::move(w).text());
}

RUN_RECORD from_json(std::string_view text, std::string_view name) {
    const ORN::JsonParser root(text, name);
    const bool run_record = root.object_type() && root.child("processes").array_type();
    if (!run_record)
        ORN::console().error(name, " : not a run record");
    _DYNAMIC_ASSERT_(run_record);
    const auto read = [](const ORN::JsonParser &node, std::string_view key) {
        const ORN::JsonParser value = node.child(key);
        return value.string_type() ? std::string(value.view()) : std::string();
    };
    RUN_RECORD r;
    r.mLauncher = read(root, "launcher");
    r.mBuild = read(root, "build");
    r.mHost = read(root, "host");
    r.mPid = root.child("pid").value(std::int64_t(0));
    r.mStarted = read(root, "started");
    r.mEnded = read(root, "ended");
    r.mState = read(root, "state");
    for (const auto &node : root.child("processes").children()) {
        PROCESS_RECORD p;
        p.mName = read(node, "name");
        p.mState = read(node, "state");
        p.mStarted = read(node, "started");
        p.mSeconds = node.child("seconds").value(0.0);
        p.mFailureLine = read(node, "failure_line");
        p.mFailureText = read(node, "failure_text");
        r.mProcesses.push_back(std::move(p));
    }
    return r;
}

void save_run_record(const std::string &workdir, const RUN_RECORD &record) {
    const ORN::JobDirectory job(workdir);
    job.build_directory("caches");
    const ORN::JobLock lock(job);
    job.save_file(RUN_RECORD_FILE, to_json(record));
}

LOADED_RECORD load_run_record(const std::string &workdir) {
    const ORN::JobDirectory job(workdir);
    LOADED_RECORD loaded;
    const ORN::String<char> why = job.why_refused(RUN_RECORD_FILE);
    if (why == "missing")
        return loaded;
    loaded.mPresent = true;
    if (!why.empty()) {
        loaded.mProblem = std::string(job.path(RUN_RECORD_FILE)) + " : " + std::string(why);
        return loaded;
    }
    try {
        const auto text = job.load_file(RUN_RECORD_FILE);
        loaded.mRecord = from_json(text.text(), std::string(job.path(RUN_RECORD_FILE)));
    } catch (const std::exception &e) {
        loaded.mProblem = std::string(job.path(RUN_RECORD_FILE)) + " : " + e.what();
    }
    return loaded;
}

} // namespace ZARN::Host
