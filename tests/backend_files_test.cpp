// How the reference libraries and the converter reach a job: the shared
// file helpers of backend_support (exclusive temporary files renamed over
// the target, job files opened without links, leftovers of interrupted runs
// removed), the converter DataConverter.sh with zarn_inpaint, and the
// reconstruction library's inputs and outputs. Every case keeps a canary
// outside the job that must stay as it was.
#include "support.h"

#include "backend_support.h"
#include "__ORN__/orn_images.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace zarn_test;
namespace backend = zarn_backend;

const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";
const std::string CONVERTER = std::string(ZARN_BINARY_DIR) + "/lib/DataConverter.sh";

// A folder outside the job with a canary file; `intact` tells whether both
// are as they were made.
struct Canary {
    fs::path mDir;
    explicit Canary(const fs::path &dir) : mDir(dir) { write_file(mDir / "canary.jpg", "canary"); }
    fs::path file() const { return mDir / "canary.jpg"; }
    bool intact() const {
        std::vector<std::string> names;
        for (const auto &e : fs::directory_iterator(mDir))
            names.push_back(e.path().filename().string());
        return names == std::vector<std::string>{"canary.jpg"} && read_file(file()) == "canary" &&
               fs::is_regular_file(fs::symlink_status(file()));
    }
};

bool is_link(const fs::path &path) { return fs::is_symlink(fs::symlink_status(path)); }

std::vector<std::string> names_in(const fs::path &dir) {
    std::vector<std::string> names;
    for (const auto &e : fs::directory_iterator(dir))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

void write_jpeg(const fs::path &path, int width, int height, unsigned char grey) {
    fs::create_directories(path.parent_path());
    ORN::Image image = ORN::Image::zeros(width, height, 3, ORN::ImageDepth::U8);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < 3 * width; ++x)
            image.row<unsigned char>(y)[x] = static_cast<unsigned char>(grey + (x * 7 + y * 13) % 40);
    ORN::Image::write(path.string(), image, 95);
}

// --- The shared helpers.

TEST(BackendFiles, AnOutputReplacesItsTargetAndNeverFollowsALink) {
    TempDir dir;
    const Canary canary(dir.path() / "outside");
    const fs::path job = dir.path() / "job";
    fs::create_directories(job);
    // Links at the temporary names this process takes next, and at the target.
    for (int n = 0; n < 16; ++n)
        fs::create_symlink(canary.file(), job / backend::temporary_name("out.jpg", ::getpid(), n));
    fs::create_symlink(canary.file(), job / "out.jpg");
    ASSERT_TRUE(backend::write_file(job / "out.jpg", "new"));
    EXPECT_FALSE(is_link(job / "out.jpg"));
    EXPECT_EQ(read_file(job / "out.jpg"), "new");

    // A target that is a directory, a folder that is a link, a missing
    // folder, a name that is no file name: failures, and no temporary left.
    fs::create_directories(job / "folder.jpg");
    EXPECT_FALSE(backend::write_file(job / "folder.jpg", "x"));
    fs::create_directory_symlink(canary.mDir, job / "linked");
    EXPECT_FALSE(backend::write_file(job / "linked/out.jpg", "x"));
    EXPECT_FALSE(backend::write_file(job / "absent/out.jpg", "x"));
    EXPECT_FALSE(backend::write_file(job / "..", "x"));
    EXPECT_EQ(names_in(job).size(), 16u + 3u); // the planted links, out.jpg, folder.jpg, linked
    EXPECT_TRUE(canary.intact());

    // A failed write leaves the old target, and no temporary.
    {
        backend::OutputFile out(job / "out.jpg");
        ASSERT_TRUE(out.ok());
        ASSERT_TRUE(out.write("partial", 7));
    }
    EXPECT_EQ(read_file(job / "out.jpg"), "new");
    EXPECT_EQ(names_in(job).size(), 19u);
}

