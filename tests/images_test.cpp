// The core library's image buffers and the lens helpers built on them.
#include "support.h"

#include "ZARN_Common/ImageProc.h"
#include "__ORN__/orn_images.h"

#include <sys/resource.h>

#include <cmath>
#include <cstring>
#include <numbers>

namespace {

using namespace zarn_test;
using ORN::Image;
using ORN::ImageDepth;
using ZARN::ImageProc;

// A small image whose every value differs from its neighbours.
Image pattern(int width, int height, int channels) {
    Image image(width, height, channels, ImageDepth::U8);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width * channels; ++x)
            image.row<unsigned char>(y)[x] = static_cast<unsigned char>((x * 37 + y * 11) & 255);
    return image;
}

bool same_pixels(const Image &a, const Image &b) {
    if (!a.same_layout(b))
        return false;
    for (int y = 0; y < a.height(); ++y)
        if (std::memcmp(a.data() + y * a.step(), b.data() + y * b.step(), static_cast<std::size_t>(a.width() * a.pixel_bytes())))
            return false;
    return true;
}

// The console line and the assertion text of a failing call.
std::pair<std::string, std::string> failure(const std::function<void()> &f) {
    std::string text;
    const std::string out = capture_stdout([&] { text = failure_of(f); });
    return {out, text};
}

TEST(Images, LosslessFormatsRoundTripAndJpegStaysClose) {
    TempDir dir;
    const Image colour = pattern(13, 7, 3);
    for (const char *ext : {".png", ".bmp", ".tif"}) {
        EXPECT_TRUE(same_pixels(Image::decode(Image::encode(ext, colour)), colour)) << ext;
        Image::write(dir / (std::string("a") + ext), colour);
        EXPECT_TRUE(same_pixels(Image::read(dir / (std::string("a") + ext)), colour)) << ext;
    }
    // 16-bit grey survives as it is read unchanged; as colour it is 8 bits.
    Image deep(5, 4, 1, ImageDepth::U16);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x)
            deep.row<std::uint16_t>(y)[x] = static_cast<std::uint16_t>(1000 * y + 77 * x);
    const auto png = Image::encode(".png", deep);
    EXPECT_TRUE(same_pixels(Image::decode(png, ORN::ImageReadMode::UNCHANGED), deep));
    EXPECT_EQ(Image::decode(png).layout(), "5x4x3 u8");
    EXPECT_EQ(Image::decode(png, ORN::ImageReadMode::GRAY).layout(), "5x4x1 u8");
    // JPEG: lossy, the quality is honoured.
    Image smooth(64, 64, 3, ImageDepth::U8);
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64 * 3; ++x)
            smooth.row<unsigned char>(y)[x] = static_cast<unsigned char>(128 + 100 * std::sin(x * 0.05) * std::cos(y * 0.07));
    const auto good = Image::encode(".jpg", smooth, 95), poor = Image::encode(".jpg", smooth, 20);
    EXPECT_LT(poor.size(), good.size());
    EXPECT_GT(ImageProc::psnr(smooth, Image::decode(good)), 38.0);
    // Both separators name the same file.
    fs::create_directories(dir.path() / "sub");
    Image::write(dir / "sub\\b.png", colour);
    EXPECT_TRUE(same_pixels(Image::read(dir / "sub/b.png"), colour));
}

