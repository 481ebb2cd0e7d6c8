// The reference calibration library called directly, as the calibration
// process binds it, on a calibration capture made by zarn_capture whose
// lenses, colour cast and vignetting are known (truth/calibration.json).
#include "support.h"

#include "ZARN_Common/CalibLibrary.h"
#include "ZARN_Common/ImageProc.h"
#include "ZARN_Common/StitchLibrary.h"
#include "__ORN__/orn_images.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <rapidjson/document.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <functional>

namespace {

using namespace zarn_test;
namespace Lib = ZARN::CalibLibrary;
namespace Stitch = ZARN::StitchLibrary;
using ZARN::ImageProc;

const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";
const std::string TARGET = "asset/calib_target.txt"; // as the process passes it
constexpr int WIDTH = 1024;                          // panorama width of the generated job

const std::vector<std::string> CALIB_FILES = {"down.jpg",   "up.jpg",      "Down.xml",   "Up.xml",       "Up2.xml",
                                              "tablea.bin", "tablea2.bin", "tableb.bin", "sfm_init.bin", "sfm_init.json"};

struct API {
    Lib::RUN_CALIB_MAIN *mCalib;
    Lib::RUN_ANALYSIS_MAIN *mAnalysis;
    Lib::RUN_SHADING_MAIN *mShading;
};

const API &api() {
    static const API a = [] {
        void *lib = dlopen((BACKENDS + "/libCalib.so").c_str(), RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(lib, nullptr) << dlerror();
        API r{};
        r.mCalib = reinterpret_cast<Lib::RUN_CALIB_MAIN *>(dlsym(lib, "run_calib_main"));
        r.mAnalysis = reinterpret_cast<Lib::RUN_ANALYSIS_MAIN *>(dlsym(lib, "run_analysis_main"));
        r.mShading = reinterpret_cast<Lib::RUN_SHADING_MAIN *>(dlsym(lib, "run_shading_main"));
        EXPECT_TRUE(r.mCalib && r.mAnalysis && r.mShading);
        return r;
    }();
    return a;
}

// "size mtime" of a build product: cached files are made again when it changes.
std::string stamp_of(const std::string &file) {
    return std::to_string(fs::file_size(file)) + " " + std::to_string(fs::last_write_time(file).time_since_epoch().count());
}

// A folder made once per build of its makers and shared by the test
// processes (each case runs in a process of its own): `make` fills it.
fs::path shared_folder(const std::string &name, const std::string &stamp, const std::function<bool(const fs::path &)> &make) {
    const fs::path dir = fs::path(ZARN_BINARY_DIR) / "tests" / name;
    fs::create_directories(dir.parent_path());
    const int lock = ::open((dir.string() + ".lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644);
    ::flock(lock, LOCK_EX);
    if (!fs::exists(dir / "stamp") || read_file(dir / "stamp") != stamp) {
        fs::remove_all(dir);
        fs::create_directories(dir);
        if (make(dir))
            write_file(dir / "stamp", stamp);
    }
    ::flock(lock, LOCK_UN);
    ::close(lock);
    return dir;
}

// The generated job all cases read (none writes into it).
const fs::path &job() {
    static const fs::path root = shared_folder("calib_library_job", stamp_of(CAPTURE), [](const fs::path &dir) {
        const auto r = run(quote(CAPTURE) + " " + quote(dir.string()) + " --width " + std::to_string(WIDTH) +
                           " --points 1 --videos 0 --calibration");
        EXPECT_EQ(r.status, 0) << r.output;
        return r.status == 0;
    });
    return root;
}

std::string at(const std::string &relative) { return (job() / relative).string(); }

const rapidjson::Document &truth() {
    static const rapidjson::Document d = [] {
        rapidjson::Document doc;
        doc.Parse<rapidjson::kParseFullPrecisionFlag>(read_file(job() / "truth/calibration.json").c_str());
        EXPECT_FALSE(doc.HasParseError());
        return doc;
    }();
    return d;
}
std::vector<double> numbers(const rapidjson::Value &array) {
    std::vector<double> out;
    for (const auto &v : array.GetArray())
        out.push_back(v.GetDouble());
    return out;
}

// The library looks for its target from the current directory, as the
// process runs it from the libraries' folder.
struct InBackends {
    fs::path mSaved = fs::current_path();
    InBackends() { fs::current_path(BACKENDS); }
    ~InBackends() { fs::current_path(mSaved); }
};

int calibrate(const fs::path &working, const std::string &target = TARGET) {
    InBackends here;
    return api().mCalib(working.c_str(), target.c_str());
}

// The chessboard views of the generated job copied into `dir`, those that
// `keep` (lens "up" / "down", moment "NN") accepts.
void copy_views(const fs::path &dir, const std::function<bool(const std::string &, const std::string &)> &keep) {
    fs::create_directories(dir / "caches/calibration");
    for (const auto &e : fs::directory_iterator(job() / "caches/calibration")) {
        const std::string name = e.path().filename().string();
        const auto underscore = name.find('_');
        if (keep(name.substr(0, underscore), name.substr(underscore + 1, 2)))
            fs::copy_file(e.path(), dir / "caches/calibration" / name);
    }
}
// Only the views where the lens sees the board (the others cost time).
bool seen(const std::string &lens, const std::string &moment) {
    for (const auto &v : truth()["views"].GetArray())
        if (moment == v["name"].GetString())
            return v[lens.c_str()].GetBool();
    return false;
}

// The job calibrated once, for the cases that read the results.
const fs::path &calibrated() {
    static const fs::path root =
        shared_folder("calib_library_result", stamp_of(CAPTURE) + " " + stamp_of(BACKENDS + "/libCalib.so"),
                      [](const fs::path &dir) {
                          copy_views(dir, [](const std::string &, const std::string &) { return true; });
                          const int code = calibrate(dir);
                          EXPECT_EQ(code, Lib::CALIB_OK);
                          return code == Lib::CALIB_OK;
                      });
    return root;
}
fs::path result(const std::string &name) { return calibrated() / "caches/calib_result" / name; }

std::vector<std::string> files_in(const fs::path &dir) {
    std::vector<std::string> names;
    if (fs::is_directory(dir))
        for (const auto &e : fs::directory_iterator(dir))
            names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

double angle_between(const double *a, const double *b) { // two row-major rotations, degrees
    double trace = 0;
    for (int i = 0; i < 3; ++i)
        for (int k = 0; k < 3; ++k)
            trace += a[3 * i + k] * b[3 * i + k];
    return std::acos(std::clamp((trace - 1) / 2, -1.0, 1.0)) * 180 / 3.141592653589793;
}

TEST(CalibLibrary, LensesAreRecoveredToTheirTruth) {
    const auto &lenses = truth()["lenses"].GetArray();
    const char *tables[2] = {"tablea.bin", "tableb.bin"};
    const char *xml[2] = {"Up.xml", "Down.xml"};
    for (int l = 0; l < 2; ++l) {
        const auto &t = lenses[static_cast<rapidjson::SizeType>(l)];
        const auto table = ImageProc::read_lens_table(result(tables[l]).string());
        cv::FileStorage fs(result(xml[l]).string(), cv::FileStorage::READ);
        ASSERT_TRUE(fs.isOpened());
        cv::Mat K, D;
        double rms = 0, max_angle = 0;
        fs["camera_matrix"] >> K;
        fs["distortion_coefficients"] >> D;
        fs["rms"] >> rms;
        fs["max_angle"] >> max_angle;
        // The table holds the numbers of the XML file.
        EXPECT_EQ(K.at<double>(0, 0), table.mFx);
        EXPECT_EQ(K.at<double>(1, 2), table.mCy);
        EXPECT_EQ(D.at<double>(3), table.mK[3]);
        EXPECT_EQ(max_angle, table.mMaxAngle);
        EXPECT_EQ(table.mWidth, t["width"].GetInt());

        const double focal = std::max(std::abs(table.mFx / t["fx"].GetDouble() - 1), std::abs(table.mFy / t["fy"].GetDouble() - 1));
        const double centre = std::hypot(table.mCx - t["cx"].GetDouble(), table.mCy - t["cy"].GetDouble());
        // The image radius at 90 degrees, against the true lens's.
        const auto radius = [](double f, const double *k) {
            const double a = 3.141592653589793 / 2, a2 = a * a;
            return f * a * (1 + a2 * (k[0] + a2 * (k[1] + a2 * (k[2] + a2 * k[3]))));
        };
        const std::vector<double> k = numbers(t["k"]);
        const double rim = radius(table.mFx, table.mK) - radius(t["fx"].GetDouble(), k.data());
        std::printf("%s lens: focal error %.3f %%, principal point error %.3f px, radius error at 90 degrees %.3f px, "
                    "RMS %.4f px, largest angle %.2f (true %.2f) degrees\n",
                    t["name"].GetString(), 100 * focal, centre, rim, rms, table.mMaxAngle, t["max_angle"].GetDouble());
        EXPECT_LT(focal, 0.01);
        EXPECT_LT(centre, 2.0);
        EXPECT_LT(std::abs(rim), 2.0);
        EXPECT_LT(rms, 0.5);
        // Inside the image circle, never beyond it.
        EXPECT_LE(table.mMaxAngle, t["max_angle"].GetDouble());
        EXPECT_GT(table.mMaxAngle, t["max_angle"].GetDouble() - 1.5);
    }

    // The rotation between the lenses, and their common centre.
    cv::FileStorage fs(result("Up2.xml").string(), cv::FileStorage::READ);
    cv::Mat R, T;
    int views = 0;
    fs["R"] >> R;
    fs["T"] >> T;
    fs["views"] >> views;
    const std::vector<double> truth_r = numbers(truth()["relative"]["R"]);
    const double turn = angle_between(R.ptr<double>(), truth_r.data());
    std::printf("rotation between the lenses: error %.3f degrees, translation %.2f mm, %d moments\n", turn,
                cv::norm(T), views);
    EXPECT_LT(turn, 0.5);
    EXPECT_LT(cv::norm(T), 10.0);
    EXPECT_EQ(views, 4);
}

TEST(CalibLibrary, TheTablesStitchTheRoomAsTheTrueOnesDo) {
    const auto upper = ImageProc::read_lens_table(result("tablea.bin").string());
    // The upper lens looks straight up, east to the right of its image.
    const double up[9] = {1, 0, 0, 0, 0, -1, 0, 1, 0};
    EXPECT_TRUE(std::equal(up, up + 9, upper.mRotation));

    void *lib = dlopen((BACKENDS + "/libStitch.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    const auto create = reinterpret_cast<Stitch::CREATE_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_CreateOptFlowStitchHandle"));
    const auto destroy = reinterpret_cast<Stitch::DESTROY_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_DestroyOptFlowStitchHandle"));
    const auto init = reinterpret_cast<Stitch::INIT_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_InitOptFlowStitchHandle"));
    const auto execute = reinterpret_cast<Stitch::EXECUTE_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_ExecuteOptFlowStitchHandle"));
    ASSERT_TRUE(create && destroy && init && execute);
    TempDir out;
    // PSNR against the truth, over what the tables cover, of the room
    // stitched with a pair of tables.
    const auto stitched = [&](const std::string &up_table, const std::string &down_table) {
        const auto handle = create();
        EXPECT_EQ(init(handle, up_table.c_str(), down_table.c_str(), WIDTH, WIDTH / 2, WIDTH / 8, WIDTH / 16, 8),
                  Stitch::KIVO_OK);
        const int size[3] = {WIDTH, WIDTH / 2, Stitch::SEAM_PLAIN};
        const std::string panorama = out / "p.png";
        EXPECT_EQ(execute(handle, at("captures/point_000_up.jpg").c_str(), at("captures/point_000_down.jpg").c_str(),
                          panorama.c_str(), size, nullptr, nullptr),
                  Stitch::KIVO_OK);
        destroy(handle);
        ORN::Image covered(WIDTH, WIDTH / 2, 1, ORN::ImageDepth::U8);
        const ORN::Image a = ImageProc::lens_coverage(ImageProc::read_lens_table(up_table), WIDTH, WIDTH / 2);
        const ORN::Image b = ImageProc::lens_coverage(ImageProc::read_lens_table(down_table), WIDTH, WIDTH / 2);
        for (int y = 0; y < WIDTH / 2; ++y)
            for (int x = 0; x < WIDTH; ++x)
                covered.row<unsigned char>(y)[x] = a.row<unsigned char>(y)[x] | b.row<unsigned char>(y)[x];
        return ImageProc::psnr(ORN::Image::read(at("truth/point_000.png")), ORN::Image::read(panorama), covered);
    };
    const double db = stitched(result("tablea.bin").string(), result("tableb.bin").string());
    const double true_db = stitched(at("caches/table_Up.bin"), at("caches/table_Down.bin"));
    std::printf("room stitched with the calibrated tables: PSNR %.2f dB against the truth (%.2f dB with the true "
                "tables)\n",
                db, true_db);
    EXPECT_GE(db, 28.0);

    // The half-size table images every direction at the same place of a
    // frame of half the size (pixel centres at whole numbers).
    const auto half = ImageProc::read_lens_table(result("tablea2.bin").string());
    EXPECT_EQ(half.mWidth, upper.mWidth / 2);
    EXPECT_EQ(half.mHeight, upper.mHeight / 2);
    for (const double lat : {80.0, 30.0, -5.0}) {
        const double r = lat * 3.141592653589793 / 180;
        const double d[3] = {std::cos(r) * 0.6, -std::sin(r), std::cos(r) * 0.8};
        double x = 0, y = 0, hx = 0, hy = 0;
        ASSERT_TRUE(ImageProc::lens_project(upper, d, x, y));
        ASSERT_TRUE(ImageProc::lens_project(half, d, hx, hy));
        EXPECT_NEAR(hx, (x + 0.5) / 2 - 0.5, 1e-9);
        EXPECT_NEAR(hy, (y + 0.5) / 2 - 0.5, 1e-9);
    }
}

TEST(CalibLibrary, TheRigFilesAndPreviewsAgreeWithTheTables) {
    EXPECT_EQ(files_in(calibrated() / "caches/calib_result").size(), CALIB_FILES.size());
    rapidjson::Document rig;
    rig.Parse<rapidjson::kParseFullPrecisionFlag>(read_file(result("sfm_init.json")).c_str());
    ASSERT_FALSE(rig.HasParseError());
    const std::string bin = read_file(result("sfm_init.bin"));
    ASSERT_EQ(bin.size(), 472u);
    const auto value = [&](std::size_t index) {
        std::uint64_t bits = 0;
        for (int i = 7; i >= 0; --i)
            bits = (bits << 8) | static_cast<unsigned char>(bin[8 * index + static_cast<std::size_t>(i)]);
        return std::bit_cast<double>(bits);
    };
    EXPECT_EQ(value(0), 2.0);
    const char *tables[2] = {"tablea.bin", "tableb.bin"};
    for (rapidjson::SizeType l = 0; l < 2; ++l) {
        const auto &lens = rig["lenses"][l];
        const auto table = ImageProc::read_lens_table(result(tables[l]).string());
        const std::vector<double> K = numbers(lens["K"]), D = numbers(lens["D"]), R = numbers(lens["R"]),
                                  centre = numbers(lens["centre"]);
        EXPECT_STREQ(lens["name"].GetString(), l == 0 ? "up" : "down");
        EXPECT_EQ(K, (std::vector<double>{table.mFx, 0, table.mCx, 0, table.mFy, table.mCy, 0, 0, 1}));
        EXPECT_EQ(D, std::vector<double>(table.mK, table.mK + 4));
        EXPECT_EQ(R, std::vector<double>(table.mRotation, table.mRotation + 9));
        EXPECT_EQ(lens["max_angle"].GetDouble(), table.mMaxAngle);
        // The binary file holds the same numbers in the same order.
        std::vector<double> expected = {lens["width"].GetDouble(), lens["height"].GetDouble()};
        for (const auto *part : {&K, &D, &R, &centre})
            expected.insert(expected.end(), part->begin(), part->end());
        expected.push_back(lens["rms"].GetDouble());
        expected.push_back(lens["max_angle"].GetDouble());
        ASSERT_EQ(expected.size(), 29u);
        for (std::size_t i = 0; i < expected.size(); ++i)
            EXPECT_EQ(value(1 + 29 * l + i), expected[i]) << l << " " << i;
    }
    // Each preview is its lens's half of a panorama twice the capture wide.
    const auto table = ImageProc::read_lens_table(result("tablea.bin").string());
    for (const char *name : {"up.jpg", "down.jpg"}) {
        const ORN::Image preview = ORN::Image::read(result(name).string());
        EXPECT_EQ(preview.width(), 2 * table.mWidth);
        EXPECT_EQ(preview.height(), table.mWidth / 2);
    }
}

// The correction matrix and mean colour differences of colorCalibrate.txt.
struct COLOUR_REPORT {
    std::vector<double> mMatrix;
    double mBefore = -1, mAfter = -1;
    int mCaptures = 0;
};
COLOUR_REPORT read_colour(const fs::path &file) {
    COLOUR_REPORT r;
    for (const std::string &line : lines_of(read_file(file))) {
        std::istringstream in(line);
        std::string key;
        in >> key;
        if (key == "matrix")
            for (double v; in >> v;)
                r.mMatrix.push_back(v);
        else if (key == "mean")
            in >> r.mBefore >> r.mAfter;
        else if (key == "captures")
            in >> r.mCaptures;
    }
    return r;
}

TEST(CalibLibrary, ColourCorrectionUndoesTheCastOfTheChart) {
    TempDir work;
    const std::string c0 = at("captures/chart_00.jpg"), c1 = at("captures/chart_01.jpg");
    ASSERT_EQ(api().mAnalysis(c0.c_str(), c1.c_str(), "", nullptr, work.str().c_str(), 2), Lib::CALIB_OK);
    const COLOUR_REPORT r = read_colour(work.path() / "caches/calib_result/colorCalibrate.txt");
    std::printf("colour chart: mean dE2000 %.3f before, %.3f after correction\n", r.mBefore, r.mAfter);
    EXPECT_EQ(r.mCaptures, 2);
    EXPECT_LT(r.mAfter, 2.0);
    EXPECT_GT(r.mBefore, 3 * r.mAfter);
    // The matrix undoes exposure x cast.
    ASSERT_EQ(r.mMatrix.size(), 9u);
    const std::vector<double> cast = numbers(truth()["chart"]["cast"]);
    const double exposure = truth()["chart"]["exposure"].GetDouble();
    double worst = 0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            double v = 0;
            for (int k = 0; k < 3; ++k)
                v += r.mMatrix[static_cast<std::size_t>(3 * i + k)] * exposure * cast[static_cast<std::size_t>(3 * k + j)];
            worst = std::max(worst, std::abs(v - (i == j)));
        }
    EXPECT_LT(worst, 0.03);
    const ORN::Image preview = ORN::Image::read((work.path() / "caches/calib_result/colorCalibrate.jpg").string());
    EXPECT_EQ(preview.width(), 2 * 396 + 8);
    EXPECT_EQ(preview.height(), 276);

    // The chart upside down (a capture turned by half a turn) and alone.
    cv::Mat turned;
    cv::rotate(cv::imread(c0), turned, cv::ROTATE_180);
    const std::string upside_down = work / "turned.png";
    cv::imwrite(upside_down, turned);
    TempDir other;
    ASSERT_EQ(api().mAnalysis(upside_down.c_str(), "", "", "", other.str().c_str(), 1), Lib::CALIB_OK);
    const COLOUR_REPORT t = read_colour(other.path() / "caches/calib_result/colorCalibrate.txt");
    EXPECT_EQ(t.mCaptures, 1);
    ASSERT_EQ(t.mMatrix.size(), 9u);
    for (std::size_t i = 0; i < 9; ++i)
        EXPECT_NEAR(t.mMatrix[i], r.mMatrix[i], 0.03) << i;
}

TEST(CalibLibrary, ShadingGainsFollowTheVignetting) {
    TempDir work;
    const std::string f0 = at("captures/flat_00.jpg"), f1 = at("captures/flat_01.jpg");
    ASSERT_EQ(api().mShading(f0.c_str(), f1.c_str(), nullptr, nullptr, work.str().c_str(), 2, Lib::SHADING_GRID), Lib::CALIB_OK);
    const std::string bytes = read_file(work.path() / "caches/calib_result/shadingCalibrate");
    ASSERT_GE(bytes.size(), sizeof(Lib::SHADING_HEADER));
    Lib::SHADING_HEADER h{};
    std::memcpy(&h, bytes.data(), sizeof(h));
    const auto &lens = truth()["lenses"][0];
    EXPECT_EQ(std::memcmp(h.mMagic, Lib::SHADING_MAGIC, 8), 0);
    EXPECT_EQ(h.mVersion, 1);
    EXPECT_EQ(h.mWidth, lens["width"].GetInt());
    EXPECT_EQ(h.mHeight, lens["height"].GetInt());
    EXPECT_EQ(h.mCell, Lib::SHADING_GRID);
    EXPECT_EQ(h.mColumns, (h.mWidth + h.mCell - 1) / h.mCell);
    EXPECT_EQ(h.mRows, (h.mHeight + h.mCell - 1) / h.mCell);
    ASSERT_EQ(bytes.size(), sizeof(h) + 4u * static_cast<std::size_t>(h.mColumns * h.mRows));
    std::vector<float> gains(static_cast<std::size_t>(h.mColumns * h.mRows));
    std::memcpy(gains.data(), bytes.data() + sizeof(h), 4 * gains.size());
    EXPECT_EQ(*std::min_element(gains.begin(), gains.end()), 1.0f);

    // The truth: each cell's mean grey level under the vignetting; only
    // cells well inside the image circle count.
    const auto &flat = truth()["flat"];
    const std::vector<double> centre = numbers(flat["centre"]), a = numbers(flat["coefficients"]);
    const double radius = flat["radius"].GetDouble(), level = flat["level"].GetDouble(), gamma = flat["gamma"].GetDouble();
    const double fx = lens["fx"].GetDouble(), fy = lens["fy"].GetDouble(), cx = lens["cx"].GetDouble(),
                 cy = lens["cy"].GetDouble();
    const std::vector<double> k = numbers(lens["k"]);
    const double edge_angle = lens["max_angle"].GetDouble() * 3.141592653589793 / 180, e2 = edge_angle * edge_angle;
    const double edge = edge_angle * (1 + e2 * (k[0] + e2 * (k[1] + e2 * (k[2] + e2 * k[3])))) - 2 / fx;
    std::vector<double> expected(gains.size(), -1);
    double brightest = 0;
    for (int r = 0; r < h.mRows; ++r)
        for (int c = 0; c < h.mColumns; ++c) {
            const int x0 = c * h.mCell, y0 = r * h.mCell;
            const int x1 = std::min(h.mWidth, x0 + h.mCell) - 1, y1 = std::min(h.mHeight, y0 + h.mCell) - 1;
            bool inside = true;
            for (const int x : {x0, x1})
                for (const int y : {y0, y1})
                    inside = inside && std::hypot((x - cx) / fx, (y - cy) / fy) < edge;
            double sum = 0;
            for (int y = y0; y <= y1; ++y)
                for (int x = x0; x <= x1; ++x) {
                    const double q2 = ((x - centre[0]) * (x - centre[0]) + (y - centre[1]) * (y - centre[1])) / (radius * radius);
                    sum += 255 * std::pow(level * (1 + q2 * (a[0] + q2 * a[1])), 1 / gamma);
                }
            const double mean = sum / ((x1 - x0 + 1) * (y1 - y0 + 1));
            brightest = std::max(brightest, mean);
            if (inside)
                expected[static_cast<std::size_t>(r * h.mColumns + c)] = mean;
        }
    double worst = 0;
    int cells = 0;
    for (std::size_t i = 0; i < gains.size(); ++i)
        if (expected[i] > 0) {
            worst = std::max(worst, std::abs(gains[i] / (brightest / expected[i]) - 1));
            ++cells;
        }
    std::printf("shading: %d cells inside the image circle, largest gain error %.3f %%, gains up to %.3f\n", cells,
                100 * worst, *std::max_element(gains.begin(), gains.end()));
    EXPECT_GT(cells, 100);
    EXPECT_LT(worst, 0.02);
}

TEST(CalibLibrary, EveryFailureHasItsCodeAndLeavesNoResult) {
    TempDir dir;
    const auto nothing_written = [](const fs::path &work) { return files_in(work / "caches/calib_result").empty(); };
    const auto views_with = [&](const std::string &name,
                                const std::function<bool(const std::string &, const std::string &)> &keep) {
        const fs::path work = dir.path() / name;
        copy_views(work, keep);
        return work;
    };
    {
        // Arguments.
        const fs::path all = views_with("all", seen);
        EXPECT_EQ(api().mCalib(nullptr, TARGET.c_str()), Lib::CALIB_BAD_ARGUMENT);
        EXPECT_EQ(api().mCalib(all.c_str(), ""), Lib::CALIB_BAD_ARGUMENT);
        const std::string chart = at("captures/chart_00.jpg"), flat = at("captures/flat_00.jpg");
        const std::string work = dir / "work";
        EXPECT_EQ(api().mAnalysis(chart.c_str(), "", "", "", work.c_str(), 0), Lib::CALIB_BAD_ARGUMENT);
        EXPECT_EQ(api().mAnalysis(chart.c_str(), "", "", "", work.c_str(), 5), Lib::CALIB_BAD_ARGUMENT);
        EXPECT_EQ(api().mAnalysis(chart.c_str(), "", "", "", work.c_str(), 2), Lib::CALIB_BAD_ARGUMENT);
        EXPECT_EQ(api().mAnalysis(chart.c_str(), "", "", "", "", 1), Lib::CALIB_BAD_ARGUMENT);
        EXPECT_EQ(api().mShading(flat.c_str(), "", "", "", work.c_str(), 1, 3), Lib::CALIB_BAD_ARGUMENT);
        EXPECT_EQ(api().mShading(flat.c_str(), "", "", "", work.c_str(), 1, 257), Lib::CALIB_BAD_ARGUMENT);
        EXPECT_EQ(api().mShading(nullptr, "", "", "", work.c_str(), 1, 32), Lib::CALIB_BAD_ARGUMENT);

        // The target: missing, or not a board with one even and one odd count.
        EXPECT_EQ(calibrate(all, "asset/absent.txt"), Lib::CALIB_BAD_TARGET);
        const std::vector<std::string> bad = {"", "chessboard 9 4", "chessboard 9 4 40 1", "checkerboard 9 4 40",
                                              "chessboard 8 4 40", "chessboard 9 4 0", "chessboard 9 x 40",
                                              "chessboard 9 4 40\nchessboard 9 4 40", "chessboard 1 4 40"};
        for (std::size_t i = 0; i < bad.size(); ++i) {
            const fs::path target = dir.path() / ("target" + std::to_string(i) + ".txt");
            write_file(target, "# a comment\n" + bad[i] + "\n");
            EXPECT_EQ(calibrate(all, target.string()), Lib::CALIB_BAD_TARGET) << bad[i];
        }
        const fs::path good = dir.path() / "good.txt";
        write_file(good, "\n  chessboard 9 4 40   # the board\n\n");
        EXPECT_EQ(calibrate(views_with("two", [](const std::string &lens, const std::string &m) {
                                return lens == "down" || m < "02";
                            }),
                            good.string()),
                  Lib::CALIB_NO_VIEWS);

        // Too few views of a lens, or none shared by both.
        EXPECT_EQ(calibrate(dir.path() / "empty"), Lib::CALIB_NO_VIEWS);
        const fs::path apart = views_with("apart", [](const std::string &lens, const std::string &m) {
            return lens == "up" ? m < "03" : m >= "08" && m < "11";
        });
        EXPECT_EQ(calibrate(apart), Lib::CALIB_NO_VIEWS);
        EXPECT_TRUE(nothing_written(apart));

        // Views that no fisheye explains: the upper lens's rippled, each
        // radius r moved by 4 sin(2 pi r / 80) pixels.
        const fs::path rippled = views_with("rippled", seen);
        for (const auto &e : fs::directory_iterator(rippled / "caches/calibration")) {
            if (!starts_with(e.path().filename().string(), "up_"))
                continue;
            const cv::Mat view = cv::imread(e.path().string(), cv::IMREAD_GRAYSCALE);
            cv::Mat map_x(view.size(), CV_32F), map_y(view.size(), CV_32F), out;
            for (int y = 0; y < view.rows; ++y)
                for (int x = 0; x < view.cols; ++x) {
                    const double dx = x - view.cols / 2.0, dy = y - view.rows / 2.0, r = std::hypot(dx, dy);
                    const double k = r > 0 ? 1 + 4 * std::sin(2 * 3.141592653589793 * r / 80) / r : 1;
                    map_x.at<float>(y, x) = static_cast<float>(view.cols / 2.0 + k * dx);
                    map_y.at<float>(y, x) = static_cast<float>(view.rows / 2.0 + k * dy);
                }
            cv::remap(view, out, map_x, map_y, cv::INTER_LINEAR);
            cv::imwrite(e.path().string(), out);
        }
        EXPECT_EQ(calibrate(rippled), Lib::CALIB_NOT_CONVERGED);
        EXPECT_TRUE(nothing_written(rippled));

        // Inputs that do not decode, or views of two sizes.
        const fs::path broken = views_with("broken", seen);
        write_file(broken / "caches/calibration/up_+.png", "not an image");
        int code = -1;
        const std::string said = capture_stdout([&] { code = calibrate(broken); });
        EXPECT_EQ(code, Lib::CALIB_BAD_INPUT);
        EXPECT_TRUE(contains(said, "not a decodable image")) << said;
        cv::imwrite((broken / "caches/calibration/up_+.png").string(), cv::Mat(64, 64, CV_8UC1, cv::Scalar(90)));
        EXPECT_EQ(calibrate(broken), Lib::CALIB_BAD_INPUT);
        EXPECT_TRUE(nothing_written(broken));
        EXPECT_EQ(api().mAnalysis((dir / "absent.jpg").c_str(), "", "", "", work.c_str(), 1), Lib::CALIB_BAD_INPUT);
        const std::string small = dir / "small.png";
        cv::imwrite(small, cv::Mat(64, 64, CV_8UC3, cv::Scalar(200, 200, 200)));
        EXPECT_EQ(api().mShading(flat.c_str(), small.c_str(), "", "", work.c_str(), 2, 32), Lib::CALIB_BAD_INPUT);

        // No chart: a grey card, the flat field.
        const std::string grey = dir / "grey.png";
        cv::imwrite(grey, cv::Mat(480, 640, CV_8UC3, cv::Scalar(120, 128, 125)));
        EXPECT_EQ(api().mAnalysis(grey.c_str(), flat.c_str(), "", "", work.c_str(), 2), Lib::CALIB_NO_CHART);

        // Flat fields burnt out, or too dark.
        const std::string white = dir / "white.png", dark = dir / "dark.png";
        cv::Mat burnt = cv::imread(flat);
        burnt(cv::Rect(0, 0, burnt.cols, burnt.rows / 8)).setTo(cv::Scalar::all(255));
        cv::imwrite(white, burnt);
        cv::imwrite(dark, cv::imread(flat) / 20);
        EXPECT_EQ(api().mShading(flat.c_str(), white.c_str(), "", "", work.c_str(), 2, 32), Lib::CALIB_SATURATED);
        EXPECT_EQ(api().mShading(dark.c_str(), "", "", "", work.c_str(), 1, 32), Lib::CALIB_SATURATED);
        EXPECT_TRUE(nothing_written(work));

        // Results that cannot be written: the result folder is a file.
        write_file(dir.path() / "blocked/caches/calib_result", "x");
        EXPECT_EQ(api().mShading(flat.c_str(), "", "", "", (dir / "blocked").c_str(), 1, 32), Lib::CALIB_WRITE_FAILED);
        EXPECT_EQ(api().mAnalysis(chart.c_str(), "", "", "", (dir / "blocked").c_str(), 1), Lib::CALIB_WRITE_FAILED);
    }
}

// Sets an environment variable for the life of the object.
struct Env {
    std::string mName;
    Env(const std::string &name, const std::string &value) : mName(name) { ::setenv(name.c_str(), value.c_str(), 1); }
    ~Env() { ::unsetenv(mName.c_str()); }
};

TEST(CalibLibrary, FaultSwitchesAndTrace) {
    TempDir dir;
    const std::string flat = at("captures/flat_00.jpg"), chart = at("captures/chart_00.jpg");
    {
        Env fail("ZARN_BACKEND_FAIL", "run_calib_main:9,run_shading_main:-4");
        EXPECT_EQ(calibrate(dir.path()), 9);
        EXPECT_EQ(api().mShading(flat.c_str(), "", "", "", dir.str().c_str(), 1, 32), -4);
        EXPECT_EQ(api().mAnalysis(chart.c_str(), "", "", "", dir.str().c_str(), 1), Lib::CALIB_OK);
    }
    EXPECT_EQ(files_in(dir.path() / "caches/calib_result"), (std::vector<std::string>{"colorCalibrate.jpg", "colorCalibrate.txt"}));
    {
        Env thrown("ZARN_BACKEND_THROW", "run_analysis_main");
        EXPECT_EQ(failure_of([&] { api().mAnalysis(chart.c_str(), "", "", "", dir.str().c_str(), 1); }),
                  "run_analysis_main : injected fault");
    }
    {
        Env trace("ZARN_BACKEND_TRACE", dir / "trace.txt");
        Env fail("ZARN_BACKEND_FAIL", "run_calib_main:3,run_analysis_main:6,run_shading_main:7");
        api().mCalib("job \"1\"", TARGET.c_str());
        api().mAnalysis("a", nullptr, "", "d", "job", 2);
        api().mShading("a", "b", "c", "d", "job", 4, 16);
    }
    EXPECT_EQ(lines_of(read_file(dir / "trace.txt")),
              (std::vector<std::string>{R"(run_calib_main "job \"1\"" "asset/calib_target.txt")",
                                        R"(run_analysis_main "a" "" "" "d" "job" "2")",
                                        R"(run_shading_main "a" "b" "c" "d" "job" "4" "16")"}));
}

TEST(CalibLibrary, OutputsAreTheSameOnEveryRun) {
    TempDir again;
    copy_views(again.path(), [](const std::string &, const std::string &) { return true; });
    // A result published earlier as a hard link keeps its content.
    fs::create_directories(again.path() / "caches/calib_result");
    write_file(again.path() / "caches/calib_result/Up.xml", "earlier");
    fs::create_hard_link(again.path() / "caches/calib_result/Up.xml", again.path() / "published.xml");
    ASSERT_EQ(calibrate(again.path()), Lib::CALIB_OK);
    EXPECT_EQ(read_file(again.path() / "published.xml"), "earlier");
    EXPECT_EQ(files_in(again.path() / "caches/calib_result").size(), CALIB_FILES.size());
    for (const std::string &name : CALIB_FILES)
        EXPECT_TRUE(read_file(again.path() / "caches/calib_result" / name) == read_file(result(name))) << name;

    TempDir first, second;
    const std::string c0 = at("captures/chart_00.jpg"), c1 = at("captures/chart_01.jpg");
    const std::string f0 = at("captures/flat_00.jpg"), f1 = at("captures/flat_01.jpg");
    for (const TempDir *d : {&first, &second}) {
        ASSERT_EQ(api().mAnalysis(c0.c_str(), c1.c_str(), "", "", d->str().c_str(), 2), Lib::CALIB_OK);
        ASSERT_EQ(api().mShading(f0.c_str(), f1.c_str(), "", "", d->str().c_str(), 2, 24), Lib::CALIB_OK);
    }
    for (const char *name : {"colorCalibrate.txt", "colorCalibrate.jpg", "shadingCalibrate"})
        EXPECT_TRUE(read_file(first.path() / "caches/calib_result" / name) ==
                    read_file(second.path() / "caches/calib_result" / name))
            << name;
}

// The library reaches the views it finds itself without links, and writes
// its results into the job only: a linked view folder, linked views, a
// linked result folder and links planted at temporary names all leave the
// canary outside the job as it was.
TEST(CalibLibrary, NoLinkInTheJobIsFollowed) {
    TempDir dir;
    const fs::path outside = dir.path() / "outside";
    copy_views(outside, seen); // outside/caches/calibration/...
    write_file(outside / "canary.txt", "canary");
    const auto canary = [&] { return std::make_pair(tree(outside), read_file(outside / "canary.txt")); };
    const auto before = canary();

    // The view folder a link to views outside the job.
    const fs::path linked = dir.path() / "linked";
    fs::create_directories(linked / "caches");
    fs::create_directory_symlink(outside / "caches/calibration", linked / "caches/calibration");
    EXPECT_EQ(calibrate(linked), Lib::CALIB_NO_VIEWS);
    // Each view a link to a view outside.
    const fs::path views = dir.path() / "views";
    fs::create_directories(views / "caches/calibration");
    for (const auto &e : fs::directory_iterator(outside / "caches/calibration"))
        fs::create_symlink(e.path(), views / "caches/calibration" / e.path().filename());
    EXPECT_EQ(calibrate(views), Lib::CALIB_NO_VIEWS);
    EXPECT_TRUE(files_in(views / "caches/calib_result").empty());

    // The result folder a link out of the job.
    const std::string chart = at("captures/chart_00.jpg");
    const fs::path results = dir.path() / "results";
    fs::create_directories(results / "caches");
    fs::create_directory_symlink(outside, results / "caches/calib_result");
    EXPECT_EQ(api().mAnalysis(chart.c_str(), "", "", "", results.c_str(), 1), Lib::CALIB_WRITE_FAILED);

    // Links at the temporary names (the former ".<file>.<pid>.part" and
    // this process's next ones) and at a target.
    const fs::path planted = dir.path() / "planted";
    const fs::path folder = planted / "caches/calib_result";
    fs::create_directories(folder);
    const std::string pid = std::to_string(::getpid());
    for (const std::string name : {"colorCalibrate.txt", "colorCalibrate.jpg"}) {
        const std::string hidden = std::string(".") + name + std::string(".") + pid;
        fs::create_symlink(outside / "canary.txt", folder / (hidden + std::string(".part")));
        for (int n = 0; n < 8; ++n)
            fs::create_symlink(outside / "canary.txt", folder / (hidden + std::string(".") + std::to_string(n) +
                                                                 std::string(".part") + name.substr(name.rfind('.'))));
    }
    fs::create_symlink(outside / "canary.txt", folder / "colorCalibrate.txt");
    ASSERT_EQ(api().mAnalysis(chart.c_str(), "", "", "", planted.c_str(), 1), Lib::CALIB_OK);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(folder / "colorCalibrate.txt")));
    EXPECT_TRUE(starts_with(read_file(folder / "colorCalibrate.txt"), "#"));
    EXPECT_EQ(canary(), before);
}

} // namespace
