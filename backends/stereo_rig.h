#pragma once

// The stereo rotating camera described by its distortion table: two fisheye
// lenses on one centre (the upper and the lower one) on a head that turns
// about the vertical axis, and the lens model of each of its views. The text
// form of the table is described at the top of StereoRotCam.cpp.

#include "ZARN_Common/ImageProc.h"

#include <array>
#include <string>
#include <string_view>

namespace zarn_stereo {

using LENS_TABLE = ZARN::ImageProc::LENS_TABLE;

inline constexpr int LENSES = 2;    // 0 upper, 1 lower
inline constexpr int POSITIONS = 3; // head positions of one capture
inline constexpr int VIEWS = LENSES * POSITIONS;

struct RIG {
    int mPositions = POSITIONS;
    double mDegrees = 120; // turn of the head from one position to the next
    // Each lens at position 0 (its rotation included).
    std::array<LENS_TABLE, LENSES> mLens{};
};

// Largest distortion table file read.
inline constexpr std::size_t DISTORTION_TABLE_LIMIT = 65536;

// The rig of a table's text; false with the reason (line number first) when
// the text is not a well-formed table of a rig with POSITIONS positions.
bool parse_distortion_table(std::string_view text, RIG &rig, std::string &reason);
// The same from a file; a missing or too large file fails too.
bool read_distortion_table(const char *path, RIG &rig, std::string &reason);
// The table's text (the numbers read back to the same values), after
// `comment` lines (each given line is written after "# ").
std::string distortion_table_text(const RIG &rig, std::string_view comment = {});

// Row-major rotation by `degrees` about the vertical axis, turning north
// (+z) towards east (+x): a direction at longitude L goes to L + degrees.
std::array<double, 9> turn(double degrees);
// The lens model of view k: lens k % 2 at position k / 2, its rotation
// turned by position x degrees.
LENS_TABLE view_lens(const RIG &rig, int view);
std::array<LENS_TABLE, VIEWS> view_lenses(const RIG &rig);

} // namespace zarn_stereo