TEST(BackendFiles, InterruptedTemporariesOfOtherProcessesAreRemoved) {
    TempDir dir;
    const fs::path job = dir.path();
    const std::string own = backend::temporary_name("video_000.avi", ::getpid(), 99);
    EXPECT_EQ(own, ".video_000.avi." + std::to_string(::getpid()) + ".99.part.avi");
    for (const std::string name : {".video_000.avi.999999999.3.part.avi", ".video_000.avi.1.0.part.avi", own.c_str(),
                                   ".video_001.avi.999999999.0.part.avi", ".video_000.avi.x.0.part.avi",
                                   "video_000.avi.999999999.0.part.avi"})
        write_file(job / name, "partial");
    ASSERT_TRUE(backend::write_file(job / "video_000.avi", "video"));
    EXPECT_EQ(names_in(job), (std::vector<std::string>{own, ".video_000.avi.x.0.part.avi",
                                                        ".video_001.avi.999999999.0.part.avi", "video_000.avi",
                                                        "video_000.avi.999999999.0.part.avi"}));
}

TEST(BackendFiles, JobFilesAreReachedWithoutLinks) {
    TempDir dir;
    const Canary canary(dir.path() / "outside");
    const fs::path job = dir.path() / "job";
    write_file(job / "images/a.jpg", "a");
    fs::create_symlink(canary.file(), job / "images/b.jpg");
    fs::create_directory_symlink(canary.mDir, job / "linked");
    ASSERT_EQ(::mkfifo((job / "images/fifo.jpg").c_str(), 0644), 0);
    const backend::Descriptor root = backend::open_directory(job);
    ASSERT_TRUE(root);
    EXPECT_EQ(backend::list_files_at(root.get(), "images"), std::vector<std::string>{"a.jpg"});
    EXPECT_TRUE(backend::list_files_at(root.get(), "linked").empty());
    std::vector<unsigned char> bytes;
    const backend::Descriptor a = backend::open_file_at(root.get(), "images/a.jpg");
    ASSERT_TRUE(a);
    EXPECT_TRUE(backend::read_all(a.get(), bytes, 16));
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "a");
    EXPECT_FALSE(backend::read_all(a.get(), bytes, 0)); // over the limit
    for (const char *refused : {"images/b.jpg", "linked/canary.jpg", "images/fifo.jpg", "images", "../outside/canary.jpg",
                                "/etc/passwd", "images//a.jpg", "./images/a.jpg"})
        EXPECT_FALSE(backend::open_file_at(root.get(), refused)) << refused;
    // A handed path is opened as it is, also as the name of an open file.
    const int held = ::open((job / "images/a.jpg").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(backend::read_path("/proc/self/fd/" + std::to_string(held), bytes, 16));
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "a");
    ::close(held);
    // Folders made below the job are real ones; a link on the way is refused.
    EXPECT_TRUE(backend::open_directory_at(root.get(), "made/deeper", true));
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(job / "made/deeper")));
    EXPECT_FALSE(backend::open_directory_at(root.get(), "linked/inside", true));
    EXPECT_TRUE(canary.intact());
}

// --- The converter.

