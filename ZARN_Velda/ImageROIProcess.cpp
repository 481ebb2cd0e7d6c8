// ImageROIProcess: Panorama repair over the stitch plan.
//
// The run: read the regions of the process's member of the split data
// ({"regions":[{"name","rect":{"x","y","w","h"},"method"},...]}) and check
// them all against the stitch plan "caches/stitch_data.json" (read through
// the stitch processes' own plan nodes and rules), the stitched panoramas'
// headers, the lens tables the stitcher uses ("caches/table_Up.bin" and
// "caches/table_Down.bin", or the job's calibrated ones) and the raw captures, before any library call and before anything is
// written. Then, for every panorama with regions:
//
//   caches/image_roi/stitched/<file>   the stitcher's own output, kept as a
//                                      hard link: every repair starts from it
//   caches/image_roi/repaired/<file>   the repair, written by the stitching
//                                      library's repair entry on the workers
//   caches/images/<file>               replaced by the repair atomically once
//                                      every repair has succeeded
//
// A panorama without regions (any more) gets the stitcher's output back. A
// file of "caches/images/" that is neither the kept output nor the repair is
// a new stitcher output and is kept in place of the old one. Repairs whose
// kept panorama, captures, tables and regions are unchanged are kept
// ("caches/fingerprints/ImageROIProcess.json"). The repaired panoramas are
// published into "results/image_roi/" and listed in
// "caches/upload.part7.json".

#include "ZARN_Common/Fingerprint.h"
#include "ZARN_Velda/StitchProcess.h"
#include "__ORN__/orn_images.h"

#include <mutex>

namespace ZARN {

using namespace Stitch;

// The repair entries of the stitching library, linked in this order.
struct ImageROIHandle {
    DLL mDLL;
    StitchLibrary::CREATE_OPT_FLOW_STITCH *mCreateOptFlowStitchHandle = nullptr;
    StitchLibrary::DESTROY_OPT_FLOW_STITCH *mDestroyOptFlowStitchHandle = nullptr;
    StitchLibrary::INIT_OPT_FLOW_STITCH *mInitOptFlowStitchHandle = nullptr;
    StitchLibrary::EXECUTE_PANO_REPAIR *mExecutePanoRepairHandle = nullptr;
    StitchLibrary::GET_OPT_FLOW_STITCH_CODE *mGetOptFlowStitchCode = nullptr;

    ImageROIHandle() {
        mDLL.open(DLL::library_path(STITCH_LIBRARY::LIBRARY));
        mCreateOptFlowStitchHandle = mDLL.link_as<StitchLibrary::CREATE_OPT_FLOW_STITCH>("KIVO_CreateOptFlowStitchHandle");
        mDestroyOptFlowStitchHandle =
            mDLL.link_as<StitchLibrary::DESTROY_OPT_FLOW_STITCH>("KIVO_DestroyOptFlowStitchHandle");
        mInitOptFlowStitchHandle = mDLL.link_as<StitchLibrary::INIT_OPT_FLOW_STITCH>("KIVO_InitOptFlowStitchHandle");
        mExecutePanoRepairHandle = mDLL.link_as<StitchLibrary::EXECUTE_PANO_REPAIR>("KIVO_ExecutePanoRepairHandle");
        mGetOptFlowStitchCode = mDLL.link_as<StitchLibrary::GET_OPT_FLOW_STITCH_CODE>("KIVO_GetOptFlowStitchCode");
    }
};

// The process reads the stitch plan with the stitch processes' nodes
// (StitchProcess.h); of their nodes it uses the plan and the worker loop.
class ImageROIProcess::Private::Implement final : public StitchProcess<Implement> {
    ZARN_PROCESS_IMPLEMENT(ImageROIProcess)

public:
    using SETTING = Frame::WORKER_SETTING<64>;

