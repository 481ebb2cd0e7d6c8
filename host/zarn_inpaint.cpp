// zarn_inpaint INPUT OUTPUT: fills the tripod area of an equirectangular
// panorama.
//
// The tripod stands below the camera, so it covers the bottom rows of the
// panorama (the nadir, latitudes below -78 degrees). Those rows are filled
// from the rows above them with OpenCV's Telea inpainting, worked on the
// bottom band only; the rest of the panorama is copied unchanged. OUTPUT is
// written as JPEG (quality 95). Exit status 0 on success, 1 otherwise.

#include "__ORN__/orn_images.h"
#include "ZARN_Common/ImageProc.h"

#include <opencv2/imgproc.hpp>
#include <opencv2/photo.hpp>

#include <cstdio>
#include <exception>

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: zarn_inpaint INPUT OUTPUT\n");
        return 1;
    }
    try {
        ORN::Image image = ORN::Image::read(argv[1]);
        cv::Mat pixels = ZARN::ImageProc::mat(image);
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
        ORN::Image::write(argv[2], image, 95);
        return 0;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "zarn_inpaint: %s\n", e.what());
        return 1;
    }
}
