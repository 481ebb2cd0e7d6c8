// ImageFilterProcess: Filtering of the images listed in the region file.
//
// The run: read the region file "extras/image-ROI.json" and check it whole
// (every record's panorama present, every rectangle inside its frame)
// before anything is written; then, on the worker threads, filter each
// listed panorama "caches/images/<panoId>.jpg" with the filter of the stereo
// rotating-camera library into "extras/images/<panoId>.jpg" (and a preview
// "extras/images/<panoId>_preview.jpg" where the record asks for one), and
// publish the filtered panoramas into "results/images/" by hard link.

#include "ZARN_Common/Fingerprint.h"
#include "ZARN_Common/StereoRotCamLibrary.h"
#include "ZARN_Common/export.h"
#include "ZARN_Velda/ProcessFrame.h"
#include "ZARN_Velda/StitchHandle.h"
#include "__ORN__/orn_images.h"
#include "__ORN__/orn_thread.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <mutex>
#include <string_view>

namespace ZARN {

namespace Lib = StereoRotCamLibrary;
using ORN::INDEX;

// The filter entries of the stereo library, linked in this order.
struct ImageFilterHandle {
    DLL mDLL;
    Lib::CREATE_FILTER *mCreateFilterHandle = nullptr;
    Lib::DESTROY_FILTER *mDestroyFilterHandle = nullptr;
    Lib::INIT_FILTER *mInitFilterHandle = nullptr;
    Lib::EXECUTE_FILTER *mExecuteFilterHandle = nullptr;
    Lib::GET_FILTER_CODE *mGetFilterCode = nullptr;

    ImageFilterHandle() {
        mDLL.open(DLL::library_path("StereoRotCam"));
        mCreateFilterHandle = mDLL.link_as<Lib::CREATE_FILTER>("KIVO_CreateFilterHandle");
        mDestroyFilterHandle = mDLL.link_as<Lib::DESTROY_FILTER>("KIVO_DestroyFilterHandle");
        mInitFilterHandle = mDLL.link_as<Lib::INIT_FILTER>("KIVO_InitFilterHandle");
        mExecuteFilterHandle = mDLL.link_as<Lib::EXECUTE_FILTER>("KIVO_ExecuteFilterHandle");
        mGetFilterCode = mDLL.link_as<Lib::GET_FILTER_CODE>("KIVO_GetFilterCode");
    }
};

class ImageFilterProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(ImageFilterProcess)

public:
    using SETTING = Frame::WORKER_SETTING<64>;

    static constexpr std::array<std::string_view, 3> WORKING_DIRECTORIES = {"caches/images", "results/images",
                                                                            "extras/images"};
    static constexpr std::string_view REGION_FILE = "extras/image-ROI.json";
    // The fingerprints of the filtered panoramas' inputs when last made.
    static constexpr std::string_view FINGERPRINTS = "caches/fingerprints/ImageFilterProcess.json";
    // The filtered images' JPEG quality and the previews' width.
    static constexpr int QUALITY = 95;
    static constexpr int PREVIEW_WIDTH = 512;
    // Most rectangles one record may have; each costs the filter time in
    // proportion to its area.
    static constexpr INDEX MAX_RECTS = 256;

    // One record of the region file, read key by key in the file's order.
    struct NDS_mImageFilterData {
        ORN::String<char> mPanoId;
        ORN::int64 mResolution = 0;
        ORN::Array<int> mRect; // x, y, width, height per region
        ORN::int64 mWidth = 0, mHeight = 0, mType = 0;
        bool mPreview = false;
    };

