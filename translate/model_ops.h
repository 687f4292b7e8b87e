// Transformations of the model that a translation applies: unit
// conversion, the move into the positive quadrant and reversal.
//
// Every value is computed in double precision and stored as a float. A
// result that is no finite float (beyond the float range, or NaN) is stored
// as 0 and makes the operation report the layer. Gap marks are never scaled
// or moved, and stay out of the bounds. The layer versions let a caller
// treat one layer at a time; the model versions go through every layer.
#pragma once

#include <cmath>
#include <cstddef>
#include <vector>

#include "laytran/model.h"

namespace laytran {

// Bounds that take no value yet: each minimum at the largest double, each
// maximum at its negative.
Bounds empty_bounds();
// Whether a minimum lies below 0.
inline bool is_negative(const Bounds &b) {
    return b.xmin < 0.0 || b.ymin < 0.0 || b.zmin < 0.0;
}

// Adds the layer to the counts (Counts::layers and the rest).
void add_counts(Counts &counts, const Layer &layer);

// The extremes of a contour's x and y values, taken by its source while it
// read them (`known`): every value was finite and no point was a gap mark.
// Without values taken, the extremes are those of no point at all.
struct PointExtremes {
    bool known = false;
    float xmin = HUGE_VALF, xmax = -HUGE_VALF, ymin = HUGE_VALF, ymax = -HUGE_VALF;
};

// Multiplies the height and every coordinate by `factor`, widening `bounds`
// by the stored results. False when a value did not come out finite.
// Without `points` the bounds and the result are the same, but the points
// may be left unscaled (those of a layer that is not kept); the contours
// whose `extremes` (one a contour, when given) are known are then not
// gone through again.
bool scale(Layer &layer, double factor, Bounds &bounds, bool points = true,
           const PointExtremes *extremes = nullptr);
// The same on every layer, with `bounds` started afresh. The index of the
// first layer where a value did not come out finite, or the layer count.
std::size_t scale(Model &model, double factor, Bounds &bounds);
// What `scale` would give, without changing anything.
std::size_t scaled_bounds(const Model &model, double factor, Bounds &bounds);

// Adds (dx, dy) to every coordinate and dz to the height; results as for
// scale.
bool move(Layer &layer, double dx, double dy, double dz);
std::size_t move(Model &model, double dx, double dy, double dz);

// Whether moving every value of a model with these bounds by (dx, dy, dz),
// each at least 0, keeps them in float range (as `move` would find).
bool movable(const Bounds &bounds, double dx, double dy, double dz);
// Adds d to every level; results as for move.
void move(std::vector<float> &levels, double d);

// Reverses the order of the points of every contour. With `directions`,
// a part contour's direction value swaps as well (clockwise and
// counter-clockwise; open stays open), so that the value keeps describing
// the points; without, the values stay as they are.
void reverse(Layer &layer, bool directions = false);
void reverse(Model &model, bool directions = false);

} // namespace laytran
