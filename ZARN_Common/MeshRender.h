#pragma once

// A picture of a floor's mesh seen from straight above, for reports and
// quick checks of a capture: an orthographic view down the -z axis (+z is
// up), north (+y) at the top of the picture, east (+x) to the right.
//
// The mesh is cut at a height so that a floor's ceiling does not hide its
// rooms: what lies above the cut is not drawn, and triangles that cross it
// are clipped there, so walls keep their lower part. Surfaces are shaded
// flat per triangle (a fixed light, Lambert plus ambient, either side lit
// alike) and tinted by height within the drawn range, floors warm and tall
// things cool. Walls, which from above are mere lines, are drawn as dark
// lines at least one pixel wide; a step in height is outlined by darkening
// its lower side. The picture is the same for the same input, bit for bit.

#include "__ORN__/orn_array.h"
#include "__ORN__/orn_basic.h"
#include "__ORN__/orn_images.h"

#include <cstdint>
#include <limits>

namespace ZARN::MeshRender {

struct VIEW {
    // Nothing above this height is drawn (e.g. the floor's level + 1.8 m).
    double mCutHeight = std::numeric_limits<double>::infinity();
    // Width of the picture in pixels, 1 to ORN::Image::max_side (); the
    // height follows the aspect of the drawn part's x/y bounds. A picture
    // that would be higher than max_side keeps that height and centres the
    // mesh across its width instead.
    int mWidth = 1024;
    // Blank border on each side, as a fraction of the longer side of the
    // drawn part's x/y bounds.
    double mMargin = 0.03;
};

// The picture as a 3-channel 8-bit image (blue-green-red). `vertex` holds
// x, y, z of each vertex, `triangle` three vertex indices per triangle; an
// index outside the vertices fails an assertion. Triangles with a
// coordinate that is not finite are left out. With nothing to draw the
// picture is background only: fitted to the vertices' bounds when there
// are any, square otherwise.
ORN::Image render_top_image(const float *vertex, ORN::INDEX vertex_count, const std::uint32_t *triangle,
                            ORN::INDEX triangle_count, const VIEW &view);

// The same picture, encoded as PNG.
ORN::Buffer<unsigned char> render_top_view(const float *vertex, ORN::INDEX vertex_count, const std::uint32_t *triangle,
                                           ORN::INDEX triangle_count, const VIEW &view);

} // namespace ZARN::MeshRender
