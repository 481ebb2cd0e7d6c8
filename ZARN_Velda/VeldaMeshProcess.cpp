// VeldaMeshProcess: Post-processing of the reconstruction's point cloud and meshes.
//
// The run: read the reconstruction's listing "caches/mesh.json" (point cloud
// chunks, floors, room mesh). Unless the same inputs were already processed,
// load the chunks on the worker threads and merge them without the copies
// their overlaps hold; index the merged points in a kd-tree, drop the
// statistical outliers and estimate the missing normals from the
// mPointCloudSearchCount nearest neighbours; group the points by floor;
// reconstruct a surface per floor, trimmed to its points, with simplified
// sizes, and split the room mesh by floor. Write it all as binary PLY and
// top-view pictures into "caches/mesh/", list it in
// "caches/upload.part4.json", sum it up in "caches/mesh_report.json", and
// publish the listed files into "results/mesh/" by hard link.

#include "ZARN_Common/Fingerprint.h"
#include "ZARN_Common/KD_Tree.h"
#include "ZARN_Common/MeshRender.h"
#include "ZARN_Common/PlyReader.h"
#include "ZARN_Common/PlyWriter.h"
#include "ZARN_Common/PointCloudProc.h"
#include "ZARN_Common/SurfaceProc.h"
#include "ZARN_Velda/ProcessFrame.h"
#include "__ORN__/orn_thread.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <sstream>
#include <string_view>

namespace ZARN {

using ORN::INDEX;
using PointCloudProc::CLOUD;
using PointCloudProc::FLOOR;
using SurfaceProc::MESH;

namespace {

constexpr std::string_view MESH_JSON = "caches/mesh.json";
constexpr std::string_view MANIFEST = "caches/upload.part4.json";
constexpr std::string_view REPORT = "caches/mesh_report.json";
constexpr std::string_view KIND = "mesh";

// A name the listing gives, relative to "caches/": plain components only.
bool plain_relative(const ORN::String<char> &name) {
    if (name.empty() || name.front() == '/' || name.front() == '\\')
        return false;
    for (const auto &part : ORN::FileSystemProc::decouple_path_name(name))
        if (part.empty() || part == "." || part == "..")
            return false;
    return true;
}

// The limits a job is held to (documented with the job format).
constexpr INDEX MAX_CHUNKS = 4096;          // chunks of the listing
constexpr INDEX MAX_FLOORS = 64;            // floors of the listing
constexpr INDEX MAX_LOD_LEVELS = 8;         // sizes per floor, level 0 included
constexpr INDEX MAX_FLOOR_NAME = 64;        // bytes of a floor name
constexpr ORN::int64 MAX_THREADS = 1024;    // mThreadConcurrency
constexpr ORN::int64 MIN_SEARCH_COUNT = 2;  // mPointCloudSearchCount
constexpr ORN::int64 MAX_SEARCH_COUNT = 64;
constexpr double MIN_SURFACE_EXTENT = 0.01; // metres a floor's points must span

// Stops the run unless `valid`, after one line for a person: the file, the
// key within it and what is wrong with its value.
void refuse_unless(bool valid, std::string_view file, std::string_view key, std::string_view reason) {
    if (!valid)
        ORN::console().error(file, " : ", key, " : ", reason);
    _DYNAMIC_ASSERT_(valid);
}

// A JSON value as a message shows it: a scalar as written (a string quoted
// and escaped, cut after 40 bytes), anything else by its kind.
ORN::String<char> shown(const ORN::JsonParser &value) {
    if (!value.exist())
        return "nothing";
    if (value.null_type())
        return "null";
    if (value.array_type())
        return "an array";
    if (value.object_type())
        return "an object";
    const std::string_view text = value.view();
    ORN::String<char> out = ORN::json_escape(text.substr(0, 40));
    if (text.size() > 40)
        out += "...";
    return value.quoted() ? "\"" + out + "\"" : out;
}

// One value of a JSON file read strictly: present values must have the
// documented type and lie in the documented range; anything else stops the
// run with "<file> : <key> : <reason>".
struct STRICT_VALUE {
    std::string_view mFile;
    ORN::String<char> mKey;
    ORN::JsonParser mValue;

    bool present() const { return mValue.exist(); }

    double number(double low, double high) const {
        double out = 0;
        const bool r1x = scalar() && whole<double>();
        refuse_unless(r1x, mFile, mKey, shown(mValue) + " is not a number");
        std::from_chars(text().data(), text().data() + text().size(), out);
        range(out >= low && out <= high, low, high);
        return out;
    }
    ORN::int64 integer(ORN::int64 low, ORN::int64 high) const {
        ORN::int64 out = 0;
        const bool r1x = scalar() && whole<ORN::int64>();
        refuse_unless(r1x, mFile, mKey, shown(mValue) + " is not an integer");
        std::from_chars(text().data(), text().data() + text().size(), out);
        range(out >= low && out <= high, low, high);
        return out;
    }
    bool boolean() const {
        const bool r1x = scalar() && (text() == "true" || text() == "false");
        refuse_unless(r1x, mFile, mKey, shown(mValue) + " is not true or false");
        return text() == "true";
    }
    ORN::String<char> string() const {
        const bool r1x = mValue.string_type() && mValue.quoted();
        refuse_unless(r1x, mFile, mKey, shown(mValue) + " is not a string");
        return mValue.value();
    }
    // The elements of an array of `low` to `high` elements.
    ORN::Array<STRICT_VALUE> array(INDEX low, INDEX high) const {
        const bool r1x = mValue.array_type();
        refuse_unless(r1x, mFile, mKey, shown(mValue) + " is not an array");
        const INDEX n = mValue.size();
        refuse_unless(n >= low && n <= high, mFile, mKey,
                      std::to_string(n) + " elements, not " + std::to_string(low) + " to " + std::to_string(high));
        ORN::Array<STRICT_VALUE> out;
        for (const ORN::JsonParser &e : mValue.children())
            out.append(STRICT_VALUE{mFile, mKey + "[" + std::to_string(out.size()) + "]", e});
        return out;
    }
    STRICT_VALUE child(std::string_view name) const {
        return STRICT_VALUE{mFile, mKey.empty() ? ORN::String<char>(name) : mKey + "." + ORN::String<char>(name),
                            mValue.child(name)};
    }
    void object() const { refuse_unless(mValue.object_type(), mFile, mKey, shown(mValue) + " is not an object"); }
    void required() const { refuse_unless(present(), mFile, mKey, "missing"); }

private:
    // A number or a boolean: a scalar written without quotes.
    bool scalar() const { return mValue.string_type() && !mValue.quoted(); }
    std::string_view text() const { return mValue.view(); }
    // The whole text converts to T.
    template <class T>
    bool whole() const {
        T out{};
        const auto [end, ec] = std::from_chars(text().data(), text().data() + text().size(), out);
        return ec == std::errc() && end == text().data() + text().size();
    }
    template <class T>
    void range(bool inside, T low, T high) const {
        std::ostringstream reason;
        reason << shown(mValue) << " is out of the range " << low << " to " << high;
        refuse_unless(inside, mFile, mKey, reason.str());
    }
};

// A floor name makes file names in "mesh/": 1 to 64 bytes of letters,
// digits, "_", "-", "." and UTF-8 sequences, not beginning with ".".
bool plain_file_name(const ORN::String<char> &name) {
    if (name.empty() || name.size() > std::size_t(MAX_FLOOR_NAME) || name.front() == '.')
        return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
               c == '.' || u >= 0x80;
    });
}

