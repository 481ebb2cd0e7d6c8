// Files, directories and sequential streams. The platform-neutral parts (path
// splitting and joining, the buffered writer) come first; the POSIX form of
// the operating-system calls follows. The Windows form of the same calls lives
// in orn_filesystem_windows.cpp.

#include "orn_filesystem.h"
#include "orn_filesystem_platform.h"

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

String<char> FileSystemProc::join_path(const String<char> &directory, std::string_view name) {
    while (!name.empty() && is_separator(name.front()))
        name.remove_prefix(1);
    if (directory.empty())
        return String<char>(name);
    String<char> r1x;
    r1x.reserve(directory.size() + 1 + name.size());
    r1x.append(directory);
    if (!is_separator(r1x.back()))
        r1x.push_back('/');
    r1x.append(name);
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

// Prefixes are joined with the platform's separator; a drive ("C:") is only
// appended, and the empty first component of a rooted path ("/a/b", "\\a")
// stands for the root, so "/a/b" rebuilds as "/a" then "/a/b".
void FileSystemProc::build_directory(const String<char> &path) {
    const Deque<String<char>> r2x = decouple_path_name(path);
    _DYNAMIC_ASSERT_(r2x.length () >= 1);
    String<char> prefix;
    for (INDEX i = 0; i < r2x.length(); ++i) {
        const String<char> &item = r2x[i];
        if (i > 0)
            prefix.push_back(Private::FilePlatform::SEPARATOR);
        prefix.append(item);
        if (item.empty() || item.back() == ':')
            continue;
        if (find_directory(prefix))
            continue;
        Private::FilePlatform::create_directory(prefix);
    }
}

} // namespace ORN

