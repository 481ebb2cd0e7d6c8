#pragma once

// `zarn status [--json] WORKDIR...`: what the last run of each job came to,
// read from its run record.

#include "host/run_record.h"

#include <string>

namespace ZARN::Host {

// One job as `zarn status` tells it.
struct JOB_STATUS {
    std::string mWorkdir;
    // "done", "failed", "interrupted", "running", "not run" (no record) or
    // "unreadable" (a record that cannot be read: mLine says why).
    std::string mState;
    std::string mProcess; // the process the run stopped in, if any
    std::string mLine;    // its failure line
    double mSeconds = 0.0;
    LOADED_RECORD mLoaded;
};

// The status of one job (an absolute, normal working directory). A record
// that says "running" for a launcher of this host that is gone is told as
// "interrupted".
JOB_STATUS job_status(const std::string &workdir);

// The command; `argv` holds its arguments after "status". Exit status 0
// when every job is done, 1 otherwise, 2 for a usage error.
int status_command(int argc, char **argv);

} // namespace ZARN::Host