// The names under "mesh/" that a manifest lists, relative to that folder.
ORN::Array<ORN::String<char>> read_manifest(const ORN::JobDirectory &job) {
    ConsistencyProc::check_file_existance(job, MANIFEST);
    const ORN::JsonParser upload = ORN::JsonParser(job.load_file(MANIFEST).text(), job.path(MANIFEST)).child("upload");
    if (!upload.array_type())
        ORN::console().error("manifest without an \"upload\" array : ", job.path(MANIFEST));
    _DYNAMIC_ASSERT_(upload.array_type ());
    ORN::Array<ORN::String<char>> names;
    for (const ORN::JsonParser &entry : upload.children()) {
        const ORN::String<char> file = entry.child("file").value("");
        if (file.size() > KIND.size() + 1 && file.starts_with(KIND) && file[KIND.size()] == '/' && plain_relative(file))
            names.append(file.substr(KIND.size() + 1));
    }
    return names;
}

// A mesh as binary PLY: positions, colours where known, triangles.
void write_mesh(const ORN::JobDirectory &job, std::string_view relative, const MESH &mesh, INDEX buffer) {
    PlyWriter ply;
    ply.element("vertex", mesh.vertex_count());
    ply.property("x", &mesh.mVertex.data()[0], 12);
    ply.property("y", &mesh.mVertex.data()[1], 12);
    ply.property("z", &mesh.mVertex.data()[2], 12);
    if (!mesh.mColour.empty()) {
        ply.property("red", &mesh.mColour.data()[0], 3);
        ply.property("green", &mesh.mColour.data()[1], 3);
        ply.property("blue", &mesh.mColour.data()[2], 3);
    }
    ply.element("face", mesh.triangle_count());
    ply.property_list("vertex_indices", reinterpret_cast<const std::int32_t *>(mesh.mTriangle.data()), 3);
    job.save_file(relative, std::clamp<INDEX>(buffer, 4096, ply.file_size()), [&](ORN::FileWriter &out) { ply.write(out); });
}

} // namespace

class VeldaMeshProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(VeldaMeshProcess)