    static constexpr std::array<std::string_view, 4> WORKING_DIRECTORIES = {
        "caches/images", "caches/image_roi/stitched", "caches/image_roi/repaired", "results/image_roi"};
    static constexpr std::string_view KEPT_FOLDER = "caches/image_roi/stitched";
    static constexpr std::string_view REPAIRED_FOLDER = "caches/image_roi/repaired";
    static constexpr std::string_view RESULTS_FOLDER = "results/image_roi";
    // The fingerprints of the repairs' inputs when they were last made.
    static constexpr std::string_view FINGERPRINTS = "caches/fingerprints/ImageROIProcess.json";
    // The bytes of a panorama's start that are read for its size; a file
    // whose header lies further in (a TIFF's directory at its end) is read
    // whole.
    static constexpr INDEX HEADER_BYTES = INDEX(1) << 20;

    // The plan's image records, read as the stitcher reads them.
    using NDS_mStitchDataImage = TwoLensImage;

    // Where a panorama's kept stitcher output and its repair live.
    static String<char> kept_name(const String<char> &dst1) {
        return String<char>(KEPT_FOLDER) + "/" + FileSystemProc::file_name(dst1);
    }
    static String<char> repaired_name(const String<char> &dst1) {
        return String<char>(REPAIRED_FOLDER) + "/" + FileSystemProc::file_name(dst1);
    }
    static bool same_file(const ORN::JobDirectory::STAMP &a, const ORN::JobDirectory::STAMP &b) {
        return a.mSize >= 0 && b.mSize >= 0 && a.mDevice == b.mDevice && a.mInode == b.mInode;
    }

    // What "caches/images/<file>" of a record is now.
    struct PANORAMA_STATE {
        // The stitcher's own output: the panorama itself, or the kept link
        // when the panorama is a repair (or gone); empty when there is none.
        String<char> mSource;
        bool mRepaired = false; // the panorama is this process's repair
    };
    static PANORAMA_STATE panorama_state(const ORN::JobDirectory &job, const String<char> &dst1) {
        const auto now = job.stamp(dst1), kept = job.stamp(kept_name(dst1)), repaired = job.stamp(repaired_name(dst1));
        if (same_file(now, repaired))
            return {kept.mSize >= 0 ? kept_name(dst1) : String<char>(), true};
        if (now.mSize >= 0)
            return {dst1, false};
        if (kept.mSize >= 0)
            return {kept_name(dst1), false};
        return {};
    }

    // The regions of one panorama, in the order of the member.
    struct NDS_mImageROIData {
        INDEX mImage = 0;              // the record of the plan
        ORN::Array<INDEX> mIndexes;    // the regions' positions in "regions"
        ORN::Array<int> mRegions;      // x, y, width, height, method per region
        std::int32_t mWidth = 0, mHeight = 0; // the stitched panorama's size
        PANORAMA_STATE mState;
    };

    static void refuse(INDEX i, const String<char> &name, const String<char> &reason) {
        ORN::console().error("regions[", i, "] (", name, ") : ", reason);
    }

    // The regions, grouped by panorama in plan order, every one checked
    // before anything is written or called: a panorama of the plan with a
    // stitched output, a known method, a rectangle of positive size inside
    // the panorama, at most MAX_REPAIR_REGIONS per panorama, and every file
    // its repair reads (the lens tables, the captures) present.
    struct CON_mImageROIData {
        ORN_NODE(CON_mImageROIData);
        ORN::Array<NDS_mImageROIData> mSelf;
        INDEX mRegionCount = 0;
        explicit CON_mImageROIData(ORN::SyntaxTree &tree) {
            const auto &json = tree.stack<CON_mSplitDataJson>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &json, &data, &path] { read(json.mSelf.child("regions"), data, ORN::JobDirectory(path.mSelf)); });
        }