TEST(Images, BuffersShareUntilClonedAndConvert) {
    Image a = Image::zeros(4, 3, 3, ImageDepth::U8);
    EXPECT_EQ(a.layout(), "4x3x3 u8");
    EXPECT_EQ(a.row<unsigned char>(2)[11], 0);
    Image shared = a, copy = a.clone();
    a.row<unsigned char>(1)[0] = 200; // blue of pixel (0, 1)
    a.row<unsigned char>(1)[2] = 50;  // red
    EXPECT_EQ(shared.row<unsigned char>(1)[0], 200);
    EXPECT_EQ(copy.row<unsigned char>(1)[0], 0);
    EXPECT_TRUE(Image().empty());
    EXPECT_EQ(Image().layout(), "empty");

    const Image rgb = a.convert(ORN::ImageColor::BGR_TO_RGB);
    EXPECT_EQ(rgb.row<unsigned char>(1)[0], 50);
    EXPECT_EQ(rgb.row<unsigned char>(1)[2], 200);
    const Image grey = a.convert(ORN::ImageColor::BGR_TO_GRAY);
    EXPECT_EQ(grey.layout(), "4x3x1 u8");
    EXPECT_EQ(grey.row<unsigned char>(1)[0], 38); // 0.114 * 200 + 0.299 * 50, rounded
    EXPECT_EQ(grey.convert(ORN::ImageColor::GRAY_TO_BGR).layout(), "4x3x3 u8");
    EXPECT_EQ(a.convert(ORN::ImageColor::BGR_TO_BGRA).convert(ORN::ImageColor::BGRA_TO_BGR).layout(), "4x3x3 u8");

    // Depth: scaled, then rounded and saturated on the way back.
    const Image f = a.convert(ImageDepth::F32, 1 / 255.0);
    EXPECT_FLOAT_EQ(f.row<float>(1)[0], 200 / 255.0f);
    const Image back = f.convert(ImageDepth::U8, 510, -100);
    EXPECT_EQ(back.row<unsigned char>(1)[0], 255);
    EXPECT_EQ(back.row<unsigned char>(0)[0], 0);
    EXPECT_EQ(f.convert(ImageDepth::U8, 255).row<unsigned char>(1)[2], 50);

    // The OpenCV view writes the image's own pixels.
    cv::Mat m = ImageProc::mat(a);
    m.at<cv::Vec3b>(2, 3) = cv::Vec3b(1, 2, 3);
    EXPECT_EQ(a.row<unsigned char>(2)[9], 1);
    EXPECT_TRUE(same_pixels(ImageProc::image(m), a));
}

TEST(Images, FailuresNameTheOperationThePathAndTheReason) {
    TempDir dir;
    write_file(dir / "text.png", "not an image");
    const Image colour = pattern(4, 2, 3), grey = pattern(4, 2, 1);
    struct CASE {
        std::function<void()> mCall;
        std::string mLine;      // the console line
        std::string mCondition; // of the assertion
    };
    const CASE cases[] = {
        {[&] { Image::read(dir / "absent.png"); }, "read_image : " + (dir / "absent.png") + " : no such file", "!r1x.empty ()"},
        {[&] { Image::read(dir / "text.png"); }, "read_image : " + (dir / "text.png") + " : not a decodable image", "!r1x.empty ()"},
        {[&] { Image::decode(ORN::Buffer<unsigned char>::from_text("garbage")); }, "decode_image : <memory> : not a decodable image", "!r1x.empty ()"},
        {[&] { Image::decode(nullptr, 0); }, "decode_image : <memory> : no bytes", "!r1x.empty ()"},
        // The file system layer tells the system's reason first.
        {[&] { Image::write(dir / "no/such/dir/a.png", colour); },
         "save_file : " + (dir / "no/such/dir/a.png") + " : No such file or directory\nwrite_image : " +
             (dir / "no/such/dir/a.png") + " : cannot be written",
         "r1x"},
        {[&] { Image::write(dir / "a.png", Image()); }, "write_image : " + (dir / "a.png") + " : empty image", "!image.empty ()"},
        {[&] { Image::encode(".png", Image()); }, "encode_image : .png : empty image", "!image.empty ()"},
        {[&] { grey.convert(ORN::ImageColor::BGR_TO_GRAY); }, "convert_color : 4x2x1 u8 : needs 3 channels", "channels () == r1x.mChannels"},
        {[&] { Image().convert(ImageDepth::F32); }, "convert_depth : empty : empty image", "!empty ()"},
        {[&] { Image(0, 5, 3, ImageDepth::U8); }, "make_image : 0x5x3 : size out of range", "r1x"},
        {[&] { Image(5, 5, 5, ImageDepth::U8); }, "make_image : 5x5x5 : size out of range", "r1x"},
    };
    for (const CASE &c : cases) {
        const auto [out, text] = failure(c.mCall);
        EXPECT_EQ(out, c.mLine + "\n");
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : " + c.mCondition + " : at ")) << text;
        EXPECT_TRUE(contains(text, " in __ORN__/orn_images_opencv.cpp ,")) << text;
    }
    // An unknown format is OpenCV's to explain.
    EXPECT_TRUE(starts_with(failure([&] { Image::encode(".nope", colour); }).first, "encode_image : .nope : "));
    // Row access is checked, row and channel type both.
    EXPECT_TRUE(starts_with(failure_of([&] { colour.row<unsigned char>(2); }), "dynamic_assert failed : y >= 0 && y < height () : at "));
    EXPECT_TRUE(starts_with(failure_of([&] { colour.row<float>(0); }),
                            "dynamic_assert failed : INDEX (sizeof (T)) == depth_bytes (mDepth) : at "));
}

