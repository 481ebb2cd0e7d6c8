#include "backend_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace zarn_backend {

namespace {

std::string_view environment(const char *name) {
    const char *value = std::getenv(name);
    return value ? std::string_view(value) : std::string_view();
}

// The parts of a text between separators, empty ones included.
std::vector<std::string_view> items_of(std::string_view list, char separator) {
    std::vector<std::string_view> out;
    for (;;) {
        const auto at = list.find(separator);
        out.push_back(list.substr(0, at));
        if (at == std::string_view::npos)
            break;
        list.remove_prefix(at + 1);
    }
    return out;
}

// The items of a comma-separated list (empty ones left out).
std::vector<std::string_view> items(std::string_view list) {
    std::vector<std::string_view> out;
    if (list.empty())
        return out;
    for (std::string_view item : items_of(list, ','))
        if (!item.empty())
            out.push_back(item);
    return out;
}

bool names(const char *variable, std::string_view entry) {
    for (std::string_view item : items(environment(variable)))
        if (item == entry)
            return true;
    return false;
}

std::string trace_argument(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            out.push_back('\\');
        out.push_back(c);
    }
    out.push_back('"');
    return out;
}

std::mutex gTraceMutex;

} // namespace

InjectedFault::InjectedFault(std::string_view entry)
    : std::runtime_error(std::string(entry) + " : injected fault") {}