// ===========================================================================
// POSIX form.
#ifndef _WIN32

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace ORN {

namespace {

// Closes a descriptor when the scope ends.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) noexcept : mFd(fd) {}
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    ~FileDescriptor() {
        if (mFd >= 0)
            ::close(mFd);
    }
    int get() const noexcept { return mFd; }

private:
    int mFd;
};

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

// Size of a regular file open at `fd`; -1 for an unopened descriptor or for
// anything that is not a regular file (a directory cannot be loaded).
INDEX regular_file_size(int fd) noexcept {
    struct stat st;
    if (fd < 0 || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return VAR_NONE;
    return static_cast<INDEX>(st.st_size);
}

bool path_present(const String<char> &path) noexcept {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

} // namespace

Buffer<unsigned char> FileSystemProc::load_file(const String<char> &path) {
    const FileDescriptor r1x(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const INDEX r2x = regular_file_size(r1x.get());
    _DYNAMIC_ASSERT_(r2x >= 0 && r2x < load_file_size ());
    if (r2x == 0)
        return {};
    Buffer<unsigned char> rax;
    const bool r3x = try_run([&] { rax = Buffer<unsigned char>(r2x); });
    _DYNAMIC_ASSERT_(r3x);
    INDEX r8x = 0;
    const bool r4x = read_fully(r1x.get(), rax.data(), r2x, r8x);
    _DYNAMIC_ASSERT_(r4x);
    _DYNAMIC_ASSERT_(LENGTH (rax) == r8x);
    return rax;
}

INDEX FileSystemProc::file_size(const String<char> &path) {
    struct stat st;
    const INDEX r2x = ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) ? static_cast<INDEX>(st.st_size) : VAR_NONE;
    _DYNAMIC_ASSERT_(r2x >= 0);
    return r2x;
}

void FileSystemProc::save_file(const String<char> &path, std::string_view data) {
    _DYNAMIC_ASSERT_(data.size () < load_file_size ());
    const auto &rax = data;
    const FileDescriptor r1x(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    const bool r3x = r1x.get() >= 0;
    _DYNAMIC_ASSERT_(r3x);
    INDEX r8x = 0;
    const bool r4x = write_fully(r1x.get(), reinterpret_cast<const unsigned char *>(rax.data()), LENGTH(rax), r8x);
    _DYNAMIC_ASSERT_(r4x);
    _DYNAMIC_ASSERT_(LENGTH (rax) == r8x);
}

bool FileSystemProc::find_file(const String<char> &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

bool FileSystemProc::find_directory(const String<char> &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void FileSystemProc::erase_file(const String<char> &path) { (void)::unlink(path.c_str()); }

// The destination is checked with lstat, so a dangling symbolic link in the
// way counts as present as well (rename would silently replace it).
void FileSystemProc::move_file(const String<char> &source, const String<char> &destination) {
    const bool r1x = path_present(destination);
    _DYNAMIC_ASSERT_(!r1x);
    const bool r2x = ::rename(source.c_str(), destination.c_str()) == 0;
    _DYNAMIC_ASSERT_(r2x);
}

void FileSystemProc::link_file(const String<char> &source, const String<char> &destination) {
    const bool r1x = path_present(destination);
    _DYNAMIC_ASSERT_(!r1x);
    const bool r2x = ::link(source.c_str(), destination.c_str()) == 0;
    _DYNAMIC_ASSERT_(r2x);
}

bool FileSystemProc::identical_file(const String<char> &a, const String<char> &b) {
    const FileDescriptor r1x(::open(a.c_str(), O_RDONLY | O_CLOEXEC));
    const FileDescriptor r2x(::open(b.c_str(), O_RDONLY | O_CLOEXEC));
    if (r1x.get() < 0 || r2x.get() < 0)
        return false;
    struct stat s1, s2;
    if (::fstat(r1x.get(), &s1) != 0 || ::fstat(r2x.get(), &s2) != 0)
        return false;
    return s1.st_dev == s2.st_dev && s1.st_ino == s2.st_ino;
}


const char Private::FilePlatform::SEPARATOR = '/';

void Private::FilePlatform::create_directory(const String<char> &path) { (void)::mkdir(path.c_str(), 0777); }

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
// StreamLoader

namespace {

class StreamImplement final : public StreamLoader::Abstract {
public:
    explicit StreamImplement(int fd) noexcept : mFd(fd) {}
    ~StreamImplement() override { ::close(mFd); }

    INDEX read(void *bytes, INDEX size) override {
        const SizeView data{size};
        _DYNAMIC_ASSERT_(data.size () < FileSystemProc::load_file_size ());
        INDEX r8x = 0;
        const bool r4x = read_fully(mFd, static_cast<unsigned char *>(bytes), size, r8x);
        _DYNAMIC_ASSERT_(r4x);
        return r8x;
    }

    void write(const void *bytes, INDEX size) override {
        const SizeView data{size};
        _DYNAMIC_ASSERT_(data.size () < FileSystemProc::load_file_size ());
        INDEX r2x = 0;
        (void)write_fully(mFd, static_cast<const unsigned char *>(bytes), size, r2x);
        _DYNAMIC_ASSERT_(r2x == data.size ());
    }

    void flush() override { (void)::fdatasync(mFd); }

private:
    int mFd;
};

StrongRef<StreamLoader::Abstract> open_stream(const String<char> &path, int flags) {
    const int r1x = ::open(path.c_str(), flags | O_CREAT | O_CLOEXEC, 0666);
    _DYNAMIC_ASSERT_(r1x >= 0);
    (void)::posix_fadvise(r1x, 0, 0, POSIX_FADV_SEQUENTIAL);
    return StrongRef<StreamLoader::Abstract>(std::make_shared<StreamImplement>(r1x));
}

} // namespace

StreamLoader StreamLoader::open_read(const String<char> &path) {
    StreamLoader r1x;
    r1x.mThis = open_stream(path, O_RDONLY);
    return r1x;
}

StreamLoader StreamLoader::open_write(const String<char> &path) {
    StreamLoader r1x;
    r1x.mThis = open_stream(path, O_WRONLY | O_APPEND);
    return r1x;
}

} // namespace ORN

#endif // !_WIN32
