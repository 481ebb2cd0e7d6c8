#pragma once

// Routes std::cout and std::cerr into the console service while a logger
// lives; the closed libraries print through these streams.
//
// Text is passed on line by line: each line feed ends one message (a
// carriage return before it is dropped). std::cout lines go out at print
// level, std::cerr lines at error level. A flush does not cut a line short:
// std::cerr flushes after every insertion, and "x = " << 5 << "\n" must stay
// one line. Whatever is left without a line feed goes out when the logger is
// destroyed.

#include "__ORN__/orn_debugger.h"

#include <memory>
#include <mutex>
#include <streambuf>
#include <string>

namespace ZARN {

// The stream buffer installed in a standard stream. Several threads may
// write through it at once; each completed line is handed over whole.
class STLStreamPipe final : public std::streambuf {
public:
    STLStreamPipe(ORN::ConsoleService &service, ORN::ConsoleLevel level);
    STLStreamPipe(const STLStreamPipe &) = delete;
    STLStreamPipe &operator=(const STLStreamPipe &) = delete;
    ~STLStreamPipe() override;

    // Hands over a pending partial line, if any.
    void finish();

protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char *text, std::streamsize count) override;
    int sync() override;

private:
    void take(const char *text, std::streamsize count);

    ORN::ConsoleService &mService;
    ORN::ConsoleLevel mLevel;
    std::mutex mMutex;
    std::string mPending;
};

class STLStreamLogger {
public:
    explicit STLStreamLogger(ORN::ConsoleService &service = ORN::console());
    STLStreamLogger(const STLStreamLogger &) = delete;
    STLStreamLogger &operator=(const STLStreamLogger &) = delete;
    // Clears the error states of both streams and puts their own buffers
    // back.
    ~STLStreamLogger();

private:
    // std::cout, std::cerr.
    std::streambuf *mStreamBuf[2] = {nullptr, nullptr};
    std::unique_ptr<STLStreamPipe> mPipe[2];
};

} // namespace ZARN