public:
    struct SETTING {
        ORN::int64 mThreadConcurrency = 64; // number of worker threads
        ORN::int64 mPointCloudSearchCount = 8; // neighbour count of point-cloud searches
        ORN::int64 mFileWriterBufferSize = Frame::DEFAULT_FILE_WRITER_BUFFER_SIZE; // size in bytes of the buffered file writer

        template <class S, class F>
        static void each(S &s, F &&f) {
            f("mThreadConcurrency", s.mThreadConcurrency);
            f("mPointCloudSearchCount", s.mPointCloudSearchCount);
            f("mFileWriterBufferSize", s.mFileWriterBufferSize);
        }
    };

    static constexpr std::array<std::string_view, 2> WORKING_DIRECTORIES = {"caches/mesh", "results/mesh"};

    // The workers of a data-parallel step over `tasks` pieces: no more than
    // the setting asks, the pieces and the cores available.
    template <class SETTINGS>
    static ORN::WORKER_PLAN mesh_workers(const SETTINGS &setting, INDEX tasks) {
        const ORN::WORKER_PLAN plan = ORN::WorkThread::plan(setting.mThreadConcurrency, std::max<INDEX>(tasks, 1), 0);
        ORN::console().debug(plan.mReason);
        return plan;
    }

    // The run's parameters from the process's member of the split data, and
    // the settings this process bounds. Every key is optional; a key that is
    // present must hold a value of its type and range, and a key the process
    // does not know is refused, so that no misspelt or malformed parameter
    // runs with a default unnoticed.
    struct CON_mMeshParameter {
        ORN_NODE(CON_mMeshParameter);
        double mMergeRadius = 0.002;       // metres: closer points of two chunks are one point
        double mOutlierRatio = 2.0;        // standard deviations above the mean neighbour distance
        INDEX mMinimumFloorPoints = 1000;  // fewer points on a floor stop the run
        ORN::Array<INDEX> mLodTriangles;   // triangle targets of levels 1.. (empty: quarter steps)
        INDEX mLodLevels = 3;              // levels with the quarter steps, level 0 included
        bool mPointCloud = true;           // write the final point cloud
        INDEX mPictureWidth = 1024;        // pixels
        explicit CON_mMeshParameter(ORN::SyntaxTree &tree) {
            const auto &json = tree.stack<CON_mSplitDataJson>();
            const auto &xml = tree.stack<CON_mSettingXml>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &json, &xml, &setting, &path] {
                const ORN::String<char> file = ORN::JobDirectory(path.mSelf).path("caches/split_data.json");
                const STRICT_VALUE p{file, "VeldaMeshProcess", json.mSelf};
                p.object();
                static constexpr std::string_view KEYS[] = {"merge_radius", "outlier_ratio", "minimum_floor_points",
                                                            "lod_triangles", "lod_levels", "point_cloud",
                                                            "picture_width"};
                for (const ORN::JsonParser &member : json.mSelf.children()) {
                    const bool known = std::find(std::begin(KEYS), std::end(KEYS), member.name()) != std::end(KEYS);
                    refuse_unless(known, file, p.child(member.name()).mKey, "unknown key");
                }
                if (const STRICT_VALUE v = p.child("merge_radius"); v.present())
                    mMergeRadius = v.number(1e-6, 1.0);
                if (const STRICT_VALUE v = p.child("outlier_ratio"); v.present())
                    mOutlierRatio = v.number(0.1, 100.0);
                if (const STRICT_VALUE v = p.child("minimum_floor_points"); v.present())
                    mMinimumFloorPoints = v.integer(1, 1000000000);
                if (const STRICT_VALUE v = p.child("lod_levels"); v.present())
                    mLodLevels = v.integer(1, MAX_LOD_LEVELS);
                if (const STRICT_VALUE v = p.child("lod_triangles"); v.present()) {
                    // Each level smaller than the one before it.
                    ORN::int64 before = std::numeric_limits<std::int32_t>::max();
                    for (const STRICT_VALUE &t : v.array(1, MAX_LOD_LEVELS - 1)) {
                        before = t.integer(1, before - 1);
                        mLodTriangles.append(before);
                    }
                    const STRICT_VALUE levels = p.child("lod_levels");
                    refuse_unless(!levels.present() || mLodLevels == mLodTriangles.size() + 1, file, levels.mKey,
                                  shown(levels.mValue) + " levels, where \"lod_triangles\" makes " +
                                      std::to_string(mLodTriangles.size() + 1));
                    mLodLevels = mLodTriangles.size() + 1;
                }
                if (const STRICT_VALUE v = p.child("point_cloud"); v.present())
                    mPointCloud = v.boolean();
                if (const STRICT_VALUE v = p.child("picture_width"); v.present())
                    mPictureWidth = v.integer(64, 8192);
                // The settings that set this process's cost.
                ORN::String<char> files;
                for (const ORN::String<char> &f : xml.mFiles)
                    files += (files.empty() ? "" : ", ") + f;
                const ORN::String<char> where = files.empty() ? ORN::String<char>("setting.xml") : files;
                const auto bounded = [&](std::string_view key, ORN::int64 value, ORN::int64 low, ORN::int64 high) {
                    refuse_unless(value >= low && value <= high, where, "VeldaMeshProcess/" + ORN::String<char>(key),
                                  std::to_string(value) + " is out of the range " + std::to_string(low) + " to " +
                                      std::to_string(high));
                };
                bounded("mThreadConcurrency", setting.mThreadConcurrency, 1, MAX_THREADS);
                bounded("mPointCloudSearchCount", setting.mPointCloudSearchCount, MIN_SEARCH_COUNT, MAX_SEARCH_COUNT);
            });
        }
    };

    // One point cloud chunk of the listing.
    struct NDS_mPointCloudChunk {
        ORN::String<char> mFile; // relative to the job
        ORN::Vector<double> mViewpoint;
        bool mHasViewpoint = false;
    };

    // "caches/mesh.json": the chunks, the floors (may be none) and the room
    // mesh (may be absent), every name checked to stay inside the job, every
    // value checked before any work: at most MAX_CHUNKS chunks, none listed
    // twice; floors with plain, distinct names and ordered height ranges.
    struct CON_mMeshJson {
        ORN_NODE(CON_mMeshJson);
        ORN::Array<NDS_mPointCloudChunk> mChunk;
        ORN::Array<FLOOR> mFloor;
        ORN::String<char> mRoomMesh; // relative to the job, or empty
        ORN::String<char> mText;
        explicit CON_mMeshJson(ORN::SyntaxTree &tree) {
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &path] {
                const ORN::JobDirectory job(path.mSelf);
                ConsistencyProc::check_file_existance(job, MESH_JSON);
                mText = ORN::String<char>(job.load_file(MESH_JSON).text());
                const ORN::String<char> file = job.path(MESH_JSON);
                const STRICT_VALUE json{file, "", ORN::JsonParser(mText, file)};
                json.object();
                const STRICT_VALUE chunks = json.child("chunks");
                chunks.required();
                ORN::Set<ORN::String<char>> seen;
                for (const STRICT_VALUE &c : chunks.array(1, MAX_CHUNKS)) {
                    c.object();
                    NDS_mPointCloudChunk &r = mChunk.append();
                    const STRICT_VALUE name = c.child("file");
                    name.required();
                    r.mFile = inside(job, name.string());
                    const INDEX listed = seen.size();
                    refuse_unless(seen.insert(r.mFile) == listed, file, name.mKey,
                                  shown(name.mValue) + " is listed twice");
                    r.mViewpoint = ORN::Vector<double>(3);
                    if (const STRICT_VALUE eye = c.child("viewpoint"); eye.present()) {
                        const ORN::Array<STRICT_VALUE> xyz = eye.array(3, 3);
                        for (INDEX a = 0; a < 3; ++a)
                            r.mViewpoint[a] = xyz[a].number(-1e9, 1e9);
                        r.mHasViewpoint = true;
                    }
                }
                if (const STRICT_VALUE floors = json.child("floors"); floors.present()) {
                    for (const STRICT_VALUE &f : floors.array(0, MAX_FLOORS)) {
                        f.object();
                        FLOOR &r = mFloor.append();
                        const STRICT_VALUE name = f.child("name");
                        r.mName = name.present() ? name.string() : "floor_" + std::to_string(mFloor.size() - 1);
                        refuse_unless(plain_file_name(r.mName), file, name.mKey,
                                      shown(name.mValue) + " is not a plain file name");
                        for (INDEX g = 0; g + 1 < mFloor.size(); ++g)
                            refuse_unless(mFloor[g].mName != r.mName, file, name.mKey,
                                          shown(name.mValue) + " names two floors");
                        const STRICT_VALUE low = f.child("min"), high = f.child("max");
                        low.required();
                        high.required();
                        r.mMin = low.number(-1e9, 1e9);
                        r.mMax = high.number(-1e9, 1e9);
                        refuse_unless(r.mMin < r.mMax, file, high.mKey, shown(high.mValue) + " is not above \"min\"");
                        const double below = mFloor.size() == 1 ? -1e9 : mFloor[mFloor.size() - 2].mMax;
                        refuse_unless(below <= r.mMin, file, low.mKey,
                                      shown(low.mValue) + " is below the floor under it");
                    }
                }
                if (const STRICT_VALUE room = json.child("room_mesh"); room.present())
                    mRoomMesh = inside(job, room.string());
                ORN::console().info(MESH_JSON, " : ", mChunk.size(), " chunks, ", mFloor.size(), " floors");
            });
        }

    private:
        static ORN::String<char> inside(const ORN::JobDirectory &job, const ORN::String<char> &name) {
            const bool plain = plain_relative(name);
            if (!plain)
                ORN::console().error("name leaves the job directory : ", name, " in ", job.path(MESH_JSON));
            _DYNAMIC_ASSERT_(plain);
            return "caches/" + name;
        }
    };

    // The fingerprint of this run's inputs (the listing, the files it names
    // and the parameters), and whether the last run finished with the very
    // same one: then its outputs are only published again.
    struct CON_mMeshDone {
        ORN_NODE(CON_mMeshDone);
        ORN::String<char> mKey;
        bool mSelf = false;
        explicit CON_mMeshDone(ORN::SyntaxTree &tree) {
            const auto &listing = tree.stack<CON_mMeshJson>();
            const auto &parameter = tree.stack<CON_mMeshParameter>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &listing, &parameter, &setting, &path] {
                const ORN::JobDirectory job(path.mSelf);
                Fingerprint key;
                key.add(listing.mText).add(setting.mPointCloudSearchCount).add(parameter.mMergeRadius);
                key.add(parameter.mOutlierRatio).add(parameter.mMinimumFloorPoints).add(parameter.mLodLevels);
                key.add(parameter.mPointCloud).add(parameter.mPictureWidth);
                for (INDEX t : parameter.mLodTriangles)
                    key.add(t);
                auto stamp = [&](const ORN::String<char> &file) {
                    const ORN::JobDirectory::STAMP s = job.stamp(file);
                    // Size and modification time, as make does: a copied
                    // or moved job keeps its results.
                    key.add(s.mSize).add(s.mModified);
                };
                for (const NDS_mPointCloudChunk &c : listing.mChunk)
                    stamp(c.mFile);
                if (!listing.mRoomMesh.empty())
                    stamp(listing.mRoomMesh);
                mKey = key.text();
                if (FingerprintRecord::forced() || !job.find_file(REPORT) || !job.find_file(MANIFEST))
                    return;
                // An unreadable report only means the run is not done.
                const ORN::String<char> last = ORN::try_invoke(
                    [&] { return ORN::JsonParser(job.load_file(REPORT)).child("key").value(""); }, ORN::String<char>());
                if (last != mKey)
                    return;
                mSelf = true;
                for (const ORN::String<char> &name : read_manifest(job))
                    mSelf = mSelf && job.find_file("caches/mesh/" + name);
            });
        }
    };

    // The chunks loaded on the workers and merged: a point within
    // merge_radius of a point of an earlier chunk is a copy and left out.
    struct CON_mMergedPointCloud {
        ORN_NODE(CON_mMergedPointCloud);
        PointCloudProc::MERGED mSelf;
        INDEX mPointsIn = 0;
        explicit CON_mMergedPointCloud(ORN::SyntaxTree &tree) {
            const auto &listing = tree.stack<CON_mMeshJson>();
            const auto &parameter = tree.stack<CON_mMeshParameter>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &listing, &parameter, &setting, &path] {
                auto &console = ORN::console();
                const ORN::JobDirectory job(path.mSelf);
                // Every chunk is there, a regular file of the job, before
                // any is read.
                for (const NDS_mPointCloudChunk &c : listing.mChunk) {
                    ConsistencyProc::check_file_existance(job, c.mFile);
                    const bool r1x = job.find_file(c.mFile);
                    if (!r1x)
                        console.error("not a regular file of the job : ", job.path(c.mFile));
                    _DYNAMIC_ASSERT_(r1x);
                }
                // No file twice, under another name either (a hard link).
                std::map<std::pair<ORN::uint64, ORN::uint64>, INDEX> identity;
                for (INDEX i = 0; i < listing.mChunk.size(); ++i) {
                    const ORN::JobDirectory::STAMP s = job.stamp(listing.mChunk[i].mFile);
                    const auto [at, fresh] = identity.emplace(std::pair(s.mDevice, s.mInode), i);
                    ORN::String<char> reason(1, '"');
                    reason += ORN::json_escape(listing.mChunk[i].mFile.substr(7));
                    reason += "\" is the same file as chunks[" + std::to_string(at->second) + "].file";
                    refuse_unless(fresh, job.path(MESH_JSON), "chunks[" + std::to_string(i) + "].file", reason);
                }
                const INDEX n = listing.mChunk.size();
                const ORN::TimePoint start = ORN::TimePoint::now();
                ORN::Array<CLOUD> chunk(n);
                {
                    auto progress = console.progress("loading chunks : ", n);
                    ORN::WorkThread workers(mesh_workers(setting, n));
                    workers.parallel_for(n, [&](INDEX i) {
                        // Read as the file that was checked, whatever the name holds by now.
                        const ORN::JobDirectory::Input input = job.open_input(listing.mChunk[i].mFile);
                        chunk[i] = PointCloudProc::read_chunk(input.path(), static_cast<std::uint16_t>(i),
                                                              job.path(listing.mChunk[i].mFile));
                        progress.advance();
                    });
                    progress.finish();
                }
                for (const CLOUD &c : chunk)
                    mPointsIn += c.size();
                console.info("points loaded : ", mPointsIn, " in ", start.elapsed().text());
                ORN::WorkThread workers(mesh_workers(setting, setting.mThreadConcurrency));
                mSelf = PointCloudProc::merge_chunks(chunk, parameter.mMergeRadius, workers);
                console.info("duplicates removed : ", mSelf.mDuplicateHeight.size());
                const bool r2x = mSelf.mCloud.size() > setting.mPointCloudSearchCount;
                if (!r2x)
                    console.error("too few points : ", mSelf.mCloud.size());
                _DYNAMIC_ASSERT_(r2x);
            });
        }
    };

    // The kd-tree over the merged points, queried with
    // mPointCloudSearchCount neighbours, once per point (CON_mPointNeighbour).
    struct CON_mFinalPointCloudKDTree {
        ORN_NODE(CON_mFinalPointCloudKDTree);
        KD_Tree mSelf;
        explicit CON_mFinalPointCloudKDTree(ORN::SyntaxTree &tree) {
            const auto &merged = tree.stack<CON_mMergedPointCloud>();
            tree.once([this, &merged] {
                const ORN::TimePoint start = ORN::TimePoint::now();
                mSelf = PointCloudProc::build_tree(merged.mSelf.mCloud);
                ORN::console().info("kd-tree : ", merged.mSelf.mCloud.size(), " points in ", start.elapsed().text());
            });
        }
    };

    // The one search of the merged points' neighbours: each point's mean
    // distance to its mPointCloudSearchCount nearest others, and the rows
    // found for the points without normals, from which their normals are
    // fitted. The kd-tree goes once this is done.
    struct CON_mPointNeighbour {
        ORN_NODE(CON_mPointNeighbour);
        ORN::Array<float> mDistance;
        PointCloudProc::NEAREST_ROWS mUnoriented;
        explicit CON_mPointNeighbour(ORN::SyntaxTree &tree) {
            const auto &merged = tree.stack<CON_mMergedPointCloud>();
            const auto &kd = tree.stack<CON_mFinalPointCloudKDTree>();
            const auto &setting = tree.stack<CON_mSetting>();
            tree.once([this, &merged, &kd, &setting] {
                ORN::WorkThread workers(mesh_workers(setting, setting.mThreadConcurrency));
                mDistance = PointCloudProc::neighbour_distance(kd.mSelf, merged.mSelf.mCloud,
                                                               setting.mPointCloudSearchCount, workers, &mUnoriented);
            });
        }
    };

    // Statistical outliers: points whose mean distance to their
    // mPointCloudSearchCount nearest neighbours is more than outlier_ratio
    // standard deviations above the average.
    struct CON_mPointCloudOutlier {
        ORN_NODE(CON_mPointCloudOutlier);
        PointCloudProc::OUTLIERS mSelf;
        ORN::Array<float> mHeight; // z of every outlier
        explicit CON_mPointCloudOutlier(ORN::SyntaxTree &tree) {
            const auto &merged = tree.stack<CON_mMergedPointCloud>();
            const auto &neighbour = tree.stack<CON_mPointNeighbour>();
            const auto &parameter = tree.stack<CON_mMeshParameter>();
            tree.once([this, &merged, &neighbour, &parameter] {
                const CLOUD &cloud = merged.mSelf.mCloud;
                mSelf = PointCloudProc::find_outliers(neighbour.mDistance, parameter.mOutlierRatio);
                for (INDEX i = 0; i < cloud.size(); ++i)
                    if (mSelf.mOutlier[i])
                        mHeight.append(cloud.mPosition[3 * i + 2]);
                ORN::console().info("outliers removed : ", mSelf.mCount, ", point spacing ", mSelf.mSpacing);
            });
        }
    };

    // The final point cloud: merged, without outliers, every point with a
    // normal (estimated from its neighbours and turned towards its chunk's
    // viewpoint where the chunk gave none).
    struct CON_mFinalPointCloud {
        ORN_NODE(CON_mFinalPointCloud);
        CLOUD mSelf;
        INDEX mEstimated = 0;
        explicit CON_mFinalPointCloud(ORN::SyntaxTree &tree) {
            const auto &merged = tree.stack<CON_mMergedPointCloud>();
            const auto &neighbour = tree.stack<CON_mPointNeighbour>();
            const auto &outlier = tree.stack<CON_mPointCloudOutlier>();
            const auto &listing = tree.stack<CON_mMeshJson>();
            const auto &setting = tree.stack<CON_mSetting>();
            tree.once([this, &merged, &neighbour, &outlier, &listing, &setting] {
                const CLOUD &cloud = merged.mSelf.mCloud;
                ORN::Array<INDEX> row;
                mSelf = PointCloudProc::remove_points(cloud, outlier.mSelf.mOutlier, &row);
                // A chunk without a viewpoint is seen from its own centre.
                ORN::Array<ORN::Vector<double>> eye(listing.mChunk.size());
                ORN::Array<INDEX> count(listing.mChunk.size());
                for (INDEX c = 0; c < eye.size(); ++c)
                    eye[c] = listing.mChunk[c].mHasViewpoint ? listing.mChunk[c].mViewpoint : ORN::Vector<double>(3);
                for (INDEX i = 0; i < mSelf.size(); ++i) {
                    const INDEX c = mSelf.mChunk[i];
                    if (listing.mChunk[c].mHasViewpoint)
                        continue;
                    for (int a = 0; a < 3; ++a)
                        eye[c][a] += mSelf.mPosition[3 * i + a];
                    ++count[c];
                }
                for (INDEX c = 0; c < eye.size(); ++c)
                    for (int a = 0; a < 3 && count[c] > 0; ++a)
                        eye[c][a] /= double(count[c]);
                const ORN::TimePoint start = ORN::TimePoint::now();
                ORN::WorkThread workers(mesh_workers(setting, setting.mThreadConcurrency));
                mEstimated = PointCloudProc::estimate_normals(neighbour.mUnoriented, cloud, outlier.mSelf.mOutlier, mSelf,
                                                              row, setting.mPointCloudSearchCount, eye, workers);
                ORN::console().info("normals estimated : ", mEstimated, " in ", start.elapsed().text());
                ORN::console().info("final point cloud : ", mSelf.size(), " points");
            });
        }
    };

    // The floors and the floor of every final point: the listing's floors,
    // or where it has none, floors found from the heights of the floor and
    // ceiling slabs. Every floor needs minimum_floor_points points. The
    // counts the report gives of the points left out are kept here, so that
    // the merged cloud and its tree go before the surfaces are made.
    struct CON_mFloorGroup {
        ORN_NODE(CON_mFloorGroup);
        ORN::Array<FLOOR> mFloor;
        bool mFound = false;
        ORN::Array<std::uint8_t> mSelf; // floor of each final point
        ORN::Array<INDEX> mCount;       // points per floor
        ORN::Array<INDEX> mDuplicate;   // copies left out per floor
        ORN::Array<INDEX> mOutlier;     // outliers left out per floor
        INDEX mPointsIn = 0;            // points of the chunks
        explicit CON_mFloorGroup(ORN::SyntaxTree &tree) {
            const auto &listing = tree.stack<CON_mMeshJson>();
            const auto &merged = tree.stack<CON_mMergedPointCloud>();
            const auto &outlier = tree.stack<CON_mPointCloudOutlier>();
            const auto &final_cloud = tree.stack<CON_mFinalPointCloud>();
            const auto &parameter = tree.stack<CON_mMeshParameter>();
            tree.once([this, &listing, &merged, &outlier, &final_cloud, &parameter] {
                auto &console = ORN::console();
                mFloor = listing.mFloor;
                if (mFloor.empty()) {
                    mFloor = PointCloudProc::find_floors(final_cloud.mSelf);
                    mFound = true;
                    if (mFloor.empty())
                        console.error("no floor found in the point heights");
                    _DYNAMIC_ASSERT_(!mFloor.empty ());
                }
                mSelf = PointCloudProc::assign_floors(final_cloud.mSelf, mFloor);
                mCount = ORN::Array<INDEX>(mFloor.size());
                for (std::uint8_t f : mSelf)
                    ++mCount[f];
                mDuplicate = ORN::Array<INDEX>(mFloor.size());
                mOutlier = ORN::Array<INDEX>(mFloor.size());
                for (float z : merged.mSelf.mDuplicateHeight)
                    ++mDuplicate[PointCloudProc::floor_of(mFloor, z)];
                for (float z : outlier.mHeight)
                    ++mOutlier[PointCloudProc::floor_of(mFloor, z)];
                mPointsIn = merged.mPointsIn;
                for (INDEX f = 0; f < mFloor.size(); ++f) {
                    console.info(mFloor[f].mName, " : ", mCount[f], " points from ", mFloor[f].mMin, " to ",
                                 mFloor[f].mMax, mFound ? " (found)" : "");
                    const INDEX r1x = mCount[f];
                    if (r1x < parameter.mMinimumFloorPoints)
                        console.error("too few points on ", mFloor[f].mName, " : ", r1x);
                    _DYNAMIC_ASSERT_(r1x >= parameter.mMinimumFloorPoints);
                }
                // A surface needs points that span some room: points at one
                // place (or within a hair of it) give none.
                ORN::Array<double> low(3 * mFloor.size()), high(3 * mFloor.size());
                std::fill(low.begin(), low.end(), std::numeric_limits<double>::max());
                std::fill(high.begin(), high.end(), std::numeric_limits<double>::lowest());
                for (INDEX i = 0; i < mSelf.size(); ++i)
                    for (int a = 0; a < 3; ++a) {
                        low[3 * mSelf[i] + a] = std::min<double>(low[3 * mSelf[i] + a], final_cloud.mSelf.mPosition[3 * i + a]);
                        high[3 * mSelf[i] + a] = std::max<double>(high[3 * mSelf[i] + a], final_cloud.mSelf.mPosition[3 * i + a]);
                    }
                for (INDEX f = 0; f < mFloor.size(); ++f) {
                    double r2x = 0;
                    for (int a = 0; a < 3 && mCount[f] > 0; ++a)
                        r2x = std::max(r2x, high[3 * f + a] - low[3 * f + a]);
                    if (r2x < MIN_SURFACE_EXTENT)
                        console.error(mFloor[f].mName, " : points do not span a surface : ", mCount[f],
                                      " points within ", r2x, " m, under ", MIN_SURFACE_EXTENT, " m");
                    _DYNAMIC_ASSERT_(r2x >= MIN_SURFACE_EXTENT);
                }
            });
        }
    };

    // The reconstruction's room mesh, when the listing names one.
    struct CON_mRoomMesh {
        ORN_NODE(CON_mRoomMesh);
        MESH mSelf;
        explicit CON_mRoomMesh(ORN::SyntaxTree &tree) {
            const auto &listing = tree.stack<CON_mMeshJson>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &listing, &path] {
                if (listing.mRoomMesh.empty())
                    return;
                const ORN::JobDirectory job(path.mSelf);
                ConsistencyProc::check_file_existance(job, listing.mRoomMesh);
                const bool r1x = job.find_file(listing.mRoomMesh);
                if (!r1x)
                    ORN::console().error("not a regular file of the job : ", job.path(listing.mRoomMesh));
                _DYNAMIC_ASSERT_(r1x);
                const CLOUD vertex = PointCloudProc::read_chunk(job.path(listing.mRoomMesh), 0);
                mSelf.mVertex = vertex.mPosition;
                const PlyReader ply(job.path(listing.mRoomMesh));
                const INDEX face = ply.find_element("face");
                const INDEX list = face == ORN::VAR_NONE ? ORN::VAR_NONE : ply.find_property(face, "vertex_indices");
                if (list == ORN::VAR_NONE)
                    ORN::console().error("PLY without faces : ", job.path(listing.mRoomMesh));
                _DYNAMIC_ASSERT_(list != ORN::VAR_NONE);
                const INDEX vertices = vertex.size();
                for (INDEX t = 0; t < ply.element_size(face); ++t) {
                    const PlyReader::INDEX_LIST corner = ply.get_index_list(face, list, t);
                    // Polygons are fanned into triangles.
                    for (INDEX k = 2; k < corner.size(); ++k) {
                        const ORN::int64 v[3] = {corner[0], corner[k - 1], corner[k]};
                        const bool r2x = std::all_of(v, v + 3, [&](ORN::int64 i) { return i >= 0 && i < vertices; });
                        _DYNAMIC_ASSERT_(r2x);
                        for (ORN::int64 i : v)
                            mSelf.mTriangle.append(static_cast<std::uint32_t>(i));
                    }
                }
                ORN::console().info("room mesh : ", mSelf.triangle_count(), " triangles");
            });
        }
    };

    // What the process makes for one floor.
    struct NDS_mFloorMesh {
        FLOOR mFloor;
        int mDepth = 0;
        ORN::Array<MESH> mLevel;     // level 0 is the trimmed surface
        ORN::Array<INDEX> mTarget;   // triangle target of each level
        ORN::Array<double> mError;   // simplification error of each level, metres
        MESH mRoom;                  // the floor's part of the room mesh
    };

    // A surface per floor from its points, trimmed to them, in its sizes;
    // the floors one after another, each solve on one thread (so that a run
    // gives the same surface whatever the threads), the trimming on all the
    // workers. The solves read the final cloud in place (no copy of a
    // floor's points), and nothing else that the steps before them held is
    // left by then (the kd-tree goes after the neighbour search, the merged
    // cloud when the floors are grouped): the trimming builds its own
    // kd-tree after each solve, over the final points within its reach of
    // the floor's range.
    struct CON_mFloorMesh {
        ORN_NODE(CON_mFloorMesh);
        ORN::Array<NDS_mFloorMesh> mSelf;
        explicit CON_mFloorMesh(ORN::SyntaxTree &tree) {
            const auto &final_cloud = tree.stack<CON_mFinalPointCloud>();
            const auto &group = tree.stack<CON_mFloorGroup>();
            const auto &outlier = tree.stack<CON_mPointCloudOutlier>();
            const auto &room = tree.stack<CON_mRoomMesh>();
            const auto &parameter = tree.stack<CON_mMeshParameter>();
            const auto &setting = tree.stack<CON_mSetting>();
            tree.once([this, &final_cloud, &group, &outlier, &room, &parameter, &setting] {
                auto &console = ORN::console();
                ORN::WorkThread workers(mesh_workers(setting, setting.mThreadConcurrency));
                // Supported surface: within a few point spacings of a point.
                const double reach = std::max(3 * outlier.mSelf.mSpacing, 1e-3);
                const CLOUD &cloud = final_cloud.mSelf;
                for (INDEX f = 0; f < group.mFloor.size(); ++f) {
                    NDS_mFloorMesh &r = mSelf.append();
                    r.mFloor = group.mFloor[f];
                    const SurfaceProc::SELECTION floor{&group.mSelf, static_cast<std::uint8_t>(f)};
                    const ORN::TimePoint start = ORN::TimePoint::now();
                    console.info("surface reconstruction : floor ", f + 1, " of ", group.mFloor.size(), " (",
                                 r.mFloor.mName, ", ", group.mCount[f], " points)");
                    r.mDepth = SurfaceProc::surface_depth(cloud, outlier.mSelf.mSpacing, floor);
                    // One solver thread: the same surface on every run.
                    MESH surface = SurfaceProc::reconstruct(cloud, r.mDepth, 1, floor);
                    const INDEX solved = surface.triangle_count();
                    MESH level0 = trim_to_points(surface, cloud, reach, r.mFloor, workers);
                    surface = MESH();
                    console.info(r.mFloor.mName, " : surface of ", level0.triangle_count(), " triangles (depth ", r.mDepth,
                                 ", ", solved, " before trimming) in ", start.elapsed().text());
                    r.mTarget.append(level0.triangle_count());
                    r.mError.append(0.0);
                    r.mLevel.append(std::move(level0));
                    const INDEX levels = parameter.mLodTriangles.empty() ? parameter.mLodLevels
                                                                         : parameter.mLodTriangles.size() + 1;
                    for (INDEX l = 1; l < levels; ++l) {
                        const MESH &full = r.mLevel[0];
                        const INDEX target = parameter.mLodTriangles.empty()
                                                 ? std::max<INDEX>(full.triangle_count() >> (2 * l), 1)
                                                 : std::min(parameter.mLodTriangles[l - 1], full.triangle_count());
                        float relative = 0;
                        MESH reduced = SurfaceProc::simplify(full, target, &relative);
                        r.mError.append(double(relative) * extent(full));
                        console.info(r.mFloor.mName, " : level ", l, " : ", reduced.triangle_count(), " triangles (target ",
                                     target, ")");
                        r.mTarget.append(target);
                        r.mLevel.append(std::move(reduced));
                    }
                    if (room.mSelf.triangle_count() > 0)
                        r.mRoom = SurfaceProc::floor_part(room.mSelf, group.mFloor, static_cast<std::uint8_t>(f));
                }
            });
        }

        // The surface where the final points support it (a vertex within
        // `reach` of one, and within the floor's height range): searched in
        // a kd-tree over the points that can lie that close to the range.
        static MESH trim_to_points(const MESH &surface, const CLOUD &cloud, double reach, const FLOOR &floor,
                                   ORN::WorkThread &workers) {
            ORN::Array<INDEX> near;
            for (INDEX i = 0; i < cloud.size(); ++i) {
                const double z = cloud.mPosition[3 * i + 2];
                if (z >= floor.mMin - reach && z <= floor.mMax + reach)
                    near.append(i);
            }
            if (near.empty())
                return MESH();
            const float *p = cloud.mPosition.data();
            const KD_Tree tree(near.size(), [p, &near](INDEX k) {
                const float *q = p + 3 * near[k];
                return ORN::Vector<double>{double(q[0]), double(q[1]), double(q[2])};
            });
            near = ORN::Array<INDEX>();
            return SurfaceProc::trim(surface, tree, ORN::Array<std::uint8_t>(), reach, floor.mMin, floor.mMax, workers);
        }

        // The largest side of the mesh's bounding box.
        static double extent(const MESH &mesh) {
            float low[3] = {1e30f, 1e30f, 1e30f}, high[3] = {-1e30f, -1e30f, -1e30f};
            for (INDEX v = 0; v < mesh.vertex_count(); ++v)
                for (int a = 0; a < 3; ++a) {
                    low[a] = std::min(low[a], mesh.mVertex[3 * v + a]);
                    high[a] = std::max(high[a], mesh.mVertex[3 * v + a]);
                }
            return std::max({double(high[0]) - low[0], double(high[1]) - low[1], double(high[2]) - low[2], 0.0});
        }
    };

    // Names of the files of a floor under "mesh/".
    static ORN::String<char> level_name(const FLOOR &f, INDEX level) {
        return f.mName + "_lod" + std::to_string(level) + ".ply";
    }

    // Writes every result into "caches/mesh/" (each file whole, renamed into
    // place) and returns their names under "mesh/".
    struct ACT_mMeshFile {
        ORN_NODE(ACT_mMeshFile);
        ORN::Array<ORN::String<char>> mSelf;
        explicit ACT_mMeshFile(ORN::SyntaxTree &tree) {
            const auto &mesh = tree.stack<CON_mFloorMesh>();
            const auto &final_cloud = tree.stack<CON_mFinalPointCloud>();
            const auto &group = tree.stack<CON_mFloorGroup>();
            const auto &parameter = tree.stack<CON_mMeshParameter>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &mesh, &final_cloud, &group, &parameter, &setting, &path] {
                const ORN::JobDirectory job(path.mSelf);
                const INDEX buffer = setting.mFileWriterBufferSize;
                for (const NDS_mFloorMesh &r : mesh.mSelf) {
                    for (INDEX l = 0; l < r.mLevel.size(); ++l)
                        write(level_name(r.mFloor, l), [&](std::string_view file) {
                            write_mesh(job, file, r.mLevel[l], buffer);
                        });
                    if (r.mRoom.triangle_count() > 0)
                        write("room_" + r.mFloor.mName + ".ply",
                              [&](std::string_view file) { write_mesh(job, file, r.mRoom, buffer); });
                    write(r.mFloor.mName + ".png", [&](std::string_view file) {
                        const MESH &m = r.mLevel[0];
                        MeshRender::VIEW view;
                        view.mCutHeight = r.mFloor.mMin + 0.6 * (r.mFloor.mMax - r.mFloor.mMin);
                        view.mWidth = static_cast<int>(parameter.mPictureWidth);
                        const ORN::Buffer<unsigned char> png = MeshRender::render_top_view(
                            m.mVertex.data(), m.vertex_count(), m.mTriangle.data(), m.triangle_count(), view);
                        job.save_file(file, png.text());
                    });
                }
                if (parameter.mPointCloud)
                    write("point_cloud.ply", [&](std::string_view file) {
                        const CLOUD &c = final_cloud.mSelf;
                        PlyWriter ply;
                        ply.element("vertex", c.size());
                        ply.property("x", &c.mPosition.data()[0], 12);
                        ply.property("y", &c.mPosition.data()[1], 12);
                        ply.property("z", &c.mPosition.data()[2], 12);
                        ply.property("nx", &c.mNormal.data()[0], 12);
                        ply.property("ny", &c.mNormal.data()[1], 12);
                        ply.property("nz", &c.mNormal.data()[2], 12);
                        ply.property("red", &c.mColour.data()[0], 3);
                        ply.property("green", &c.mColour.data()[1], 3);
                        ply.property("blue", &c.mColour.data()[2], 3);
                        ply.property("floor", group.mSelf.data(), 1);
                        job.save_file(file, std::clamp<INDEX>(buffer, 4096, ply.file_size()),
                                      [&](ORN::FileWriter &out) { ply.write(out); });
                    });
            });
        }

    private:
        template <class F>
        void write(const ORN::String<char> &name, F &&body) {
            const ORN::String<char> file = "caches/mesh/" + name;
            body(std::string_view(file));
            ORN::console().debug("written : ", file);
            mSelf.append("mesh/" + name);
        }
    };

    // "caches/upload.part4.json": the written files, "mesh/..." each.
    struct ACT_mUploadPart4Json {
        ORN_NODE(ACT_mUploadPart4Json);
        explicit ACT_mUploadPart4Json(ORN::SyntaxTree &tree) {
            const auto &files = tree.stack<ACT_mMeshFile>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&files, &path] {
                ORN::JsonWriter writer(64 + 48 * files.mSelf.size());
                writer.raw("{").key("upload").raw("[");
                for (INDEX i = 0; i < files.mSelf.size(); ++i) {
                    if (i > 0)
                        writer.comma();
                    writer.raw("{").key("file").string(files.mSelf[i]).raw("}");
                }
                writer.raw("]}");
                ORN::JobDirectory(path.mSelf).save_file(MANIFEST, writer.text());
                ORN::console().info(MANIFEST, " : ", files.mSelf.size(), " files");
            });
        }
    };

    // "caches/mesh_report.json": the counts of the run, written last, with
    // the inputs' fingerprint that marks the run as done.
    struct ACT_mMeshReportJson {
        ORN_NODE(ACT_mMeshReportJson);
        explicit ACT_mMeshReportJson(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mUploadPart4Json>();
            const auto &done = tree.stack<CON_mMeshDone>();
            const auto &outlier = tree.stack<CON_mPointCloudOutlier>();
            const auto &final_cloud = tree.stack<CON_mFinalPointCloud>();
            const auto &group = tree.stack<CON_mFloorGroup>();
            const auto &mesh = tree.stack<CON_mFloorMesh>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&done, &outlier, &final_cloud, &group, &mesh, &setting, &path] {
                const ORN::Array<FLOOR> &floors = group.mFloor;
                const ORN::Array<INDEX> &duplicates = group.mDuplicate, &outliers = group.mOutlier;
                INDEX duplicate_count = 0;
                for (INDEX d : duplicates)
                    duplicate_count += d;
                ORN::JsonWriter w(1024);
                w.raw("{").key("key").string(done.mKey).comma();
                w.key("points_in").number(group.mPointsIn).comma();
                w.key("duplicates").number(duplicate_count).comma();
                w.key("outliers").number(outlier.mSelf.mCount).comma();
                w.key("points").number(final_cloud.mSelf.size()).comma();
                w.key("normals_estimated").number(final_cloud.mEstimated).comma();
                w.key("search_count").number(setting.mPointCloudSearchCount).comma();
                w.key("spacing").number(outlier.mSelf.mSpacing).comma();
                w.key("floors_found").boolean(group.mFound).comma();
                w.key("floors").raw("[");
                for (INDEX f = 0; f < floors.size(); ++f) {
                    const NDS_mFloorMesh &r = mesh.mSelf[f];
                    if (f > 0)
                        w.comma();
                    w.raw("{").key("name").string(floors[f].mName).comma();
                    w.key("min").number(floors[f].mMin).comma().key("max").number(floors[f].mMax).comma();
                    w.key("points_in").number(group.mCount[f] + duplicates[f] + outliers[f]).comma();
                    w.key("duplicates").number(duplicates[f]).comma();
                    w.key("outliers").number(outliers[f]).comma();
                    w.key("points").number(group.mCount[f]).comma();
                    w.key("depth").number(r.mDepth).comma();
                    const auto list = [&w](std::string_view key, auto &&items) {
                        w.key(key).raw("[");
                        for (INDEX i = 0; i < items.size(); ++i) {
                            if (i > 0)
                                w.comma();
                            w.number(items[i]);
                        }
                        w.raw("]").comma();
                    };
                    ORN::Array<INDEX> triangles;
                    for (const MESH &m : r.mLevel)
                        triangles.append(m.triangle_count());
                    list("triangles", triangles);
                    list("targets", r.mTarget);
                    list("errors", r.mError);
                    w.key("room_triangles").number(r.mRoom.triangle_count()).raw("}");
                }
                w.raw("]}");
                ORN::JobDirectory(path.mSelf).save_file(REPORT, w.text());
            });
        }
    };

    // The mesh step: a run over inputs already processed only says so;
    // otherwise the results are made, listed and reported here.
    struct ACT_mMesh {
        ORN_NODE(ACT_mMesh);
        explicit ACT_mMesh(ORN::SyntaxTree &tree) {
            const auto &done = tree.stack<CON_mMeshDone>();
            // Held for the nodes fetched below, which are made only now.
            tree.stack<CON_mMeshJson>();
            tree.stack<CON_mMeshParameter>();
            tree.stack<CON_mSetting>();
            tree.maybe<ACT_mMeshReportJson>();
            tree.once([&tree, &done] {
                if (done.mSelf) {
                    ORN::console().info("already done");
                    return;
                }
                tree.stack<ACT_mMeshReportJson>();
            });
        }
    };

    // The files the manifest lists under "mesh/".
    struct CON_mEnumMeshFile {
        ORN_NODE(CON_mEnumMeshFile);
        ORN::Array<ORN::String<char>> mSelf;
        explicit CON_mEnumMeshFile(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mMesh>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &path] { mSelf = read_manifest(ORN::JobDirectory(path.mSelf)); });
        }
    };

    // Publishes each listed file from "caches/mesh/" into "results/mesh/"
    // by hard link, then removes from both folders what the list no longer
    // names (the files of floors a new run does not have).
    struct ACT_mResultsMeshDire {
        ORN_NODE(ACT_mResultsMeshDire);
        explicit ACT_mResultsMeshDire(ORN::SyntaxTree &tree) {
            const auto &names = tree.stack<CON_mEnumMeshFile>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&names, &path] {
                const ORN::JobDirectory job(path.mSelf);
                ORN::Array<ORN::JobDirectory::PUBLISHED> published;
                for (const ORN::String<char> &name : names.mSelf)
                    published.append(ORN::JobDirectory::PUBLISHED{"caches/mesh/" + name, "results/mesh/" + name});
                job.publish_files("results/mesh", published);
                for (const ORN::String<char> &file : job.list_files("caches/mesh"))
                    if (std::find(names.mSelf.begin(), names.mSelf.end(), file) == names.mSelf.end()) {
                        job.erase_file("caches/mesh/" + file);
                        ORN::console().debug("removed : caches/mesh/", file);
                    }
            });
        }
    };

    using ACTIONS = Frame::Actions<ACT_mWorkingPath, ACT_mMesh, ACT_mResultsMeshDire>;
};

ZARN_DEFINE_PROCESS(VeldaMeshProcess)

} // namespace ZARN
