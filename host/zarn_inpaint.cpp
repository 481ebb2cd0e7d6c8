// zarn_inpaint JOBDIR: fills the tripod area of every stitched panorama of a
// job, "caches/images/*.jpg", in place.
//
// The tripod stands below the camera, so it covers the bottom rows of the
// panorama (the nadir, latitudes below -78 degrees). Those rows are filled
// from the rows above them with OpenCV's Telea inpainting, worked on the
// bottom band only; the rest of the panorama is copied unchanged.
//
// The job is untrusted: it is reached only through ORN::JobDirectory. The
// panoramas are the regular files of caches/images/ reached without links
// (a link or FIFO there is left alone), each read whole without following a
// link, and written back as JPEG (quality 95) by the durable writer: a new
// temporary file created exclusively in caches/images/ (never through a
// link planted there), flushed and renamed over the panorama, so a failure
// leaves the panorama as it was and nothing outside the job is touched.
//
// Prints "inpainted caches/images/<name>" per panorama. Exit status 0 when
// every panorama was inpainted (also when there is none), 1 when one could
// not be (the others are still done), 2 for wrong arguments.

#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_images.h"
#include "ZARN_Common/ImageProc.h"

#include <opencv2/imgproc.hpp>
#include <opencv2/photo.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>

namespace {

constexpr std::string_view PANORAMAS = "caches/images";
// Largest panorama file read.
constexpr ORN::INDEX PANORAMA_LIMIT = ORN::INDEX(1) << 30;
constexpr ORN::INDEX JPEG_QUALITY = 95;

void inpaint(cv::Mat &pixels) {
    // The nadir band (the last 12/180 of the rows), and a band above it
    // three times as high that the filling draws from. The filling is
    // smooth by nature, so it is worked out at a quarter of the size and
    // only the hole is replaced by it.
    const int hole = std::max(1, pixels.rows * 12 / 180);
    const int band = std::min(pixels.rows, hole * 4);
    cv::Mat region = pixels.rowRange(pixels.rows - band, pixels.rows);
    const double scale = pixels.cols >= 1024 ? 0.25 : 1.0;
    cv::Mat small, mask, filled, full;
    cv::resize(region, small, cv::Size(), scale, scale, cv::INTER_AREA);
    mask = cv::Mat::zeros(small.size(), CV_8UC1);
    const int small_hole = std::max(1, static_cast<int>(hole * scale + 0.5));
    mask.rowRange(small.rows - small_hole, small.rows).setTo(255);
    cv::inpaint(small, mask, filled, 3, cv::INPAINT_TELEA);
    cv::resize(filled, full, region.size(), 0, 0, cv::INTER_CUBIC);
    full.rowRange(band - hole, band).copyTo(region.rowRange(band - hole, band));
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2 || argv[1][0] == '\0') {
        std::fprintf(stderr, "usage: zarn_inpaint JOBDIR\n");
        return 2;
    }
    const ORN::JobDirectory job(argv[1]);
    int status = 0;
    for (const ORN::String<char> &name : job.list_files(PANORAMAS)) {
        if (!name.ends_with(".jpg"))
            continue;
        const ORN::String<char> relative = ORN::String<char>(PANORAMAS) + "/" + name;
        try {
            ORN::Image image = ORN::Image::decode(job.load_file(relative, PANORAMA_LIMIT));
            cv::Mat pixels = ZARN::ImageProc::mat(image);
            inpaint(pixels);
            const ORN::Buffer<unsigned char> bytes = ORN::Image::encode(".jpg", image, JPEG_QUALITY);
            job.save_file(relative, std::string_view(reinterpret_cast<const char *>(bytes.data()), bytes.size()));
            std::printf("inpainted %s\n", relative.c_str());
        } catch (const std::exception &e) {
            std::fprintf(stderr, "zarn_inpaint: cannot inpaint %s : %s\n", job.path(relative).c_str(), e.what());
            status = 1;
        }
        std::fflush(stdout);
    }
    return status;
}
