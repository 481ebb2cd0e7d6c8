#pragma once

// The run record of a job, "caches/zarn_run.json": what the last run of
// `zarn run` over the job did, written as each process starts and ends, so
// that a run that was cut short shows where it stopped. `zarn status` and
// `zarn submit --again` read it.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ZARN::Host {

// One process of a run.
struct PROCESS_RECORD {
    std::string mName;
    // "not run", "running", "done", "skipped", "failed", "interrupted".
    std::string mState = "not run";
    std::string mStarted; // UTC, ISO 8601; empty when not run
    double mSeconds = 0.0;
    // On failure: the line that tells a person why (the last error line the
    // process printed, or what the launcher saw), and the failure's text.
    std::string mFailureLine, mFailureText;
};

struct RUN_RECORD {
    std::string mLauncher; // "zarn <version>"
    std::string mBuild;    // the module's build stamp, once a process printed it
    std::string mHost;
    std::int64_t mPid = 0; // the launcher's
    std::string mStarted, mEnded;
    // "running", "done", "failed", "interrupted".
    std::string mState = "running";
    std::vector<PROCESS_RECORD> mProcesses;

    // The process the run stopped in: the running, failed or interrupted
    // one; nullptr when there is none.
    const PROCESS_RECORD *stopped_in() const;
};

constexpr std::string_view RUN_RECORD_FILE = "caches/zarn_run.json";

// Now, in UTC: "2026-11-24T01:07:19Z".
std::string utc_now();
std::string host_name();

std::string to_json(const RUN_RECORD &record);
// The record of a JSON text; a text that is no JSON, or no run record,
// raises the core's assertion (after "<name> : line L, column C : not valid
// JSON" for the former).
RUN_RECORD from_json(std::string_view text, std::string_view name);

// Writes the record into the job with the durable writer, holding the job
// lock (waiting for it or not as the program's switch says). A refused or
// failing write raises the core's assertion after its console line.
void save_run_record(const std::string &workdir, const RUN_RECORD &record);

// The record of a job as `zarn status` reads it.
struct LOADED_RECORD {
    bool mPresent = false; // false: the job has no record (never run)
    std::string mProblem;  // why a present record could not be read
    RUN_RECORD mRecord;
};
LOADED_RECORD load_run_record(const std::string &workdir);

} // namespace ZARN::Host