    private:
        void read(const ORN::JsonParser &regions, const CON_mStitchData &data, const ORN::JobDirectory &job) {
            const bool listed = !regions.exist() || regions.null_type() || regions.array_type();
            if (!listed)
                ORN::console().error("ImageROIProcess : \"regions\" is not an array");
            _DYNAMIC_ASSERT_(listed);
            // The plan's records by name, and a record's panorama by record.
            ORN::Set<String<char>> names;
            ORN::Array<INDEX> first, panorama(data.mImage.size(), ORN::VAR_NONE);
            ORN::Array<char> repeated;
            for (INDEX k = 0; k < data.mImage.size(); ++k) {
                const INDEX at = names.find(data.mImage[k].name);
                if (at != ORN::VAR_NONE) {
                    repeated[at] = 1;
                    continue;
                }
                names.insert(data.mImage[k].name);
                first.append(k);
                repeated.append(0);
            }
            ORN::Array<NDS_mImageROIData> found;
            bool tables = false;
            const ORN::Array<ORN::JsonParser> elements = regions.children();
            for (INDEX i = 0; i < elements.size(); ++i) {
                const ORN::JsonParser &e = elements[i];
                const String<char> name = e.child("name").value("");
                const INDEX at = names.find(name);
                if (at == ORN::VAR_NONE)
                    refuse(i, name, "unknown panorama : no image of this name in " + String<char>(STITCH_DATA));
                _DYNAMIC_ASSERT_(at != ORN::VAR_NONE);
                if (repeated[at] != 0)
                    refuse(i, name, "the stitch plan has more than one image of this name");
                _DYNAMIC_ASSERT_(repeated[at] == 0);
                const int method = method_of(e.child("method"));
                if (method < 0)
                    refuse(i, name, "unknown method : " + e.child("method").value("") +
                                        " (\"upper\", \"lower\", \"flow\" or \"auto\")");
                _DYNAMIC_ASSERT_(method >= 0);
                const ORN::JsonParser rect = e.child("rect");
                ORN::int64 r[4];
                const char *keys[4] = {"x", "y", "w", "h"};
                for (int k = 0; k < 4; ++k)
                    r[k] = rect.child(keys[k]).value(ORN::int64(-1));
                const String<char> where = std::to_string(r[0]) + "," + std::to_string(r[1]) + " " +
                                           std::to_string(r[2]) + "x" + std::to_string(r[3]);
                const bool sized = r[2] > 0 && r[3] > 0;
                if (!sized)
                    refuse(i, name, "empty rectangle : " + where);
                _DYNAMIC_ASSERT_(sized);

                const INDEX image = first[at];
                const NDS_mStitchDataImage &record = data.mImage[image];
                if (panorama[image] == ORN::VAR_NONE) {
                    panorama[image] = found.size();
                    NDS_mImageROIData &p = found.append();
                    p.mImage = image;
                    p.mState = panorama_state(job, record.dst1);
                    open_panorama(job, i, name, record.dst1, p);
                }
                NDS_mImageROIData &p = found[panorama[image]];
                const bool inside = r[0] >= 0 && r[1] >= 0 && r[0] < p.mWidth && r[1] < p.mHeight &&
                                    r[2] <= p.mWidth - r[0] && r[3] <= p.mHeight - r[1];
                if (!inside)
                    refuse(i, name, "rectangle outside the panorama : " + where + " in " + std::to_string(p.mWidth) +
                                        "x" + std::to_string(p.mHeight));
                _DYNAMIC_ASSERT_(inside);
                const bool room = p.mIndexes.size() < StitchLibrary::MAX_REPAIR_REGIONS;
                if (!room)
                    refuse(i, name, "too many regions : more than " + std::to_string(StitchLibrary::MAX_REPAIR_REGIONS) +
                                        " for one panorama");
                _DYNAMIC_ASSERT_(room);
                if (!tables) {
                    const auto names = lens_table_names(job);
                    require(job, i, name, "lens table", names.mP1);
                    require(job, i, name, "lens table", names.mP2);
                    tables = true;
                }
                if (p.mIndexes.empty())
                    for (int k = 0; k < record.exposures(); ++k) {
                        require(job, i, name, "raw capture", record.upper(k));
                        require(job, i, name, "raw capture", record.lower(k));
                    }
                p.mIndexes.append(i);
                for (int k = 0; k < 4; ++k)
                    p.mRegions.append(static_cast<int>(r[k]));
                p.mRegions.append(method);
                ++mRegionCount;
            }
            for (INDEX k = 0; k < data.mImage.size(); ++k)
                if (panorama[k] != ORN::VAR_NONE)
                    mSelf.append(std::move(found[panorama[k]]));
            ORN::console().info("regions : ", mRegionCount, " in ", mSelf.size(), " panoramas");
        }

