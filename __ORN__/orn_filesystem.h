#pragma once

// The single gateway to files and directories. Paths are narrow strings;
// both '\\' and '/' separate components, in every operation and on every
// platform: on POSIX a '\\' is turned into '/' before the system sees the
// path, so a file whose name holds a backslash cannot be reached here.
// Every failed precondition raises the library's assertion exception, after
// a line "<operation> : <path> : <system reason>" on the console; nothing
// returns error codes.

#include "orn_array.h"
#include "orn_basic.h"

#include <cstdint>
#include <string_view>

namespace ORN {

class FileSystemProc {
public:
    // Largest size (exclusive) of one whole-file load or save.
    static constexpr INDEX load_file_size() noexcept { return INDEX(4294967294); }

    // Whole file into a buffer; an empty file gives an empty buffer. The file
    // is opened without blocking and must be a regular file.
    static Buffer<unsigned char> load_file(const String<char> &path);
    // The same, refusing a file of `size_limit` bytes or more.
    static Buffer<unsigned char> load_file(const String<char> &path, INDEX size_limit);
    // Size in bytes of an existing regular file ("r2x >= 0" otherwise), for
    // readers that stream a file instead of loading it whole.
    static INDEX file_size(const String<char> &path);
    // Creates or truncates the file and writes the whole buffer.
    static void save_file(const String<char> &path, const Buffer<unsigned char> &data);
    static void save_file(const String<char> &path, std::string_view text);

    // True when the path exists and is not a directory.
    static bool find_file(const String<char> &path);
    // True when the path exists and is a directory.
    static bool find_directory(const String<char> &path);
    // Deletes the file; failures (a missing file) are ignored.
    static void erase_file(const String<char> &path);
    // Renames; the destination must not exist ("!r1x").
    static void move_file(const String<char> &source, const String<char> &destination);
    // Creates destination as a hard link to source; the destination must not
    // exist ("!r1x").
    static void link_file(const String<char> &source, const String<char> &destination);
    // True when both paths open and denote the same file.
    static bool identical_file(const String<char> &a, const String<char> &b);
    // Creates the directory and every missing parent.
    static void build_directory(const String<char> &path);
    // Path components in order; the first is a drive ("C:") when present.
    static Deque<String<char>> decouple_path_name(const String<char> &path);
    // The text after the last '\\' or '/' (empty when the path ends in one),
    // the whole path when it has neither.
    static String<char> file_name(const String<char> &path) {
        const auto slash = path.find_last_of("\\/");
        return slash == String<char>::npos ? path : path.substr(slash + 1);
    }
    // Joins a directory and a relative name with exactly one separator.
    static String<char> join_path(const String<char> &directory, std::string_view name);

    // Current directory of the host process, with a trailing separator.
    static String<char> working_path();
    // Directory of the file this library is loaded from, with a trailing
    // separator.
    static String<char> module_path();
    // Directory of the loaded file (program or shared library) that holds
    // `address`, with a trailing separator: a module passes the address of
    // one of its own functions to find its own directory.
    static String<char> module_path(const void *address);

private:
    friend class JobDirectory;
    // A file opened by the caller (a descriptor or handle, or -1 with the
    // reason it could not be opened), to be loaded whole.
    struct OpenFile {
        std::intptr_t mHandle;
        int mError;
    };
    static Buffer<unsigned char> load_file(OpenFile file, const String<char> &path, INDEX size_limit);
};

// A job directory, treated as untrusted input. Every name handed to it is
// relative to the job ("/" or "\\" separated; empty, "." and ".." components
// are refused) and is reached from a descriptor of the job directory one
// component at a time with O_NOFOLLOW: no symbolic link below the job
// directory is ever followed, so nothing it does can read, write or link a
// file outside the job. (The job directory itself may be reached through a
// link: the caller chose it.) A refused or failing entry is logged as
// "<operation> : <path> : <reason>" on the line before the assertion that
// ends the caller's work.
class FileWriter;
class StreamLoader;

class JobDirectory {
public:
    explicit JobDirectory(String<char> root) : mRoot(std::move(root)) {}

