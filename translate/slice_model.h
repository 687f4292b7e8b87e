// The in-memory slice model: a stack of layers, each holding contours.
//
// The whole input is loaded into one SliceStack before anything is written.
// SliceContour and the first three fields of SliceLayer are also the records
// the SLC module reads boundaries into and writes them from, so their field
// order is fixed.
#pragma once

#include <cstdint>

// Contour kinds. The first three are the SLC type keyword codes, so that an
// SLC contour's kind is its file's TYPE.
enum : uint32_t {
    CONTOUR_PART = 10,
    CONTOUR_SUPPORT = 12,
    CONTOUR_WEB = 16,
    CONTOUR_HATCHES = 256, // a CLI block of hatches: each two points are one line
};

// A point with both coordinates at the largest float marks a gap in a
// contour whose gap count is not 0.
constexpr float GAP_MARK = 3.4028235e38f;

struct SlicePoint {
    float x;
    float y;
};

struct SliceContour {
    uint32_t kind;      // CONTOUR_PART, ... (an SLC TYPE may give another keyword code)
    uint32_t count;     // point count
    uint32_t gaps;      // gap count (SLC input only)
    uint32_t held;      // points actually stored
    uint32_t capacity;  // points the array can take
    SlicePoint *points; // owned
    uint32_t id;        // CLI element identifier
    uint32_t direction; // CLI direction; FDM input: 1 closed, 2 open
};

struct SliceLayer {
    float z;
    float thickness;        // 0 when the input gives none
    uint32_t contour_count; // contours consumers go through
    uint32_t held;          // contour records in use
    SliceContour *contours; // owned
    uint32_t capacity;      // contour records the array can take
};

struct SliceStack {
    SliceLayer *layers; // owned
    uint32_t capacity;
    uint32_t count;
};

struct SliceBounds {
    double xmin, xmax, ymin, ymax, zmin, zmax;
};

inline bool point_is_gap_mark(const SlicePoint &p) {
    return p.x == GAP_MARK && p.y == GAP_MARK;
}

// Points and contours as consumers see them: never more than are stored.
inline uint32_t contour_points_in_use(const SliceContour &c) {
    return c.count < c.held ? c.count : c.held;
}
inline uint32_t layer_contours_in_use(const SliceLayer &l) {
    return l.contour_count < l.held ? l.contour_count : l.held;
}

// The layer and contour arrays grow geometrically, so that adding records
// one by one stays linear; a new record is zero-filled. Null when memory is
// short (the stack or layer is then unchanged).
SliceLayer *stack_add_layer(SliceStack *stack);
SliceContour *layer_add_contour(SliceLayer *layer);
// Grows the point array to exactly n points when it holds fewer.
int contour_reserve_points(SliceContour *contour, uint32_t n);
void contour_free_points(SliceContour *contour);

// Multiplies every level and coordinate by factor and returns the bounds of
// the result. Gap marks keep their value and stay out of the bounds. The
// result is the index of the first layer where a value does not come out
// as a finite float (such values are stored as 0), or the layer count when
// every value does.
uint32_t stack_scale(SliceStack *stack, double factor, SliceBounds *bounds);
// Moves every level and coordinate; gap marks are left as they are. The
// result is as for stack_scale.
uint32_t stack_translate(SliceStack *stack, double dx, double dy, double dz);
void contour_reverse(SliceContour *contour);
void stack_reverse(SliceStack *stack);
bool bounds_negative(const SliceBounds &bounds);
void layer_free(SliceLayer *layer);
void stack_free(SliceStack *stack);
