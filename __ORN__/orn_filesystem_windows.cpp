// Windows form of the file operations, over kernel32's narrow "A" functions.
// Path splitting and joining and the buffered writer are shared with POSIX
// and live in orn_filesystem.cpp.

#ifdef _WIN32

#include "orn_filesystem.h"
#include "orn_filesystem_platform.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <memory>

// The base address of the image this code is linked into (set by the linker),
// which is the module handle of the core library itself.
extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace ORN {

namespace {

template <class T>
INDEX LENGTH(const T &item) noexcept {
    return static_cast<INDEX>(item.size());
}

struct SizeView {
    INDEX mSize;
    INDEX size() const noexcept { return mSize; }
};

// Closes a file handle when the scope ends.
class FileHandle {
public:
    explicit FileHandle(HANDLE handle) noexcept : mHandle(handle) {}
    FileHandle(const FileHandle &) = delete;
    FileHandle &operator=(const FileHandle &) = delete;
    ~FileHandle() {
        if (valid())
            ::CloseHandle(mHandle);
    }
    HANDLE get() const noexcept { return mHandle; }
    bool valid() const noexcept { return mHandle != INVALID_HANDLE_VALUE && mHandle != nullptr; }

private:
    HANDLE mHandle;
};

// Size of an open file; -1 for a handle that did not open.
INDEX file_size_of(const FileHandle &file) noexcept {
    if (!file.valid())
        return VAR_NONE;
    DWORD high = 0;
    const DWORD low = ::GetFileSize(file.get(), &high);
    if (low == INVALID_FILE_SIZE && ::GetLastError() != NO_ERROR)
        return VAR_NONE;
    return static_cast<INDEX>((static_cast<uint64>(high) << 32) | low);
}

bool path_present(const String<char> &path) noexcept { return ::GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

} // namespace

Buffer<unsigned char> FileSystemProc::load_file(const String<char> &path) {
    const FileHandle r1x(::CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
    const INDEX r2x = file_size_of(r1x);
    _DYNAMIC_ASSERT_(r2x >= 0 && r2x < load_file_size ());
    if (r2x == 0)
        return {};
    Buffer<unsigned char> rax;
    const bool r3x = try_run([&] { rax = Buffer<unsigned char>(r2x); });
    _DYNAMIC_ASSERT_(r3x);
    DWORD r8x = 0;
    const bool r4x = ::ReadFile(r1x.get(), rax.data(), static_cast<DWORD>(r2x), &r8x, nullptr) != FALSE;
    _DYNAMIC_ASSERT_(r4x);
    _DYNAMIC_ASSERT_(LENGTH (rax) == r8x);
    return rax;
}

INDEX FileSystemProc::file_size(const String<char> &path) {
    WIN32_FILE_ATTRIBUTE_DATA r1x;
    const bool found = ::GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &r1x) != FALSE &&
                       (r1x.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
    const INDEX r2x = found ? static_cast<INDEX>((static_cast<uint64>(r1x.nFileSizeHigh) << 32) | r1x.nFileSizeLow) : VAR_NONE;
    _DYNAMIC_ASSERT_(r2x >= 0);
    return r2x;
}

void FileSystemProc::save_file(const String<char> &path, std::string_view data) {
    _DYNAMIC_ASSERT_(data.size () < load_file_size ());
    const auto &rax = data;
    const FileHandle r1x(
        ::CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    const bool r3x = r1x.valid();
    _DYNAMIC_ASSERT_(r3x);
    DWORD r8x = 0;
    const bool r4x = ::WriteFile(r1x.get(), rax.data(), static_cast<DWORD>(rax.size()), &r8x, nullptr) != FALSE;
    _DYNAMIC_ASSERT_(r4x);
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

void FileSystemProc::move_file(const String<char> &source, const String<char> &destination) {
    const bool r1x = path_present(destination);
    _DYNAMIC_ASSERT_(!r1x);
    const bool r2x = ::MoveFileA(source.c_str(), destination.c_str()) != FALSE;
    _DYNAMIC_ASSERT_(r2x);
}

void FileSystemProc::link_file(const String<char> &source, const String<char> &destination) {
    const bool r1x = path_present(destination);
    _DYNAMIC_ASSERT_(!r1x);
    const bool r2x = ::CreateHardLinkA(destination.c_str(), source.c_str(), nullptr) != FALSE;
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
    if (!r1x.valid() || !r2x.valid())
        return false;
    BY_HANDLE_FILE_INFORMATION i1{}, i2{};
    if (!::GetFileInformationByHandle(r1x.get(), &i1) || !::GetFileInformationByHandle(r2x.get(), &i2))
        return false;
    return i1.dwVolumeSerialNumber == i2.dwVolumeSerialNumber && i1.nFileIndexHigh == i2.nFileIndexHigh &&
           i1.nFileIndexLow == i2.nFileIndexLow;
}


const char Private::FilePlatform::SEPARATOR = '\\';

void Private::FilePlatform::create_directory(const String<char> &path) { (void)::CreateDirectoryA(path.c_str(), nullptr); }

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
// StreamLoader

namespace {

class StreamImplement final : public StreamLoader::Abstract {
public:
    explicit StreamImplement(HANDLE handle) noexcept : mHandle(handle) {}
    ~StreamImplement() override { ::CloseHandle(mHandle); }

    // Reads until the buffer is full or the file ends.
    INDEX read(void *bytes, INDEX size) override {
        const SizeView data{size};
        _DYNAMIC_ASSERT_(data.size () < FileSystemProc::load_file_size ());
        auto *out = static_cast<unsigned char *>(bytes);
        INDEX r8x = 0;
        while (r8x < size) {
            DWORD got = 0;
            const bool r4x = ::ReadFile(mHandle, out + r8x, static_cast<DWORD>(size - r8x), &got, nullptr) != FALSE;
            _DYNAMIC_ASSERT_(r4x);
            if (got == 0)
                break;
            r8x += got;
        }
        return r8x;
    }

    void write(const void *bytes, INDEX size) override {
        const SizeView data{size};
        _DYNAMIC_ASSERT_(data.size () < FileSystemProc::load_file_size ());
        DWORD r2x = 0;
        (void)::WriteFile(mHandle, bytes, static_cast<DWORD>(size), &r2x, nullptr);
        _DYNAMIC_ASSERT_(r2x == data.size ());
    }

    void flush() override { (void)::FlushFileBuffers(mHandle); }

private:
    HANDLE mHandle;
};

// Opened for appending, the file pointer starts at the end, so every write
// lands after what the file already holds.
StrongRef<StreamLoader::Abstract> open_stream(const String<char> &path, DWORD access, bool append) {
    const HANDLE r1x = ::CreateFileA(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                     FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    _DYNAMIC_ASSERT_(r1x != INVALID_HANDLE_VALUE);
    auto stream = std::make_shared<StreamImplement>(r1x);
    if (append)
        (void)::SetFilePointer(r1x, 0, nullptr, FILE_END);
    return StrongRef<StreamLoader::Abstract>(std::move(stream));
}

} // namespace

StreamLoader StreamLoader::open_read(const String<char> &path) {
    StreamLoader r1x;
    r1x.mThis = open_stream(path, GENERIC_READ, false);
    return r1x;
}

StreamLoader StreamLoader::open_write(const String<char> &path) {
    StreamLoader r1x;
    r1x.mThis = open_stream(path, GENERIC_WRITE, true);
    return r1x;
}

} // namespace ORN

#endif // _WIN32
