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
// ZARN_BACKEND_OMIT=FILE,...: the named output files are left out by a call
// that otherwise succeeds (a library that forgets one of its results).
bool injected_omission(std::string_view file);

// The usual start of an entry: traces the call, throws InjectedFault when
// asked to, and yields the injected failure code, if any.
std::optional<int> enter(std::string_view entry, const std::vector<std::string> &arguments);

// --- Files of a job.
//
// A library is handed paths (absolute, or relative to the current
// directory) that the module has checked; an input may also be
// "/proc/self/fd/N", a file the module holds open. Such a path is opened as
// it is. What a library finds by itself below the working directory it is
// handed (calibration views, the reconstruction's images) is reached from
// that directory one component at a time with O_NOFOLLOW: no symbolic link
// below the job is followed, and FIFOs, devices and directories are not
// read as files.

// An owned file descriptor (-1: none; errno then tells why).
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) noexcept : mFd(fd) {}
    Descriptor(Descriptor &&other) noexcept : mFd(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept;
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor();

    int get() const noexcept { return mFd; }
    explicit operator bool() const noexcept { return mFd >= 0; }
    int release() noexcept;

private:
    int mFd = -1;
};

// The directory `path` as handed: its last component must be a real
// directory, not a link (the components before it are the caller's
// choice). The working directory of a job is opened with `follow`: the job
// itself may be reached through a link, which its caller chose.
Descriptor open_directory(const std::filesystem::path &path, bool follow = false);
// The directory `relative` below `base`: components separated by '/', none
// empty, "." or ".."; each opened with O_NOFOLLOW. With `make`, missing
// ones are made. An empty `relative` is `base` itself.
Descriptor open_directory_at(int base, std::string_view relative, bool make = false);
// The regular file `relative` below `base`, read-only, reached as above and
// opened without blocking; a link, FIFO, device or directory is refused.
Descriptor open_file_at(int base, std::string_view relative);
// The whole of an open file, read from its start; false when it is not a
// regular file, holds more than `limit` bytes or cannot be read.
bool read_all(int fd, std::vector<unsigned char> &out, std::size_t limit);
// A handed path, opened as it is (it may name a file the module holds open)
// without blocking, and read whole as read_all does.
bool read_path(const std::filesystem::path &path, std::vector<unsigned char> &out, std::size_t limit);
// The regular files of the directory `relative` below `base` (reached as
// above), names sorted; links and other entries are left out.
std::vector<std::string> list_files_at(int base, std::string_view relative);

// --- Outputs.
//
// Every output is written to a new temporary file in the target's own
// directory, named ".<target name>.<pid>.<n>.part<target extension>" and
// created with O_CREAT | O_EXCL | O_NOFOLLOW relative to a descriptor of
// that directory (a planted file or link at that name is never opened: the
// next number is taken). Once complete it is flushed to the disk and renamed
// over the target (a link at the target is replaced, never followed; a
// directory there is a failure), and the directory is flushed. On any
// failure the temporary file is removed and the target stays as it was, so
// a file published earlier as a hard link of the old target keeps its
// content. Before the temporary is made, the temporaries of the same target
// that other processes left (an interrupted run) are removed: the module
// holds the job lock during every library call, so no other process is
// writing that target.
class OutputFile {
public:
    // The target `name` (a plain file name) in the open directory `directory`.
    OutputFile(int directory, std::string name);
    // The target as handed: its directory is opened with open_directory and
    // must exist.
    explicit OutputFile(const std::filesystem::path &target);
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;
    // Removes the temporary file unless it was committed.
    ~OutputFile();

    // Whether the temporary file is open (and nothing failed so far).
    bool ok() const noexcept { return mOk; }
    // The temporary file's descriptor.
    int fd() const noexcept { return mFile.get(); }
    // A path naming the open temporary file, for writers that open files by
    // name and want the target's extension: a link to "/proc/self/fd/N" with
    // that extension in a private folder of the system's temporary
    // directory (made with mkdtemp, removed with the object). Empty when it
    // cannot be made.
    std::string descriptor_path();
    // Appends the bytes, in pieces of at most `piece` bytes (0: all at once).
    bool write(const void *data, std::size_t size, std::size_t piece = 0);
    // Flushes the temporary file to the disk and closes it.
    bool finish();
    // finish, then renames the temporary over the target and flushes the
    // directory. False (and the temporary removed) when anything fails.
    bool commit();
    // Removes the temporary file now.
    void discard();

private:
    Descriptor mDirectory;
    Descriptor mFile;
    std::string mName, mTemporary, mAlias;
    bool mOk = false, mFinished = false, mCommitted = false;
    void create();
    void remove_alias();
};

// The temporary name of a target's output for a process and a number.
std::string temporary_name(std::string_view target, long pid, unsigned long number);
// Removes the temporaries of `target` in the directory that a process
// other than this one left.
void remove_stale_temporaries(int directory, std::string_view target);

// The whole file written as an OutputFile: to a target as handed, or to a
// plain name in an open directory. False on failure.
bool write_file(const std::filesystem::path &path, const void *data, std::size_t size, std::size_t piece = 0);
bool write_file(const std::filesystem::path &path, std::string_view data);
bool write_file_at(int directory, std::string_view name, std::string_view data);

// JSON string literal of the text (quotes included).
std::string json_string(std::string_view text);
// Shortest decimal text of a number that reads back to the same value.
std::string number_text(double value);

} // namespace zarn_backend
