#include "ZARN_Velda/ProcessFrame.h"

#include <mutex>

namespace ZARN::Frame {

namespace {

// The last split data document parsed, with the file it came from.
struct SPLIT_DATA_CACHE {
    std::mutex mMutex;
    ORN::String<char> mPath;
    ORN::JobDirectory::STAMP mStamp;
    ORN::JsonParser mDocument;
};

} // namespace

ORN::JsonParser split_data_document(const ORN::String<char> &working_path) {
    static SPLIT_DATA_CACHE cache;
    constexpr std::string_view SPLIT_DATA = "caches/split_data.json";
    const ORN::JobDirectory job(working_path);
    const std::lock_guard lock(cache.mMutex);
    // The stamp is taken before the file is read: a change in between makes
    // the next stamp differ, and the file is read again then.
    const ORN::JobDirectory::STAMP stamp = job.stamp(SPLIT_DATA);
    if (stamp.mSize >= 0 && stamp == cache.mStamp && job.path(SPLIT_DATA) == cache.mPath)
        return cache.mDocument;
    cache.mDocument = ORN::JsonParser(); // the old document goes before the new one is read
    cache.mStamp = {};
    ORN::JsonParser document(job.load_file(SPLIT_DATA).text(), job.path(SPLIT_DATA));
    ORN::console().debug("split data read : ", job.path(SPLIT_DATA));
    cache.mPath = job.path(SPLIT_DATA);
    cache.mStamp = stamp;
    cache.mDocument = document;
    return document;
}

} // namespace ZARN::Frame