void trace_call(std::string_view entry, const std::vector<std::string> &arguments) {
    const std::string_view file = environment("ZARN_BACKEND_TRACE");
    if (file.empty())
        return;
    std::string line(entry);
    for (const std::string &a : arguments) {
        line.push_back(' ');
        line += trace_argument(a);
    }
    line.push_back('\n');
    // One append of the whole line, so that lines of concurrent calls (and of
    // several processes sharing the file) never interleave.
    const std::lock_guard lock(gTraceMutex);
    const int fd = ::open(std::string(file).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    [[maybe_unused]] const ssize_t written = ::write(fd, line.data(), line.size());
    ::close(fd);
}

std::optional<int> injected_failure(std::string_view entry) {
    for (std::string_view item : items(environment("ZARN_BACKEND_FAIL"))) {
        const auto colon = item.rfind(':');
        if (colon == std::string_view::npos || item.substr(0, colon) != entry)
            continue;
        const std::string_view code = item.substr(colon + 1);
        int value = 0;
        const auto r = std::from_chars(code.data(), code.data() + code.size(), value);
        if (r.ec == std::errc() && r.ptr == code.data() + code.size())
            return value;
    }
    return std::nullopt;
}

bool injected_throw(std::string_view entry) { return names("ZARN_BACKEND_THROW", entry); }

bool injected_null(std::string_view entry) { return names("ZARN_BACKEND_NULL", entry); }

bool injected_omission(std::string_view file) { return names("ZARN_BACKEND_OMIT", file); }

std::optional<int> enter(std::string_view entry, const std::vector<std::string> &arguments) {
    trace_call(entry, arguments);
    if (injected_throw(entry))
        throw InjectedFault(entry);
    // ZARN_BACKEND_HANG=ENTRY: the call never returns (a hung library), after
    // one line on standard output and one on standard error, as a library
    // that talks would write them.
    if (names("ZARN_BACKEND_HANG", entry)) {
        const std::string said = std::string(entry) + " : hanging\n";
        std::fprintf(stdout, "%s", said.c_str());
        std::fflush(stdout);
        [[maybe_unused]] const auto n = ::write(STDERR_FILENO, said.data(), said.size());
        for (;;)
            ::pause();
    }
    return injected_failure(entry);
}

// ---------------------------------------------------------------------------
// Files of a job.

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept {
    if (this != &other) {
        if (mFd >= 0)
            ::close(mFd);
        mFd = other.release();
    }
    return *this;
}

Descriptor::~Descriptor() {
    if (mFd >= 0)
        ::close(mFd);
}

int Descriptor::release() noexcept {
    const int fd = mFd;
    mFd = -1;
    return fd;
}

namespace {

constexpr int DIRECTORY_FLAGS = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// The components of a relative name; false for an absolute name or an empty,
// "." or ".." component.
bool components(std::string_view relative, std::vector<std::string> &out) {
    out.clear();
    if (relative.empty())
        return true;
    if (relative.front() == '/')
        return false;
    for (std::string_view part : items_of(relative, '/')) {
        if (part.empty() || part == "." || part == "..")
            return false;
        out.emplace_back(part);
    }
    return true;
}

} // namespace

Descriptor open_directory(const std::filesystem::path &path, bool follow) {
    const std::string name = path.empty() ? std::string(".") : path.string();
    return Descriptor(::open(name.c_str(), follow ? DIRECTORY_FLAGS & ~O_NOFOLLOW : DIRECTORY_FLAGS));
}

Descriptor open_directory_at(int base, std::string_view relative, bool make) {
    std::vector<std::string> parts;
    if (!components(relative, parts)) {
        errno = EINVAL;
        return Descriptor();
    }
    Descriptor current(::fcntl(base, F_DUPFD_CLOEXEC, 0));
    for (const std::string &part : parts) {
        if (!current)
            break;
        int fd = ::openat(current.get(), part.c_str(), DIRECTORY_FLAGS);
        if (fd < 0 && errno == ENOENT && make) {
            if (::mkdirat(current.get(), part.c_str(), 0777) == 0 || errno == EEXIST)
                fd = ::openat(current.get(), part.c_str(), DIRECTORY_FLAGS);
        }
        current = Descriptor(fd);
    }
    return current;
}

Descriptor open_file_at(int base, std::string_view relative) {
    const auto slash = relative.rfind('/');
    const std::string_view folder = slash == std::string_view::npos ? std::string_view() : relative.substr(0, slash);
    const std::string name(slash == std::string_view::npos ? relative : relative.substr(slash + 1));
    if (name.empty() || name == "." || name == "..") {
        errno = EINVAL;
        return Descriptor();
    }
    const Descriptor directory = open_directory_at(base, folder);
    if (!directory)
        return Descriptor();
    Descriptor file(::openat(directory.get(), name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (file && (::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode))) {
        errno = EINVAL;
        return Descriptor();
    }
    return file;
}

bool read_all(int fd, std::vector<unsigned char> &out, std::size_t limit) {
    struct stat st;
    if (fd < 0 || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<std::uintmax_t>(st.st_size) > limit)
        return false;
    out.clear();
    out.resize(static_cast<std::size_t>(st.st_size));
    std::size_t done = 0;
    while (done < out.size()) {
        const ssize_t n = ::pread(fd, out.data() + done, out.size() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<std::size_t>(n);
    }
    // A file that grew since: more than was measured is refused.
    unsigned char extra;
    return ::pread(fd, &extra, 1, static_cast<off_t>(done)) == 0;
}

bool read_path(const std::filesystem::path &path, std::vector<unsigned char> &out, std::size_t limit) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return file && read_all(file.get(), out, limit);
}

std::vector<std::string> list_files_at(int base, std::string_view relative) {
    std::vector<std::string> names;
    Descriptor directory = open_directory_at(base, relative);
    DIR *stream = directory ? ::fdopendir(directory.get()) : nullptr;
    if (stream == nullptr)
        return names;
    directory.release(); // now the stream's
    while (const dirent *entry = ::readdir(stream)) {
        struct stat st;
        if (::fstatat(::dirfd(stream), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode))
            names.emplace_back(entry->d_name);
    }
    ::closedir(stream);
    std::sort(names.begin(), names.end());
    return names;
}

// ---------------------------------------------------------------------------
// Outputs.

namespace {

std::string extension_of(std::string_view name) {
    const auto dot = name.rfind('.');
    return dot == std::string_view::npos || dot == 0 ? std::string() : std::string(name.substr(dot));
}

bool plain_name(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

// The process number of a temporary name of `target`, or -1 when the name
// is not one.
long temporary_owner(std::string_view file, std::string_view target) {
    const std::string prefix = "." + std::string(target) + ".";
    const std::string suffix = ".part" + extension_of(target);
    if (file.size() <= prefix.size() + suffix.size() || !file.starts_with(prefix) || !file.ends_with(suffix))
        return -1;
    std::string_view middle = file.substr(prefix.size(), file.size() - prefix.size() - suffix.size());
    const auto dot = middle.find('.');
    if (dot == std::string_view::npos)
        return -1;
    const std::string_view pid = middle.substr(0, dot), number = middle.substr(dot + 1);
    const auto digits = [](std::string_view text) {
        return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    };
    long value = -1;
    if (!digits(pid) || !digits(number) ||
        std::from_chars(pid.data(), pid.data() + pid.size(), value).ec != std::errc())
        return -1;
    return value;
}

std::atomic<unsigned long> gTemporaryNumber{0};

} // namespace

std::string temporary_name(std::string_view target, long pid, unsigned long number) {
    std::string name = ".";
    name += target;
    name += '.';
    name += std::to_string(pid);
    name += '.';
    name += std::to_string(number);
    name += ".part";
    name += extension_of(target);
    return name;
}

void remove_stale_temporaries(int directory, std::string_view target) {
    const int copy = ::fcntl(directory, F_DUPFD_CLOEXEC, 0);
    DIR *stream = copy < 0 ? nullptr : ::fdopendir(copy);
    if (stream == nullptr) {
        if (copy >= 0)
            ::close(copy);
        return;
    }
    const long self = static_cast<long>(::getpid());
    std::vector<std::string> stale;
    while (const dirent *entry = ::readdir(stream)) {
        const long owner = temporary_owner(entry->d_name, target);
        if (owner >= 0 && owner != self)
            stale.emplace_back(entry->d_name);
    }
    for (const std::string &name : stale)
        (void)::unlinkat(::dirfd(stream), name.c_str(), 0);
    ::closedir(stream);
}

OutputFile::OutputFile(int directory, std::string name)
    : mDirectory(directory >= 0 ? ::fcntl(directory, F_DUPFD_CLOEXEC, 0) : -1), mName(std::move(name)) {
    create();
}

OutputFile::OutputFile(const std::filesystem::path &target)
    : mDirectory(open_directory(target.parent_path())), mName(target.filename().string()) {
    create();
}

void OutputFile::create() {
    if (!mDirectory || !plain_name(mName))
        return;
    remove_stale_temporaries(mDirectory.get(), mName);
    const long pid = static_cast<long>(::getpid());
    for (int attempt = 0; attempt < 64 && !mFile; ++attempt) {
        mTemporary = temporary_name(mName, pid, gTemporaryNumber.fetch_add(1));
        mFile = Descriptor(::openat(mDirectory.get(), mTemporary.c_str(),
                                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
        if (!mFile && errno != EEXIST)
            break;
    }
    mOk = static_cast<bool>(mFile);
    if (!mOk)
        mTemporary.clear();
}

OutputFile::~OutputFile() {
    discard();
    remove_alias();
}

std::string OutputFile::descriptor_path() {
    if (!mOk || mFinished)
        return {};
    if (mAlias.empty()) {
        const char *base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base == '/' ? base : "/tmp") + "/zarn-output-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr)
            return {};
        const std::string alias = pattern + "/output" + extension_of(mName);
        if (::symlink(("/proc/self/fd/" + std::to_string(mFile.get())).c_str(), alias.c_str()) != 0) {
            ::rmdir(pattern.c_str());
            return {};
        }
        mAlias = alias;
    }
    return mAlias;
}

void OutputFile::remove_alias() {
    if (mAlias.empty())
        return;
    (void)::unlink(mAlias.c_str());
    (void)::rmdir(mAlias.substr(0, mAlias.rfind('/')).c_str());
    mAlias.clear();
}

bool OutputFile::write(const void *data, std::size_t size, std::size_t piece) {
    if (!mOk || mFinished)
        return mOk = false;
    const auto *bytes = static_cast<const unsigned char *>(data);
    if (piece == 0)
        piece = size;
    for (std::size_t done = 0; done < size;) {
        const ssize_t n = ::write(mFile.get(), bytes + done, std::min(piece, size - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return mOk = false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool OutputFile::finish() {
    remove_alias();
    if (mOk && !mFinished) {
        mOk = ::fsync(mFile.get()) == 0;
        mOk = ::close(mFile.release()) == 0 && mOk;
        mFinished = true;
    }
    return mOk;
}

bool OutputFile::commit() {
    if (!finish() || mCommitted)
        return false;
    if (::renameat(mDirectory.get(), mTemporary.c_str(), mDirectory.get(), mName.c_str()) != 0) {
        discard();
        return mOk = false;
    }
    mCommitted = true;
    // The rename reaches the disk with the directory.
    (void)::fsync(mDirectory.get());
    return true;
}

void OutputFile::discard() {
    mFile = Descriptor();
    if (!mCommitted && !mTemporary.empty() && mDirectory)
        (void)::unlinkat(mDirectory.get(), mTemporary.c_str(), 0);
    mTemporary.clear();
    mOk = false;
}

bool write_file(const std::filesystem::path &path, const void *data, std::size_t size, std::size_t piece) {
    OutputFile out(path);
    return out.write(data, size, piece) && out.commit();
}

bool write_file(const std::filesystem::path &path, std::string_view data) {
    return write_file(path, data.data(), data.size());
}

bool write_file_at(int directory, std::string_view name, std::string_view data) {
    OutputFile out(directory, std::string(name));
    return out.write(data.data(), data.size()) && out.commit();
}

std::string json_string(std::string_view text) {
    static constexpr char HEX[] = "0123456789abcdef";
    std::string out = "\"";
    for (char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(c);
        } else if (u < 0x20) {
            out += "\\u00";
            out.push_back(HEX[u >> 4]);
            out.push_back(HEX[u & 15]);
        } else {
            out.push_back(c);
        }
    }
    out.push_back('"');
    return out;
}

std::string number_text(double value) {
    if (value == 0)
        value = 0; // no "-0"
    char buffer[64];
    const auto r = std::to_chars(buffer, buffer + sizeof(buffer), value);
    return std::string(buffer, r.ptr);
}

} // namespace zarn_backend