        // "upper", "lower", "flow", "auto" (also when absent); -1 otherwise.
        static int method_of(const ORN::JsonParser &method) {
            if (!method.exist())
                return StitchLibrary::REPAIR_AUTO;
            if (!method.quoted())
                return -1;
            const std::string_view text = method.view();
            return text == "auto"    ? StitchLibrary::REPAIR_AUTO
                   : text == "upper" ? StitchLibrary::REPAIR_UPPER
                   : text == "lower" ? StitchLibrary::REPAIR_LOWER
                   : text == "flow"  ? StitchLibrary::REPAIR_FLOW
                                     : -1;
        }

        // A file the repair reads: a regular file of the job reached
        // without links.
        static void require(const ORN::JobDirectory &job, INDEX i, const String<char> &name, std::string_view what,
                            const String<char> &file) {
            if (job.find_file(file))
                return;
            refuse(i, name, String<char>(what) + " missing or refused : " + file);
            ConsistencyProc::check_file_existance(job, file);
            _DYNAMIC_ASSERT_(job.find_file (file));
        }

        // The stitcher's output the regions are repaired from, and its size
        // as its header tells.
        static void open_panorama(const ORN::JobDirectory &job, INDEX i, const String<char> &name,
                                  const String<char> &dst1, NDS_mImageROIData &p) {
            const String<char> &source = p.mState.mSource;
            if (source.empty()) {
                refuse(i, name, p.mState.mRepaired ? "the stitcher's output kept for the repaired " + dst1 + " is gone"
                                                   : "no stitched panorama : " + dst1);
                ConsistencyProc::check_file_existance(job, p.mState.mRepaired ? kept_name(dst1) : dst1);
            }
            _DYNAMIC_ASSERT_(!source.empty ());
            ORN::IMAGE_HEADER header;
            const String<char> reason = read_header(job, source, header);
            if (!reason.empty())
                refuse(i, name, "stitched panorama " + job.path(source) + " : " + reason);
            _DYNAMIC_ASSERT_(reason.empty ());
            p.mWidth = static_cast<std::int32_t>(header.mWidth);
            p.mHeight = static_cast<std::int32_t>(header.mHeight);
        }

