#pragma once

// `zarn submit`: jobs run on a Slurm cluster as one array job, one array
// task per job (see docs/FARM.md).

#include <string>
#include <vector>

namespace ZARN::Host {

// The working directories listed in a file, one per line (empty lines are
// left out), each made absolute against the current directory.
std::vector<std::string> jobs_from_file(const std::string &file);

// The command; `argv` holds its arguments after "submit". Its last line is
// "submitted SUBMISSION as Slurm job ID".
int submit_command(int argc, char **argv);

} // namespace ZARN::Host