// Runs the converter as the stereo process does, in a child whose process
// number is known before the script starts, so that links can be planted at
// the temporary names that child would take. Gives the exit status.
int convert(const fs::path &job, const std::function<void(pid_t)> &plant) {
    int gate[2];
    if (::pipe(gate) != 0)
        return -1;
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(gate[1]);
        char c;
        (void)::read(gate[0], &c, 1);
        ::execl("/bin/bash", "bash", CONVERTER.c_str(), "IMAGE", job.c_str(), static_cast<char *>(nullptr));
        ::_exit(127);
    }
    ::close(gate[0]);
    plant(child);
    (void)::write(gate[1], "x", 1);
    ::close(gate[1]);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(BackendFiles, TheConverterWritesOnlyInsideTheJob) {
    TempDir dir;
    const Canary canary(dir.path() / "outside");
    const fs::path job = dir.path() / "job", images = job / "caches/images";
    write_jpeg(images / "p.jpg", 96, 48, 90);
    const std::string original = read_file(images / "p.jpg");
    // A panorama that is a link out of the job is left alone.
    fs::create_symlink(canary.file(), images / "q.jpg");
    const int status = convert(job, [&](pid_t pid) {
        const std::string n = std::to_string(pid);
        // The script's former temporary name, and the durable writer's.
        fs::create_symlink(canary.file(), images / ("p.jpg.inpaint-" + n + ".jpg"));
        for (int k = 0; k < 8; ++k)
            fs::create_symlink(canary.file(), images / ("p.jpg.tmp-" + n + "-" + std::to_string(k)));
    });
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(is_link(images / "p.jpg"));
    EXPECT_NE(read_file(images / "p.jpg"), original);
    EXPECT_EQ(ORN::Image::read((images / "p.jpg").string()).width(), 96);
    EXPECT_TRUE(is_link(images / "q.jpg"));
    EXPECT_TRUE(canary.intact());

    // A panorama folder that is a link out of the job: nothing is read or
    // written there.
    const fs::path other = dir.path() / "other";
    write_jpeg(dir.path() / "elsewhere/r.jpg", 96, 48, 60);
    const std::string r = read_file(dir.path() / "elsewhere/r.jpg");
    fs::create_directories(other / "caches");
    fs::create_directory_symlink(dir.path() / "elsewhere", other / "caches/images");
    EXPECT_EQ(convert(other, [](pid_t) {}), 0);
    EXPECT_EQ(read_file(dir.path() / "elsewhere/r.jpg"), r);
    EXPECT_EQ(names_in(dir.path() / "elsewhere"), std::vector<std::string>{"r.jpg"});

    // A panorama that does not decode: status 1, the file as it was.
    write_file(images / "broken.jpg", "not a panorama");
    EXPECT_EQ(convert(job, [](pid_t) {}), 1);
    EXPECT_EQ(read_file(images / "broken.jpg"), "not a panorama");
}

// --- The reconstruction library.

using RUN_VELDA_MAIN = int(int, char **);

