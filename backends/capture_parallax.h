#pragma once

// The capture generator's scene with real parallax (zarn_capture --parallax):
// the ground floor of the synthetic interior (interior_scene.h: a living
// room, a kitchen and a bedroom with their furniture) dressed with textures,
// seen from a two-lens rig whose lenses stand `baseline` metres apart on
// the rig's vertical axis, the upper lens above the rig centre, the lower
// one below. Beside each capture point stand two near objects that cross
// the band both lenses see (around the horizon): a pole with a striped
// sleeve at eye height and a floor lamp whose shade hangs across the
// horizon. Near objects seen from two centres do not line up in a stitch
// that assumes one centre; the truth is rendered from the rig centre.
//
// Frames: the panorama's (x east, y down, z north; metres, the floor at
// y = 0), as the single-centre room of zarn_capture.cpp uses. The interior
// itself is built in its own frame (x east, y north, z up) and turned.

#include "ZARN_Common/StitchLibrary.h"

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace zarn_capture {

using RGB = std::array<double, 3>; // linear radiance, red green blue
using POINT3 = std::array<double, 3>;

inline constexpr double DEFAULT_BASELINE = 0.03; // metres
inline constexpr double MAX_BASELINE = 0.5;
inline constexpr double RIG_HEIGHT = 1.55; // of the rig centre above the floor
// The pole's sleeve: stripes STRIPE high, red where floor(h / STRIPE) is
// even and white elsewhere, h the height above the rig centre, for |h| up
// to SLEEVE.
inline constexpr double STRIPE = 0.04;
inline constexpr double SLEEVE = 0.36;

// Which eye: the upper lens, the lower lens, or the rig centre (the truth).
enum EYE : int { UPPER_LENS = 0, LOWER_LENS = 1, RIG_CENTRE = 2 };

// A near object: an axis-aligned box in the panorama frame, relative to
// the rig centre.
struct NEAR_OBJECT {
    const char *mName; // "pole", "lamp"
    POINT3 mMin;
    POINT3 mMax;
};

// A rectangle of a panorama, in its pixels.
struct PANORAMA_RECT {
    int mX = 0, mY = 0, mW = 0, mH = 0;
};

class ParallaxRoom {
public:
    explicit ParallaxRoom(double baseline);
    ParallaxRoom(const ParallaxRoom &) = delete;
    ParallaxRoom &operator=(const ParallaxRoom &) = delete;
    ~ParallaxRoom();

    double baseline() const { return mBaseline; }
    // Where an eye stands relative to the rig centre (panorama frame).
    POINT3 eye_offset(EYE eye) const;
    // Where the rig of capture point `point` stands in the room.
    POINT3 rig_centre(int point) const;
    // The near objects beside capture point `point`: the pole (0.7 m away)
    // and the lamp (the shade's centre 0.95 m away).
    std::vector<NEAR_OBJECT> near_objects(int point) const;

    // The radiance one eye of one capture point sees, at one moment of a
    // video (the room turned by `turn` degrees about the vertical, as the
    // single-centre room turns).
    class View {
    public:
        RGB operator()(const double d[3]) const;

    private:
        friend class ParallaxRoom;
        struct STATE;
        std::shared_ptr<const STATE> mState;
    };
    View view(int point, EYE eye, double turn = 0) const;

    // Rectangles of the W x W/2 panorama around each near object where it
    // crosses the band both lenses see: the pixels there (both lenses'
    // margins above zero) whose ray from the rig centre or from either lens
    // meets the object, grown by W/256 pixels (at least 2) and kept inside
    // the panorama; one per near object that shows in the band.
    std::vector<std::pair<std::string, PANORAMA_RECT>> repairs(int point, const std::array<ZARN::StitchLibrary::LENS_TABLE, 2> &lenses,
                                                               int width) const;

private:
    struct SCENE;
    std::unique_ptr<SCENE> mScene;
    double mBaseline;
};

} // namespace zarn_capture
