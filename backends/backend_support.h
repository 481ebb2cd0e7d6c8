#pragma once

// What every reference backend shares: the call trace and the fault
// injection that tests drive through the environment, and small helpers for
// writing the backends' outputs.
//
//   ZARN_BACKEND_TRACE=FILE        each entry call appends one line to FILE:
//                                  the entry name, then each argument quoted
//                                  ("..." with \" and \\ escaped), space separated
//   ZARN_BACKEND_FAIL=ENTRY:CODE   ENTRY returns CODE without doing its work
//   ZARN_BACKEND_THROW=ENTRY       ENTRY throws a C++ exception
//   ZARN_BACKEND_NULL=ENTRY        the create entry ENTRY returns a null handle
//
// Each variable may name several entries, separated by commas
// ("run_calib_main:3,run_shading_main:4").

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#define ZARN_BACKEND_ENTRY extern "C" __attribute__((visibility("default")))

namespace zarn_backend {

// The exception ZARN_BACKEND_THROW makes an entry throw.
class InjectedFault : public std::runtime_error {
public:
    explicit InjectedFault(std::string_view entry);
};

// Appends the trace line of one call when ZARN_BACKEND_TRACE is set.
void trace_call(std::string_view entry, const std::vector<std::string> &arguments);

// The code ZARN_BACKEND_FAIL gives the entry, if any.
std::optional<int> injected_failure(std::string_view entry);
// Whether ZARN_BACKEND_THROW / ZARN_BACKEND_NULL name the entry.
bool injected_throw(std::string_view entry);
bool injected_null(std::string_view entry);

// The usual start of an entry: traces the call, throws InjectedFault when
// asked to, and yields the injected failure code, if any.
std::optional<int> enter(std::string_view entry, const std::vector<std::string> &arguments);

// Writes the whole file under a temporary name and renames it into place, so
// that a file published earlier as a hard link of the old one keeps its
// content. Missing parent directories are created. False on failure.
bool write_file(const std::filesystem::path &path, std::string_view data);

// JSON string literal of the text (quotes included).
std::string json_string(std::string_view text);
// Shortest decimal text of a number that reads back to the same value.
std::string number_text(double value);

} // namespace zarn_backend
