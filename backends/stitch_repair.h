#pragma once

// The panorama repair of the stitching library ("KIVO_ExecutePanoRepairHandle",
// ZARN_Common/StitchLibrary.h, docs/BACKENDS.md): regions of a stitched
// panorama are rendered again from the raw captures, each by its method,
// and everything else is left as the panorama has it.
//
// A region is grown to the panorama's block grid: for a JPEG panorama
// written as a JPEG, its MCU (16 x 16 pixels for 4:2:0 chroma, 8 x 8 for
// 4:4:4), clipped to the panorama; otherwise single pixels (the rectangle
// as given). The grown rectangle is rendered, encoded alone with the
// panorama's quantisation tables and sampling, and its DCT blocks replace
// the panorama's; every other block is copied as it is, so that those
// pixels decode exactly as before. Other formats are decoded and encoded
// whole, the grown rectangles' pixels replaced.
//
// Methods of a region:
//   upper, lower: that lens alone where it sees the pixel; where it does
//                 not, the other lens (the lower one through its gain);
//                 black where neither does.
//   flow:         the flow-aligned blend (stitch_flow.h) with REPAIR_FLOW:
//                 half resolution, 64 pixels of context.
//   auto:         flow when both lenses see at least a quarter of the
//                 region and their mean grey difference there (after the
//                 gain) is above AUTO_DISAGREEMENT grey levels; otherwise
//                 the lens whose mean share of the region's pixels is the
//                 larger (the upper one at a tie).
// Regions are rendered in order; where grown regions overlap, the later one
// is kept.
//
// Captures of one bracket that are JPEGs (YCbCr or grey) are decoded only
// where the regions sample them: per lens, the bounding box of the grown
// regions' tables (with the flow's context) plus 16 pixels, its rows above
// skipped and its columns cropped (libjpeg-turbo), and, for the gain, the
// luminance of the whole capture. The regions then come out as from whole
// decodes, but for the flow's resampling (a level at most where a
// neighbour's grey level rounds differently). Brackets, and other formats,
// are decoded whole.

#include "stitch_core.h"

#include <vector>

namespace zarn_stitch {

// Mean grey difference of the two lenses over a region above which the
// automatic method re-aligns it by flow.
inline constexpr double AUTO_DISAGREEMENT = 6.0;
// Largest panorama file read, bytes.
inline constexpr std::size_t MAX_PANORAMA_BYTES = std::size_t(1) << 30;

// The repair entry's work on an initialised stitcher; returns a RESULT.
int repair_panorama(const Stitcher &stitcher, const std::vector<const char *> &upper,
                    const std::vector<const char *> &lower, const char *panorama, const char *output, const int *size,
                    const int *regions, int count);

} // namespace zarn_stitch
