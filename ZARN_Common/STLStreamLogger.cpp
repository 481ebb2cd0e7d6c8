#include "STLStreamLogger.h"

#include <cstring>
#include <iostream>

namespace ZARN {

STLStreamPipe::STLStreamPipe(ORN::ConsoleService &service, ORN::ConsoleLevel level) : mService(service), mLevel(level) {}

STLStreamPipe::~STLStreamPipe() { ORN::try_run([this] { finish(); }); }

void STLStreamPipe::finish() {
    std::string rest;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        rest.swap(mPending);
    }
    if (!rest.empty())
        mService.write(mLevel, rest);
}

STLStreamPipe::int_type STLStreamPipe::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return traits_type::not_eof(c);
    const char ch = traits_type::to_char_type(c);
    take(&ch, 1);
    return c;
}

std::streamsize STLStreamPipe::xsputn(const char *text, std::streamsize count) {
    if (count > 0)
        take(text, count);
    return count;
}

// Complete lines are handed over as they arrive, so there is nothing to do
// on a flush.
int STLStreamPipe::sync() { return 0; }

// The service is called under this pipe's mutex so that lines of one stream
// keep their order; the service takes its own mutex inside, never the other
// way round.
void STLStreamPipe::take(const char *text, std::streamsize count) {
    const std::lock_guard<std::mutex> lock(mMutex);
    const char *end = text + count;
    while (text < end) {
        const void *found = std::memchr(text, '\n', static_cast<std::size_t>(end - text));
        if (found == nullptr) {
            mPending.append(text, end);
            return;
        }
        const char *feed = static_cast<const char *>(found);
        mPending.append(text, feed);
        if (!mPending.empty() && mPending.back() == '\r')
            mPending.pop_back();
        ORN::try_run([&] { mService.write(mLevel, mPending); });
        mPending.clear();
        text = feed + 1;
    }
}

STLStreamLogger::STLStreamLogger(ORN::ConsoleService &service) {
    mPipe[0] = std::make_unique<STLStreamPipe>(service, ORN::ConsoleLevel::Print);
    mPipe[1] = std::make_unique<STLStreamPipe>(service, ORN::ConsoleLevel::Error);
    std::cout.flush();
    std::cerr.flush();
    mStreamBuf[0] = std::cout.rdbuf(mPipe[0].get());
    mStreamBuf[1] = std::cerr.rdbuf(mPipe[1].get());
}

STLStreamLogger::~STLStreamLogger() {
    std::cout.clear();
    std::cerr.clear();
    std::cout.rdbuf(mStreamBuf[0]);
    std::cerr.rdbuf(mStreamBuf[1]);
    for (auto &pipe : mPipe)
        ORN::try_run([&] { pipe->finish(); });
}

} // namespace ZARN