    const String<char> &root() const noexcept { return mRoot; }
    // The full path of a name of the job, for messages.
    String<char> path(std::string_view relative) const { return FileSystemProc::join_path(mRoot, relative); }

    // Size limit of the small configuration files the module reads whole
    // (split data, manifests, records, settings): 64 MiB.
    static constexpr INDEX config_file_size() noexcept { return INDEX(64) << 20; }

    // True when the name is present as anything at all (a dangling link too).
    bool exist(std::string_view relative) const;
    // True when the name is a regular file reached without links.
    bool find_file(std::string_view relative) const;
    // Whole regular file, read without blocking: a link, a FIFO, a device or
    // a directory is refused, as is a file of `size_limit` bytes or more.
    Buffer<unsigned char> load_file(std::string_view relative, INDEX size_limit = config_file_size()) const;
    // Identity of a regular file (device, inode, size, change times); two
    // equal stamps mean the file was not replaced or changed in between.
    struct STAMP {
        uint64 mDevice = 0, mInode = 0;
        int64 mSize = -1, mModified = 0, mChanged = 0;
        friend bool operator==(const STAMP &, const STAMP &) = default;
    };
    STAMP stamp(std::string_view relative) const;

    // Why a name is not a regular file reached inside the job without
    // links: empty when it is; otherwise "missing", "symbolic link, not
    // followed", "not a regular file" or "name leaves the job directory",
    // with in `where` the full path of the component refused.
    String<char> why_refused(std::string_view relative, String<char> *where = nullptr) const;

    // A checked input held open for a library that reads it by path: the
    // file is opened without following links and must be a regular file,
    // and `path()` names that open file (on Linux "/proc/self/fd/N"), so
    // that the name cannot be swapped for something else between the check
    // and the library's read. On Windows the path is the job's own, and the
    // open handle, shared for reading only, keeps the file from being
    // renamed, replaced or deleted until it is closed.
    class Input {
    public:
        Input() = default;
        Input(Input &&other) noexcept;
        Input &operator=(Input &&other) noexcept;
        Input(const Input &) = delete;
        Input &operator=(const Input &) = delete;
        ~Input();
        const String<char> &path() const noexcept { return mPath; }

    private:
        friend class JobDirectory;
        std::intptr_t mHandle = -1;
        String<char> mPath;
    };
    // Opens a checked input; a refused or missing name fails after the line
    // "missing file : <path>" or "refused file : <path> : <reason>".
    Input open_input(std::string_view relative) const;

    // The names of the regular files in a directory of the job, sorted
    // (links and other entries are left out); empty when the directory is
    // missing or refused.
    Array<String<char>> list_files(std::string_view relative) const;
    // Every entry of a directory of the job with its kind, sorted by name;
    // empty when the directory is missing or refused.
    enum class KIND { FILE, DIRECTORY, OTHER };
    struct LISTED {
        String<char> mName;
        KIND mKind = KIND::OTHER;
    };
    Array<LISTED> list_entries(std::string_view relative) const;

    // Makes the directory and its missing parents, each a real directory.
    void build_directory(std::string_view relative) const;
    // Opens a regular file of the job for appending, made (with its missing
    // directories) when absent; a link, a FIFO or anything else under the
    // name is refused. With `rotated` (a file name), an existing file is
    // first renamed to that name in the same directory, replacing it.
    StreamLoader append_file(std::string_view relative, std::string_view rotated = {}) const;
    // Removes a name (a link itself, never its target); a missing name is fine.
    void erase_file(std::string_view relative) const;

    // The durable writer: the text goes to a new temporary file beside the
    // target (created exclusively, never through a link), is flushed to the
    // disk and renamed over the target, and the directory is flushed. The
    // target is never truncated: a reader sees the old file or the new one,
    // whatever happens. An existing target's permission bits are kept.
    // Leftover temporary files of the target ("<name>.tmp...") are removed.
    void save_file(std::string_view relative, std::string_view data) const;
    // The same durable writer for content made piece by piece: `fill`
    // writes it through a buffered writer of `buffer_size` bytes. A `fill`
    // that throws leaves the target as it was.
    void save_file(std::string_view relative, INDEX buffer_size, const Function<void(FileWriter &)> &fill) const;
    // Removes the leftover temporary files of a target, which an
    // interrupted save may leave behind.
    void erase_leftovers(std::string_view relative) const;