int reconstruct(const fs::path &job) {
    static RUN_VELDA_MAIN *entry = [] {
        void *lib = dlopen((BACKENDS + "/libopenMVG_velda.so").c_str(), RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(lib, nullptr) << dlerror();
        return lib ? reinterpret_cast<RUN_VELDA_MAIN *>(dlsym(lib, "run_velda_main")) : nullptr;
    }();
    if (entry == nullptr)
        return -1;
    std::string args[3] = {"", "indoor", job.string()};
    char *argv[4] = {args[0].data(), args[1].data(), args[2].data(), nullptr};
    return entry(3, argv);
}

fs::path small_job(const fs::path &job) {
    write_file(job / "caches/split_data.json", R"({"VeldaMainProcess":{"Common":{"dense_points":200}}})");
    return job;
}

TEST(BackendFiles, TheReconstructionReadsNoImageThroughALinkAndWritesOnlyInTheJob) {
    TempDir dir;
    const Canary canary(dir.path() / "outside");
    write_jpeg(dir.path() / "pictures/point_000_up.jpg", 64, 64, 100);

    // Images that are links, or a linked image folder: no images.
    const fs::path linked = small_job(dir.path() / "linked");
    fs::create_directories(linked / "images");
    fs::create_symlink(dir.path() / "pictures/point_000_up.jpg", linked / "images/point_000_up.jpg");
    EXPECT_EQ(reconstruct(linked), 4);
    const fs::path folder = small_job(dir.path() / "folder");
    fs::create_directory_symlink(dir.path() / "pictures", folder / "images");
    EXPECT_EQ(reconstruct(folder), 4);
    EXPECT_FALSE(fs::exists(folder / "caches/vision.json"));

    // An output folder that is a link out of the job: a write failure.
    const fs::path out = small_job(dir.path() / "out");
    fs::create_directories(out / "images");
    fs::copy_file(dir.path() / "pictures/point_000_up.jpg", out / "images/point_000_up.jpg",
                  fs::copy_options::none);
    fs::create_directory_symlink(canary.mDir, out / "caches/updown");
    EXPECT_EQ(reconstruct(out), 6);

    // Links at the former temporary names ("<file>.part") and at a target.
    const fs::path planted = small_job(dir.path() / "planted");
    fs::create_directories(planted / "images");
    fs::copy_file(dir.path() / "pictures/point_000_up.jpg", planted / "images/point_000_up.jpg");
    fs::create_symlink(canary.file(), planted / "caches/vision.json.part");
    fs::create_symlink(canary.file(), planted / "caches/floorplan.json");
    ASSERT_EQ(reconstruct(planted), 0);
    // The job itself may be reached through a link: its caller chose it.
    fs::create_directory_symlink(planted, dir.path() / "chosen");
    EXPECT_EQ(reconstruct(dir.path() / "chosen"), 0);
    EXPECT_FALSE(is_link(planted / "caches/floorplan.json"));
    EXPECT_TRUE(starts_with(read_file(planted / "caches/vision.json"), "{"));
    EXPECT_TRUE(canary.intact());
}

// --- Generated jobs.

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";

// A job of each camera, made by the generator and run as it was made: every
// process the job holds work for is switched on and ends with a result.
TEST(GeneratedJobs, RunAsGenerated) {
    TempDir dir;
    const fs::path lens = dir.path() / "lens", stereo = dir.path() / "stereo", calib = dir.path() / "calib";
    for (const auto &[job, options] :
         {std::pair{lens, "--width 128 --points 2 --videos 1 --frames 2 --regions --dense 2000"},
          std::pair{stereo, "--stereo --width 128 --points 1 --videos 0 --dense 1000"},
          std::pair{calib, "--calibration --points 1 --videos 0"}}) {
        const auto made = run(quote(CAPTURE) + " " + quote(job.string()) + " " + options);
        ASSERT_EQ(made.status, 0) << made.output;
    }
    EXPECT_EQ(read_file(lens / "caches/split_data.json"),
              R"({"VeldaMainProcess":{"Common":{"velda_type":"indoor","dense_points":2000}},"StitchMainProcess":{},)"
              R"("ImageFilterProcess":{},"VeldaMeshProcess":{"minimum_floor_points":250}})"
              "\n");
    EXPECT_EQ(names_in(lens / "images"), (std::vector<std::string>{"point_000_down.jpg", "point_000_up.jpg",
                                                                    "point_001_down.jpg", "point_001_up.jpg"}));
    EXPECT_EQ(names_in(stereo / "images"), std::vector<std::string>{"stereo_000_pano.png"});

    const auto r = run("env -u ZARN_BACKEND_FAIL -u ZARN_BACKEND_THROW NO_COLOR=1 " + quote(ZARN) + " run --libs " +
                       quote(BACKENDS) + " " + quote(lens.string()) + " " + quote(stereo.string()) + " " +
                       quote(calib.string()));
    ASSERT_EQ(r.status, 0) << r.output;
    // Each process's results: the filter's, the stitcher's video, the
    // reconstruction's and the mesh process's.
    for (const char *result : {"results/images/point_000.jpg", "results/images/point_001.jpg",
                               "results/videos/video_000.avi", "results/updown/poses.txt", "results/ar/anchors.json",
                               "results/mesh/floor_0_lod0.ply", "results/mesh/floor_1.png"})
        EXPECT_TRUE(fs::is_regular_file(lens / result)) << result;
    // The stereo stitcher's panorama, the reconstruction's and the mesh's.
    for (const char *result : {"caches/images/stereo_000.jpg", "results/updown/poses.txt", "results/mesh/floor_0_lod0.ply"})
        EXPECT_TRUE(fs::is_regular_file(stereo / result)) << result;
    // The three calibration stages' results, and the panorama stitched with
    // the calibrated tables.
    for (const char *result : {"results/calib/tablea.bin", "results/calib/colorCalibrate.txt",
                               "results/calib/shadingCalibrate", "caches/images/point_000.jpg"})
        EXPECT_TRUE(fs::is_regular_file(calib / result)) << result;
    EXPECT_TRUE(contains(r.output, "lens tables : ")) << r.output;
}

TEST(GeneratedJobs, DenseNeedsACapturePoint) {
    TempDir dir;
    const auto r = run(quote(CAPTURE) + " " + quote(dir / "job") + " --points 0 --dense 1000");
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(starts_with(r.output, "zarn_capture: --dense needs a capture point to reconstruct\n")) << r.output;
}

} // namespace
