// Files, directories and sequential streams. The platform-neutral parts (path
// splitting and joining, the buffered writer) come first; the POSIX form of
// the operating-system calls follows. The Windows form of the same calls lives
// in orn_filesystem_windows.cpp.

#include "orn_filesystem.h"
#include "orn_debugger.h"
#include "orn_filesystem_platform.h"
#include "orn_serialization.h"

#include <algorithm>
#include <cstring>

namespace ORN {

namespace {

// Length of a buffer or text as a signed size, so that size checks compare
// like with like.
template <class T>
INDEX LENGTH(const T &item) noexcept {
    return static_cast<INDEX>(item.size());
}

constexpr bool is_separator(char c) noexcept { return c == '\\' || c == '/'; }

// The size of a transfer under the same name as the caller's buffer, so that
// the pointer-and-size forms check "data.size ()" like the buffer forms.
struct SizeView {
    INDEX mSize;
    INDEX size() const noexcept { return mSize; }
};

} // namespace

// A leading separator (an absolute POSIX path, or a rooted Windows path
// without a drive) is kept as an empty first component, so that joining the
// components with separators gives the root back. Other empty components
// (doubled or trailing separators) are dropped.
Deque<String<char>> FileSystemProc::decouple_path_name(const String<char> &path) {
    const INDEX size = LENGTH(path);
    const bool rooted = size > 0 && is_separator(path[0]);
    // First pass: count the components so the result is sized once.
    INDEX count = rooted ? 1 : 0;
    for (INDEX i = 0; i < size;) {
        while (i < size && is_separator(path[i]))
            ++i;
        if (i == size)
            break;
        ++count;
        while (i < size && !is_separator(path[i]))
            ++i;
    }
    Deque<String<char>> r1x(count);
    INDEX rbx = 0;
    if (rooted)
        ++rbx;
    for (INDEX i = 0; i < size;) {
        while (i < size && is_separator(path[i]))
            ++i;
        if (i == size)
            break;
        const INDEX first = i;
        while (i < size && !is_separator(path[i]))
            ++i;
        ++rbx;
        _DYNAMIC_ASSERT_(r1x.varify_space (rbx));
        r1x[rbx - 1].assign(path, static_cast<std::size_t>(first), static_cast<std::size_t>(i - first));
    }
    return r1x;
}

// On Windows the name's separators become backslashes as it is joined: a
// path under a \\?\ prefix takes no '/', and messages show one form.
String<char> FileSystemProc::join_path(const String<char> &directory, std::string_view name) {
#ifdef _WIN32
    constexpr char separator = '\\';
    const auto native = [](char c) { return c == '/' ? separator : c; };
#else
    constexpr char separator = '/';
    const auto native = [](char c) { return c; };
#endif
    while (!name.empty() && is_separator(name.front()))
        name.remove_prefix(1);
    String<char> r1x;
    r1x.reserve(directory.size() + 1 + name.size());
    r1x.append(directory);
    if (!r1x.empty() && !is_separator(r1x.back()))
        r1x.push_back(separator);
    for (const char c : name)
        r1x.push_back(native(c));
    return r1x;
}

// ---------------------------------------------------------------------------
// FileWriter: whatever fits is gathered in the buffer; a write that does not
// fit drains the buffer first, and a write as large as the whole buffer goes
// straight to the stream.

FileWriter::FileWriter(StreamLoader stream, INDEX buffer_size) : mStream(std::move(stream)), mBuffer(buffer_size) {}

FileWriter::~FileWriter() { try_run([this] { drain(); }); }

void FileWriter::write(const void *data, INDEX size) {
    if (size <= 0)
        return;
    const auto *bytes = static_cast<const unsigned char *>(data);
    const INDEX capacity = mBuffer.size();
    if (size <= capacity - mUsed) {
        std::memcpy(mBuffer.data() + mUsed, bytes, static_cast<std::size_t>(size));
        mUsed += size;
        return;
    }
    drain();
    if (size < capacity) {
        std::memcpy(mBuffer.data(), bytes, static_cast<std::size_t>(size));
        mUsed = size;
        return;
    }
    // Bypass the buffer; one stream write stays below the load/save limit.
    constexpr INDEX chunk = INDEX(1) << 30;
    for (INDEX done = 0; done < size; done += chunk)
        mStream.write(bytes + done, std::min(chunk, size - done));
}

void FileWriter::flush() {
    drain();
    mStream.flush();
}

void FileWriter::drain() {
    if (mUsed == 0)
        return;
    const INDEX used = std::exchange(mUsed, 0);
    mStream.write(mBuffer.data(), used);
}

void StreamLoader::write(const Buffer<unsigned char> &data) { write(data.data(), data.size()); }

INDEX StreamLoader::read(Buffer<unsigned char> &data) { return read(data.data(), data.size()); }

INDEX StreamLoader::read(void *data, INDEX size) { return mThis->read(data, size); }

void StreamLoader::write(const void *data, INDEX size) { mThis->write(data, size); }

void StreamLoader::flush() { mThis->flush(); }

void FileSystemProc::save_file(const String<char> &path, const Buffer<unsigned char> &data) { save_file(path, data.text()); }

// Prefixes are joined with the platform's separator after the path's root,
// which is kept whole: /a/b rebuilds as /a then /a/b; on Windows
// \\server\share\x makes only \\server\share\x, and a \\?\ path keeps its
// prefix. A component that ends with a colon is only appended.
void FileSystemProc::build_directory(const String<char> &path) {
    const Deque<String<char>> r2x = decouple_path_name(path);
    _DYNAMIC_ASSERT_(r2x.length () >= 1);
    INDEX root = 0;
    String<char> prefix = Private::FilePlatform::root_of(path, root);
    const Deque<String<char>> items = decouple_path_name(path.substr(static_cast<std::size_t>(root)));
    bool separate = false;
    for (INDEX i = 0; i < items.length(); ++i) {
        const String<char> &item = items[i];
        if (item.empty())
            continue;
        if (separate)
            prefix.push_back(Private::FilePlatform::SEPARATOR);
        separate = true;
        prefix.append(item);
        if (item.back() == ':')
            continue;
        if (find_directory(prefix))
            continue;
        Private::FilePlatform::create_directory(prefix);
    }
}

Array<String<char>> JobDirectory::list_files(std::string_view relative) const {
    Array<String<char>> r1x;
    for (LISTED &entry : list_entries(relative))
        if (entry.mKind == KIND::FILE)
            r1x.append(std::move(entry.mName));
    return r1x;
}

// ---------------------------------------------------------------------------
// Publication of a set of results.

String<char> JobDirectory::publication_journal(std::string_view directory) {
    String<char> name(directory);
    std::replace(name.begin(), name.end(), '\\', '/');
    while (!name.empty() && name.back() == '/')
        name.pop_back();
    std::replace(name.begin(), name.end(), '/', '.');
    return "caches/publishing/" + name + ".json";
}

namespace {

// True when `name` (job-relative) lies below `directory`.
bool below(std::string_view directory, std::string_view name) {
    const auto parts = [](std::string_view text) {
        return FileSystemProc::decouple_path_name(String<char>(text));
    };
    const Deque<String<char>> outer = parts(directory), inner = parts(name);
    if (inner.size() <= outer.size())
        return false;
    for (INDEX i = 0; i < outer.size(); ++i)
        if (outer[i] != inner[i])
            return false;
    return true;
}

// The same name with '/' between its components, for comparisons.
String<char> normal_name(std::string_view name) {
    String<char> r1x;
    for (const String<char> &part : FileSystemProc::decouple_path_name(String<char>(name))) {
        if (!r1x.empty())
            r1x.push_back('/');
        r1x.append(part);
    }
    return r1x;
}

// Removes every entry below `directory` that is not a directory and not in
// `keep`, descending into real directories only, except the folders of
// `spared` (normal names), which are left whole.
INDEX prune(const JobDirectory &job, const String<char> &directory, const Set<String<char>> &keep,
            const Set<String<char>> &spared) {
    INDEX removed = 0;
    for (const JobDirectory::LISTED &entry : job.list_entries(directory)) {
        const String<char> name = directory + "/" + entry.mName;
        if (entry.mKind == JobDirectory::KIND::DIRECTORY) {
            if (spared.find(name) == VAR_NONE)
                removed += prune(job, name, keep, spared);
        } else if (keep.find(name) == VAR_NONE) {
            job.erase_file(name);
            console().debug("unpublished : ", name);
            ++removed;
        }
    }
    return removed;
}

} // namespace

void JobDirectory::publish_files(std::string_view directory, const Array<PUBLISHED> &files,
                                 const Array<String<char>> &owned_elsewhere) const {
    const String<char> root = normal_name(directory);
    const String<char> journal = publication_journal(root);
    if (exist(journal))
        console().warn(root, " holds a mix of two runs (an earlier publication was interrupted); published anew");
    Set<String<char>> spared;
    for (const String<char> &folder : owned_elsewhere) {
        const bool inside = below(root, folder);
        if (!inside)
            console().error("publish : ", path(folder), " : a folder owned elsewhere outside ", root);
        _DYNAMIC_ASSERT_(inside);
        spared.insert(normal_name(folder));
    }
    // The folder of another publication that holds `name`, if any.
    const auto owner = [&](const String<char> &name) {
        for (const String<char> &folder : spared)
            if (below(folder, name))
                return folder;
        return String<char>();
    };

    // Every source and target is checked before anything changes.
    Set<String<char>> targets;
    for (const PUBLISHED &file : files) {
        String<char> where;
        const String<char> why = why_refused(file.mSource, &where);
        if (why == "missing")
            console().error("missing file : ", path(file.mSource));
        else if (!why.empty())
            console().error("refused file : ", where, " : ", why);
        const bool source = why.empty();
        _DYNAMIC_ASSERT_(source);
        const String<char> other = owner(file.mTarget);
        const bool target = below(root, file.mTarget) && other.empty() &&
                            targets.find(normal_name(file.mTarget)) == VAR_NONE;
        if (!target)
            console().error("publish : ", path(file.mTarget), " : ",
                            !below(root, file.mTarget) ? "outside " + root
                            : !other.empty()           ? "inside " + other + ", published elsewhere"
                                                       : String<char>("published twice"));
        _DYNAMIC_ASSERT_(target);
        targets.insert(normal_name(file.mTarget));
    }

    // The journal names the results being switched to.
    JsonWriter writer(256);
    writer.raw("{").key("directory").string(root).comma().key("state").string("mixed").comma().key("files").raw("[");
    for (INDEX i = 0; i < files.size(); ++i) {
        if (i > 0)
            writer.comma();
        writer.string(normal_name(files[i].mTarget));
    }
    writer.raw("]}");
    save_file(journal, writer.text());
    for (const PUBLISHED &file : files) {
        publish_file(file.mSource, file.mTarget);
        console().debug("link : ", normal_name(file.mTarget));
    }
    const INDEX removed = prune(*this, root, targets, spared);
    erase_file(journal);
    console().info(root, " : ", files.size(), " files published", removed > 0 ? ", " + std::to_string(removed) + " removed" : "");
}

} // namespace ORN