// A lens like the generator's lower one: looking down, turned a little.
ImageProc::LENS_TABLE lens() {
    ImageProc::LENS_TABLE t{};
    std::memcpy(t.mMagic, "KIVOLENS", 8);
    t.mVersion = 1;
    t.mWidth = 320;
    t.mHeight = 300;
    t.mFx = 78;
    t.mFy = 77.5;
    t.mCx = 159.2;
    t.mCy = 150.7;
    t.mK[0] = 0.01;
    t.mK[1] = -0.001;
    t.mK[2] = 0.0002;
    const double a = 0.01, c = std::cos(a), s = std::sin(a);
    // Lens x east, y south, z down, then a turn of a about the north axis.
    const double r[9] = {c, -s, 0, s, c, 0, 0, 0, 1};
    const double n[9] = {1, 0, 0, 0, 0, 1, 0, -1, 0};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k)
                t.mRotation[3 * i + j] += r[3 * i + k] * n[3 * k + j];
    t.mMaxAngle = 100;
    return t;
}

// The header probe reads the size every format claims, without decoding.
TEST(Images, HeadersTellTheSizeOfEveryFormat) {
    const Image image = pattern(37, 23, 3);
    for (const char *ext : {".jpg", ".png", ".tif", ".bmp", ".webp", ".ppm", ".pfm"}) {
        const Image source = std::string(ext) == ".pfm" ? image.convert(ImageDepth::F32, 1.0 / 255) : image;
        const auto bytes = Image::encode(ext, source);
        ORN::IMAGE_HEADER header;
        ASSERT_TRUE(Image::probe(bytes.data(), bytes.size(), header)) << ext;
        EXPECT_EQ(header.mWidth, 37) << ext;
        EXPECT_EQ(header.mHeight, 23) << ext;
        EXPECT_EQ(Image::check_header(bytes.data(), bytes.size()), "") << ext;
    }
    const auto grey = Image::encode(".pgm", pattern(5, 300, 1));
    EXPECT_EQ(Image::check_header(grey.data(), grey.size()), "");
    EXPECT_EQ(Image::check_header(reinterpret_cast<const unsigned char *>("garbage"), 7), "not a decodable image");
}

// A 60000 x 17000 JPEG of a few hundred bytes: refused from its header,
// under an address space limit far below what a decode would take.
TEST(Images, ADecompressionBombIsRefusedBeforeDecoding) {
    const auto small = Image::encode(".jpg", pattern(8, 8, 3));
    std::string bomb(reinterpret_cast<const char *>(small.data()), static_cast<std::size_t>(small.size()));
    const auto sof = bomb.find("\xFF\xC0");
    ASSERT_NE(sof, std::string::npos);
    bomb[sof + 5] = char(17000 >> 8), bomb[sof + 6] = char(17000 & 255);
    bomb[sof + 7] = char(60000 >> 8), bomb[sof + 8] = char(60000 & 255);
    ASSERT_LT(bomb.size(), 1000u);
    TempDir dir;
    write_file(dir / "bomb.jpg", bomb);
    const std::string claims = "claims 60000 x 17000 pixels, beyond the limits (32768 per side, 134217728 in all)";
    EXPECT_EQ(Image::check_header(reinterpret_cast<const unsigned char *>(bomb.data()), ORN::INDEX(bomb.size())), claims);

    // Each call in a child whose address space may grow by 512 MiB only.
    const auto limited = [](const std::function<void()> &f) {
        return in_child([&] {
            limit_address_space_growth(512 << 20);
            return failure(f).first;
        });
    };
    EXPECT_EQ(limited([&] { Image::read(dir / "bomb.jpg"); }), "read_image : " + (dir / "bomb.jpg") + " : " + claims + "\n");
    EXPECT_EQ(limited([&] { Image::decode(reinterpret_cast<const unsigned char *>(bomb.data()), ORN::INDEX(bomb.size())); }),
              "decode_image : <memory> : " + claims + "\n");
}

