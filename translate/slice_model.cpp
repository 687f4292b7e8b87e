#include "translate/slice_model.h"

#include <cfloat>
#include <cmath>

#include "support/mm.h"

namespace {

// Makes room for one more record in an array of records of the given size:
// the capacity doubles (16 at first). 0 when memory is short or the count
// cannot grow; the array is then unchanged.
int grow_records(void **array, uint32_t *capacity, uint32_t used, size_t size) {
    if (used < *capacity) return 1;
    if (used == UINT32_MAX) return 0;
    uint32_t grown = *capacity < 8 ? 16 : *capacity > UINT32_MAX / 2 ? UINT32_MAX : *capacity * 2;
    void *records = mm_realloc(*array, *capacity * size, grown * size);
    if (!records) return 0;
    *array = records;
    *capacity = grown;
    return 1;
}

// Doubles below this in magnitude round to a finite float.
constexpr double f32_limit = 0x1.ffffffp+127;

// v as a float; a value that does not fit (or NaN) clears finite and is
// stored as 0.
float to_float(double v, bool *finite) {
    if (std::fabs(v) < f32_limit) return static_cast<float>(v);
    *finite = false;
    return 0.0f;
}

} // namespace

SliceLayer *stack_add_layer(SliceStack *stack) {
    void *layers = stack->layers;
    if (!grow_records(&layers, &stack->capacity, stack->count, sizeof(SliceLayer))) return nullptr;
    stack->layers = static_cast<SliceLayer *>(layers);
    return &stack->layers[stack->count++];
}

SliceContour *layer_add_contour(SliceLayer *layer) {
    void *contours = layer->contours;
    if (!grow_records(&contours, &layer->capacity, layer->held, sizeof(SliceContour)))
        return nullptr;
    layer->contours = static_cast<SliceContour *>(contours);
    layer->held++;
    if (layer->contour_count < layer->held) layer->contour_count = layer->held;
    return &layer->contours[layer->held - 1];
}

int contour_reserve_points(SliceContour *contour, uint32_t n) {
    if (contour->capacity >= n) return 1;
    void *points = mm_realloc(contour->points, contour->capacity * sizeof(SlicePoint),
                              static_cast<size_t>(n) * sizeof(SlicePoint));
    if (!points) return 0;
    contour->points = static_cast<SlicePoint *>(points);
    contour->capacity = n;
    return 1;
}

void contour_free_points(SliceContour *contour) {
    mm_free(contour->points, contour->capacity * sizeof(SlicePoint), 0);
    contour->points = nullptr;
    contour->capacity = 0;
}

uint32_t stack_scale(SliceStack *stack, double factor, SliceBounds *bounds) {
    SliceBounds b = {DBL_MAX, -DBL_MAX, DBL_MAX, -DBL_MAX, DBL_MAX, -DBL_MAX};
    uint32_t first_bad = stack->count;
    for (uint32_t i = 0; i < stack->count; i++) {
        SliceLayer &layer = stack->layers[i];
        bool finite = true;
        layer.z = to_float(layer.z * factor, &finite);
        if (layer.z < b.zmin) b.zmin = layer.z;
        if (layer.z > b.zmax) b.zmax = layer.z;
        for (uint32_t j = 0; j < layer_contours_in_use(layer); j++) {
            SliceContour &c = layer.contours[j];
            for (uint32_t k = 0; k < contour_points_in_use(c); k++) {
                SlicePoint &p = c.points[k];
                if (point_is_gap_mark(p)) continue;
                p.x = to_float(p.x * factor, &finite);
                p.y = to_float(p.y * factor, &finite);
                if (p.x < b.xmin) b.xmin = p.x;
                if (p.x > b.xmax) b.xmax = p.x;
                if (p.y < b.ymin) b.ymin = p.y;
                if (p.y > b.ymax) b.ymax = p.y;
            }
        }
        if (!finite && first_bad == stack->count) first_bad = i;
    }
    *bounds = b;
    return first_bad;
}

uint32_t stack_translate(SliceStack *stack, double dx, double dy, double dz) {
    uint32_t first_bad = stack->count;
    for (uint32_t i = 0; i < stack->count; i++) {
        SliceLayer &layer = stack->layers[i];
        bool finite = true;
        layer.z = to_float(layer.z + dz, &finite);
        for (uint32_t j = 0; j < layer_contours_in_use(layer); j++) {
            SliceContour &c = layer.contours[j];
            for (uint32_t k = 0; k < contour_points_in_use(c); k++) {
                SlicePoint &p = c.points[k];
                if (point_is_gap_mark(p)) continue;
                p.x = to_float(p.x + dx, &finite);
                p.y = to_float(p.y + dy, &finite);
            }
        }
        if (!finite && first_bad == stack->count) first_bad = i;
    }
    return first_bad;
}

void contour_reverse(SliceContour *contour) {
    uint32_t n = contour_points_in_use(*contour);
    if (n < 2) return;
    for (uint32_t i = 0; i < n / 2; i++) {
        SlicePoint t = contour->points[i];
        contour->points[i] = contour->points[n - 1 - i];
        contour->points[n - 1 - i] = t;
    }
}

void stack_reverse(SliceStack *stack) {
    for (uint32_t i = 0; i < stack->count; i++) {
        SliceLayer &layer = stack->layers[i];
        for (uint32_t j = 0; j < layer_contours_in_use(layer); j++)
            contour_reverse(&layer.contours[j]);
    }
}

bool bounds_negative(const SliceBounds &b) {
    return b.xmin < 0.0 || b.ymin < 0.0 || b.zmin < 0.0;
}

void layer_free(SliceLayer *layer) {
    for (uint32_t j = 0; j < layer->held; j++)
        contour_free_points(&layer->contours[j]);
    mm_free(layer->contours, layer->capacity * sizeof(SliceContour), 0);
    layer->contours = nullptr;
    layer->held = 0;
    layer->capacity = 0;
    layer->contour_count = 0;
}

void stack_free(SliceStack *stack) {
    for (uint32_t i = 0; i < stack->count; i++)
        layer_free(&stack->layers[i]);
    mm_free(stack->layers, stack->capacity * sizeof(SliceLayer), 0);
    stack->layers = nullptr;
    stack->capacity = 0;
    stack->count = 0;
}
