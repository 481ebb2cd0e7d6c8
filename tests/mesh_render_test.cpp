// The top view picture of a floor's mesh.
#include "support.h"

#include "ZARN_Common/MeshRender.h"
#include "__ORN__/orn_images.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace {

using namespace zarn_test;
using ORN::Image;
using ZARN::MeshRender::VIEW;

struct MESH {
    std::vector<float> mVertex;
    std::vector<std::uint32_t> mTriangle;

    // A quad of two triangles, corners in order around it.
    void quad(std::array<std::array<float, 3>, 4> corner) {
        const auto base = static_cast<std::uint32_t>(mVertex.size() / 3);
        for (const auto &c : corner)
            mVertex.insert(mVertex.end(), c.begin(), c.end());
        mTriangle.insert(mTriangle.end(), {base, base + 1, base + 2, base, base + 2, base + 3});
    }
    ORN::Buffer<unsigned char> png(const VIEW &view) const {
        return ZARN::MeshRender::render_top_view(mVertex.data(), ORN::INDEX(mVertex.size() / 3), mTriangle.data(),
                                                 ORN::INDEX(mTriangle.size() / 3), view);
    }
};

// A 4 x 3 floor at z = 0 with a 1 x 1 box 0.8 high near a corner, and,
// when asked, a ceiling over all of it at 2.5.
MESH room(bool ceiling) {
    MESH m;
    m.quad({{{0, 0, 0}, {4, 0, 0}, {4, 3, 0}, {0, 3, 0}}});
    m.quad({{{0.5f, 0.5f, 0.8f}, {1.5f, 0.5f, 0.8f}, {1.5f, 1.5f, 0.8f}, {0.5f, 1.5f, 0.8f}}});
    m.quad({{{0.5f, 0.5f, 0}, {1.5f, 0.5f, 0}, {1.5f, 0.5f, 0.8f}, {0.5f, 0.5f, 0.8f}}});
    m.quad({{{1.5f, 0.5f, 0}, {1.5f, 1.5f, 0}, {1.5f, 1.5f, 0.8f}, {1.5f, 0.5f, 0.8f}}});
    m.quad({{{1.5f, 1.5f, 0}, {0.5f, 1.5f, 0}, {0.5f, 1.5f, 0.8f}, {1.5f, 1.5f, 0.8f}}});
    m.quad({{{0.5f, 1.5f, 0}, {0.5f, 0.5f, 0}, {0.5f, 0.5f, 0.8f}, {0.5f, 1.5f, 0.8f}}});
    if (ceiling)
        m.quad({{{0, 0, 2.5f}, {4, 0, 2.5f}, {4, 3, 2.5f}, {0, 3, 2.5f}}});
    return m;
}

// The colour (blue, green, red) at a point of the 4 x 3 room, whose frame
// is the room with 3 % of its length around.
std::array<int, 3> at(const Image &image, double x, double y) {
    const int i = int((x + 0.12) / 4.24 * double(image.width()));
    const int j = int((3.12 - y) / 3.24 * double(image.height()));
    const unsigned char *p = image.row<unsigned char>(j) + 3 * i;
    return {p[0], p[1], p[2]};
}

bool same_pixels(const Image &a, const Image &b) {
    if (!a.same_layout(b))
        return false;
    for (ORN::INDEX y = 0; y < a.height(); ++y)
        if (!std::equal(a.row<unsigned char>(y), a.row<unsigned char>(y) + 3 * a.width(), b.row<unsigned char>(y)))
            return false;
    return true;
}

VIEW cut_at(double height, int width = 212) {
    VIEW view;
    view.mCutHeight = height;
    view.mWidth = width;
    return view;
}

TEST(MeshRender, PictureIsFittedToTheMeshAndEncodedAsPng) {
    const Image image = Image::decode(room(false).png(cut_at(1.8)));
    EXPECT_EQ(image.width(), 212);
    EXPECT_NEAR(double(image.height()), 212 * 3.24 / 4.24, 1.0);
    // The margin is background, the floor is not.
    const unsigned char *corner = image.row<unsigned char>(0);
    const std::array<int, 3> margin{corner[0], corner[1], corner[2]};
    EXPECT_NE(margin, at(image, 3, 2));
    EXPECT_EQ(Image::decode(room(false).png(cut_at(1.8, 640))).width(), 640);
}

TEST(MeshRender, CutLeavesOutTheCeilingAndTheZBufferKeepsTheHighestSurface) {
    const Image cut = Image::decode(room(true).png(cut_at(1.8)));
    // Above the cut, the ceiling is as if it were not there.
    EXPECT_TRUE(same_pixels(cut, Image::decode(room(false).png(cut_at(1.8)))));
    const auto floor = at(cut, 3, 2), box = at(cut, 1, 1);
    EXPECT_GT(floor[2], floor[0]) << "a floor is warm";
    EXPECT_GT(box[0], box[2]) << "the box's top is the highest drawn, cool";
    // Without the cut the ceiling hides all.
    const Image whole = Image::decode(room(true).png(cut_at(1e9)));
    EXPECT_NE(at(whole, 3, 2), floor);
    EXPECT_EQ(at(whole, 3, 2), at(whole, 1, 1));

    // Drawn in the other order, the box's top still covers the floor.
    MESH reversed = room(false);
    std::reverse(reversed.mTriangle.begin(), reversed.mTriangle.end());
    EXPECT_TRUE(same_pixels(cut, Image::decode(reversed.png(cut_at(1.8)))));
}

TEST(MeshRender, WallsShowAsDarkLinesAndKeepTheirPartBelowTheCut) {
    // A wall from the floor through the cut, seen edge on.
    MESH m = room(false);
    m.quad({{{2.5f, 0, 0}, {2.5f, 3, 0}, {2.5f, 3, 2.5f}, {2.5f, 0, 2.5f}}});
    const Image image = Image::decode(m.png(cut_at(1.8)));
    int darkest = 255 * 3;
    for (double x = 2.3; x < 2.7; x += 0.005) {
        const auto colour = at(image, x, 2.5);
        darkest = std::min(darkest, colour[0] + colour[1] + colour[2]);
    }
    EXPECT_LT(darkest, 3 * 90) << "no dark line where the wall stands";
}

TEST(MeshRender, EmptyMeshGivesBackgroundOnly) {
    for (const MESH &m : {MESH{}, room(true)}) {
        // Nothing at all, or all above the cut.
        const Image image = Image::decode(m.png(cut_at(-1, 100)));
        EXPECT_EQ(image.width(), 100);
        ASSERT_GT(image.height(), 0);
        const unsigned char *first = image.row<unsigned char>(0);
        EXPECT_GT(first[0] + first[1] + first[2], 3 * 200);
        for (ORN::INDEX y = 0; y < image.height(); ++y)
            for (ORN::INDEX x = 0; x < 3 * image.width(); ++x)
                ASSERT_EQ(image.row<unsigned char>(y)[x], first[x % 3]);
    }
}

TEST(MeshRender, IndexOutsideTheVerticesFails) {
    MESH m = room(false);
    m.mTriangle.back() = 9999;
    EXPECT_FALSE(failure_of([&] { (void)m.png(cut_at(1.8)); }).empty());
}

} // namespace