// ===========================================================================
// POSIX form.
#ifndef _WIN32

#include "orn_debugger.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>

namespace ORN {

namespace {

// Closes a descriptor when the scope ends.
class FileDescriptor {
public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int fd) noexcept : mFd(fd) {}
    FileDescriptor(FileDescriptor &&other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    FileDescriptor &operator=(FileDescriptor &&other) noexcept {
        if (this != &other) {
            reset();
            mFd = std::exchange(other.mFd, -1);
        }
        return *this;
    }
    ~FileDescriptor() { reset(); }
    int get() const noexcept { return mFd; }
    int release() noexcept { return std::exchange(mFd, -1); }
    void reset() noexcept {
        if (mFd >= 0)
            ::close(std::exchange(mFd, -1));
    }

private:
    int mFd = -1;
};

// The path as the system takes it: every '\\' is a separator.
String<char> native(const String<char> &path) {
    String<char> r1x = path;
    std::replace(r1x.begin(), r1x.end(), '\\', '/');
    return r1x;
}

// One read(2) moves at most this much (the kernel's own cap is just below
// 2 GiB); larger transfers are done in several calls.
constexpr INDEX kTransferLimit = INDEX(1) << 30;

// Moves up to `size` bytes with read(2) or write(2), retrying after
// interruptions; stops early only when the call moves nothing (the end of
// the file, a full device). False on an error; `done` holds the bytes moved
// either way.
template <class CALL, class BYTE>
bool transfer_fully(CALL call, int fd, BYTE *data, INDEX size, INDEX &done) noexcept {
    done = 0;
    while (done < size) {
        const ssize_t n = call(fd, data + done, static_cast<std::size_t>(std::min(size - done, kTransferLimit)));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (n == 0)
            break;
        done += n;
    }
    return true;
}

bool read_fully(int fd, unsigned char *data, INDEX size, INDEX &done) noexcept {
    return transfer_fully(::read, fd, data, size, done);
}

bool write_fully(int fd, const unsigned char *data, INDEX size, INDEX &done) noexcept {
    return transfer_fully(::write, fd, data, size, done);
}

bool path_present(const String<char> &path) noexcept {
    struct stat st;
    return ::lstat(native(path).c_str(), &st) == 0;
}

// ---------------------------------------------------------------------------
// Failure lines: "<operation> : <path> : <reason>", on the console at error
// level, just before the assertion that ends the operation.

// A refused entry of a job that is no failure of the system.
constexpr int REFUSED_LINK = -1;    // a symbolic link where a file or directory was wanted
constexpr int REFUSED_SPECIAL = -2; // a FIFO, device, socket or directory where a file was wanted
constexpr int REFUSED_NAME = -3;    // an empty, ".", ".." or rooted component

String<char> reason_text(int error) {
    switch (error) {
    case REFUSED_LINK:
        return "symbolic link, not followed";
    case REFUSED_SPECIAL:
        return "not a regular file";
    case REFUSED_NAME:
        return "name leaves the job directory";
    default:
        return std::strerror(error);
    }
}

void report(std::string_view operation, const String<char> &path, const String<char> &reason) {
    console().error(operation, " : ", path, " : ", reason);
}

void report_error(std::string_view operation, const String<char> &path, int error) {
    report(operation, path, reason_text(error));
}

// Why opening `name` in `dir` without following links failed: a link
// found in the way is told as such, not as the system's "Too many levels of
// symbolic links" or "Not a directory".
int refusal(int dir, const String<char> &name, int error) noexcept {
    struct stat st;
    if ((error == ELOOP || error == ENOTDIR || error == EMLINK) &&
        ::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
        return REFUSED_LINK;
    return error;
}

int type_refusal(const struct stat &st) noexcept { return S_ISLNK(st.st_mode) ? REFUSED_LINK : REFUSED_SPECIAL; }

// ---------------------------------------------------------------------------
// Walking a job directory.

// The components of a job-relative name; false when one of them would leave
// the job (a rooted name, ".", "..").
bool job_components(std::string_view relative, Deque<String<char>> &parts) {
    parts = FileSystemProc::decouple_path_name(String<char>(relative));
    for (const String<char> &part : parts)
        if (part.empty() || part == "." || part == "..")
            return false;
    return true;
}

// An open directory of a job, or why it could not be reached.
struct WALK {
    FileDescriptor mFd;
    int mError = 0;
    String<char> mFailed; // the path of the component that failed
    bool ok() const noexcept { return mFd.get() >= 0; }
};

// Opens the directory made of the first `count` components below the job
// root, each a real directory entered without following links; missing
// ones are made when `create` is set.
WALK walk_job(const String<char> &root, const Deque<String<char>> &parts, INDEX count, bool create) {
    WALK r1x;
    r1x.mFailed = root;
    r1x.mFd = FileDescriptor(::open(native(root).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!r1x.ok()) {
        r1x.mError = errno;
        return r1x;
    }
    for (INDEX i = 0; i < count; ++i) {
        const String<char> &name = parts[i];
        r1x.mFailed = FileSystemProc::join_path(r1x.mFailed, name);
        constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
        int next = ::openat(r1x.mFd.get(), name.c_str(), flags);
        if (next < 0 && errno == ENOENT && create) {
            if (::mkdirat(r1x.mFd.get(), name.c_str(), 0777) == 0 || errno == EEXIST)
                next = ::openat(r1x.mFd.get(), name.c_str(), flags);
        }
        if (next < 0) {
            r1x.mError = refusal(r1x.mFd.get(), name, errno);
            r1x.mFd.reset();
            return r1x;
        }
        r1x.mFd = FileDescriptor(next);
    }
    return r1x;
}

// The directory holding a job-relative name, and the name's last component.
struct ENTRY {
    WALK mDirectory;
    String<char> mName;
    bool ok() const noexcept { return mDirectory.ok(); }
};

ENTRY job_entry(const String<char> &root, std::string_view relative, bool create) {
    ENTRY r1x;
    Deque<String<char>> parts;
    if (!job_components(relative, parts) || parts.empty()) {
        r1x.mDirectory.mError = REFUSED_NAME;
        r1x.mDirectory.mFailed = FileSystemProc::join_path(root, relative);
        return r1x;
    }
    r1x.mDirectory = walk_job(root, parts, parts.size() - 1, create);
    r1x.mName = parts.back();
    return r1x;
}

// Opens the entry without following a link, as a regular file only; 0, or
// why it was refused.
int open_regular(const ENTRY &entry, int flags, FileDescriptor &file, struct stat &st) {
    const int dir = entry.mDirectory.mFd.get();
    file = FileDescriptor(::openat(dir, entry.mName.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (file.get() < 0)
        return refusal(dir, entry.mName, errno);
    if (::fstat(file.get(), &st) != 0)
        return errno;
    return S_ISREG(st.st_mode) ? 0 : type_refusal(st);
}

// Test hook: a run is killed at the named point when ZARN_FAULT_POINT names
// it, so that tests can interrupt a write where a crash would.
// "<point>@<file name>" limits it to the writes of files of that name.
void fault_point(std::string_view name, std::string_view file = {}) {
    const char *value = std::getenv("ZARN_FAULT_POINT");
    if (value == nullptr)
        return;
    const std::string_view point = value;
    const auto at = point.find('@');
    if (point.substr(0, at) == name && (at == std::string_view::npos || point.substr(at + 1) == file))
        ::raise(SIGKILL);
}

std::atomic<bool> gWaitForJobLock{true};

} // namespace

Buffer<unsigned char> FileSystemProc::load_file(const String<char> &path) { return load_file(path, load_file_size()); }

Buffer<unsigned char> FileSystemProc::load_file(const String<char> &path, INDEX size_limit) {
    const int fd = ::open(native(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    return load_file(OpenFile{fd, fd < 0 ? errno : 0}, path, size_limit);
}

// The whole content of an opened file. The descriptor was opened without
// blocking (a FIFO opens at once) and is refused unless it is a regular file.
Buffer<unsigned char> FileSystemProc::load_file(OpenFile file, const String<char> &path, INDEX size_limit) {
    const FileDescriptor r1x(static_cast<int>(file.mHandle));
    INDEX r2x = VAR_NONE;
    struct stat st;
    if (r1x.get() < 0)
        report_error("load_file", path, file.mError);
    else if (::fstat(r1x.get(), &st) != 0)
        report_error("load_file", path, errno);
    else if (!S_ISREG(st.st_mode))
        report_error("load_file", path, type_refusal(st));
    else if ((r2x = static_cast<INDEX>(st.st_size)) >= load_file_size())
        report("load_file", path, TextWriter::number(r2x) + " bytes, too large to load whole");
    _DYNAMIC_ASSERT_(r2x >= 0 && r2x < load_file_size ());
    if (r2x >= size_limit)
        report("load_file", path,
               TextWriter::number(r2x) + " bytes, over the limit of " + TextWriter::number(size_limit) + " bytes");
    _DYNAMIC_ASSERT_(r2x < size_limit);
    if (r2x == 0)
        return {};
    Buffer<unsigned char> rax;
    const bool r3x = try_run([&] { rax = Buffer<unsigned char>(r2x); });
    if (!r3x)
        report_error("load_file", path, ENOMEM);
    _DYNAMIC_ASSERT_(r3x);
    INDEX r8x = 0;
    const bool r4x = read_fully(r1x.get(), rax.data(), r2x, r8x);
    if (!r4x)
        report_error("load_file", path, errno);
    _DYNAMIC_ASSERT_(r4x);
    if (LENGTH(rax) != r8x)
        report("load_file", path, "the file shrank while it was read");
    _DYNAMIC_ASSERT_(LENGTH (rax) == r8x);
    return rax;
}

INDEX FileSystemProc::file_size(const String<char> &path) {
    struct stat st;
    INDEX r2x = VAR_NONE;
    if (::stat(native(path).c_str(), &st) != 0)
        report_error("file_size", path, errno);
    else if (!S_ISREG(st.st_mode))
        report_error("file_size", path, REFUSED_SPECIAL);
    else
        r2x = static_cast<INDEX>(st.st_size);
    _DYNAMIC_ASSERT_(r2x >= 0);
    return r2x;
}

void FileSystemProc::save_file(const String<char> &path, std::string_view data) {
    _DYNAMIC_ASSERT_(data.size () < load_file_size ());
    const auto &rax = data;
    const FileDescriptor r1x(::open(native(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    const bool r3x = r1x.get() >= 0;
    if (!r3x)
        report_error("save_file", path, errno);
    _DYNAMIC_ASSERT_(r3x);
    INDEX r8x = 0;
    const bool r4x = write_fully(r1x.get(), reinterpret_cast<const unsigned char *>(rax.data()), LENGTH(rax), r8x);
    if (!r4x)
        report_error("save_file", path, errno);
    _DYNAMIC_ASSERT_(r4x);
    if (LENGTH(rax) != r8x)
        report_error("save_file", path, ENOSPC);
    _DYNAMIC_ASSERT_(LENGTH (rax) == r8x);
}

bool FileSystemProc::find_file(const String<char> &path) {
    struct stat st;
    return ::stat(native(path).c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

bool FileSystemProc::find_directory(const String<char> &path) {
    struct stat st;
    return ::stat(native(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void FileSystemProc::erase_file(const String<char> &path) { (void)::unlink(native(path).c_str()); }

// The destination is checked with lstat, so a dangling symbolic link in the
// way counts as present as well (rename would silently replace it).
void FileSystemProc::move_file(const String<char> &source, const String<char> &destination) {
    const bool r1x = path_present(destination);
    if (r1x)
        report_error("move_file", destination, EEXIST);
    _DYNAMIC_ASSERT_(!r1x);
    const bool r2x = ::rename(native(source).c_str(), native(destination).c_str()) == 0;
    if (!r2x)
        report_error("move_file", source, errno);
    _DYNAMIC_ASSERT_(r2x);
}

void FileSystemProc::link_file(const String<char> &source, const String<char> &destination) {
    const bool r1x = path_present(destination);
    if (r1x)
        report_error("link_file", destination, EEXIST);
    _DYNAMIC_ASSERT_(!r1x);
    const bool r2x = ::link(native(source).c_str(), native(destination).c_str()) == 0;
    if (!r2x)
        report_error("link_file", source, errno);
    _DYNAMIC_ASSERT_(r2x);
}

// Opened as paths only (O_PATH): nothing is read, and a FIFO does not block.
bool FileSystemProc::identical_file(const String<char> &a, const String<char> &b) {
    const FileDescriptor r1x(::open(native(a).c_str(), O_PATH | O_CLOEXEC));
    const FileDescriptor r2x(::open(native(b).c_str(), O_PATH | O_CLOEXEC));
    if (r1x.get() < 0 || r2x.get() < 0)
        return false;
    struct stat s1, s2;
    if (::fstat(r1x.get(), &s1) != 0 || ::fstat(r2x.get(), &s2) != 0)
        return false;
    return s1.st_dev == s2.st_dev && s1.st_ino == s2.st_ino;
}

const char Private::FilePlatform::SEPARATOR = '/';

void Private::FilePlatform::create_directory(const String<char> &path) { (void)::mkdir(path.c_str(), 0777); }

String<char> Private::FilePlatform::root_of(const String<char> &path, INDEX &length) {
    length = 0;
    while (length < LENGTH(path) && is_separator(path[static_cast<std::size_t>(length)]))
        ++length;
    return length > 0 ? "/" : "";
}

String<char> FileSystemProc::working_path() {
    String<char> r1x(256, '\0');
    while (::getcwd(r1x.data(), r1x.size()) == nullptr) {
        _DYNAMIC_ASSERT_(errno == ERANGE);
        r1x.resize(r1x.size() * 2);
    }
    r1x.resize(std::strlen(r1x.c_str()));
    if (r1x.empty() || r1x.back() != '/')
        r1x.push_back('/');
    return r1x;
}

String<char> FileSystemProc::module_path() {
    const auto self = static_cast<String<char> (*)()>(&FileSystemProc::module_path);
    return module_path(reinterpret_cast<const void *>(self));
}

String<char> FileSystemProc::module_path(const void *address) {
    Dl_info r1x{};
    const int r2x = ::dladdr(address, &r1x);
    _DYNAMIC_ASSERT_(r2x != 0 && r1x.dli_fname != nullptr);
    const String<char> name(r1x.dli_fname);
    const auto slash = name.find_last_of('/');
    if (slash == String<char>::npos)
        return working_path();
    return name.substr(0, slash + 1);
}

// ---------------------------------------------------------------------------
// JobDirectory

bool JobDirectory::exist(std::string_view relative) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    struct stat st;
    return r1x.ok() && ::fstatat(r1x.mDirectory.mFd.get(), r1x.mName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
}

bool JobDirectory::find_file(std::string_view relative) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    struct stat st;
    return r1x.ok() && ::fstatat(r1x.mDirectory.mFd.get(), r1x.mName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(st.st_mode);
}

Buffer<unsigned char> JobDirectory::load_file(std::string_view relative, INDEX size_limit) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    if (!r1x.ok()) {
        // A missing folder is told as the missing file; a refused one by name.
        const int error = r1x.mDirectory.mError;
        return FileSystemProc::load_file(FileSystemProc::OpenFile{-1, error},
                                         error == ENOENT ? path(relative) : r1x.mDirectory.mFailed, size_limit);
    }
    const int dir = r1x.mDirectory.mFd.get();
    const int fd = ::openat(dir, r1x.mName.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    const int error = fd < 0 ? refusal(dir, r1x.mName, errno) : 0;
    return FileSystemProc::load_file(FileSystemProc::OpenFile{fd, error}, path(relative), size_limit);
}

JobDirectory::STAMP JobDirectory::stamp(std::string_view relative) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    STAMP r2x;
    struct stat st;
    if (!r1x.ok() || ::fstatat(r1x.mDirectory.mFd.get(), r1x.mName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(st.st_mode))
        return r2x;
    r2x.mDevice = st.st_dev;
    r2x.mInode = st.st_ino;
    r2x.mSize = st.st_size;
    r2x.mModified = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
    r2x.mChanged = st.st_ctim.tv_sec * 1000000000LL + st.st_ctim.tv_nsec;
    return r2x;
}

String<char> JobDirectory::why_refused(std::string_view relative, String<char> *where) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    int error = r1x.mDirectory.mError;
    if (r1x.ok()) {
        FileDescriptor file;
        struct stat st;
        error = open_regular(r1x, O_PATH, file, st);
    }
    if (where != nullptr)
        *where = r1x.ok() ? path(relative) : r1x.mDirectory.mFailed;
    if (error == 0)
        return String<char>();
    return error == ENOENT ? String<char>("missing") : reason_text(error);
}

JobDirectory::Input::Input(Input &&other) noexcept
    : mHandle(std::exchange(other.mHandle, -1)), mPath(std::move(other.mPath)) {}

JobDirectory::Input &JobDirectory::Input::operator=(Input &&other) noexcept {
    if (this != &other) {
        if (mHandle >= 0)
            ::close(static_cast<int>(mHandle));
        mHandle = std::exchange(other.mHandle, -1);
        mPath = std::move(other.mPath);
    }
    return *this;
}

JobDirectory::Input::~Input() {
    if (mHandle >= 0)
        ::close(static_cast<int>(mHandle));
}

JobDirectory::Input JobDirectory::open_input(std::string_view relative) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    int error = r1x.mDirectory.mError;
    FileDescriptor file;
    if (r1x.ok()) {
        struct stat st;
        error = open_regular(r1x, O_RDONLY | O_NONBLOCK, file, st);
    }
    if (error == ENOENT)
        console().error("missing file : ", path(relative));
    else if (error != 0)
        console().error("refused file : ", r1x.ok() ? path(relative) : r1x.mDirectory.mFailed, " : ", reason_text(error));
    const bool r2x = error == 0;
    _DYNAMIC_ASSERT_(r2x);
    // The library reads it like any file: blocking again.
    (void)::fcntl(file.get(), F_SETFL, ::fcntl(file.get(), F_GETFL) & ~O_NONBLOCK);
    Input r3x;
    r3x.mHandle = file.release();
    r3x.mPath = "/proc/self/fd/" + std::to_string(r3x.mHandle);
    return r3x;
}

Array<JobDirectory::LISTED> JobDirectory::list_entries(std::string_view relative) const {
    Array<LISTED> r1x;
    Deque<String<char>> parts;
    if (!job_components(relative, parts))
        return r1x;
    WALK r2x = walk_job(mRoot, parts, parts.size(), false);
    DIR *stream = r2x.ok() ? ::fdopendir(r2x.mFd.get()) : nullptr;
    if (stream == nullptr)
        return r1x;
    r2x.mFd.release(); // now owned by the stream
    while (const dirent *entry = ::readdir(stream)) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..")
            continue;
        struct stat st;
        LISTED item{String<char>(name), KIND::OTHER};
        if (::fstatat(::dirfd(stream), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0)
            item.mKind = S_ISREG(st.st_mode) ? KIND::FILE : S_ISDIR(st.st_mode) ? KIND::DIRECTORY : KIND::OTHER;
        r1x.append(std::move(item));
    }
    ::closedir(stream);
    std::sort(r1x.begin(), r1x.end(), [](const LISTED &a, const LISTED &b) { return a.mName < b.mName; });
    return r1x;
}

void JobDirectory::build_directory(std::string_view relative) const {
    Deque<String<char>> parts;
    WALK r1x;
    if (job_components(relative, parts)) {
        r1x = walk_job(mRoot, parts, parts.size(), true);
    } else {
        r1x.mError = REFUSED_NAME;
        r1x.mFailed = path(relative);
    }
    const bool directory = r1x.ok();
    if (!directory)
        report_error("build_directory", r1x.mFailed, r1x.mError);
    _DYNAMIC_ASSERT_(directory);
}

StreamLoader JobDirectory::append_file(std::string_view relative, std::string_view rotated) const {
    const ENTRY r1x = job_entry(mRoot, relative, true);
    int error = r1x.mDirectory.mError;
    FileDescriptor file;
    if (r1x.ok()) {
        const int dir = r1x.mDirectory.mFd.get();
        const String<char> old(rotated);
        struct stat st;
        const bool present = ::fstatat(dir, r1x.mName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
        if (present && !S_ISREG(st.st_mode))
            error = type_refusal(st);
        else if (!rotated.empty() && (old == "." || old == ".." || old.find_first_of("/\\") != String<char>::npos))
            error = REFUSED_NAME;
        else if (present && !rotated.empty() && ::renameat(dir, r1x.mName.c_str(), dir, old.c_str()) != 0)
            error = errno;
        else
            error = open_regular(r1x, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK, file, st);
    }
    // Told as the file layer tells a file it cannot open; a link or
    // other refusal on the way names the component refused.
    if (error != 0)
        report_error("open", r1x.ok() || r1x.mDirectory.mFailed == mRoot ? path(relative) : r1x.mDirectory.mFailed, error);
    const bool r2x = error == 0;
    _DYNAMIC_ASSERT_(r2x);
    (void)::fcntl(file.get(), F_SETFL, ::fcntl(file.get(), F_GETFL) & ~O_NONBLOCK);
    return StreamLoader::adopt(file.release(), path(relative));
}

void JobDirectory::erase_file(std::string_view relative) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    if (r1x.ok())
        (void)::unlinkat(r1x.mDirectory.mFd.get(), r1x.mName.c_str(), 0);
}

void JobDirectory::erase_leftovers(std::string_view relative) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    if (!r1x.ok())
        return;
    const int dir = ::dup(r1x.mDirectory.mFd.get());
    DIR *stream = dir < 0 ? nullptr : ::fdopendir(dir);
    if (stream == nullptr) {
        if (dir >= 0)
            ::close(dir);
        return;
    }
    const String<char> prefix = r1x.mName + ".tmp";
    while (const dirent *entry = ::readdir(stream)) {
        const std::string_view name = entry->d_name;
        if (name.starts_with(prefix))
            (void)::unlinkat(::dirfd(stream), entry->d_name, 0);
    }
    ::closedir(stream);
}

namespace {

// Runs a callable when the scope ends, however it ends.
template <class F>
struct ON_EXIT {
    F mCall;
    ~ON_EXIT() { mCall(); }
};
template <class F>
ON_EXIT(F) -> ON_EXIT<F>;

// The body of the durable writer: `body` writes the new content into the
// temporary file's descriptor and returns false (with errno set) when it
// could not; it may also end the save by throwing. Either way the
// temporary file is removed and the target stays as it was.
template <class BODY>
void durable_save(const JobDirectory &job, std::string_view relative, BODY &&body) {
    const String<char> target = job.path(relative);
    const ENTRY r1x = job_entry(job.root(), relative, true);
    if (!r1x.ok())
        report_error("save_file", r1x.mDirectory.mFailed, r1x.mDirectory.mError);
    const int dir = r1x.mDirectory.mFd.get();
    bool r3x = r1x.ok();
    _DYNAMIC_ASSERT_(r3x);

    // The new file takes the old one's permission bits.
    struct stat st;
    const bool replacing = ::fstatat(dir, r1x.mName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
    const mode_t mode = replacing ? (st.st_mode & 07777) : 0666;

    // A fresh, unique temporary name; a planted file or link there is never
    // opened (O_EXCL), another name is taken instead.
    static std::atomic<uint64> counter{0};
    String<char> temporary;
    FileDescriptor file;
    for (int attempt = 0; attempt < 64 && file.get() < 0; ++attempt) {
        temporary = r1x.mName + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
        file = FileDescriptor(
            ::openat(dir, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
        if (file.get() < 0 && errno != EEXIST)
            break;
    }
    r3x = file.get() >= 0;
    if (!r3x)
        report_error("save_file", FileSystemProc::join_path(r1x.mDirectory.mFailed, temporary), errno);
    _DYNAMIC_ASSERT_(r3x);
    bool kept = false;
    const ON_EXIT discard{[&] {
        file.reset();
        if (!kept)
            (void)::unlinkat(dir, temporary.c_str(), 0);
    }};

    const bool r4x = (!replacing || ::fchmod(file.get(), mode) == 0) && body(file.get(), target);
    if (!r4x)
        report_error("save_file", target, errno);
    _DYNAMIC_ASSERT_(r4x);
    file.reset();

    fault_point("save_file:before_rename", r1x.mName);
    const bool r5x = ::renameat(dir, temporary.c_str(), dir, r1x.mName.c_str()) == 0;
    if (!r5x)
        report_error("save_file", target, errno);
    _DYNAMIC_ASSERT_(r5x);
    kept = true;
    fault_point("save_file:after_rename", r1x.mName);
    // The rename itself reaches the disk with the directory.
    const bool r6x = ::fsync(dir) == 0 || errno == EINVAL;
    if (!r6x)
        report_error("save_file", r1x.mDirectory.mFailed, errno);
    _DYNAMIC_ASSERT_(r6x);
    job.erase_leftovers(relative);
}

} // namespace

void JobDirectory::save_file(std::string_view relative, std::string_view data) const {
    _DYNAMIC_ASSERT_(data.size () < FileSystemProc::load_file_size ());
    durable_save(*this, relative, [&](int fd, const String<char> &) {
        INDEX written = 0;
        const bool whole = write_fully(fd, reinterpret_cast<const unsigned char *>(data.data()), LENGTH(data), written);
        if (whole && written != LENGTH(data))
            errno = ENOSPC;
        return whole && written == LENGTH(data) && ::fsync(fd) == 0;
    });
}

void JobDirectory::save_file(std::string_view relative, INDEX buffer_size, const Function<void(FileWriter &)> &fill) const {
    durable_save(*this, relative, [&](int fd, const String<char> &target) {
        const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
        if (copy < 0)
            return false;
        FileWriter writer(StreamLoader::adopt(copy, target), buffer_size);
        fill(writer);
        writer.flush();
        return ::fsync(fd) == 0;
    });
}

void JobDirectory::publish_file(std::string_view source, std::string_view target) const {
    // The source: a regular file of the job, reached without links.
    const ENTRY from = job_entry(mRoot, source, false);
    struct stat original;
    FileDescriptor file;
    int error = from.mDirectory.mError;
    String<char> failed = from.ok() ? path(source) : from.mDirectory.mFailed;
    if (from.ok())
        error = open_regular(from, O_PATH, file, original);
    const bool source_regular = error == 0;
    if (!source_regular)
        report_error("publish_file", failed, error);
    _DYNAMIC_ASSERT_(source_regular);

    // The target's directory: real directories of the job, made as needed.
    const ENTRY to = job_entry(mRoot, target, true);
    const bool target_directory = to.ok();
    if (!target_directory)
        report_error("publish_file", to.mDirectory.mFailed, to.mDirectory.mError);
    _DYNAMIC_ASSERT_(target_directory);
    const int dir = to.mDirectory.mFd.get();

    // Link under a fresh temporary name, then rename over the target: the
    // target is never missing, and a link or file in its place is replaced
    // itself, never followed. A directory in the way is refused by rename.
    static std::atomic<uint64> counter{0};
    String<char> temporary;
    bool linked = false;
    for (int attempt = 0; attempt < 64 && !linked; ++attempt) {
        temporary = "." + to.mName + ".publish-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
        linked = ::linkat(from.mDirectory.mFd.get(), from.mName.c_str(), dir, temporary.c_str(), 0) == 0;
        if (!linked && errno != EEXIST)
            break;
    }
    if (!linked)
        report_error("publish_file", path(target), errno);
    _DYNAMIC_ASSERT_(linked);
    const ON_EXIT discard{[&] { (void)::unlinkat(dir, temporary.c_str(), 0); }};

    // The source may have been swapped for something else since it was
    // checked: the new link must be the very file that was checked.
    struct stat st;
    const bool same_file = ::fstatat(dir, temporary.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
                           st.st_dev == original.st_dev && st.st_ino == original.st_ino;
    if (!same_file)
        report("publish_file", path(source), "replaced while it was published");
    _DYNAMIC_ASSERT_(same_file);

    fault_point("publish_file:before_rename", to.mName);
    const bool replaced = ::renameat(dir, temporary.c_str(), dir, to.mName.c_str()) == 0;
    if (!replaced)
        report_error("publish_file", path(target), errno);
    _DYNAMIC_ASSERT_(replaced);
}

// ---------------------------------------------------------------------------
// JobLock

void JobLock::set_wait(bool wait) noexcept { gWaitForJobLock = wait; }

bool JobLock::wait() noexcept { return gWaitForJobLock; }

JobLock::JobLock(const JobDirectory &job) {
    const String<char> file = job.path(LOCK_FILE);
    const ENTRY r1x = job_entry(job.root(), LOCK_FILE, true);
    int error = r1x.mDirectory.mError;
    FileDescriptor fd;
    struct stat st;
    if (r1x.ok())
        error = open_regular(r1x, O_RDWR | O_CREAT | O_NONBLOCK, fd, st);
    const bool lock_file = error == 0;
    if (!lock_file)
        report_error("lock", r1x.ok() ? file : r1x.mDirectory.mFailed, error);
    _DYNAMIC_ASSERT_(lock_file);

    int r2x;
    while ((r2x = ::flock(fd.get(), LOCK_EX | LOCK_NB)) != 0 && errno == EINTR) {
    }
    if (r2x != 0 && errno == EWOULDBLOCK) {
        if (!wait()) {
            report("lock", file, "the job is locked by another run");
        } else {
            console().warn("waiting for the job lock : ", file);
            while ((r2x = ::flock(fd.get(), LOCK_EX)) != 0 && errno == EINTR) {
            }
        }
    } else if (r2x != 0) {
        report_error("lock", file, errno);
    }
    const bool locked = r2x == 0;
    _DYNAMIC_ASSERT_(locked);
    mFd = fd.release();
}

JobLock::~JobLock() {
    if (mFd >= 0)
        ::close(mFd); // closing the descriptor releases the lock
}

// ---------------------------------------------------------------------------
// StreamLoader

namespace {

constexpr INDEX load_file_size() noexcept { return FileSystemProc::load_file_size(); }

class StreamImplement final : public StreamLoader::Abstract {
public:
    StreamImplement(int fd, String<char> path) noexcept : mFd(fd), mPath(std::move(path)) {}
    ~StreamImplement() override { ::close(mFd); }

    INDEX read(void *bytes, INDEX size) override {
        const SizeView data{size};
        _DYNAMIC_ASSERT_(data.size () < load_file_size ());
        INDEX r8x = 0;
        const bool r4x = read_fully(mFd, static_cast<unsigned char *>(bytes), size, r8x);
        _DYNAMIC_ASSERT_(r4x);
        return r8x;
    }

    void write(const void *bytes, INDEX size) override {
        const SizeView data{size};
        _DYNAMIC_ASSERT_(data.size () < load_file_size ());
        INDEX r2x = 0;
        const bool written = write_fully(mFd, static_cast<const unsigned char *>(bytes), size, r2x);
        if (!written || r2x != data.size())
            report_error("write", mPath, written ? ENOSPC : errno);
        _DYNAMIC_ASSERT_(r2x == data.size ());
    }

    void flush() override { (void)::fdatasync(mFd); }

private:
    int mFd;
    String<char> mPath;
};

// Opened without blocking, then switched back to blocking transfers once it
// is known to be a regular file: a FIFO or a device is refused, not waited on.
StrongRef<StreamLoader::Abstract> open_stream(const String<char> &path, int flags) {
    FileDescriptor r1x(::open(native(path).c_str(), flags | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666));
    int error = r1x.get() < 0 ? errno : 0;
    struct stat st;
    if (error == 0 && ::fstat(r1x.get(), &st) != 0)
        error = errno;
    else if (error == 0 && !S_ISREG(st.st_mode))
        error = REFUSED_SPECIAL;
    if (error != 0)
        report_error("open", path, error);
    _DYNAMIC_ASSERT_(r1x.get() >= 0 && error == 0);
    (void)::fcntl(r1x.get(), F_SETFL, ::fcntl(r1x.get(), F_GETFL) & ~O_NONBLOCK);
    (void)::posix_fadvise(r1x.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return StrongRef<StreamLoader::Abstract>(std::make_shared<StreamImplement>(r1x.release(), path));
}

} // namespace

StreamLoader StreamLoader::open_read(const String<char> &path) {
    StreamLoader r1x;
    r1x.mThis = open_stream(path, O_RDONLY);
    return r1x;
}

StreamLoader StreamLoader::adopt(std::intptr_t descriptor, const String<char> &path) {
    StreamLoader r1x;
    r1x.mThis = StrongRef<StreamLoader::Abstract>(std::make_shared<StreamImplement>(static_cast<int>(descriptor), path));
    return r1x;
}

StreamLoader StreamLoader::open_write(const String<char> &path) {
    StreamLoader r1x;
    r1x.mThis = open_stream(path, O_WRONLY | O_APPEND);
    return r1x;
}

} // namespace ORN

#endif // !_WIN32