    // "extras/image-ROI.json", parsed.
    struct CON_mImageFilterJson {
        ORN_NODE(CON_mImageFilterJson);
        ORN::JsonParser mSelf;
        explicit CON_mImageFilterJson(ORN::SyntaxTree &tree) {
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &path] {
                const ORN::JobDirectory job(path.mSelf);
                ConsistencyProc::check_file_existance(job, REGION_FILE);
                mSelf = ORN::JsonParser(job.load_file(REGION_FILE).text(), job.path(REGION_FILE));
            });
        }
    };

    // The records, every one checked before any image is touched: a plain
    // panorama name whose "caches/images/<panoId>.jpg" is there, a size class
    // 1 to 3, a frame of positive size, rectangles of positive size inside
    // the frame, a known filter type.
    struct CON_mImageFilterData {
        ORN_NODE(CON_mImageFilterData);
        ORN::Array<NDS_mImageFilterData> mSelf;
        explicit CON_mImageFilterData(ORN::SyntaxTree &tree) {
            const auto &json = tree.stack<CON_mImageFilterJson>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &json, &path] {
                const ORN::JobDirectory job(path.mSelf);
                const ORN::JsonParser images = json.mSelf.child("images");
                if (!images.array_type())
                    ORN::console().error("region file without an \"images\" array : ", job.path(REGION_FILE));
                _DYNAMIC_ASSERT_(images.array_type ());
                for (const ORN::JsonParser &e : images.children()) {
                    NDS_mImageFilterData &r = mSelf.append();
                    r.mPanoId = e.child("panoId").value("");
                    r.mResolution = e.child("resolution").value(ORN::int64(0));
                    const INDEX count = e.child("rect").array_type() ? e.child("rect").size() : 0;
                    if (count > MAX_RECTS)
                        refuse(mSelf.size() - 1, "more than " + std::to_string(MAX_RECTS) + " rectangles : ",
                               std::to_string(count) + " for " + r.mPanoId);
                    _DYNAMIC_ASSERT_(count <= MAX_RECTS);
                    // Read whole and checked before they are cut to the
                    // library's int.
                    ORN::Array<ORN::int64> rects;
                    for (const ORN::JsonParser &rect : e.child("rect").children())
                        for (const char *key : {"x", "y", "w", "h"})
                            rects.append(rect.child(key).value(ORN::int64(-1)));
                    r.mWidth = e.child("width").value(ORN::int64(0));
                    r.mHeight = e.child("height").value(ORN::int64(0));
                    r.mType = e.child("type").value(ORN::int64(-1));
                    r.mPreview = e.child("preview").value(false);
                    check(job, mSelf.size() - 1, e, r, rects);
                    for (const ORN::int64 v : rects)
                        r.mRect.append(static_cast<int>(v));
                }
                check_names(mSelf);
                ORN::console().info(REGION_FILE, " : ", mSelf.size(), " images");
            });
        }

    private:
        static void refuse(INDEX i, std::string_view what, const ORN::String<char> &detail) {
            ORN::console().error("region file, image [", i, "] : ", what, detail);
        }
        // Each panorama is listed once, and no preview is written over the
        // filtered panorama of another record ("<panoId>_preview").
        static void check_names(const ORN::Array<NDS_mImageFilterData> &records) {
            ORN::Set<ORN::String<char>> names;
            for (INDEX i = 0; i < records.size(); ++i) {
                const bool once = names.find(records[i].mPanoId) == ORN::VAR_NONE;
                if (!once)
                    refuse(i, "panorama listed twice : ", records[i].mPanoId);
                _DYNAMIC_ASSERT_(once);
                names.insert(records[i].mPanoId);
            }
            for (INDEX i = 0; i < records.size(); ++i) {
                const ORN::String<char> preview = records[i].mPanoId + "_preview";
                const bool apart = !records[i].mPreview || names.find(preview) == ORN::VAR_NONE;
                if (!apart)
                    refuse(i, "its preview would replace the filtered panorama of ", preview);
                _DYNAMIC_ASSERT_(apart);
            }
        }
        static void check(const ORN::JobDirectory &job, INDEX i, const ORN::JsonParser &e, const NDS_mImageFilterData &r,
                          const ORN::Array<ORN::int64> &rects) {
            const bool plain = !r.mPanoId.empty() && r.mPanoId.find_first_of("/\\:") == ORN::String<char>::npos &&
                               r.mPanoId != "." && r.mPanoId != "..";
            if (!plain)
                refuse(i, "not a panorama name : ", r.mPanoId);
            _DYNAMIC_ASSERT_(plain);
            ConsistencyProc::check_file_existance(job, "caches/images/" + r.mPanoId + ".jpg");
            const bool known = r.mResolution >= 1 && r.mResolution <= 3 && r.mType >= Lib::FILTER_BLUR &&
                               r.mType <= Lib::FILTER_FILL && r.mWidth > 0 && r.mHeight > 0 &&
                               e.child("rect").array_type() && r.mWidth <= INT32_MAX && r.mHeight <= INT32_MAX;
            if (!known)
                refuse(i, "resolution, type, frame or rect out of range for ", r.mPanoId);
            _DYNAMIC_ASSERT_(known);
            for (INDEX k = 0; k < rects.size(); k += 4) {
                const ORN::int64 x = rects[k], y = rects[k + 1], w = rects[k + 2], h = rects[k + 3];
                // The frame is at most INT32_MAX each way, so the sums of
                // values inside it cannot overflow.
                const bool inside = x >= 0 && y >= 0 && w > 0 && h > 0 && x <= r.mWidth && y <= r.mHeight &&
                                    w <= r.mWidth - x && h <= r.mHeight - y;
                if (!inside)
                    refuse(i, "rectangle outside the image : ",
                           r.mPanoId + " " + std::to_string(x) + "," + std::to_string(y) + " " + std::to_string(w) +
                               "x" + std::to_string(h) + " in " + std::to_string(r.mWidth) + "x" +
                               std::to_string(r.mHeight));
                _DYNAMIC_ASSERT_(inside);
            }
        }
    };

    // The library, opened and linked when the node plays.
    struct CON_mImageFilterHandle {
        ORN_NODE(CON_mImageFilterHandle);
        ORN::AutoRef<ImageFilterHandle> mSelf;
        explicit CON_mImageFilterHandle(ORN::SyntaxTree &tree) {
            tree.once([this] { mSelf = ORN::AutoRef<ImageFilterHandle>::make(); });
        }
    };

    // The filter object, initialised: outputs written in pieces of
    // mFileWriterBufferSize bytes; destroyed when the filtering is over.
    struct SUB_mOptFlowStitchHandle {
        ORN_NODE(SUB_mOptFlowStitchHandle);
        LibraryObject<Lib::FILTER_HANDLE> mSelf;
        explicit SUB_mOptFlowStitchHandle(ORN::SyntaxTree &tree) {
            const auto &handle = tree.stack<CON_mImageFilterHandle>();
            const auto &setting = tree.stack<CON_mSetting>();
            tree.once([this, &handle, &setting] {
                const ImageFilterHandle &library = *handle.mSelf;
                ORN::console().info("initializing filter");
                mSelf = make_library_object<Lib::FILTER_HANDLE>(library.mCreateFilterHandle,
                                                                library.mDestroyFilterHandle);
                const auto me = mSelf.self().mP1;
                const long long buffer = std::max<ORN::int64>(setting.mFileWriterBufferSize, 4096);
                const int result =
                    _CALL_TRY_([&] { return library.mInitFilterHandle(me, buffer, QUALITY, PREVIEW_WIDTH); });
                check_result(result, [&] { return library.mGetFilterCode(me); });
            });
        }
    };

    // A failing call: the object's code is logged as "return value = " and
    // ends the process.
    template <class CODE>
    static void check_result(int result, CODE &&code) {
        if (result == StitchLibrary::KIVO_OK)
            return;
        const ORN::int64 mFilterReturnValue = Frame::failed_call_code(result, code, "filtering", StitchLibrary::meaning);
        _DYNAMIC_ASSERT_(mFilterReturnValue == 0);
    }

    // What a filtered panorama is made from: the panorama and the record.
    static ORN::String<char> filter_fingerprint(const ORN::JobDirectory &job, const NDS_mImageFilterData &r) {
        Fingerprint fingerprint;
        fingerprint.add_file(job, "caches/images/" + r.mPanoId + ".jpg");
        fingerprint.add(r.mResolution).add(r.mWidth).add(r.mHeight).add(r.mType).add(r.mPreview);
        fingerprint.add(QUALITY).add(PREVIEW_WIDTH);
        for (const int v : r.mRect)
            fingerprint.add(v);
        return fingerprint.text();
    }
    static ORN::Array<ORN::String<char>> filter_outputs(const NDS_mImageFilterData &r) {
        ORN::Array<ORN::String<char>> outputs = {"extras/images/" + r.mPanoId + ".jpg"};
        if (r.mPreview)
            outputs.append("extras/images/" + r.mPanoId + "_preview.jpg");
        return outputs;
    }

    // Filters every record that is not up to date on the workers, then
    // publishes the results.
    struct ACT_mImageFilter {
        ORN_NODE(ACT_mImageFilter);
        const SUB_mOptFlowStitchHandle *mFilter = nullptr;
        const CON_mImageFilterHandle *mLibrary = nullptr;
        ORN::Array<INDEX> mTodo;
        ORN::Array<ORN::String<char>> mKeys;
        explicit ACT_mImageFilter(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mWorkingPath>();
            const auto &data = tree.stack<CON_mImageFilterData>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.maybe<CON_mImageFilterHandle>();
            tree.maybe<SUB_mOptFlowStitchHandle>();
            tree.once([this, &tree, &data, &setting, &path] {
                const ORN::JobDirectory job(path.mSelf);
                FingerprintRecord record(job, ORN::String<char>(FINGERPRINTS));
                for (INDEX i = 0; i < data.mSelf.size(); ++i) {
                    const NDS_mImageFilterData &r = data.mSelf[i];
                    const ORN::String<char> key = filter_fingerprint(job, r);
                    if (record.up_to_date(r.mPanoId, key, filter_outputs(r)))
                        continue;
                    mTodo.append(i);
                    mKeys.append(key);
                    record.set(r.mPanoId, ORN::String<char>(), false); // until it is made again
                }
                record.save();
                if (mTodo.size() < data.mSelf.size())
                    ORN::console().info("image filter : ", data.mSelf.size() - mTodo.size(), " of ", data.mSelf.size(),
                                        " images up to date");
                if (mTodo.empty())
                    return publish(job, data);
                mFilter = &tree.stack<SUB_mOptFlowStitchHandle>();
                mLibrary = &tree.stack<CON_mImageFilterHandle>();
                tree.then([this, &data, &setting, &path] { filter(data, setting, path); });
            });
        }

        void filter(const CON_mImageFilterData &data, const CON_mSetting &setting, const VAR_mWorkingPath &path) {
            auto &console = ORN::console();
            const ImageFilterHandle &library = *mLibrary->mSelf;
            const auto me = mFilter->mSelf.self().mP1;
            const ORN::JobDirectory job(path.mSelf);
            const INDEX n = mTodo.size();
            const ORN::TimePoint start = ORN::TimePoint::now();
            FingerprintRecord record(job, ORN::String<char>(FINGERPRINTS));
            std::mutex record_mutex;
            // A task holds the decoded panorama, its filtered regions and the
            // encoded output: about 16 bytes per pixel of the largest frame.
            ORN::int64 pixels = 0;
            for (const INDEX i : mTodo)
                pixels = std::max<ORN::int64>(
                    pixels, std::min<ORN::int64>(data.mSelf[i].mWidth * data.mSelf[i].mHeight, ORN::Image::max_pixels()));
            const ORN::WORKER_PLAN plan = ORN::WorkThread::plan(setting.mThreadConcurrency, n, pixels * 16);
            console.info(plan.mReason);
            auto progress = console.progress("image filter : ", n);
            ORN::WorkThread workers(plan);
            for (INDEX t = 0; t < n; ++t)
                workers.submit([&, t] {
                    const INDEX i = mTodo[t];
                    const NDS_mImageFilterData &r = data.mSelf[i];
                    console.info("processing image [", i, "] ", r.mPanoId);
                    const ORN::JobDirectory::Input input = job.open_input("caches/images/" + r.mPanoId + ".jpg");
                    const ORN::String<char> output = job.path("extras/images/" + r.mPanoId + ".jpg");
                    const ORN::String<char> preview = job.path("extras/images/" + r.mPanoId + "_preview.jpg");
                    const int result = _CALL_TRY_([&] {
                        return library.mExecuteFilterHandle(me, input.path().c_str(), output.c_str(),
                                                            r.mPreview ? preview.c_str() : nullptr, r.mRect.data(),
                                                            static_cast<int>(r.mRect.size() / 4),
                                                            static_cast<int>(r.mWidth), static_cast<int>(r.mHeight),
                                                            static_cast<int>(r.mType));
                    });
                    check_result(result, [&] { return library.mGetFilterCode(me); });
                    {
                        const std::lock_guard<std::mutex> hold(record_mutex);
                        record.set(r.mPanoId, mKeys[t]);
                    }
                    progress.advance();
                });
            workers.wait();
            progress.finish();
            console.info("time costs : ", start.elapsed().text());
            publish(job, data);
        }

        // The filtered panoramas become the content of "results/images/".
        static void publish(const ORN::JobDirectory &job, const CON_mImageFilterData &data) {
            ORN::Array<ORN::JobDirectory::PUBLISHED> published;
            for (const NDS_mImageFilterData &r : data.mSelf)
                published.append(ORN::JobDirectory::PUBLISHED{"extras/images/" + r.mPanoId + ".jpg", "results/images/" + r.mPanoId + ".jpg"});
            job.publish_files("results/images", published);
        }
    };

    using ACTIONS = Frame::Actions<ACT_mWorkingPath, ACT_mImageFilter>;
};

ZARN_DEFINE_PROCESS(ImageFilterProcess)

} // namespace ZARN
