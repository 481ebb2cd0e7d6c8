#include "stereo_rig.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <numbers>
#include <vector>

namespace zarn_stereo {

using ZARN::ImageProc;

namespace {

std::vector<std::string_view> fields(std::string_view line) {
    std::vector<std::string_view> out;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r'))
            ++i;
        std::size_t j = i;
        while (j < line.size() && line[j] != ' ' && line[j] != '\t' && line[j] != '\r')
            ++j;
        if (j > i)
            out.push_back(line.substr(i, j - i));
        i = j;
    }
    return out;
}

bool number(std::string_view text, double &out) {
    const auto r = std::from_chars(text.data(), text.data() + text.size(), out);
    return r.ec == std::errc() && r.ptr == text.data() + text.size() && std::isfinite(out);
}

bool integer(std::string_view text, int &out) {
    const auto r = std::from_chars(text.data(), text.data() + text.size(), out);
    return r.ec == std::errc() && r.ptr == text.data() + text.size();
}

std::string number_text(double value) {
    if (value == 0)
        value = 0; // no "-0"
    char buffer[64];
    const auto r = std::to_chars(buffer, buffer + sizeof(buffer), value);
    return std::string(buffer, r.ptr);
}

// "lens up|down W H fx fy cx cy k1 k2 k3 k4 r00 .. r22 max_angle"
constexpr std::size_t LENS_FIELDS = 2 + 2 + 4 + 4 + 9 + 1;

bool parse_lens(const std::vector<std::string_view> &f, LENS_TABLE &t, std::string &reason) {
    t = LENS_TABLE{};
    std::memcpy(t.mMagic, ZARN::StitchLibrary::LENS_TABLE_MAGIC, sizeof(t.mMagic));
    t.mVersion = ZARN::StitchLibrary::LENS_TABLE_VERSION;
    if (!integer(f[2], t.mWidth) || !integer(f[3], t.mHeight)) {
        reason = "capture size is not two integers";
        return false;
    }
    double *values[] = {&t.mFx,  &t.mFy,  &t.mCx,  &t.mCy,  &t.mK[0], &t.mK[1], &t.mK[2],
                        &t.mK[3], &t.mRotation[0], &t.mRotation[1], &t.mRotation[2], &t.mRotation[3],
                        &t.mRotation[4], &t.mRotation[5], &t.mRotation[6], &t.mRotation[7], &t.mRotation[8],
                        &t.mMaxAngle};
    for (std::size_t i = 0; i < std::size(values); ++i)
        if (!number(f[4 + i], *values[i])) {
            reason = "not a number: " + std::string(f[4 + i]);
            return false;
        }
    const ORN::String<char> why = ImageProc::check_lens_table(t);
    if (!why.empty()) {
        reason = why.c_str();
        return false;
    }
    return true;
}

} // namespace

bool parse_distortion_table(std::string_view text, RIG &rig, std::string &reason) {
    RIG r;
    bool have_rig = false, have_lens[LENSES] = {false, false};
    int line_number = 0;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        ++line_number;
        const auto f = fields(line);
        if (f.empty() || f[0][0] == '#')
            continue;
        const auto fail = [&](const std::string &why) {
            reason = "line " + std::to_string(line_number) + ": " + why;
            return false;
        };
        if (f[0] == "rig") {
            if (have_rig)
                return fail("a second rig line");
            if (f.size() != 3)
                return fail("rig takes two numbers");
            if (!integer(f[1], r.mPositions) || r.mPositions != POSITIONS)
                return fail("the rig must have " + std::to_string(POSITIONS) + " positions");
            if (!number(f[2], r.mDegrees) || !(r.mDegrees > -360 && r.mDegrees < 360))
                return fail("the turn between positions must be a number of degrees within (-360, 360)");
            have_rig = true;
        } else if (f[0] == "lens") {
            if (f.size() < 2 || (f[1] != "up" && f[1] != "down"))
                return fail("lens up or lens down");
            const int which = f[1] == "up" ? 0 : 1;
            if (have_lens[which])
                return fail("a second lens " + std::string(f[1]));
            if (f.size() != LENS_FIELDS)
                return fail("lens takes " + std::to_string(LENS_FIELDS - 2) + " numbers");
            std::string why;
            if (!parse_lens(f, r.mLens[static_cast<std::size_t>(which)], why))
                return fail(why);
            have_lens[which] = true;
        } else {
            return fail("unknown keyword " + std::string(f[0]));
        }
    }
    if (!have_rig || !have_lens[0] || !have_lens[1]) {
        reason = !have_rig ? "no rig line" : !have_lens[0] ? "no lens up" : "no lens down";
        return false;
    }
    rig = r;
    return true;
}

bool read_distortion_table(const char *path, RIG &rig, std::string &reason) {
    if (path == nullptr) {
        reason = "no path";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        reason = "cannot open the file";
        return false;
    }
    std::string text(DISTORTION_TABLE_LIMIT + 1, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(in.gcount()));
    if (text.size() > DISTORTION_TABLE_LIMIT) {
        reason = "the file is too large";
        return false;
    }
    return parse_distortion_table(text, rig, reason);
}

std::string distortion_table_text(const RIG &rig, std::string_view comment) {
    std::string out;
    while (!comment.empty()) {
        const std::size_t end = comment.find('\n');
        out += "# ";
        out += comment.substr(0, end);
        out += '\n';
        comment = end == std::string_view::npos ? std::string_view() : comment.substr(end + 1);
    }
    out += "rig ";
    out += std::to_string(rig.mPositions);
    out += ' ';
    out += number_text(rig.mDegrees);
    out += '\n';
    static constexpr const char *NAMES[LENSES] = {"up", "down"};
    for (int i = 0; i < LENSES; ++i) {
        const LENS_TABLE &t = rig.mLens[static_cast<std::size_t>(i)];
        out += "lens ";
        out += NAMES[i];
        const auto field = [&](const std::string &value) {
            out += ' ';
            out += value;
        };
        field(std::to_string(t.mWidth));
        field(std::to_string(t.mHeight));
        for (double v : {t.mFx, t.mFy, t.mCx, t.mCy, t.mK[0], t.mK[1], t.mK[2], t.mK[3]})
            field(number_text(v));
        for (double v : t.mRotation)
            field(number_text(v));
        field(number_text(t.mMaxAngle));
        out += '\n';
    }
    return out;
}

std::array<double, 9> turn(double degrees) {
    const double a = degrees * std::numbers::pi / 180, c = std::cos(a), s = std::sin(a);
    return {c, 0, s, 0, 1, 0, -s, 0, c};
}

LENS_TABLE view_lens(const RIG &rig, int view) {
    LENS_TABLE t = rig.mLens[static_cast<std::size_t>(view % LENSES)];
    const std::array<double, 9> y = turn(rig.mDegrees * (view / LENSES));
    double r[9] = {};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k)
                r[3 * i + j] += y[static_cast<std::size_t>(3 * i + k)] * t.mRotation[3 * k + j];
    std::copy(std::begin(r), std::end(r), t.mRotation);
    return t;
}

std::array<LENS_TABLE, VIEWS> view_lenses(const RIG &rig) {
    std::array<LENS_TABLE, VIEWS> out{};
    for (int v = 0; v < VIEWS; ++v)
        out[static_cast<std::size_t>(v)] = view_lens(rig, v);
    return out;
}

} // namespace zarn_stereo
