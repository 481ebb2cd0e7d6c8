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
        // three times as high that the filling draws from.
        const int hole = std::max(1, pixels.rows * 12 / 180);
        const int band = std::min(pixels.rows, hole * 4);
        cv::Mat region = pixels.rowRange(pixels.rows - band, pixels.rows);
        cv::Mat mask = cv::Mat::zeros(region.size(), CV_8UC1);
        mask.rowRange(band - hole, band).setTo(255);
        cv::Mat filled;
        cv::inpaint(region, mask, filled, std::max(3, hole / 4), cv::INPAINT_TELEA);
        filled.copyTo(region);
        ORN::Image::write(argv[2], image, 95);
        return 0;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "zarn_inpaint: %s\n", e.what());
        return 1;
    }
}
