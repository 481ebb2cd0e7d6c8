#pragma once

// Image helpers that the panorama work shares: the lens tables of the
// stitching library (reading, writing, checking), the projection between an
// equirectangular panorama and a fisheye lens, coverage masks, the PSNR of
// two images, and the bridge from the core library's images to OpenCV
// matrices for the algorithms that work on those.
//
// Frames and coordinates:
// - The panorama frame: x east, y down, z north. Column u of a panorama
//   W pixels wide looks at longitude 2 pi (u + 0.5) / W - pi (0 is north,
//   pi / 2 east); row v of a panorama H pixels high at latitude
//   pi / 2 - pi (v + 0.5) / H (the first row looks straight up).
// - Capture (lens) pixels are counted as OpenCV counts them: the centre of
//   pixel (x, y) is at (x, y), so a capture W pixels wide spans -0.5 .. W - 0.5.
// - A lens images the direction d (lens frame: z along the optical axis) at
//   theta = angle(d, z), theta_d = theta (1 + k1 theta^2 + k2 theta^4 +
//   k3 theta^6 + k4 theta^8), x = fx theta_d dx / |dx, dy| + cx,
//   y = fy theta_d dy / |dx, dy| + cy. The table's rotation R turns the
//   lens frame into the panorama frame.

#include "ZARN_Common/StitchLibrary.h"
#include "__ORN__/orn_array.h"
#include "__ORN__/orn_images.h"

#include <opencv2/core.hpp>

namespace ZARN {

class ImageProc {
public:
    using LENS_TABLE = StitchLibrary::LENS_TABLE;

    // The gamma of capture encoding: a pixel value is
    // 255 (exposure x radiance)^(1 / gamma), clipped.
    static constexpr double capture_gamma() noexcept { return 2.2; }

    // --- Lens tables (format in StitchLibrary.h).

    // Empty when the table is well formed; otherwise the first reason it is
    // not (magic, version, sizes, focal lengths, a rotation that is not a
    // proper rotation, a largest angle outside (0, 180] degrees, a
    // distortion that does not grow up to the largest angle).
    static ORN::String<char> check_lens_table(const LENS_TABLE &table);
    // The table held in `size` bytes; false with the reason when the size
    // is not 168 bytes or check_lens_table refuses it.
    static bool decode_lens_table(const unsigned char *bytes, ORN::INDEX size, LENS_TABLE &table,
                                  ORN::String<char> &reason);
    // The 168 bytes of a table.
    static ORN::Buffer<unsigned char> encode_lens_table(const LENS_TABLE &table);
    // Reads a table file; a missing, unreadable or malformed file fails
    // after "read_lens_table : <path> : <reason>".
    static LENS_TABLE read_lens_table(const ORN::String<char> &path);
    // Writes a (well formed) table file.
    static void write_lens_table(const ORN::String<char> &path, const LENS_TABLE &table);

    // --- Projection.

    // Unit direction (panorama frame) through the panorama point (u, v).
    static void panorama_direction(double u, double v, ORN::INDEX width, ORN::INDEX height, double direction[3]);
    // The panorama point of a direction (any length but zero).
    static void panorama_point(const double direction[3], ORN::INDEX width, ORN::INDEX height, double &u, double &v);
    // Angle in radians between the lens's optical axis and a unit direction.
    static double lens_angle(const LENS_TABLE &lens, const double direction[3]);
    // The capture point that images a unit direction; false beyond the
    // lens's largest angle.
    static bool lens_project(const LENS_TABLE &lens, const double direction[3], double &x, double &y);
    // The unit direction imaged at the capture point (x, y); false beyond
    // the lens's largest angle.
    static bool lens_unproject(const LENS_TABLE &lens, double x, double y, double direction[3]);
    // How far inside the lens's view a unit direction is, in radians: the
    // smaller of its distance to the largest angle and of its image's
    // distance to the capture's border (pixels over the mean focal length).
    // Positive inside, zero or negative outside. When x and y are given,
    // they receive the capture point (when the direction is within the
    // largest angle; they are left alone otherwise).
    static double lens_margin(const LENS_TABLE &lens, const double direction[3], double *x = nullptr,
                              double *y = nullptr);

    // --- Masks and comparisons.

    // A width x height mask of one 8-bit channel: 255 where the lens sees
    // the direction through the pixel's centre (lens_margin > 0), 0 elsewhere.
    static ORN::Image lens_coverage(const LENS_TABLE &lens, ORN::INDEX width, ORN::INDEX height);
    // Peak signal-to-noise ratio in dB of b against a, over every channel of
    // the pixels where the mask (one 8-bit channel, same size) is non-zero,
    // or of all pixels when the mask is empty. Both images are 8-bit of one
    // layout. Infinity when they agree; NaN when the mask selects nothing.
    static double psnr(const ORN::Image &a, const ORN::Image &b, const ORN::Image &mask = ORN::Image());

    // --- OpenCV.

    // A matrix over the image's own pixels (no copy): writing through it
    // writes the image. The image must outlive the matrix.
    static cv::Mat mat(const ORN::Image &image);
    // An image holding a copy of the matrix (8-, 16-bit unsigned or
    // floating channels, 1 to 4 of them).
    static ORN::Image image(const cv::Mat &matrix);
};

} // namespace ZARN
