#include "calib_lens.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>

namespace zarn_calib {

namespace {

constexpr double PI = std::numbers::pi;
// Views whose corners all lie within this angle of the axis, by the first
// guess of the focal length, start the calibration.
constexpr double INITIAL_ANGLE = 70 * PI / 180;
constexpr int INTRINSICS = 8; // fx, fy, cx, cy, k1..k4
constexpr int POSE = 6;       // rvec, tvec

} // namespace

std::vector<cv::Point3d> BOARD::object_points() const {
    std::vector<cv::Point3d> out;
    out.reserve(static_cast<std::size_t>(corners()));
    for (int j = 0; j < mRows; ++j)
        for (int i = 0; i < mColumns; ++i)
            out.emplace_back(i * mSquare, j * mSquare, 0.0);
    return out;
}

double LENS::distorted(double theta) const noexcept {
    const double t2 = theta * theta;
    return theta * (1 + t2 * (mK[0] + t2 * (mK[1] + t2 * (mK[2] + t2 * mK[3]))));
}

double LENS::slope(double theta) const noexcept {
    const double t2 = theta * theta;
    return 1 + t2 * (3 * mK[0] + t2 * (5 * mK[1] + t2 * (7 * mK[2] + t2 * 9 * mK[3])));
}

double LENS::monotonic_limit() const noexcept {
    constexpr int steps = 4096;
    for (int i = 1; i <= steps; ++i)
        if (slope(PI * i / steps) <= 0)
            return PI * (i - 1) / steps;
    return PI;
}

cv::Point2d LENS::project(const cv::Vec3d &d) const noexcept {
    const double rho = std::sqrt(d[0] * d[0] + d[1] * d[1]);
    // theta_d / rho; on the axis its limit, 1 / z.
    const double scale = rho < 1e-12 ? 1 / d[2] : distorted(std::atan2(rho, d[2])) / rho;
    return {mFx * scale * d[0] + mCx, mFy * scale * d[1] + mCy};
}

bool LENS::unproject(const cv::Point2d &p, cv::Vec3d &d, double max_theta) const noexcept {
    const double a = (p.x - mCx) / mFx, b = (p.y - mCy) / mFy;
    const double theta_d = std::sqrt(a * a + b * b);
    if (theta_d > distorted(max_theta))
        return false;
    // Newton's steps from theta_d, kept within [0, max_theta] where theta_d
    // grows with theta.
    double theta = std::min(theta_d, max_theta);
    for (int i = 0; i < 30; ++i) {
        const double step = (distorted(theta) - theta_d) / slope(theta);
        theta = std::clamp(theta - step, 0.0, max_theta);
        if (std::abs(step) < 1e-15)
            break;
    }
    if (theta_d < 1e-15) {
        d = {0, 0, 1};
        return true;
    }
    const double s = std::sin(theta) / theta_d;
    d = {s * a, s * b, std::cos(theta)};
    return true;
}

// ---------------------------------------------------------------------------
// Corners.

bool find_corners(const cv::Mat &grey, const BOARD &board, std::vector<cv::Point2d> &out) {
    const cv::Size size(board.mColumns, board.mRows);
    std::vector<cv::Point2f> found;
    // The classic detector is quick and refuses quickly; the sector-based
    // one finds the small, strongly bent boards near a fisheye's rim.
    if (!cv::findChessboardCorners(grey, size, found,
                                   cv::CALIB_CB_ADAPTIVE_THRESH | cv::CALIB_CB_NORMALIZE_IMAGE | cv::CALIB_CB_FAST_CHECK) &&
        !cv::findChessboardCornersSB(grey, size, found, 0))
        return false;
    if (static_cast<int>(found.size()) != board.corners())
        return false;
    const auto at = [&](int i, int j) { return cv::Point2d(found[static_cast<std::size_t>(j * board.mColumns + i)]); };
    // The refinement window: about a third of the shortest square side.
    double spacing = 1e9;
    for (int j = 0; j < board.mRows; ++j)
        for (int i = 0; i < board.mColumns; ++i) {
            if (i + 1 < board.mColumns)
                spacing = std::min(spacing, cv::norm(at(i + 1, j) - at(i, j)));
            if (j + 1 < board.mRows)
                spacing = std::min(spacing, cv::norm(at(i, j + 1) - at(i, j)));
        }
    const int half = std::clamp(static_cast<int>(spacing * 0.35), 2, 11);
    cv::cornerSubPix(grey, found, cv::Size(half, half), cv::Size(-1, -1),
                     cv::TermCriteria(cv::TermCriteria::EPS + cv::TermCriteria::COUNT, 50, 0.001));

    // The board's order. Seen from its front, the board keeps its turning
    // sense in the image (x right, y down): a grid that turns the other way
    // is read mirrored, and its columns are put back.
    std::vector<cv::Point2d> grid(found.begin(), found.end());
    const auto g = [&](int i, int j) -> cv::Point2d & { return grid[static_cast<std::size_t>(j * board.mColumns + i)]; };
    double turn = 0;
    for (int j = 0; j + 1 < board.mRows; ++j)
        for (int i = 0; i + 1 < board.mColumns; ++i)
            turn += (g(i + 1, j) - g(i, j)).cross(g(i, j + 1) - g(i, j));
    if (turn < 0)
        for (int j = 0; j < board.mRows; ++j)
            std::reverse(grid.begin() + j * board.mColumns, grid.begin() + (j + 1) * board.mColumns);
    // Then the half-turn: the outer square beside the first corner is black,
    // its neighbours along the board's edges white.
    const auto square = [&](double i, double j) {
        const cv::Point2d p = g(0, 0) + i * (g(1, 0) - g(0, 0)) + j * (g(0, 1) - g(0, 0));
        cv::Mat patch;
        cv::getRectSubPix(grey, cv::Size(3, 3), cv::Point2f(static_cast<float>(p.x), static_cast<float>(p.y)), patch,
                          CV_32F);
        return cv::mean(patch)[0];
    };
    if (square(-0.5, -0.5) > 0.5 * (square(0.5, -0.5) + square(-0.5, 0.5)))
        std::reverse(grid.begin(), grid.end());
    out = std::move(grid);
    return true;
}

// ---------------------------------------------------------------------------
// Calibration.

namespace {

// The pose of the board from its corners' directions, whatever their angle
// from the axis: the directions are turned so that their mean looks along
// z, solved there as a pinhole view, and turned back.
bool pose_from_directions(const std::vector<cv::Point3d> &object, const std::vector<cv::Vec3d> &directions,
                          cv::Vec3d &rvec, cv::Vec3d &tvec) {
    cv::Vec3d mean(0, 0, 0);
    for (const cv::Vec3d &d : directions)
        mean += d;
    mean = cv::normalize(mean);
    const cv::Vec3d z(0, 0, 1);
    cv::Vec3d axis = mean.cross(z);
    const double s = cv::norm(axis), c = mean.dot(z);
    cv::Matx33d turn = cv::Matx33d::eye();
    if (s > 1e-12) {
        const cv::Vec3d r = axis * (std::atan2(s, c) / s);
        cv::Rodrigues(r, turn);
    }
    std::vector<cv::Point2d> plane;
    for (const cv::Vec3d &d : directions) {
        const cv::Vec3d q = turn * d;
        if (q[2] < 0.05)
            return false;
        plane.emplace_back(q[0] / q[2], q[1] / q[2]);
    }
    cv::Vec3d r, t;
    const cv::Matx33d K = cv::Matx33d::eye();
    if (!cv::solvePnP(object, plane, K, cv::noArray(), r, t, false, cv::SOLVEPNP_IPPE))
        return false;
    cv::solvePnP(object, plane, K, cv::noArray(), r, t, true, cv::SOLVEPNP_ITERATIVE);
    cv::Matx33d R;
    cv::Rodrigues(r, R);
    const cv::Matx33d back = turn.t() * R;
    cv::Rodrigues(back, rvec);
    tvec = turn.t() * t;
    return true;
}

void set_intrinsics(LENS &lens, const double *p) {
    lens.mFx = p[0], lens.mFy = p[1], lens.mCx = p[2], lens.mCy = p[3];
    for (int i = 0; i < 4; ++i)
        lens.mK[i] = p[4 + i];
}

// Reprojection errors of one view (x, y per corner) under the intrinsics
// and the pose p[0..5].
void view_residuals(const LENS &lens, const std::vector<cv::Point3d> &object, const VIEW &view, const double *pose,
                    double *out) {
    cv::Matx33d R;
    cv::Rodrigues(cv::Vec3d(pose[0], pose[1], pose[2]), R);
    const cv::Vec3d t(pose[3], pose[4], pose[5]);
    for (std::size_t k = 0; k < object.size(); ++k) {
        const cv::Vec3d X = R * cv::Vec3d(object[k].x, object[k].y, object[k].z) + t;
        const cv::Point2d p = lens.project(X);
        out[2 * k] = p.x - view.mCorners[k].x;
        out[2 * k + 1] = p.y - view.mCorners[k].y;
    }
}

// Sum of squared reprojection errors of all views.
double total_cost(const std::vector<double> &p, const std::vector<cv::Point3d> &object, const std::vector<VIEW> &views) {
    LENS lens;
    set_intrinsics(lens, p.data());
    std::vector<double> r(2 * object.size());
    double cost = 0;
    for (std::size_t v = 0; v < views.size(); ++v) {
        view_residuals(lens, object, views[v], p.data() + INTRINSICS + POSE * v, r.data());
        for (double e : r)
            cost += e * e;
    }
    return std::isfinite(cost) ? cost : HUGE_VAL;
}

// Levenberg-Marquardt over the intrinsics and every view's pose, with
// central-difference derivatives (each view's errors depend on the
// intrinsics and on its own pose only).
void refine(std::vector<double> &p, const std::vector<cv::Point3d> &object, const std::vector<VIEW> &views) {
    const int n = static_cast<int>(p.size());
    const std::size_t residuals = 2 * object.size();
    double cost = total_cost(p, object, views);
    double lambda = 1e-3;
    for (int iteration = 0; iteration < 100 && std::isfinite(cost); ++iteration) {
        cv::Mat A = cv::Mat::zeros(n, n, CV_64F), g = cv::Mat::zeros(n, 1, CV_64F);
        std::vector<double> r(residuals), plus(residuals), minus(residuals);
        std::vector<double> J(residuals * (INTRINSICS + POSE));
        for (std::size_t v = 0; v < views.size(); ++v) {
            const int base = INTRINSICS + POSE * static_cast<int>(v);
            int index[INTRINSICS + POSE];
            for (int i = 0; i < INTRINSICS; ++i)
                index[i] = i;
            for (int i = 0; i < POSE; ++i)
                index[INTRINSICS + i] = base + i;
            LENS lens;
            set_intrinsics(lens, p.data());
            view_residuals(lens, object, views[v], p.data() + base, r.data());
            for (int c = 0; c < INTRINSICS + POSE; ++c) {
                std::vector<double> q(p.begin(), p.end());
                const double h = 1e-6 * (1 + std::abs(q[static_cast<std::size_t>(index[c])]));
                q[static_cast<std::size_t>(index[c])] += h;
                set_intrinsics(lens, q.data());
                view_residuals(lens, object, views[v], q.data() + base, plus.data());
                q[static_cast<std::size_t>(index[c])] -= 2 * h;
                set_intrinsics(lens, q.data());
                view_residuals(lens, object, views[v], q.data() + base, minus.data());
                for (std::size_t k = 0; k < residuals; ++k)
                    J[k * (INTRINSICS + POSE) + static_cast<std::size_t>(c)] = (plus[k] - minus[k]) / (2 * h);
            }
            for (int a = 0; a < INTRINSICS + POSE; ++a) {
                double ga = 0;
                for (std::size_t k = 0; k < residuals; ++k)
                    ga += J[k * (INTRINSICS + POSE) + static_cast<std::size_t>(a)] * r[k];
                g.at<double>(index[a]) += ga;
                for (int b = 0; b < INTRINSICS + POSE; ++b) {
                    double s = 0;
                    for (std::size_t k = 0; k < residuals; ++k)
                        s += J[k * (INTRINSICS + POSE) + static_cast<std::size_t>(a)] *
                             J[k * (INTRINSICS + POSE) + static_cast<std::size_t>(b)];
                    A.at<double>(index[a], index[b]) += s;
                }
            }
        }
        bool improved = false;
        while (lambda < 1e12) {
            cv::Mat damped = A.clone();
            for (int i = 0; i < n; ++i)
                damped.at<double>(i, i) += lambda * std::max(A.at<double>(i, i), 1e-12);
            cv::Mat step;
            if (!cv::solve(damped, -g, step, cv::DECOMP_CHOLESKY)) {
                lambda *= 10;
                continue;
            }
            std::vector<double> q(p);
            for (int i = 0; i < n; ++i)
                q[static_cast<std::size_t>(i)] += step.at<double>(i);
            const double next = total_cost(q, object, views);
            if (next < cost) {
                const double gain = cost - next;
                p = std::move(q);
                cost = next;
                lambda = std::max(lambda / 10, 1e-9);
                improved = gain > 1e-12 * cost;
                break;
            }
            lambda *= 10;
        }
        if (!improved)
            break;
    }
}

// A small dense Levenberg-Marquardt with central-difference derivatives:
// minimises the sum of squares of `residuals` over p; returns that sum.
double least_squares(const std::function<void(const std::vector<double> &, std::vector<double> &)> &residuals,
                     std::vector<double> &p) {
    const int n = static_cast<int>(p.size());
    std::vector<double> r, plus, minus;
    const auto cost_of = [&](const std::vector<double> &q) {
        residuals(q, r);
        double c = 0;
        for (double e : r)
            c += e * e;
        return std::isfinite(c) ? c : HUGE_VAL;
    };
    double cost = cost_of(p);
    double lambda = 1e-3;
    for (int iteration = 0; iteration < 100 && std::isfinite(cost); ++iteration) {
        residuals(p, r);
        const std::size_t m = r.size();
        cv::Mat J(static_cast<int>(m), n, CV_64F);
        for (int c = 0; c < n; ++c) {
            std::vector<double> q(p);
            const double h = 1e-6 * (1 + std::abs(q[static_cast<std::size_t>(c)]));
            q[static_cast<std::size_t>(c)] += h;
            residuals(q, plus);
            q[static_cast<std::size_t>(c)] -= 2 * h;
            residuals(q, minus);
            for (std::size_t k = 0; k < m; ++k)
                J.at<double>(static_cast<int>(k), c) = (plus[k] - minus[k]) / (2 * h);
        }
        const cv::Mat A = J.t() * J;
        const cv::Mat g = J.t() * cv::Mat(r);
        bool improved = false;
        while (lambda < 1e12) {
            cv::Mat damped = A.clone();
            for (int i = 0; i < n; ++i)
                damped.at<double>(i, i) += lambda * std::max(A.at<double>(i, i), 1e-12);
            cv::Mat step;
            if (!cv::solve(damped, -g, step, cv::DECOMP_CHOLESKY)) {
                lambda *= 10;
                continue;
            }
            std::vector<double> q(p);
            for (int i = 0; i < n; ++i)
                q[static_cast<std::size_t>(i)] += step.at<double>(i);
            const double next = cost_of(q);
            if (next < cost) {
                const double gain = cost - next;
                p = std::move(q);
                cost = next;
                lambda = std::max(lambda / 10, 1e-9);
                improved = gain > 1e-12 * cost;
                break;
            }
            lambda *= 10;
        }
        if (!improved)
            break;
    }
    return cost;
}

} // namespace

double calibrate(const BOARD &board, int width, int height, std::vector<VIEW> &views, LENS &lens) {
    if (views.size() < 3)
        return -1;
    const std::vector<cv::Point3d> object = board.object_points();
    // The first guess of OpenCV's fisheye calibration: the capture's larger
    // side spans 180 degrees, the centre is the capture's.
    const double f0 = std::max(width, height) / PI;
    const cv::Point2d c0((width - 1) / 2.0, (height - 1) / 2.0);
    std::vector<std::pair<double, std::size_t>> reach;
    for (std::size_t v = 0; v < views.size(); ++v) {
        double r = 0;
        for (const cv::Point2d &p : views[v].mCorners)
            r = std::max(r, cv::norm(p - c0));
        reach.emplace_back(r / f0, v);
    }
    std::sort(reach.begin(), reach.end());
    std::vector<std::size_t> first;
    for (const auto &[angle, v] : reach)
        if (angle <= INITIAL_ANGLE || first.size() < 3)
            first.push_back(v);
    std::sort(first.begin(), first.end());

    std::vector<std::vector<cv::Point3d>> objects;
    std::vector<std::vector<cv::Point2d>> images;
    for (std::size_t v : first) {
        objects.push_back(object);
        images.push_back(views[v].mCorners);
    }
    cv::Matx33d K;
    cv::Vec4d D;
    std::vector<cv::Vec3d> rvecs, tvecs;
    try {
        cv::fisheye::calibrate(objects, images, cv::Size(width, height), K, D, rvecs, tvecs,
                               cv::fisheye::CALIB_RECOMPUTE_EXTRINSIC | cv::fisheye::CALIB_FIX_SKEW,
                               cv::TermCriteria(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 200, 1e-12));
    } catch (const cv::Exception &) {
        return -1;
    }
    LENS start;
    start.mWidth = width, start.mHeight = height;
    start.mFx = K(0, 0), start.mFy = K(1, 1), start.mCx = K(0, 2), start.mCy = K(1, 2);
    for (int i = 0; i < 4; ++i)
        start.mK[i] = D[i];
    if (!(start.mFx > 0 && start.mFy > 0))
        return -1;

    // Poses: OpenCV's for the views it saw, from the directions for the rest.
    std::vector<double> p(INTRINSICS + POSE * views.size());
    const double intrinsics[INTRINSICS] = {start.mFx, start.mFy, start.mCx, start.mCy,
                                           start.mK[0], start.mK[1], start.mK[2], start.mK[3]};
    std::copy(std::begin(intrinsics), std::end(intrinsics), p.begin());
    for (std::size_t v = 0; v < views.size(); ++v) {
        cv::Vec3d r, t;
        const auto at = std::find(first.begin(), first.end(), v);
        if (at != first.end()) {
            r = rvecs[static_cast<std::size_t>(at - first.begin())];
            t = tvecs[static_cast<std::size_t>(at - first.begin())];
        } else {
            std::vector<cv::Vec3d> directions;
            for (const cv::Point2d &c : views[v].mCorners) {
                cv::Vec3d d;
                if (!start.unproject(c, d, start.monotonic_limit()))
                    return -1;
                directions.push_back(d);
            }
            if (!pose_from_directions(object, directions, r, t))
                return -1;
        }
        for (int i = 0; i < 3; ++i) {
            p[INTRINSICS + POSE * v + static_cast<std::size_t>(i)] = r[i];
            p[INTRINSICS + POSE * v + 3 + static_cast<std::size_t>(i)] = t[i];
        }
    }

    refine(p, object, views);
    for (double x : p)
        if (!std::isfinite(x))
            return -1;
    lens = start;
    set_intrinsics(lens, p.data());
    if (!(lens.mFx > 0 && lens.mFy > 0))
        return -1;
    for (std::size_t v = 0; v < views.size(); ++v)
        for (int i = 0; i < 3; ++i) {
            views[v].mRvec[i] = p[INTRINSICS + POSE * v + static_cast<std::size_t>(i)];
            views[v].mTvec[i] = p[INTRINSICS + POSE * v + 3 + static_cast<std::size_t>(i)];
        }
    const double points = static_cast<double>(views.size() * object.size());
    return std::sqrt(total_cost(p, object, views) / points);
}

double relative_pose(const BOARD &board, const LENS &first_lens, const std::vector<VIEW> &first,
                     const LENS &second_lens, const std::vector<VIEW> &second, cv::Matx33d &R, cv::Vec3d &T,
                     int &shared) {
    std::vector<std::pair<const VIEW *, const VIEW *>> pairs;
    for (const VIEW &a : first)
        for (const VIEW &b : second)
            if (a.mName == b.mName) {
                pairs.emplace_back(&a, &b);
                break;
            }
    shared = static_cast<int>(pairs.size());
    if (pairs.empty())
        return -1;
    // The start: the rotation nearest the sum of the moments' rotations
    // (their chordal mean) and the mean translation.
    cv::Matx33d sum = cv::Matx33d::zeros();
    cv::Vec3d translation(0, 0, 0);
    for (const auto &[a, b] : pairs) {
        cv::Matx33d Ra, Rb;
        cv::Rodrigues(a->mRvec, Ra);
        cv::Rodrigues(b->mRvec, Rb);
        const cv::Matx33d Rab = Rb * Ra.t();
        sum += Rab;
        translation += b->mTvec - Rab * a->mTvec;
    }
    cv::Mat w, u, vt;
    cv::SVD::compute(cv::Mat(sum), w, u, vt);
    const cv::Matx33d U(u), Vt(vt);
    const double sign = cv::determinant(U * Vt) < 0 ? -1 : 1;
    cv::Vec3d rvec;
    cv::Rodrigues(U * cv::Matx33d::diag(cv::Vec3d(1, 1, sign)) * Vt, rvec);
    translation *= 1.0 / static_cast<double>(pairs.size());

    // Together: the pair's rotation and translation, and each moment's board
    // pose in the first lens's frame, on the corners of both.
    std::vector<double> p = {rvec[0], rvec[1], rvec[2], translation[0], translation[1], translation[2]};
    for (const auto &[a, b] : pairs)
        p.insert(p.end(), {a->mRvec[0], a->mRvec[1], a->mRvec[2], a->mTvec[0], a->mTvec[1], a->mTvec[2]});
    const std::vector<cv::Point3d> object = board.object_points();
    const auto residuals = [&](const std::vector<double> &q, std::vector<double> &out) {
        out.assign(pairs.size() * object.size() * 4, 0.0);
        cv::Matx33d Rp;
        cv::Rodrigues(cv::Vec3d(q[0], q[1], q[2]), Rp);
        const cv::Vec3d Tp(q[3], q[4], q[5]);
        std::size_t k = 0;
        for (std::size_t m = 0; m < pairs.size(); ++m) {
            const double *pose = q.data() + POSE * (m + 1);
            cv::Matx33d Rb;
            cv::Rodrigues(cv::Vec3d(pose[0], pose[1], pose[2]), Rb);
            const cv::Vec3d tb(pose[3], pose[4], pose[5]);
            for (std::size_t c = 0; c < object.size(); ++c) {
                const cv::Vec3d X1 = Rb * cv::Vec3d(object[c].x, object[c].y, object[c].z) + tb;
                const cv::Point2d e1 = first_lens.project(X1) - pairs[m].first->mCorners[c];
                const cv::Point2d e2 = second_lens.project(Rp * X1 + Tp) - pairs[m].second->mCorners[c];
                out[k++] = e1.x, out[k++] = e1.y, out[k++] = e2.x, out[k++] = e2.y;
            }
        }
    };
    const double cost = least_squares(residuals, p);
    if (!std::isfinite(cost))
        return -1;
    cv::Rodrigues(cv::Vec3d(p[0], p[1], p[2]), R);
    T = cv::Vec3d(p[3], p[4], p[5]);
    return std::sqrt(cost / static_cast<double>(2 * pairs.size() * object.size()));
}

double image_circle_angle(const LENS &lens, const cv::Mat &brightest) {
    const int w = brightest.cols, h = brightest.rows;
    // Lit: above half the median of the middle of the image.
    std::vector<unsigned char> middle;
    const double reach = 0.25 * std::min(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if (std::hypot(x - lens.mCx, y - lens.mCy) <= reach)
                middle.push_back(brightest.at<unsigned char>(y, x));
    if (middle.empty())
        return 0;
    std::nth_element(middle.begin(), middle.begin() + static_cast<std::ptrdiff_t>(middle.size() / 2), middle.end());
    const int threshold = std::max(8, middle[middle.size() / 2] / 2);

    // Rings of growing theta_d, out to the first one that is not lit all
    // round (or that leaves the capture).
    const double focal = (lens.mFx + lens.mFy) / 2;
    constexpr int samples = 1440;
    double last = 0;
    for (double rho = 0.05; rho < 2 * PI; rho += 0.25 / focal) {
        int inside = 0, lit = 0;
        for (int s = 0; s < samples; ++s) {
            const double a = 2 * PI * s / samples;
            const double x = lens.mCx + lens.mFx * rho * std::cos(a), y = lens.mCy + lens.mFy * rho * std::sin(a);
            if (x < 0 || y < 0 || x > w - 1 || y > h - 1)
                continue;
            ++inside;
            lit += brightest.at<unsigned char>(static_cast<int>(std::lround(y)), static_cast<int>(std::lround(x))) > threshold;
        }
        if (inside == 0 || lit < 0.98 * inside)
            break;
        last = rho;
    }
    const double edge = last - 1 / focal;
    if (edge <= 0)
        return 0;
    // Where theta_d stops growing, the model ends.
    const double limit = lens.monotonic_limit();
    const double fold = limit < PI ? 0.99 * limit : PI;
    if (edge >= lens.distorted(fold))
        return fold * 180 / PI;
    double low = 0, high = fold;
    for (int i = 0; i < 100; ++i) {
        const double mid = (low + high) / 2;
        (lens.distorted(mid) < edge ? low : high) = mid;
    }
    return low * 180 / PI;
}

} // namespace zarn_calib
