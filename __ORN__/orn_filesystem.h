#pragma once

// The single gateway to files and directories. Paths are narrow strings;
// both '\\' and '/' separate components. Every failed precondition raises
// the library's assertion exception; nothing returns error codes.

#include "orn_array.h"
#include "orn_basic.h"

namespace ORN {

class FileSystemProc {
public:
    // Largest size (exclusive) of one whole-file load or save.
    static constexpr INDEX load_file_size() noexcept { return INDEX(4294967294); }

    // Whole file into a buffer; an empty file gives an empty buffer.
    static Buffer<unsigned char> load_file(const String<char> &path);
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
