// Windows form of the file operations, over kernel32's narrow "A" functions.
// Path splitting and joining and the buffered writer are shared with POSIX
// and live in orn_filesystem.cpp. Both '\\' and '/' are separators to the
// system itself, so paths are handed over as they are.

#ifdef _WIN32

#include "orn_debugger.h"
#include "orn_filesystem.h"
#include "orn_filesystem_platform.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <algorithm>
#include <cctype>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

// The base address of the image this code is linked into (set by the linker),
// which is the module handle of the core library itself.
extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace ORN {

namespace {

// Length of a buffer or text as a signed size, so that size checks compare
// like with like.
template <class T>
INDEX LENGTH(const T &item) noexcept {
    return static_cast<INDEX>(item.size());
}

// The size of a transfer under the same name as the caller's buffer, so that
// the pointer-and-size forms check "data.size ()" like the buffer forms.
struct SizeView {
    INDEX mSize;
    INDEX size() const noexcept { return mSize; }
};

// Closes a file handle when the scope ends. The handle is kept as a number,
// as FileSystemProc::OpenFile carries it: INVALID_HANDLE_VALUE is -1, and the
// handles CreateFileA returns are positive, so "get () >= 0" means open.
class FileHandle {
public:
    FileHandle() noexcept = default;
    explicit FileHandle(HANDLE handle) noexcept : mValue(reinterpret_cast<std::intptr_t>(handle)) {}
    explicit FileHandle(std::intptr_t value) noexcept : mValue(value) {}
    FileHandle(FileHandle &&other) noexcept : mValue(std::exchange(other.mValue, -1)) {}
    FileHandle &operator=(FileHandle &&other) noexcept {
        if (this != &other) {
            reset();
            mValue = std::exchange(other.mValue, -1);
        }
        return *this;
    }
    ~FileHandle() { reset(); }
    std::intptr_t get() const noexcept { return mValue; }
    HANDLE handle() const noexcept { return reinterpret_cast<HANDLE>(mValue); }
    std::intptr_t release() noexcept { return std::exchange(mValue, -1); }
    void reset() noexcept {
        if (mValue >= 0)
            ::CloseHandle(reinterpret_cast<HANDLE>(std::exchange(mValue, -1)));
    }

private:
    std::intptr_t mValue = -1;
};

// Every kind of sharing: another reader, writer or renamer is not locked out,
// as no POSIX open locks anything out.
constexpr DWORD SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// One ReadFile or WriteFile moves at most this much (the call counts in a
// DWORD); larger transfers are done in several calls.
constexpr INDEX kTransferLimit = INDEX(1) << 30;

// Moves up to `size` bytes, stopping early only when a call moves nothing
// (the end of the file, a full device). False on an error, with the reason in
// GetLastError (); `done` holds the bytes moved either way.
bool read_fully(HANDLE file, unsigned char *data, INDEX size, INDEX &done) noexcept {
    done = 0;
    while (done < size) {
        DWORD n = 0;
        if (!::ReadFile(file, data + done, static_cast<DWORD>(std::min(size - done, kTransferLimit)), &n, nullptr))
            return false;
        if (n == 0)
            break;
        done += n;
    }
    return true;
}

bool write_fully(HANDLE file, const unsigned char *data, INDEX size, INDEX &done) noexcept {
    done = 0;
    while (done < size) {
        DWORD n = 0;
        if (!::WriteFile(file, data + done, static_cast<DWORD>(std::min(size - done, kTransferLimit)), &n, nullptr))
            return false;
        if (n == 0)
            break;
        done += n;
    }
    return true;
}

int last_error() noexcept { return static_cast<int>(::GetLastError()); }

// A name that is not there, whether the file or a folder on its way is missing.
bool missing(int error) noexcept { return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND; }

bool path_present(const String<char> &path) noexcept { return ::GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

INDEX size_of(const BY_HANDLE_FILE_INFORMATION &info) noexcept {
    return static_cast<INDEX>((static_cast<uint64>(info.nFileSizeHigh) << 32) | info.nFileSizeLow);
}

// ---------------------------------------------------------------------------
// Failure lines: "<operation> : <path> : <reason>", on the console at error
// level, just before the assertion that ends the operation.

// A refused entry of a job that is no failure of the system.
constexpr int REFUSED_LINK = -1;    // a reparse point (symbolic link, junction) where a file or directory was wanted
constexpr int REFUSED_SPECIAL = -2; // a pipe, device or directory where a file was wanted
constexpr int REFUSED_NAME = -3;    // an empty, ".", ".." or rooted component, or one Windows reads as another name

// The system's own message for a Win32 error code, in the neutral language,
// without the line break that ends it.
String<char> system_text(int error) {
    char *buffer = nullptr;
    const DWORD length = ::FormatMessageA(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
        static_cast<DWORD>(error), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPSTR>(&buffer), 0,
        nullptr);
    String<char> r1x;
    if (length != 0 && buffer != nullptr)
        r1x.assign(buffer, length);
    if (buffer != nullptr)
        ::LocalFree(buffer);
    while (!r1x.empty() && (r1x.back() == '\n' || r1x.back() == '\r' || r1x.back() == ' '))
        r1x.pop_back();
    if (r1x.empty())
        r1x = "system error " + std::to_string(error);
    return r1x;
}

String<char> reason_text(int error) {
    switch (error) {
    case REFUSED_LINK:
        return "symbolic link, not followed";
    case REFUSED_SPECIAL:
        return "not a regular file";
    case REFUSED_NAME:
        return "name leaves the job directory";
    default:
        return system_text(error);
    }
}

void report(std::string_view operation, const String<char> &path, const String<char> &reason) {
    console().error(operation, " : ", path, " : ", reason);
}

void report_error(std::string_view operation, const String<char> &path, int error) {
    report(operation, path, reason_text(error));
}

// 0 when an open handle is a regular file, else why it is refused: a pipe or
// a device (anything GetFileType does not call a disk file) or a directory is
// not a regular file; with `links_refused`, a reparse point opened as itself
// (FILE_FLAG_OPEN_REPARSE_POINT) is a link. `info` is filled on success.
int regular_refusal(HANDLE handle, BY_HANDLE_FILE_INFORMATION &info, bool links_refused) noexcept {
    ::SetLastError(NO_ERROR);
    const DWORD type = ::GetFileType(handle);
    if (type == FILE_TYPE_UNKNOWN && ::GetLastError() != NO_ERROR)
        return last_error();
    if (type != FILE_TYPE_DISK)
        return REFUSED_SPECIAL;
    if (!::GetFileInformationByHandle(handle, &info))
        return last_error();
    if (links_refused && (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        return REFUSED_LINK;
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        return REFUSED_SPECIAL;
    return 0;
}

// True when an open handle is a reparse point opened as itself.
bool is_link(HANDLE handle) noexcept {
    BY_HANDLE_FILE_INFORMATION info;
    return ::GetFileInformationByHandle(handle, &info) && (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

// Why opening an entry as itself failed: a link found in its place is told as
// such, not as whatever the system said about opening the link.
int refusal(const String<char> &path, int error) noexcept {
    const DWORD attributes = ::GetFileAttributesA(path.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        return REFUSED_LINK;
    return error;
}

// Opens an entry as itself: a symbolic link or junction is opened, not what
// it points to, and a directory opens too (to be refused on its handle).
HANDLE open_entry(const String<char> &path, DWORD access, DWORD share = SHARE_ALL, DWORD disposition = OPEN_EXISTING,
                  DWORD attributes = FILE_ATTRIBUTE_NORMAL) noexcept {
    return ::CreateFileA(path.c_str(), access, share, nullptr, disposition,
                         attributes | FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

// Sets or lifts the read-only attribute of a regular file, on the file opened
// as itself (never through a link); the times are left as they are.
bool set_read_only(const String<char> &path, bool on) noexcept {
    const FileHandle file(open_entry(path, FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES));
    BY_HANDLE_FILE_INFORMATION info;
    if (file.get() < 0 || regular_refusal(file.handle(), info, true) != 0)
        return false;
    FILE_BASIC_INFO basic{};
    basic.FileAttributes = on ? (info.dwFileAttributes | FILE_ATTRIBUTE_READONLY) : (info.dwFileAttributes & ~FILE_ATTRIBUTE_READONLY);
    if (basic.FileAttributes == 0)
        basic.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    return ::SetFileInformationByHandle(file.handle(), FileBasicInfo, &basic, sizeof(basic)) != FALSE;
}

// Removes one name: a file, or a link itself. A directory link or junction is
// removed as the entry it is (RemoveDirectoryA never touches what it points
// to); a real directory stays (DeleteFileA refuses it). As on POSIX, where a
// file's mode does not guard its name, a read-only file is removed too: its
// attribute is lifted on the file opened as itself, the file is marked for
// deletion, and the attribute is put back for the file's other names, if any.
// False, with the reason in `error`, when the name is still there.
bool remove_entry(const String<char> &path, int &error) noexcept {
    const DWORD attributes = ::GetFileAttributesA(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        error = last_error();
        return false;
    }
    constexpr DWORD linked_directory = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    if ((attributes & linked_directory) == linked_directory) {
        if (::RemoveDirectoryA(path.c_str()))
            return true;
        error = last_error();
        return false;
    }
    if (::DeleteFileA(path.c_str()))
        return true;
    error = last_error();
    if (error != ERROR_ACCESS_DENIED || (attributes & FILE_ATTRIBUTE_READONLY) == 0)
        return false;
    const FileHandle file(open_entry(path, DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES));
    BY_HANDLE_FILE_INFORMATION info;
    if (file.get() < 0 || ::GetFileInformationByHandle(file.handle(), &info) == FALSE ||
        (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        return false;
    FILE_BASIC_INFO basic{};
    basic.FileAttributes = info.dwFileAttributes & ~FILE_ATTRIBUTE_READONLY;
    if (basic.FileAttributes == 0)
        basic.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    if (!::SetFileInformationByHandle(file.handle(), FileBasicInfo, &basic, sizeof(basic)))
        return false;
    FILE_DISPOSITION_INFO dispose{};
    dispose.DeleteFile = TRUE;
    const bool removed = ::SetFileInformationByHandle(file.handle(), FileDispositionInfo, &dispose, sizeof(dispose)) != FALSE;
    if (!removed)
        error = last_error();
    if (!removed || info.nNumberOfLinks > 1) {
        basic.FileAttributes = info.dwFileAttributes;
        (void)::SetFileInformationByHandle(file.handle(), FileBasicInfo, &basic, sizeof(basic));
    }
    return removed; // the name goes when the handle closes, at the end of this scope
}

// ---------------------------------------------------------------------------
// Walking a job directory.
//
// Windows has no openat: through Win32 a name cannot be opened relative to an
// open directory (only the NT-native NtCreateFile takes a root directory
// handle, and this layer stays with kernel32). So the walk checks, then uses
// by path: each component is checked with GetFileAttributesA (a reparse point,
// which symbolic links and junctions are, is refused), and the operation then
// hands the whole path to the system. That is the best Windows offers without
// those relative opens, and two things narrow the gap between check and use:
// - each checked directory is held open, without delete sharing, until the
//   operation ends; while it is held it can be neither renamed nor removed,
//   so nothing can be put in its place, and it is checked again on the
//   handle, so a swap between the two checks is caught;
// - the last component is opened with FILE_FLAG_OPEN_REPARSE_POINT and
//   checked on the opened handle (GetFileInformationByHandle, GetFileType),
//   so what is read is what was checked.
// What relative opens alone would rule out is an empty directory of the walk
// being turned into a mount point in place between the check and the use.

// True when Windows reads a component as another name, or as no file at all:
// a stream or drive (":"), trailing dots and spaces (which the system strips),
// and the reserved device names (CON, PRN, AUX, NUL, COM1, LPT1, ... with or
// without an extension), which name a device in every directory.
bool foreign_name(const String<char> &part) noexcept {
    if (part.find(':') != String<char>::npos || part.back() == '.' || part.back() == ' ')
        return true;
    std::string_view base(part);
    base = base.substr(0, base.find('.'));
    while (!base.empty() && base.back() == ' ')
        base.remove_suffix(1);
    String<char> upper(base);
    for (char &c : upper)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    if (upper == "CON" || upper == "PRN" || upper == "AUX" || upper == "NUL" || upper == "CONIN$" || upper == "CONOUT$")
        return true;
    if (upper.size() == 4 && (upper.starts_with("COM") || upper.starts_with("LPT"))) {
        const unsigned char digit = static_cast<unsigned char>(upper[3]);
        // The digits, and the superscripts one to three of the ANSI code page.
        return (digit >= '0' && digit <= '9') || digit == 0xB9 || digit == 0xB2 || digit == 0xB3;
    }
    return false;
}

// The components of a job-relative name; false when one of them would leave
// the job (a rooted name, ".", "..") or reach something else than its name.
bool job_components(std::string_view relative, Deque<String<char>> &parts) {
    parts = FileSystemProc::decouple_path_name(String<char>(relative));
    for (const String<char> &part : parts)
        if (part.empty() || part == "." || part == ".." || foreign_name(part))
            return false;
    return true;
}

// A directory of a job reached by the walk, or why it could not be reached.
struct WALK {
    std::vector<FileHandle> mHeld; // the root and every directory walked, held open
    bool mReached = false;
    int mError = 0;
    String<char> mFailed; // the path of the component that failed; the directory's own path once reached
    bool ok() const noexcept { return mReached; }
};

// Opens a directory to hold it: listing access so that the share mode counts,
// and no delete sharing, so that it cannot be renamed or removed while held.
HANDLE hold_directory(const String<char> &path, bool as_itself) noexcept {
    return ::CreateFileA(path.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                         FILE_FLAG_BACKUP_SEMANTICS | (as_itself ? FILE_FLAG_OPEN_REPARSE_POINT : 0), nullptr);
}

// 0 when a held handle is a real directory, else why it is refused.
int directory_refusal(HANDLE handle, bool links_refused) noexcept {
    BY_HANDLE_FILE_INFORMATION info;
    if (!::GetFileInformationByHandle(handle, &info))
        return last_error();
    if (links_refused && (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        return REFUSED_LINK;
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
        return ERROR_DIRECTORY;
    return 0;
}

// Reaches the directory made of the first `count` components below the job
// root, each a real directory, never a link; missing ones are made when
// `create` is set. The root itself may be reached through a link.
WALK walk_job(const String<char> &root, const Deque<String<char>> &parts, INDEX count, bool create) {
    WALK r1x;
    r1x.mFailed = root;
    FileHandle held(hold_directory(root, false));
    r1x.mError = held.get() < 0 ? last_error() : directory_refusal(held.handle(), false);
    if (r1x.mError != 0)
        return r1x;
    r1x.mHeld.push_back(std::move(held));
    for (INDEX i = 0; i < count; ++i) {
        const String<char> &name = parts[i];
        r1x.mFailed = FileSystemProc::join_path(r1x.mFailed, name);
        const char *const path = r1x.mFailed.c_str();
        DWORD attributes = ::GetFileAttributesA(path);
        int error = attributes == INVALID_FILE_ATTRIBUTES ? last_error() : 0;
        if (error != 0 && missing(error) && create) {
            if (::CreateDirectoryA(path, nullptr) || ::GetLastError() == ERROR_ALREADY_EXISTS) {
                attributes = ::GetFileAttributesA(path);
                error = attributes == INVALID_FILE_ATTRIBUTES ? last_error() : 0;
            } else {
                error = last_error();
            }
        }
        if (error == 0 && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
            error = REFUSED_LINK;
        else if (error == 0 && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
            error = ERROR_DIRECTORY;
        if (error == 0) {
            held = FileHandle(hold_directory(r1x.mFailed, true));
            error = held.get() < 0 ? refusal(r1x.mFailed, last_error()) : directory_refusal(held.handle(), true);
        }
        if (error != 0) {
            r1x.mError = error;
            r1x.mHeld.clear();
            return r1x;
        }
        r1x.mHeld.push_back(std::move(held));
    }
    r1x.mReached = true;
    return r1x;
}

// The directory holding a job-relative name, and the name's last component.
struct ENTRY {
    WALK mDirectory;
    String<char> mName;
    bool ok() const noexcept { return mDirectory.ok(); }
    // The entry's path through the walked directories.
    String<char> path() const { return FileSystemProc::join_path(mDirectory.mFailed, mName); }
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

// Test hook: a run is ended at the named point when ZARN_FAULT_POINT names
// it, so that tests can interrupt a write where a crash would. The process
// ends at once, as the POSIX form's SIGKILL ends it: no handler runs, nothing
// is flushed; the exit code is that signal's number.
void fault_point(std::string_view name, std::string_view file = {}) {
    char value[512];
    const DWORD length = ::GetEnvironmentVariableA("ZARN_FAULT_POINT", value, sizeof(value));
    if (length == 0 || length >= sizeof(value))
        return;
    const std::string_view point(value, length);
    const auto at = point.find('@');
    if (point.substr(0, at) == name && (at == std::string_view::npos || point.substr(at + 1) == file))
        ::TerminateProcess(::GetCurrentProcess(), 9);
}

// Renames the new file over the target, the rename reaching the disk before
// the call returns. A scanner or indexer that has just opened one of the two
// files makes the rename fail with a sharing or access error for a moment, so
// such a failure is retried for about half a second before it counts; a
// directory in the target's place fails at once.
bool rename_over(const String<char> &from, const String<char> &to, int &error) noexcept {
    for (int attempt = 0;; ++attempt) {
        if (::MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
            return true;
        error = last_error();
        const DWORD attributes = ::GetFileAttributesA(to.c_str());
        const bool directory = attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if ((error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION) || directory || attempt == 10)
            return false;
        ::Sleep(static_cast<DWORD>(10 * (attempt + 1)));
    }
}

// Flushes a directory to the disk where the file system allows it. The
// rename was already written through (MOVEFILE_WRITE_THROUGH); this is the
// counterpart of the POSIX form's directory fsync, and as there, a directory
// that cannot be flushed as such is no failure.
bool flush_directory(const String<char> &path, int &error) noexcept {
    const FileHandle directory(
        ::CreateFileA(path.c_str(), GENERIC_WRITE, SHARE_ALL, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (directory.get() >= 0 && ::FlushFileBuffers(directory.handle()))
        return true;
    error = last_error();
    return error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION || error == ERROR_INVALID_FUNCTION ||
           error == ERROR_INVALID_PARAMETER || error == ERROR_NOT_SUPPORTED;
}

// Nanoseconds since 1970 from a FILETIME count (100 ns since 1601), wrapping
// far outside the range instead of overflowing: stamps are only compared.
int64 unix_nanoseconds(LONGLONG ticks) noexcept {
    return static_cast<int64>((static_cast<uint64>(ticks) - 116444736000000000ULL) * 100ULL);
}

// The attributes a replaced file hands on to its successor, Windows's share
// of what the POSIX form keeps in the permission bits.
constexpr DWORD KEPT_ATTRIBUTES =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;

std::atomic<bool> gWaitForJobLock{true};

} // namespace

Buffer<unsigned char> FileSystemProc::load_file(const String<char> &path) { return load_file(path, load_file_size()); }

// CreateFileA does not block on a pipe or device, and the backup semantics
// flag lets a directory open, so that each is refused on its handle as "not a
// regular file" like every other special file.
Buffer<unsigned char> FileSystemProc::load_file(const String<char> &path, INDEX size_limit) {
    const HANDLE handle = ::CreateFileA(path.c_str(), GENERIC_READ, SHARE_ALL, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN | FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    const int error = handle == INVALID_HANDLE_VALUE ? last_error() : 0;
    return load_file(OpenFile{reinterpret_cast<std::intptr_t>(handle), error}, path, size_limit);
}

// The whole content of an opened file, refused unless it is a regular file
// (a disk file, not a directory).
Buffer<unsigned char> FileSystemProc::load_file(OpenFile file, const String<char> &path, INDEX size_limit) {
    const FileHandle r1x(file.mHandle);
    INDEX r2x = VAR_NONE;
    BY_HANDLE_FILE_INFORMATION info;
    int error = 0;
    if (r1x.get() < 0)
        report_error("load_file", path, file.mError);
    else if ((error = regular_refusal(r1x.handle(), info, false)) != 0)
        report_error("load_file", path, error);
    else if ((r2x = size_of(info)) >= load_file_size())
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
        report_error("load_file", path, ERROR_NOT_ENOUGH_MEMORY);
    _DYNAMIC_ASSERT_(r3x);
    INDEX r8x = 0;
    const bool r4x = read_fully(r1x.handle(), rax.data(), r2x, r8x);
    if (!r4x)
        report_error("load_file", path, last_error());
    _DYNAMIC_ASSERT_(r4x);
    if (LENGTH(rax) != r8x)
        report("load_file", path, "the file shrank while it was read");
    _DYNAMIC_ASSERT_(LENGTH (rax) == r8x);
    return rax;
}

// Opened for its attributes only, following links as stat does; a pipe, a
// device or a directory is not a regular file.
INDEX FileSystemProc::file_size(const String<char> &path) {
    const FileHandle r1x(::CreateFileA(path.c_str(), FILE_READ_ATTRIBUTES, SHARE_ALL, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    INDEX r2x = VAR_NONE;
    BY_HANDLE_FILE_INFORMATION info;
    int error = 0;
    if (r1x.get() < 0)
        report_error("file_size", path, last_error());
    else if ((error = regular_refusal(r1x.handle(), info, false)) != 0)
        report_error("file_size", path, error);
    else
        r2x = size_of(info);
    _DYNAMIC_ASSERT_(r2x >= 0);
    return r2x;
}

// Opened or created, then cut to nothing: an existing file keeps its
// attributes (CREATE_ALWAYS would refuse a hidden or system file).
void FileSystemProc::save_file(const String<char> &path, std::string_view data) {
    _DYNAMIC_ASSERT_(data.size () < load_file_size ());
    const auto &rax = data;
    const FileHandle r1x(
        ::CreateFileA(path.c_str(), GENERIC_WRITE, SHARE_ALL, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    const bool r3x = r1x.get() >= 0 && ::SetEndOfFile(r1x.handle()) != FALSE;
    if (!r3x)
        report_error("save_file", path, last_error());
    _DYNAMIC_ASSERT_(r3x);
    INDEX r8x = 0;
    const bool r4x = write_fully(r1x.handle(), reinterpret_cast<const unsigned char *>(rax.data()), LENGTH(rax), r8x);
    if (!r4x)
        report_error("save_file", path, last_error());
    _DYNAMIC_ASSERT_(r4x);
    if (LENGTH(rax) != r8x)
        report_error("save_file", path, ERROR_DISK_FULL);
    _DYNAMIC_ASSERT_(LENGTH (rax) == r8x);
}

bool FileSystemProc::find_file(const String<char> &path) {
    const DWORD r1x = ::GetFileAttributesA(path.c_str());
    return r1x != INVALID_FILE_ATTRIBUTES && (r1x & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

bool FileSystemProc::find_directory(const String<char> &path) {
    const DWORD r1x = ::GetFileAttributesA(path.c_str());
    return r1x != INVALID_FILE_ATTRIBUTES && (r1x & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

void FileSystemProc::erase_file(const String<char> &path) { (void)::DeleteFileA(path.c_str()); }

// The destination is checked without following a link in its place, so a
// dangling link in the way counts as present. The move stays within one
// volume, as a rename does (no copy allowed).
void FileSystemProc::move_file(const String<char> &source, const String<char> &destination) {
    const bool r1x = path_present(destination);
    if (r1x)
        report_error("move_file", destination, ERROR_FILE_EXISTS);
    _DYNAMIC_ASSERT_(!r1x);
    const bool r2x = ::MoveFileExA(source.c_str(), destination.c_str(), 0) != FALSE;
    if (!r2x)
        report_error("move_file", source, last_error());
    _DYNAMIC_ASSERT_(r2x);
}

void FileSystemProc::link_file(const String<char> &source, const String<char> &destination) {
    const bool r1x = path_present(destination);
    if (r1x)
        report_error("link_file", destination, ERROR_FILE_EXISTS);
    _DYNAMIC_ASSERT_(!r1x);
    const bool r2x = ::CreateHardLinkA(destination.c_str(), source.c_str(), nullptr) != FALSE;
    if (!r2x)
        report_error("link_file", source, last_error());
    _DYNAMIC_ASSERT_(r2x);
}

// Both files are opened for their attributes only and with every kind of
// sharing, so that files held open elsewhere still compare; the backup
// semantics flag lets directories open as well.
bool FileSystemProc::identical_file(const String<char> &a, const String<char> &b) {
    constexpr DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const FileHandle r1x(
        ::CreateFileA(a.c_str(), FILE_READ_ATTRIBUTES, share, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    const FileHandle r2x(
        ::CreateFileA(b.c_str(), FILE_READ_ATTRIBUTES, share, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (r1x.get() < 0 || r2x.get() < 0)
        return false;
    BY_HANDLE_FILE_INFORMATION i1{}, i2{};
    if (!::GetFileInformationByHandle(r1x.handle(), &i1) || !::GetFileInformationByHandle(r2x.handle(), &i2))
        return false;
    return i1.dwVolumeSerialNumber == i2.dwVolumeSerialNumber && i1.nFileIndexHigh == i2.nFileIndexHigh &&
           i1.nFileIndexLow == i2.nFileIndexLow;
}

const char Private::FilePlatform::SEPARATOR = '\\';

void Private::FilePlatform::create_directory(const String<char> &path) { (void)::CreateDirectoryA(path.c_str(), nullptr); }

// A drive (C: or C:\), the root of the current drive (\), a share
// (\\server\share\) or a path given to the system as it is (\\?\C:\,
// \\?\UNC\server\share\, \\.\device\), where only backslashes separate.
String<char> Private::FilePlatform::root_of(const String<char> &path, INDEX &length) {
    const std::size_t size = path.size();
    const auto separator = [&](std::size_t i, bool verbatim) {
        return i < size && (path[i] == '\\' || (!verbatim && path[i] == '/'));
    };
    // One component from i and the separator after it, if any.
    const auto component = [&](std::size_t i, bool verbatim) {
        while (i < size && !separator(i, verbatim))
            ++i;
        return separator(i, verbatim) ? i + 1 : i;
    };
    const auto drive = [&](std::size_t i) {
        return i + 1 < size && path[i + 1] == ':' && std::isalpha(static_cast<unsigned char>(path[i]));
    };
    std::size_t end = 0;
    if (separator(0, false) && separator(1, false)) {
        if (size >= 4 && (path[2] == '?' || path[2] == '.') && path[3] == '\\') {
            end = 4;
            if (path.compare(4, 4, "UNC\\") == 0)
                end = component(component(8, true), true);
            else if (drive(4))
                end = separator(6, true) ? 7 : 6;
            else
                end = component(4, true);
        } else {
            std::size_t server = 2;
            while (separator(server, false))
                ++server;
            end = component(component(server, false), false);
        }
    } else if (drive(0)) {
        end = separator(2, false) ? 3 : 2;
    } else if (separator(0, false)) {
        end = 1;
    }
    length = static_cast<INDEX>(end);
    String<char> root = path.substr(0, end);
    if (!(root.size() >= 4 && root[2] == '?'))
        std::replace(root.begin(), root.end(), '/', '\\');
    return root;
}

String<char> FileSystemProc::working_path() {
    String<char> r1x;
    DWORD r2x = ::GetCurrentDirectoryA(0, nullptr);
    for (;;) {
        _DYNAMIC_ASSERT_(r2x > 0);
        r1x.resize(r2x);
        const DWORD used = ::GetCurrentDirectoryA(r2x, r1x.data());
        if (used < r2x) {
            r1x.resize(used);
            break;
        }
        r2x = used; // the directory changed in between: retry with its size
    }
    if (r1x.empty() || (r1x.back() != '\\' && r1x.back() != '/'))
        r1x.push_back('\\');
    return r1x;
}

String<char> FileSystemProc::module_path() { return module_path(&__ImageBase); }

String<char> FileSystemProc::module_path(const void *address) {
    HMODULE r0x = nullptr;
    const BOOL r3x = ::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                                          static_cast<LPCSTR>(address), &r0x);
    _DYNAMIC_ASSERT_(r3x);
    String<char> r1x(MAX_PATH, '\0');
    for (;;) {
        const DWORD r2x = ::GetModuleFileNameA(r0x, r1x.data(),
                                               static_cast<DWORD>(r1x.size()));
        _DYNAMIC_ASSERT_(r2x > 0);
        if (r2x < r1x.size()) {
            r1x.resize(r2x);
            break;
        }
        r1x.resize(r1x.size() * 2); // truncated: grow and ask again
    }
    const auto slash = r1x.find_last_of("\\/");
    if (slash == String<char>::npos)
        return working_path();
    r1x.resize(slash + 1);
    return r1x;
}

// ---------------------------------------------------------------------------
// JobDirectory

// GetFileAttributesA does not follow a link in the last place: a dangling
// link is present.
bool JobDirectory::exist(std::string_view relative) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    return r1x.ok() && ::GetFileAttributesA(r1x.path().c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool JobDirectory::find_file(std::string_view relative) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    if (!r1x.ok())
        return false;
    const DWORD attributes = ::GetFileAttributesA(r1x.path().c_str());
    return attributes != INVALID_FILE_ATTRIBUTES &&
           (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) == 0;
}

Buffer<unsigned char> JobDirectory::load_file(std::string_view relative, INDEX size_limit) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    if (!r1x.ok()) {
        // A missing folder is told as the missing file; a refused one by name.
        const int error = r1x.mDirectory.mError;
        return FileSystemProc::load_file(FileSystemProc::OpenFile{-1, error},
                                         missing(error) ? path(relative) : r1x.mDirectory.mFailed, size_limit);
    }
    const String<char> entry = r1x.path();
    FileHandle file(open_entry(entry, GENERIC_READ, SHARE_ALL, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN));
    int error = file.get() < 0 ? refusal(entry, last_error()) : 0;
    if (error == 0 && is_link(file.handle())) {
        file.reset();
        error = REFUSED_LINK;
    }
    return FileSystemProc::load_file(FileSystemProc::OpenFile{file.release(), error}, path(relative), size_limit);
}

// The file index stands for the inode and the volume serial number for the
// device; the change time is NTFS's own (metadata included), as ctime is.
JobDirectory::STAMP JobDirectory::stamp(std::string_view relative) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    STAMP r2x;
    if (!r1x.ok())
        return r2x;
    const FileHandle file(open_entry(r1x.path(), FILE_READ_ATTRIBUTES));
    BY_HANDLE_FILE_INFORMATION info;
    FILE_BASIC_INFO times;
    if (file.get() < 0 || regular_refusal(file.handle(), info, true) != 0 ||
        !::GetFileInformationByHandleEx(file.handle(), FileBasicInfo, &times, sizeof(times)))
        return r2x;
    r2x.mDevice = info.dwVolumeSerialNumber;
    r2x.mInode = (static_cast<uint64>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
    r2x.mSize = size_of(info);
    r2x.mModified = unix_nanoseconds(times.LastWriteTime.QuadPart);
    r2x.mChanged = unix_nanoseconds(times.ChangeTime.QuadPart);
    return r2x;
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

// Regular files only: directories and reparse points (links, junctions)
// are left out, as the POSIX form leaves out everything but regular files.
String<char> JobDirectory::why_refused(std::string_view relative, String<char> *where) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    int error = r1x.mDirectory.mError;
    if (r1x.ok()) {
        const FileHandle file(open_entry(r1x.path(), FILE_READ_ATTRIBUTES));
        BY_HANDLE_FILE_INFORMATION info;
        error = file.get() < 0 ? refusal(r1x.path(), last_error()) : regular_refusal(file.handle(), info, true);
    }
    if (where != nullptr)
        *where = r1x.ok() ? path(relative) : r1x.mDirectory.mFailed;
    if (error == 0)
        return String<char>();
    return missing(error) ? String<char>("missing") : reason_text(error);
}

JobDirectory::Input::Input(Input &&other) noexcept
    : mHandle(std::exchange(other.mHandle, -1)), mPath(std::move(other.mPath)) {}

JobDirectory::Input &JobDirectory::Input::operator=(Input &&other) noexcept {
    if (this != &other) {
        FileHandle(std::exchange(mHandle, -1)).reset();
        mHandle = std::exchange(other.mHandle, -1);
        mPath = std::move(other.mPath);
    }
    return *this;
}

JobDirectory::Input::~Input() { FileHandle(std::exchange(mHandle, -1)).reset(); }

// Windows has no path that names an open file for another reader, so the
// checked file is held open shared for reading only: while the handle lives
// nobody can write, rename, replace or delete it, and its path names it.
JobDirectory::Input JobDirectory::open_input(std::string_view relative) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    int error = r1x.mDirectory.mError;
    FileHandle file;
    if (r1x.ok()) {
        file = FileHandle(open_entry(r1x.path(), GENERIC_READ, FILE_SHARE_READ));
        BY_HANDLE_FILE_INFORMATION info;
        error = file.get() < 0 ? refusal(r1x.path(), last_error()) : regular_refusal(file.handle(), info, true);
    }
    if (missing(error))
        console().error("missing file : ", path(relative));
    else if (error != 0)
        console().error("refused file : ", r1x.ok() ? path(relative) : r1x.mDirectory.mFailed, " : ", reason_text(error));
    const bool r2x = error == 0;
    _DYNAMIC_ASSERT_(r2x);
    Input r3x;
    r3x.mHandle = file.release();
    r3x.mPath = r1x.path();
    return r3x;
}

Array<JobDirectory::LISTED> JobDirectory::list_entries(std::string_view relative) const {
    Array<LISTED> r1x;
    Deque<String<char>> parts;
    if (!job_components(relative, parts))
        return r1x;
    const WALK r2x = walk_job(mRoot, parts, parts.size(), false);
    if (!r2x.ok())
        return r1x;
    WIN32_FIND_DATAA found;
    const HANDLE search = ::FindFirstFileExA(FileSystemProc::join_path(r2x.mFailed, "*").c_str(), FindExInfoBasic,
                                             &found, FindExSearchNameMatch, nullptr, 0);
    if (search == INVALID_HANDLE_VALUE)
        return r1x;
    do {
        const std::string_view name = found.cFileName;
        if (name == "." || name == "..")
            continue;
        const DWORD attributes = found.dwFileAttributes;
        KIND kind = KIND::FILE;
        if ((attributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DEVICE)) != 0)
            kind = KIND::OTHER;
        else if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
            kind = KIND::DIRECTORY;
        r1x.append(LISTED{String<char>(name), kind});
    } while (::FindNextFileA(search, &found));
    ::FindClose(search);
    std::sort(r1x.begin(), r1x.end(), [](const LISTED &a, const LISTED &b) { return a.mName < b.mName; });
    return r1x;
}

// The name is checked (no reparse point, no directory) before it is
// rotated and opened; the walked directories are held open meanwhile.
StreamLoader JobDirectory::append_file(std::string_view relative, std::string_view rotated) const {
    const ENTRY r1x = job_entry(mRoot, relative, true);
    int error = r1x.mDirectory.mError;
    if (r1x.ok()) {
        const String<char> old(rotated);
        const DWORD attributes = ::GetFileAttributesA(r1x.path().c_str());
        const bool present = attributes != INVALID_FILE_ATTRIBUTES;
        if (present && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
            error = REFUSED_LINK;
        else if (present && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
            error = REFUSED_SPECIAL;
        else if (!rotated.empty() && (old == "." || old == ".." || old.find_first_of("/\\") != String<char>::npos))
            error = REFUSED_NAME;
        else if (present && !rotated.empty() &&
                 !::MoveFileExA(r1x.path().c_str(), FileSystemProc::join_path(r1x.mDirectory.mFailed, old).c_str(),
                                MOVEFILE_REPLACE_EXISTING))
            error = refusal(r1x.path(), last_error());
    }
    // Told as the file layer tells a file it cannot open; a link or
    // other refusal on the way names the component refused.
    if (error != 0)
        report_error("open", r1x.ok() || r1x.mDirectory.mFailed == mRoot ? path(relative) : r1x.mDirectory.mFailed, error);
    const bool r2x = error == 0;
    _DYNAMIC_ASSERT_(r2x);
    return StreamLoader::open_write(r1x.path());
}

void JobDirectory::erase_file(std::string_view relative) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    int error = 0;
    if (r1x.ok())
        (void)remove_entry(r1x.path(), error);
}

// The directory is listed whole and the names compared here, exactly: a
// search pattern would also match the short (8.3) names.
void JobDirectory::erase_leftovers(std::string_view relative) const {
    const ENTRY r1x = job_entry(mRoot, relative, false);
    if (!r1x.ok())
        return;
    const String<char> &directory = r1x.mDirectory.mFailed;
    WIN32_FIND_DATAA found;
    const HANDLE search = ::FindFirstFileExA(FileSystemProc::join_path(directory, "*").c_str(), FindExInfoBasic, &found,
                                             FindExSearchNameMatch, nullptr, 0);
    if (search == INVALID_HANDLE_VALUE)
        return;
    const String<char> prefix = r1x.mName + ".tmp";
    do {
        const std::string_view name = found.cFileName;
        int error = 0;
        if (name.starts_with(prefix))
            (void)remove_entry(FileSystemProc::join_path(directory, name), error);
    } while (::FindNextFileA(search, &found));
    ::FindClose(search);
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
// temporary file's handle and flushes it, returning false (with the reason
// in GetLastError ()) when it could not; it may also end the save by
// throwing. Either way the temporary file is removed and the target stays
// as it was.
template <class BODY>
void durable_save(const JobDirectory &job, std::string_view relative, BODY &&body) {
    const String<char> target = job.path(relative);
    const ENTRY r1x = job_entry(job.root(), relative, true);
    if (!r1x.ok())
        report_error("save_file", r1x.mDirectory.mFailed, r1x.mDirectory.mError);
    bool r3x = r1x.ok();
    _DYNAMIC_ASSERT_(r3x);
    const String<char> &directory = r1x.mDirectory.mFailed;
    const String<char> destination = r1x.path();

    // The new file takes the old one's attributes (read-only, hidden, system,
    // not indexed). The access control list is the directory's, as for any
    // new file.
    BY_HANDLE_FILE_INFORMATION previous{};
    bool replacing = false;
    {
        const FileHandle old(open_entry(destination, FILE_READ_ATTRIBUTES));
        replacing = old.get() >= 0 && regular_refusal(old.handle(), previous, true) == 0;
    }
    const DWORD kept = replacing ? (previous.dwFileAttributes & KEPT_ATTRIBUTES) : 0;
    const DWORD created = kept & ~FILE_ATTRIBUTE_READONLY;

    // A fresh, unique temporary name; a planted file or link there is never
    // opened (CREATE_NEW), another name is taken instead.
    static std::atomic<uint64> counter{0};
    String<char> temporary, staged;
    FileHandle file;
    int error = 0;
    for (int attempt = 0; attempt < 64 && file.get() < 0; ++attempt) {
        temporary = r1x.mName + ".tmp-" + std::to_string(::GetCurrentProcessId()) + "-" + std::to_string(counter++);
        staged = FileSystemProc::join_path(directory, temporary);
        file = FileHandle(open_entry(staged, GENERIC_WRITE, 0, CREATE_NEW, created == 0 ? FILE_ATTRIBUTE_NORMAL : created));
        error = file.get() < 0 ? last_error() : 0;
        if (file.get() < 0 && error != ERROR_FILE_EXISTS && error != ERROR_ALREADY_EXISTS)
            break;
    }
    r3x = file.get() >= 0;
    if (!r3x)
        report_error("save_file", staged, error);
    _DYNAMIC_ASSERT_(r3x);
    bool renamed = false;
    const ON_EXIT discard{[&] {
        file.reset();
        int ignored = 0;
        if (!renamed)
            (void)remove_entry(staged, ignored);
    }};

    // Written, flushed to the disk, and made read-only last when the old file
    // was: the attribute binds later opens, not this handle.
    FILE_BASIC_INFO read_only{};
    read_only.FileAttributes = kept | FILE_ATTRIBUTE_ARCHIVE;
    const bool r4x = body(file.handle(), target) &&
                     ((kept & FILE_ATTRIBUTE_READONLY) == 0 ||
                      ::SetFileInformationByHandle(file.handle(), FileBasicInfo, &read_only, sizeof(read_only)) != FALSE);
    if (!r4x)
        report_error("save_file", target, last_error());
    _DYNAMIC_ASSERT_(r4x);
    file.reset();

    fault_point("save_file:before_rename", r1x.mName);
    // A read-only target refuses to be replaced, so its attribute is lifted
    // for the rename, when the old file has no other name that would see the
    // change; it is put back if the rename fails.
    const bool lifted = (kept & FILE_ATTRIBUTE_READONLY) != 0 && previous.nNumberOfLinks == 1 &&
                        set_read_only(destination, false);
    const bool r5x = rename_over(staged, destination, error);
    if (!r5x) {
        report_error("save_file", target, error);
        if (lifted)
            (void)set_read_only(destination, true);
    }
    _DYNAMIC_ASSERT_(r5x);
    renamed = true;
    fault_point("save_file:after_rename", r1x.mName);
    const bool r6x = flush_directory(directory, error);
    if (!r6x)
        report_error("save_file", directory, error);
    _DYNAMIC_ASSERT_(r6x);
    job.erase_leftovers(relative);
}

} // namespace

void JobDirectory::save_file(std::string_view relative, std::string_view data) const {
    _DYNAMIC_ASSERT_(data.size () < FileSystemProc::load_file_size ());
    durable_save(*this, relative, [&](HANDLE file, const String<char> &) {
        INDEX written = 0;
        const bool whole = write_fully(file, reinterpret_cast<const unsigned char *>(data.data()), LENGTH(data), written);
        if (whole && written != LENGTH(data))
            ::SetLastError(ERROR_DISK_FULL);
        return whole && written == LENGTH(data) && ::FlushFileBuffers(file) != FALSE;
    });
}

// The writer gets a handle of its own, which it closes when it is done; the
// temporary file's handle stays with the durable writer, which flushes it,
// marks it and closes it before the rename.
void JobDirectory::save_file(std::string_view relative, INDEX buffer_size, const Function<void(FileWriter &)> &fill) const {
    durable_save(*this, relative, [&](HANDLE file, const String<char> &target) {
        HANDLE copy = nullptr;
        if (!::DuplicateHandle(::GetCurrentProcess(), file, ::GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS))
            return false;
        FileWriter writer(StreamLoader::adopt(reinterpret_cast<std::intptr_t>(copy), target), buffer_size);
        fill(writer);
        writer.flush();
        return ::FlushFileBuffers(file) != FALSE;
    });
}

void JobDirectory::publish_file(std::string_view source, std::string_view target) const {
    // The source: a regular file of the job, reached without links.
    const ENTRY from = job_entry(mRoot, source, false);
    BY_HANDLE_FILE_INFORMATION original{};
    FileHandle file;
    int error = from.mDirectory.mError;
    const String<char> failed = from.ok() ? path(source) : from.mDirectory.mFailed;
    if (from.ok()) {
        file = FileHandle(open_entry(from.path(), FILE_READ_ATTRIBUTES));
        error = file.get() < 0 ? refusal(from.path(), last_error()) : regular_refusal(file.handle(), original, true);
    }
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
    const String<char> destination = to.path();

    // Link under a fresh temporary name, then rename over the target: the
    // target is never missing, and a link in its place is replaced itself.
    static std::atomic<uint64> counter{0};
    String<char> temporary;
    bool linked = false;
    int error_link = 0;
    for (int attempt = 0; attempt < 64 && !linked; ++attempt) {
        temporary = FileSystemProc::join_path(to.mDirectory.mFailed, "." + to.mName + ".publish-" +
                                                                           std::to_string(::GetCurrentProcessId()) +
                                                                           "-" + std::to_string(counter++));
        linked = ::CreateHardLinkA(temporary.c_str(), from.path().c_str(), nullptr) != FALSE;
        error_link = linked ? 0 : last_error();
        if (!linked && error_link != ERROR_ALREADY_EXISTS && error_link != ERROR_FILE_EXISTS)
            break;
    }
    if (!linked)
        report_error("publish_file", path(target), error_link);
    _DYNAMIC_ASSERT_(linked);
    const ON_EXIT discard{[&] {
        int ignored = 0;
        if (path_present(temporary))
            (void)remove_entry(temporary, ignored);
    }};

    // The source may have been swapped for something else since it was
    // checked: the new link must be the very file that was checked.
    BY_HANDLE_FILE_INFORMATION link_info{};
    {
        const FileHandle check(open_entry(temporary, FILE_READ_ATTRIBUTES));
        const bool same_file = check.get() >= 0 && regular_refusal(check.handle(), link_info, true) == 0 &&
                               link_info.dwVolumeSerialNumber == original.dwVolumeSerialNumber &&
                               link_info.nFileIndexHigh == original.nFileIndexHigh &&
                               link_info.nFileIndexLow == original.nFileIndexLow;
        if (!same_file)
            report("publish_file", path(source), "replaced while it was published");
        _DYNAMIC_ASSERT_(same_file);
    }

    fault_point("publish_file:before_rename", to.mName);
    int error_rename = 0;
    const bool replaced = rename_over(temporary, destination, error_rename);
    if (!replaced)
        report_error("publish_file", path(target), error_rename);
    _DYNAMIC_ASSERT_(replaced);
}

// ---------------------------------------------------------------------------
// JobLock: an exclusive LockFileEx lock over the whole range of the lock file.
// The handle is kept in the int the class holds: Windows handles carry 32
// significant bits, so HandleToLong and LongToHandle give it back unchanged.

void JobLock::set_wait(bool wait) noexcept { gWaitForJobLock = wait; }

bool JobLock::wait() noexcept { return gWaitForJobLock; }

JobLock::JobLock(const JobDirectory &job) {
    const String<char> file = job.path(LOCK_FILE);
    const ENTRY r1x = job_entry(job.root(), LOCK_FILE, true);
    int error = r1x.mDirectory.mError;
    FileHandle fd;
    if (r1x.ok()) {
        // Shared for reading and writing so that another run can open it to
        // try the lock; not for deleting, so the file stays while it is held.
        const String<char> entry = r1x.path();
        fd = FileHandle(open_entry(entry, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_ALWAYS));
        BY_HANDLE_FILE_INFORMATION info;
        error = fd.get() < 0 ? refusal(entry, last_error()) : regular_refusal(fd.handle(), info, true);
    }
    const bool lock_file = error == 0;
    if (!lock_file)
        report_error("lock", r1x.ok() ? file : r1x.mDirectory.mFailed, error);
    _DYNAMIC_ASSERT_(lock_file);

    // The handle is synchronous: without LOCKFILE_FAIL_IMMEDIATELY the call
    // returns once the lock is held.
    OVERLAPPED range{};
    bool r2x = ::LockFileEx(fd.handle(), LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, MAXDWORD, MAXDWORD, &range) != FALSE;
    if (!r2x && ::GetLastError() == ERROR_LOCK_VIOLATION) {
        if (!wait()) {
            report("lock", file, "the job is locked by another run");
        } else {
            console().warn("waiting for the job lock : ", file);
            range = OVERLAPPED{};
            r2x = ::LockFileEx(fd.handle(), LOCKFILE_EXCLUSIVE_LOCK, 0, MAXDWORD, MAXDWORD, &range) != FALSE;
        }
    } else if (!r2x) {
        report_error("lock", file, last_error());
    }
    const bool locked = r2x;
    _DYNAMIC_ASSERT_(locked);
    mFd = HandleToLong(reinterpret_cast<HANDLE>(fd.release()));
}

// The lock is released before the handle closes, so that it is free at once
// (a lock left to the close is released when the system gets to it).
JobLock::~JobLock() {
    if (mFd == -1)
        return;
    const HANDLE handle = LongToHandle(mFd);
    OVERLAPPED range{};
    (void)::UnlockFileEx(handle, 0, MAXDWORD, MAXDWORD, &range);
    ::CloseHandle(handle);
}

// ---------------------------------------------------------------------------
// StreamLoader

namespace {

constexpr INDEX load_file_size() noexcept { return FileSystemProc::load_file_size(); }

class StreamImplement final : public StreamLoader::Abstract {
public:
    StreamImplement(HANDLE handle, String<char> path) noexcept : mHandle(handle), mPath(std::move(path)) {}
    ~StreamImplement() override { ::CloseHandle(mHandle); }

    // Reads until the buffer is full or the file ends.
    INDEX read(void *bytes, INDEX size) override {
        const SizeView data{size};
        _DYNAMIC_ASSERT_(data.size () < load_file_size ());
        INDEX r8x = 0;
        const bool r4x = read_fully(mHandle, static_cast<unsigned char *>(bytes), size, r8x);
        _DYNAMIC_ASSERT_(r4x);
        return r8x;
    }

    void write(const void *bytes, INDEX size) override {
        const SizeView data{size};
        _DYNAMIC_ASSERT_(data.size () < load_file_size ());
        INDEX r2x = 0;
        const bool written = write_fully(mHandle, static_cast<const unsigned char *>(bytes), size, r2x);
        if (!written || r2x != data.size())
            report_error("write", mPath, written ? ERROR_DISK_FULL : last_error());
        _DYNAMIC_ASSERT_(r2x == data.size ());
    }

    void flush() override { (void)::FlushFileBuffers(mHandle); }

private:
    HANDLE mHandle;
    String<char> mPath;
};

// Opened (created when missing) and kept only when it is a disk file:
// CreateFileA does not block on a pipe or device, which is refused, not read.
// A handle with append access only writes every block at the end of the
// file, whatever else extended it, as O_APPEND does.
StrongRef<StreamLoader::Abstract> open_stream(const String<char> &path, DWORD access) {
    FileHandle r1x(::CreateFileA(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                 FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    int error = r1x.get() < 0 ? last_error() : 0;
    if (error == 0) {
        ::SetLastError(NO_ERROR);
        const DWORD type = ::GetFileType(r1x.handle());
        if (type == FILE_TYPE_UNKNOWN && ::GetLastError() != NO_ERROR)
            error = last_error();
        else if (type != FILE_TYPE_DISK)
            error = REFUSED_SPECIAL;
    }
    if (error != 0)
        report_error("open", path, error);
    _DYNAMIC_ASSERT_(r1x.get() >= 0 && error == 0);
    auto stream = std::make_shared<StreamImplement>(r1x.handle(), path);
    (void)r1x.release();
    return StrongRef<StreamLoader::Abstract>(std::move(stream));
}

} // namespace

StreamLoader StreamLoader::open_read(const String<char> &path) {
    StreamLoader r1x;
    r1x.mThis = open_stream(path, GENERIC_READ);
    return r1x;
}

StreamLoader StreamLoader::open_write(const String<char> &path) {
    StreamLoader r1x;
    r1x.mThis = open_stream(path, FILE_APPEND_DATA);
    return r1x;
}

StreamLoader StreamLoader::adopt(std::intptr_t descriptor, const String<char> &path) {
    StreamLoader r1x;
    r1x.mThis = StrongRef<StreamLoader::Abstract>(std::make_shared<StreamImplement>(reinterpret_cast<HANDLE>(descriptor), path));
    return r1x;
}

} // namespace ORN

#endif // _WIN32
