// Queries and transformations of the slice model.
#include <algorithm>
#include <cfloat>
#include <cmath>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "laytran/model.h"
#include "translate/model_ops.h"

namespace laytran {

namespace {

// Doubles below this in magnitude round to a finite float.
constexpr double f32_limit = 0x1.ffffffp+127;

// v as a float; a value that does not fit (or NaN) clears `finite` and is
// stored as 0.
inline float to_float(double v, bool &finite) {
    if (std::fabs(v) < f32_limit) return static_cast<float>(v);
    finite = false;
    return 0.0f;
}

inline void take_z(Bounds &b, double z) {
    if (z < b.zmin) b.zmin = z;
    if (z > b.zmax) b.zmax = z;
}

inline void take_point(Bounds &b, Point p) {
    if (p.x < b.xmin) b.xmin = p.x;
    if (p.x > b.xmax) b.xmax = p.x;
    if (p.y < b.ymin) b.ymin = p.y;
    if (p.y > b.ymax) b.ymax = p.y;
}

} // namespace

void add_counts(Counts &n, const Layer &layer) {
    n.layers++;
    n.empty_layers += layer.contours.empty();
    for (const Contour &c : layer.contours) {
        std::uint64_t points = c.points.size();
        if (c.gaps != 0) {
            for (Point p : c.points)
                points -= is_gap_mark(p);
        }
        n.points += points;
        n.gaps += c.gaps;
        switch (c.kind) {
        case ContourKind::part:
            if (c.direction == direction_open)
                n.open_polylines++;
            else
                n.part_contours++;
            break;
        case ContourKind::hatches:
            n.hatch_blocks++;
            n.hatches += points / 2;
            break;
        case ContourKind::support:
            n.support_contours++;
            break;
        case ContourKind::web:
            n.web_contours++;
            break;
        }
    }
}

Bounds empty_bounds() {
    Bounds b;
    b.xmin = b.ymin = b.zmin = DBL_MAX;
    b.xmax = b.ymax = b.zmax = -DBL_MAX;
    return b;
}

Bounds bounds(const Model &model) {
    Bounds b = empty_bounds();
    for (const Layer &layer : model.layers) {
        take_z(b, layer.z);
        for (const Contour &c : layer.contours) {
            for (Point p : c.points) {
                if (!is_gap_mark(p)) take_point(b, p);
            }
        }
    }
    return b;
}

Bounds bounds_mm(const Model &model) {
    Bounds b = bounds(model);
    const double u = model.header.unit_mm;
    // An axis without values keeps its empty marks.
    if (b.xmin <= b.xmax) b.xmin *= u, b.xmax *= u;
    if (b.ymin <= b.ymax) b.ymin *= u, b.ymax *= u;
    if (b.zmin <= b.zmax) b.zmin *= u, b.zmax *= u;
    return b;
}

Counts count(const Layer &layer) {
    Counts n;
    add_counts(n, layer);
    return n;
}

Counts count(const Model &model) {
    Counts n;
    for (const Layer &layer : model.layers)
        add_counts(n, layer);
    return n;
}

namespace {

// The first x (or y) of the points that is zero: the one of +0 and -0
// that a scan in order keeps as a bound.
float first_zero(const Point *p, std::size_t n, bool y) {
    for (std::size_t i = 0; i < n; i++) {
        const float v = y ? p[i].y : p[i].x;
        if (v == 0.0f) return v;
    }
    return 0.0f;
}

// Whether multiplying by the factor gives every float back unchanged: a
// factor this close to 1 moves a value by less than half the spacing of
// floats around it (e.g. 0.01 mm written as a float, converted to 0.01).
bool keeps_floats(double factor) {
    return std::fabs(factor - 1.0) < 0x1.ep-26;
}

// Takes the unscaled extremes `bound` (xmin, xmax, ymin, ymax) of the n
// points at p, which are all finite and hold no gap mark, into the bounds,
// scaled. False (the bounds left as they were) when that cannot be told
// from the extremes: one of them is not finite or out of range after
// scaling, or scaling made it 0 or the gap coordinate.
bool take_extremes(const Point *p, std::size_t n, double factor, float bound[4], Bounds &b) {
    if (!keeps_floats(factor)) {
        bool finite = true;
        for (int k = 0; k < 4; k++) {
            bound[k] = to_float(bound[k] * factor, finite);
            if (bound[k] == 0.0f || bound[k] == gap_coordinate) return false;
        }
        if (!finite) return false;
    }
    // Of +0 and -0 the scan in order keeps the first it meets.
    for (int k = 0; k < 4; k++) {
        if (bound[k] == 0.0f) bound[k] = first_zero(p, n, k >= 2);
    }
    if (bound[0] < b.xmin) b.xmin = bound[0];
    if (bound[1] > b.xmax) b.xmax = bound[1];
    if (bound[2] < b.ymin) b.ymin = bound[2];
    if (bound[3] > b.ymax) b.ymax = bound[3];
    return true;
}

// The points of a contour that holds no gap mark: multiplied, stored and
// taken into the bounds as the loop over the points in `scale` does, two
// points at a time on SSE2. False when a value did not come out finite.
// Without Multiply the points are only checked, and their bounds are
// scaled instead: multiplying and rounding keep the order of values, so the
// scaled extremes are the extremes of the scaled points. False then means
// that this way cannot tell (a value not finite or out of range after
// scaling, a gap mark before or maybe after it, or a zero bound that
// scaling made, whose sign depends on which point came first): the bounds
// are left as they were for the caller's other ways.
template <bool Multiply>
bool scale_plain(Point *p, std::size_t n, double factor, Bounds &b) {
    float lo[4] = {HUGE_VALF, HUGE_VALF, HUGE_VALF, HUGE_VALF};
    float hi[4] = {-HUGE_VALF, -HUGE_VALF, -HUGE_VALF, -HUGE_VALF};
    bool finite = true;
    std::size_t i = 0;
#ifdef __SSE2__
    const __m128d f = _mm_set1_pd(factor), limit = _mm_set1_pd(f32_limit), sign = _mm_set1_pd(-0.0);
    const __m128 largest = _mm_set1_ps(FLT_MAX), sign_ps = _mm_set1_ps(-0.0f);
    __m128d in_range = _mm_castsi128_pd(_mm_set1_epi32(-1));
    __m128 in_range_ps = _mm_castsi128_ps(_mm_set1_epi32(-1));
    const __m128 gap = _mm_set1_ps(gap_coordinate);
    __m128 gaps = _mm_setzero_ps();
    __m128 vlo = _mm_loadu_ps(lo), vhi = _mm_loadu_ps(hi);
    // A factor that is a float gives the same results multiplied as floats:
    // the exact product of two floats fits a double, so the double's one
    // rounding to float is the float multiply's. A result beyond the float
    // range comes out infinite and is stored as 0.
    if (Multiply && static_cast<double>(static_cast<float>(factor)) == factor) {
        const __m128 ff = _mm_set1_ps(static_cast<float>(factor));
        for (; i + 2 <= n; i += 2) {
            float *q = &p[i].x;
            __m128 r = _mm_mul_ps(_mm_loadu_ps(q), ff);
            const __m128 ok = _mm_cmple_ps(_mm_andnot_ps(sign_ps, r), largest);
            in_range_ps = _mm_and_ps(in_range_ps, ok);
            r = _mm_and_ps(r, ok);
            _mm_storeu_ps(q, r);
            vlo = _mm_min_ps(r, vlo);
            vhi = _mm_max_ps(r, vhi);
        }
        if (_mm_movemask_ps(in_range_ps) != 15) in_range = _mm_setzero_pd();
    }
    for (; i + 2 <= n; i += 2) {
        float *q = &p[i].x;
        const __m128 v = _mm_loadu_ps(q); // x0 y0 x1 y1
        __m128 r = v;
        if (Multiply) {
            __m128d a = _mm_mul_pd(_mm_cvtps_pd(v), f);
            __m128d c = _mm_mul_pd(_mm_cvtps_pd(_mm_movehl_ps(v, v)), f);
            const __m128d ok_a = _mm_cmplt_pd(_mm_andnot_pd(sign, a), limit);
            const __m128d ok_c = _mm_cmplt_pd(_mm_andnot_pd(sign, c), limit);
            in_range = _mm_and_pd(in_range, _mm_and_pd(ok_a, ok_c));
            a = _mm_and_pd(a, ok_a); // a value out of range is stored as 0
            c = _mm_and_pd(c, ok_c);
            r = _mm_movelh_ps(_mm_cvtpd_ps(a), _mm_cvtpd_ps(c));
            _mm_storeu_ps(q, r);
        } else {
            in_range_ps = _mm_and_ps(in_range_ps, _mm_cmple_ps(_mm_andnot_ps(sign_ps, v), largest));
            // A gap mark: x and y of a point both at the gap coordinate.
            const __m128 at_gap = _mm_cmpeq_ps(v, gap);
            gaps = _mm_or_ps(gaps, _mm_and_ps(at_gap, _mm_shuffle_ps(at_gap, at_gap, 0xB1)));
        }
        vlo = _mm_min_ps(r, vlo);
        vhi = _mm_max_ps(r, vhi);
    }
    finite = Multiply ? _mm_movemask_pd(in_range) == 3
                      : _mm_movemask_ps(in_range_ps) == 15 && _mm_movemask_ps(gaps) == 0;
    _mm_storeu_ps(lo, vlo);
    _mm_storeu_ps(hi, vhi);
#endif
    for (; i < n; i++) {
        if (Multiply) {
            p[i].x = to_float(p[i].x * factor, finite);
            p[i].y = to_float(p[i].y * factor, finite);
        } else {
            finite &=
                std::fabs(p[i].x) <= FLT_MAX && std::fabs(p[i].y) <= FLT_MAX && !is_gap_mark(p[i]);
        }
        lo[0] = std::min(lo[0], p[i].x);
        hi[0] = std::max(hi[0], p[i].x);
        lo[1] = std::min(lo[1], p[i].y);
        hi[1] = std::max(hi[1], p[i].y);
    }
    if (n == 0 || (!Multiply && !finite)) return finite;
    float bound[4] = {std::min(lo[0], lo[2]), std::max(hi[0], hi[2]), std::min(lo[1], lo[3]),
                      std::max(hi[1], hi[3])};
    return take_extremes(p, n, Multiply ? 1.0 : factor, bound, b) && finite;
}

bool holds_gap_mark(const Point *p, std::size_t n) {
    int found = 0;
    for (std::size_t i = 0; i < n; i++)
        found |= (p[i].x == gap_coordinate) & (p[i].y == gap_coordinate);
    return found != 0;
}

} // namespace

bool scale(Layer &layer, double factor, Bounds &b, bool points, const PointExtremes *extremes) {
    bool finite = true;
    const bool same = !points || keeps_floats(factor);
    layer.z = to_float(layer.z * factor, finite);
    take_z(b, layer.z);
    for (std::size_t i = 0; i < layer.contours.size(); i++) {
        Contour &c = layer.contours[i];
        Point *p = c.points.data();
        const std::size_t n = c.points.size();
        if (!points && extremes && extremes[i].known) {
            const PointExtremes &e = extremes[i];
            float bound[4] = {e.xmin, e.xmax, e.ymin, e.ymax};
            if (n == 0 || take_extremes(p, n, factor, bound, b)) continue;
        }
        if (same && scale_plain<false>(p, n, factor, b)) continue;
        // A point that is not finite is stored as 0: the multiplying loops
        // do that.
        if (!holds_gap_mark(p, n)) {
            finite &= scale_plain<true>(p, n, factor, b);
            continue;
        }
        for (std::size_t i = 0; i < n; i++) {
            if (is_gap_mark(p[i])) continue;
            p[i].x = to_float(p[i].x * factor, finite);
            p[i].y = to_float(p[i].y * factor, finite);
            take_point(b, p[i]);
        }
    }
    return finite;
}

std::size_t scale(Model &model, double factor, Bounds &bounds) {
    bounds = empty_bounds();
    std::size_t first_bad = model.layers.size();
    for (std::size_t i = 0; i < model.layers.size(); i++) {
        if (!scale(model.layers[i], factor, bounds) && first_bad == model.layers.size())
            first_bad = i;
    }
    return first_bad;
}

std::size_t scaled_bounds(const Model &model, double factor, Bounds &b) {
    b = empty_bounds();
    std::size_t first_bad = model.layers.size();
    for (std::size_t i = 0; i < model.layers.size(); i++) {
        const Layer &layer = model.layers[i];
        bool finite = true;
        take_z(b, to_float(layer.z * factor, finite));
        for (const Contour &c : layer.contours) {
            for (Point p : c.points) {
                if (is_gap_mark(p)) continue;
                take_point(b, {to_float(p.x * factor, finite), to_float(p.y * factor, finite)});
            }
        }
        if (!finite && first_bad == model.layers.size()) first_bad = i;
    }
    return first_bad;
}

bool move(Layer &layer, double dx, double dy, double dz) {
    bool finite = true;
    layer.z = to_float(layer.z + dz, finite);
    for (Contour &c : layer.contours) {
        for (Point &p : c.points) {
            if (is_gap_mark(p)) continue;
            p.x = to_float(p.x + dx, finite);
            p.y = to_float(p.y + dy, finite);
        }
    }
    return finite;
}

std::size_t move(Model &model, double dx, double dy, double dz) {
    std::size_t first_bad = model.layers.size();
    for (std::size_t i = 0; i < model.layers.size(); i++) {
        if (!move(model.layers[i], dx, dy, dz) && first_bad == model.layers.size()) first_bad = i;
    }
    return first_bad;
}

bool movable(const Bounds &b, double dx, double dy, double dz) {
    // A value moved by d >= 0 stays at or above the moved minimum, 0 or the
    // value itself: only the maximum can leave the range. An axis without
    // values has nothing to move.
    bool finite = true;
    if (b.xmin <= b.xmax) to_float(b.xmax + dx, finite);
    if (b.ymin <= b.ymax) to_float(b.ymax + dy, finite);
    if (b.zmin <= b.zmax) to_float(b.zmax + dz, finite);
    return finite;
}

void move(std::vector<float> &levels, double d) {
    bool finite = true;
    for (float &z : levels)
        z = to_float(z + d, finite);
}

void reverse(Layer &layer, bool directions) {
    for (Contour &c : layer.contours) {
        std::reverse(c.points.begin(), c.points.end());
        if (!directions || c.kind != ContourKind::part) continue;
        if (c.direction == direction_clockwise)
            c.direction = direction_counter_clockwise;
        else if (c.direction == direction_counter_clockwise)
            c.direction = direction_clockwise;
    }
}

void reverse(Model &model, bool directions) {
    for (Layer &layer : model.layers)
        reverse(layer, directions);
}

} // namespace laytran