        // Empty when the file's header gives a size within the decoder's
        // limits (then in `header`), otherwise the reason.
        static String<char> read_header(const ORN::JobDirectory &job, const String<char> &source,
                                        ORN::IMAGE_HEADER &header) {
            const ORN::JobDirectory::Input input = job.open_input(source);
            ORN::StreamLoader stream = ORN::StreamLoader::open_read(input.path());
            ORN::Buffer<unsigned char> head(HEADER_BYTES);
            const INDEX n = stream.read(head.data(), head.size());
            String<char> reason = ORN::Image::check_header(head.data(), n);
            if (!reason.empty() && n == HEADER_BYTES) {
                head = job.load_file(source, FileSystemProc::load_file_size());
                reason = ORN::Image::check_header(head.data(), head.size());
                if (reason.empty())
                    ORN::Image::probe(head.data(), head.size(), header);
                return reason;
            }
            if (reason.empty())
                ORN::Image::probe(head.data(), n, header);
            return reason;
        }
    };

    // The library, opened and linked when the node plays.
    struct CON_mImageROIHandle {
        ORN_NODE(CON_mImageROIHandle);
        ORN::AutoRef<ImageROIHandle> mSelf;
        explicit CON_mImageROIHandle(ORN::SyntaxTree &tree) {
            tree.once([this] { mSelf = ORN::AutoRef<ImageROIHandle>::make(); });
        }
    };

    // One initialised repair object per distinct "config" of the panoramas
    // with regions, in plan order, made as the stitcher makes its own (the
    // two lens tables, the first such panorama's size, an eighth of it for
    // the exposure estimate, OUTPUT_BITS); destroyed when the repairs are
    // over. The tables are held open as checked while the objects live.
    struct SUB_mOptFlowStitchHandle {
        ORN_NODE(SUB_mOptFlowStitchHandle);
        ORN::ArrayList<LibraryObject<StitchLibrary::IMAGE_HANDLE>> mSelf;
        ORN::Set<String<char>> mConfigSet;
        ORN::JobDirectory::Input mUp, mDown;
        explicit SUB_mOptFlowStitchHandle(ORN::SyntaxTree &tree) {
            const auto &handle = tree.stack<CON_mImageROIHandle>();
            const auto &regions = tree.stack<CON_mImageROIData>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &handle, &regions, &data, &path] {
                const ImageROIHandle &library = *handle.mSelf;
                const ORN::JobDirectory job(path.mSelf);
                const auto tables = lens_table_names(job);
                mUp = job.open_input(tables.mP1);
                mDown = job.open_input(tables.mP2);
                ORN::console().info("initializing stitch");
                for (const NDS_mImageROIData &p : regions.mSelf) {
                    const String<char> &config = data.mImage[p.mImage].config;
                    if (mConfigSet.find(config) != ORN::VAR_NONE)
                        continue;
                    mConfigSet.insert(config);
                    auto &object = mSelf.append(make_library_object<StitchLibrary::IMAGE_HANDLE>(
                        library.mCreateOptFlowStitchHandle, library.mDestroyOptFlowStitchHandle));
                    const auto me = object.self().mP1;
                    const int result = _CALL_TRY_([&] {
                        return library.mInitOptFlowStitchHandle(me, mUp.path().c_str(), mDown.path().c_str(), p.mWidth,
                                                                p.mHeight, p.mWidth / 8, p.mHeight / 8,
                                                                StitchLibrary::OUTPUT_BITS);
                    });
                    check_repair(result, [&] { return library.mGetOptFlowStitchCode(me); });
                }
                ORN::console().info(mSelf.size(), " config to go");
            });
        }
    };

    // A failing call: the object's code is logged as "return value = " and
    // ends the process.
    template <class CODE>
    static void check_repair(int result, CODE &&code) {
        if (result == StitchLibrary::KIVO_OK)
            return;
        const ORN::int64 mRepairReturnValue = Frame::failed_call_code(result, code, "repair", StitchLibrary::meaning);
        _DYNAMIC_ASSERT_(mRepairReturnValue == 0);
    }

    // What a repair is made from: the kept stitcher output, the captures,
    // the lens tables, the panorama's size and its regions.
    static String<char> repair_fingerprint(const ORN::JobDirectory &job, const NDS_mStitchDataImage &record,
                                           const NDS_mImageROIData &p) {
        Fingerprint fingerprint;
        fingerprint.add_file(job, kept_name(record.dst1));
        const auto tables = lens_table_names(job);
        fingerprint.add_file(job, tables.mP1).add_file(job, tables.mP2);
        fingerprint.add(record.exposures());
        for (int k = 0; k < record.exposures(); ++k)
            fingerprint.add_file(job, record.upper(k)).add_file(job, record.lower(k));
        fingerprint.add(p.mWidth).add(p.mHeight);
        for (const int v : p.mRegions)
            fingerprint.add(v);
        return fingerprint.text();
    }

    // Keeps each stitcher output the regions are repaired from, then
    // repairs on the workers every panorama that is not up to date into
    // "caches/image_roi/repaired/"; "caches/images/" is not touched yet.
    struct ACT_mImageROI {
        ORN_NODE(ACT_mImageROI);
        const SUB_mOptFlowStitchHandle *mHandles = nullptr; // set when there is something to repair
        const CON_mImageROIHandle *mLibrary = nullptr;
        ORN::Array<INDEX> mTodo; // positions in CON_mImageROIData
        ORN::Array<String<char>> mKeys;
        explicit ACT_mImageROI(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mWorkingPath>();
            const auto &regions = tree.stack<CON_mImageROIData>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.maybe<CON_mImageROIHandle>();
            tree.maybe<SUB_mOptFlowStitchHandle>();
            tree.once([this, &tree, &regions, &data, &setting, &path] {
                if (regions.mSelf.empty())
                    return;
                const ORN::JobDirectory job(path.mSelf);
                FingerprintRecord record(job, String<char>(FINGERPRINTS));
                for (INDEX t = 0; t < regions.mSelf.size(); ++t) {
                    const NDS_mImageROIData &p = regions.mSelf[t];
                    const NDS_mStitchDataImage &image = data.mImage[p.mImage];
                    // A new stitcher output replaces the one kept before.
                    if (p.mState.mSource == image.dst1 && !same_file(job.stamp(image.dst1), job.stamp(kept_name(image.dst1)))) {
                        job.publish_file(image.dst1, kept_name(image.dst1));
                        ORN::console().info("stitched panorama kept : ", kept_name(image.dst1));
                    }
                    const String<char> key = repair_fingerprint(job, image, p);
                    const String<char> work = FileSystemProc::file_name(image.dst1);
                    if (record.up_to_date(work, key, {repaired_name(image.dst1)}) &&
                        same_file(job.stamp(image.dst1), job.stamp(repaired_name(image.dst1))))
                        continue;
                    mTodo.append(t);
                    mKeys.append(key);
                    record.set(work, String<char>(), false); // until it is made again
                }
                record.save();
                if (mTodo.size() < regions.mSelf.size())
                    ORN::console().info("image repair : ", regions.mSelf.size() - mTodo.size(), " of ",
                                        regions.mSelf.size(), " panoramas up to date");
                if (mTodo.empty())
                    return;
                mHandles = &tree.stack<SUB_mOptFlowStitchHandle>();
                mLibrary = &tree.stack<CON_mImageROIHandle>();
                tree.then([this, &regions, &data, &setting, &path] { repair(regions, data, setting, path); });
            });
        }

        void repair(const CON_mImageROIData &regions, const CON_mStitchData &data, const CON_mSetting &setting,
                    const VAR_mWorkingPath &path) {
            const ImageROIHandle &library = *mLibrary->mSelf;
            const ORN::JobDirectory job(path.mSelf);
            FingerprintRecord record(job, String<char>(FINGERPRINTS));
            std::mutex record_mutex;
            LIBRARY_CLOCK clock;
            // A task holds the panorama, the captures remapped into it and
            // the output, as a stitch does.
            ORN::int64 pixels = 0;
            for (const INDEX t : mTodo)
                pixels = std::max<ORN::int64>(pixels, ORN::int64(regions.mSelf[t].mWidth) * regions.mSelf[t].mHeight);
            run_on_workers(setting.mThreadConcurrency, "image repair : ", mTodo.size(), pixels * BYTES_PER_PANORAMA_PIXEL,
                           clock, [&](INDEX n) {
                const INDEX t = mTodo[n];
                const NDS_mImageROIData &p = regions.mSelf[t];
                const NDS_mStitchDataImage &image = data.mImage[p.mImage];
                const auto me = mHandles->mSelf[mHandles->mConfigSet.map(image.config)].self().mP1;
                ORN::console().info("processing image [", p.mImage, "] ", image.name);
                const int brackets = image.exposures();
                std::array<ORN::JobDirectory::Input, 8> inputs;
                std::array<const char *, 4> upper{}, lower{};
                for (int k = 0; k < brackets; ++k) {
                    inputs[k] = job.open_input(image.upper(k));
                    inputs[4 + k] = job.open_input(image.lower(k));
                    upper[k] = inputs[k].path().c_str();
                    lower[k] = inputs[4 + k].path().c_str();
                }
                const ORN::JobDirectory::Input panorama = job.open_input(kept_name(image.dst1));
                const String<char> output = job.path(repaired_name(image.dst1));
                const int size[2] = {p.mWidth, p.mHeight};
                const int result = _CALL_TRY_([&] {
                    return clock.time([&] {
                        return library.mExecutePanoRepairHandle(me, upper.data(), lower.data(), brackets,
                                                                panorama.path().c_str(), output.c_str(), size,
                                                                p.mRegions.data(),
                                                                static_cast<int>(p.mIndexes.size()));
                    });
                });
                check_repair(result, [&] { return library.mGetOptFlowStitchCode(me); });
                const std::lock_guard<std::mutex> hold(record_mutex);
                record.set(FileSystemProc::file_name(image.dst1), mKeys[n]);
            });
        }
    };

    // Once every repair has succeeded: each panorama with regions becomes
    // its repair, each one without gets the stitcher's output back (and
    // loses its kept and repaired files), files of panoramas the plan no
    // longer has are removed, and the repaired panoramas become the content
    // of "results/image_roi/".
    struct ACT_mResultsImageROIFile {
        ORN_NODE(ACT_mResultsImageROIFile);
        explicit ACT_mResultsImageROIFile(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mImageROI>();
            const auto &regions = tree.stack<CON_mImageROIData>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&regions, &data, &path] {
                const ORN::JobDirectory job(path.mSelf);
                ORN::BitSet repaired(data.mImage.size());
                ORN::Array<ORN::JobDirectory::PUBLISHED> published;
                for (const NDS_mImageROIData &p : regions.mSelf) {
                    const String<char> &dst1 = data.mImage[p.mImage].dst1;
                    repaired.set(p.mImage, true);
                    if (!same_file(job.stamp(dst1), job.stamp(repaired_name(dst1))))
                        job.publish_file(repaired_name(dst1), dst1);
                    published.append(ORN::JobDirectory::PUBLISHED{
                        dst1, String<char>(RESULTS_FOLDER) + "/" + FileSystemProc::file_name(dst1)});
                }
                INDEX restored = 0;
                ORN::Set<String<char>> files;
                for (INDEX i = 0; i < data.mImage.size(); ++i) {
                    const String<char> &dst1 = data.mImage[i].dst1;
                    files.insert(FileSystemProc::file_name(dst1));
                    if (repaired.get(i))
                        continue;
                    const PANORAMA_STATE state = panorama_state(job, dst1);
                    if (state.mSource.empty()) {
                        if (state.mRepaired)
                            ORN::console().warn(job.path(dst1), " : a repair whose stitched original ",
                                                kept_name(dst1), " is gone; left as it is");
                        continue;
                    }
                    if (state.mSource != dst1) {
                        job.publish_file(state.mSource, dst1);
                        ++restored;
                    }
                    job.erase_file(repaired_name(dst1));
                    job.erase_file(kept_name(dst1));
                }
                for (const std::string_view folder : {KEPT_FOLDER, REPAIRED_FOLDER})
                    for (const String<char> &name : job.list_files(folder))
                        if (files.find(name) == ORN::VAR_NONE)
                            job.erase_file(String<char>(folder) + "/" + name);
                if (restored > 0)
                    ORN::console().info("stitched panoramas restored : ", restored);
                job.publish_files(RESULTS_FOLDER, published);
            });
        }
    };

    // "caches/upload.part7.json": {"upload":[{"file":"image_roi/<file>"},...]},
    // the repaired panoramas in plan order.
    struct ACT_mUploadPart7Json {
        ORN_NODE(ACT_mUploadPart7Json);
        explicit ACT_mUploadPart7Json(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mResultsImageROIFile>();
            const auto &regions = tree.stack<CON_mImageROIData>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&regions, &data, &path] {
                ORN::JsonWriter writer(256);
                writer.raw("{").key("upload").raw("[");
                for (INDEX k = 0; k < regions.mSelf.size(); ++k) {
                    if (k > 0)
                        writer.comma();
                    writer.raw("{").key("file").string("image_roi/" +
                                                      FileSystemProc::file_name(data.mImage[regions.mSelf[k].mImage].dst1));
                    writer.raw("}");
                }
                writer.raw("]}");
                ORN::JobDirectory(path.mSelf).save_file("caches/upload.part7.json", writer.text());
                ORN::console().info("caches/upload.part7.json : ", regions.mSelf.size(), " files");
            });
        }
    };

    using ACTIONS = Frame::Actions<ACT_mWorkingPath, ACT_mImageROI, ACT_mResultsImageROIFile, ACT_mUploadPart7Json>;
};

ZARN_DEFINE_PROCESS(ImageROIProcess)

} // namespace ZARN