    // Makes `target` a hard link of `source`, replacing an existing target
    // atomically: the link is made under a fresh temporary name beside the
    // target and renamed over it, so the target is at every moment the old
    // result or the new one. The source must be a regular file; a missing or
    // refused source leaves an existing target in place.
    void publish_file(std::string_view source, std::string_view target) const;

    // The publishing routine: a run's results, each a hard link of a cache
    // file, made the content of the result directory `directory` as one
    // set. Every source is checked before the first link, so a missing one
    // changes nothing; every target must lie below `directory`; then each
    // target is replaced atomically, and whatever else the directory held
    // (the results of an earlier run that this one no longer has) is
    // removed. While the set is being switched, a journal
    // "caches/publishing/<directory>.json" tells that the directory holds a
    // mix of two runs; it is removed when the switch is complete, and a
    // journal found at the start is reported as an interrupted publication.
    // `owned_elsewhere` names folders below `directory` that other
    // publications own: they are neither pruned nor published into.
    struct PUBLISHED {
        String<char> mSource, mTarget;
    };
    void publish_files(std::string_view directory, const Array<PUBLISHED> &files,
                       const Array<String<char>> &owned_elsewhere = {}) const;
    // The journal of an interrupted publication of `directory`, if any.
    static String<char> publication_journal(std::string_view directory);

private:
    String<char> mRoot;
};

// The advisory lock of a job: "caches/job.lock", held with flock for as
// long as the object lives. A second holder either waits (with a line saying
// so) or, when waiting is switched off, fails at once.
class JobLock {
public:
    explicit JobLock(const JobDirectory &job);
    JobLock(const JobLock &) = delete;
    JobLock &operator=(const JobLock &) = delete;
    ~JobLock();

    static constexpr std::string_view LOCK_FILE = "caches/job.lock";
    // Whether a busy lock is waited for (the default) or refused at once;
    // one switch for the whole program.
    static void set_wait(bool wait) noexcept;
    static bool wait() noexcept;

private:
    int mFd = -1;
};

// An open file kept for sequential reading or appending; shared by value,
// closed when the last copy goes.
class StreamLoader {
public:
    StreamLoader() = default;

    // Opens (creating an empty file if missing) for sequential reading.
    static StreamLoader open_read(const String<char> &path);
    // Opens (creating if missing) for appending writes.
    static StreamLoader open_write(const String<char> &path);
    // Takes over an open descriptor (a handle on Windows) for writing;
    // `path` names it in messages.
    static StreamLoader adopt(std::intptr_t descriptor, const String<char> &path);

    bool exist() const noexcept { return mThis.exist(); }
    // Fills the buffer from the current position; returns the bytes read.
    INDEX read(Buffer<unsigned char> &data);
    INDEX read(void *data, INDEX size);
    // Appends the whole buffer ("r2x == data.size ()").
    void write(const Buffer<unsigned char> &data);
    void write(const void *data, INDEX size);
    // Forces written data to the disk.
    void flush();

    // The open file of one platform.
    class Abstract : public Interface {
    public:
        virtual INDEX read(void *data, INDEX size) = 0;
        virtual void write(const void *data, INDEX size) = 0;
        virtual void flush() = 0;
    };

private:
    StrongRef<Abstract> mThis;
};

// Buffered appending writer over a StreamLoader; the buffer size comes from
// the setting mFileWriterBufferSize. Data reaches the file when the buffer
// fills, on flush, and on destruction.
class FileWriter {
public:
    FileWriter(StreamLoader stream, INDEX buffer_size);
    FileWriter(const FileWriter &) = delete;
    FileWriter &operator=(const FileWriter &) = delete;
    ~FileWriter();

    void write(const void *data, INDEX size);
    void write(std::string_view text) { write(text.data(), static_cast<INDEX>(text.size())); }
    // Writes out the buffer and forces the file to the disk.
    void flush();
    INDEX buffer_size() const noexcept { return mBuffer.size(); }

private:
    void drain();

    StreamLoader mStream;
    Buffer<unsigned char> mBuffer;
    INDEX mUsed = 0;
};

} // namespace ORN