TEST(ImageProc, LensTablesRoundTripAndMalformedOnesAreRefused) {
    TempDir dir;
    const auto t = lens();
    EXPECT_EQ(ImageProc::check_lens_table(t), "");
    ImageProc::write_lens_table(dir / "t.bin", t);
    const std::string bytes = read_file(dir / "t.bin");
    ASSERT_EQ(bytes.size(), 168u);
    EXPECT_EQ(bytes.substr(0, 8), "KIVOLENS");
    EXPECT_EQ(bytes[12], char(320 & 255)); // little-endian width
    EXPECT_EQ(bytes[13], char(320 >> 8));
    const auto back = ImageProc::read_lens_table(dir / "t.bin");
    EXPECT_EQ(std::memcmp(&back, &t, sizeof(t)), 0);

    using EDIT = std::function<void(ImageProc::LENS_TABLE &)>;
    const std::pair<EDIT, std::string> refused[] = {
        {[](auto &x) { x.mMagic[7] = 'Z'; }, "bad magic"},
        {[](auto &x) { x.mVersion = 2; }, "unknown version 2"},
        {[](auto &x) { x.mHeight = 0; }, "capture size out of range"},
        {[](auto &x) { x.mZero = 1; }, "reserved field not zero"},
        {[](auto &x) { x.mCx = NAN; }, "a number is not finite"},
        {[](auto &x) { x.mFy = 0; }, "focal length not positive"},
        {[](auto &x) { x.mRotation[0] *= 1.01; }, "rotation not orthonormal"},
        {[](auto &x) { for (int i = 0; i < 3; ++i) x.mRotation[i] = -x.mRotation[i]; }, "rotation is a reflection"},
        {[](auto &x) { x.mMaxAngle = 181; }, "largest angle out of range"},
        {[](auto &x) { x.mK[0] = -0.2; }, "distortion folds back before the largest angle"},
    };
    for (const auto &[edit, reason] : refused) {
        auto bad = t;
        edit(bad);
        EXPECT_EQ(ImageProc::check_lens_table(bad), reason);
        const auto encoded = ImageProc::encode_lens_table(bad);
        ImageProc::LENS_TABLE out{};
        ORN::String<char> why;
        EXPECT_FALSE(ImageProc::decode_lens_table(encoded.data(), encoded.size(), out, why));
        EXPECT_EQ(why, reason);
    }
    write_file(dir / "short.bin", bytes.substr(0, 167));
    const auto [out, text] = failure([&] { ImageProc::read_lens_table(dir / "short.bin"); });
    EXPECT_EQ(out, "read_lens_table : " + (dir / "short.bin") + " : 167 bytes, not 168\n");
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : r3x : at ")) << text;
    EXPECT_EQ(failure([&] { ImageProc::read_lens_table(dir / "absent.bin"); }).first,
              "read_lens_table : " + (dir / "absent.bin") + " : no such file\n");
}

TEST(ImageProc, ProjectionsInvertEachOther) {
    const auto t = lens();
    constexpr double PI = std::numbers::pi;
    // Panorama points and directions, including the poles' rows.
    for (double v : {0.0, 10.3, 63.5, 127.0})
        for (double u : {0.0, 77.7, 255.5, 511.0}) {
            double d[3], u2, v2;
            ImageProc::panorama_direction(u, v, 512, 128, d);
            EXPECT_NEAR(std::hypot(d[0], d[1], d[2]), 1.0, 1e-12);
            ImageProc::panorama_point(d, 512, 128, u2, v2);
            EXPECT_NEAR(u2, u, 1e-9);
            EXPECT_NEAR(v2, v, 1e-9);
        }
    double north[3];
    ImageProc::panorama_direction(255.5, 63.5, 512, 128, north);
    EXPECT_NEAR(north[2], 1.0, 1e-12);
    // Capture points through directions and back, out to the largest angle.
    int inside = 0;
    for (int y = 0; y < t.mHeight; y += 7)
        for (int x = 0; x < t.mWidth; x += 7) {
            double d[3], x2, y2;
            if (!ImageProc::lens_unproject(t, x, y, d))
                continue;
            ++inside;
            ASSERT_TRUE(ImageProc::lens_project(t, d, x2, y2));
            EXPECT_NEAR(x2, x, 1e-8);
            EXPECT_NEAR(y2, y, 1e-8);
            EXPECT_LE(ImageProc::lens_angle(t, d), 100 * PI / 180 + 1e-12);
        }
    EXPECT_GT(inside, 1000);
    // The optical axis is the principal point; beyond the largest angle
    // nothing is imaged and the margin is not positive.
    const double down[3] = {-std::sin(0.01), std::cos(0.01), 0};
    double x, y;
    ASSERT_TRUE(ImageProc::lens_project(t, down, x, y));
    EXPECT_NEAR(x, t.mCx, 1e-9);
    EXPECT_NEAR(y, t.mCy, 1e-9);
    EXPECT_NEAR(ImageProc::lens_margin(t, down), 100 * PI / 180, 1e-9); // the capture's border is farther
    // A capture that cuts the image circle: there the border is nearer.
    auto cut = t;
    cut.mHeight = 250;
    double near_border[3];
    ASSERT_TRUE(ImageProc::lens_unproject(cut, t.mCx, 247, near_border));
    EXPECT_NEAR(ImageProc::lens_margin(cut, near_border), 2.0 * 2 / (t.mFx + t.mFy), 1e-9);
    const double up[3] = {0, -1, 0};
    EXPECT_FALSE(ImageProc::lens_project(t, up, x, y));
    EXPECT_LE(ImageProc::lens_margin(t, up), 0.0);
    // The coverage of a lens looking down is the lower part of the panorama.
    const Image mask = ImageProc::lens_coverage(t, 64, 32);
    EXPECT_EQ(mask.row<unsigned char>(31)[10], 255);
    EXPECT_EQ(mask.row<unsigned char>(0)[10], 0);
}

TEST(ImageProc, PsnrOverAMask) {
    Image a = Image::zeros(4, 2, 3, ImageDepth::U8), b = a.clone();
    EXPECT_TRUE(std::isinf(ImageProc::psnr(a, b)));
    b.row<unsigned char>(0)[0] = 10; // one value of 24 off by 10: MSE 100 / 24
    EXPECT_NEAR(ImageProc::psnr(a, b), 10 * std::log10(255.0 * 255 * 24 / 100), 1e-9);
    Image mask = Image::zeros(4, 2, 1, ImageDepth::U8);
    EXPECT_TRUE(std::isnan(ImageProc::psnr(a, b, mask)));
    mask.row<unsigned char>(1)[3] = 1;
    EXPECT_TRUE(std::isinf(ImageProc::psnr(a, b, mask))); // the differing pixel is masked out
    mask.row<unsigned char>(0)[0] = 1;                    // two pixels, six values
    EXPECT_NEAR(ImageProc::psnr(a, b, mask), 10 * std::log10(255.0 * 255 * 6 / 100), 1e-9);
    EXPECT_TRUE(starts_with(failure([&] { ImageProc::psnr(a, Image::zeros(4, 2, 1, ImageDepth::U8)); }).first,
                            "psnr : 4x2x3 u8 / 4x2x1 u8 : needs two 8-bit images of one layout"));
}

} // namespace
