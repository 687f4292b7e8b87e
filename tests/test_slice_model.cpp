#include <cfloat>
#include <gtest/gtest.h>

#include "translate/slice_model.h"

namespace {

SliceContour *add_contour(SliceLayer *layer, std::initializer_list<SlicePoint> points) {
    SliceContour *c = layer_add_contour(layer);
    EXPECT_TRUE(contour_reserve_points(c, static_cast<uint32_t>(points.size())));
    for (const SlicePoint &p : points)
        c->points[c->count++] = p;
    c->held = c->count;
    return c;
}

} // namespace

// Records added one by one must not copy the array each time: a million
// empty polylines in a layer took minutes when it grew by one record.
TEST(SliceModel, ArraysGrowGeometricallyAndKeepTheirContents) {
    SliceStack stack = {};
    int layer_steps = 0, contour_steps = 0;
    for (int i = 0; i < 5000; i++) {
        const uint32_t before = stack.capacity;
        SliceLayer *layer = stack_add_layer(&stack);
        ASSERT_NE(layer, nullptr);
        layer_steps += stack.capacity != before;
        EXPECT_EQ(layer->z, 0.0f);
        layer->z = static_cast<float>(i);
    }
    SliceLayer *layer = &stack.layers[3];
    for (int i = 0; i < 5000; i++) {
        const uint32_t before = layer->capacity;
        SliceContour *c = layer_add_contour(layer);
        ASSERT_NE(c, nullptr);
        contour_steps += layer->capacity != before;
        EXPECT_EQ(c->count, 0u);
        c->id = static_cast<uint32_t>(i);
    }
    EXPECT_LE(layer_steps, 10);
    EXPECT_LE(contour_steps, 10);
    for (uint32_t i = 0; i < stack.count; i++)
        EXPECT_EQ(stack.layers[i].z, static_cast<float>(i));
    for (uint32_t i = 0; i < layer->held; i++)
        EXPECT_EQ(layer->contours[i].id, i);
    layer->contour_count = 7000; // a preset count stays when fewer contours are held
    add_contour(layer, {{3, 4}});
    EXPECT_EQ(layer->held, 5001u);
    EXPECT_EQ(layer->contour_count, 7000u);
    stack_free(&stack);
    EXPECT_EQ(stack.count, 0u);
    EXPECT_EQ(stack.layers, nullptr);
}

TEST(SliceModel, ReserveGrowsToExactSizeAndNeverShrinks) {
    SliceContour c = {};
    ASSERT_TRUE(contour_reserve_points(&c, 3));
    EXPECT_EQ(c.capacity, 3u);
    c.points[2] = {7, 8};
    ASSERT_TRUE(contour_reserve_points(&c, 5));
    EXPECT_EQ(c.capacity, 5u);
    EXPECT_EQ(c.points[2].x, 7.0f);
    EXPECT_EQ(c.points[4].x, 0.0f); // the new part is zero-filled
    ASSERT_TRUE(contour_reserve_points(&c, 2));
    EXPECT_EQ(c.capacity, 5u);
    contour_free_points(&c);
    contour_free_points(&c); // a contour without an array is accepted
}

TEST(SliceModel, ReverseSwapsEndsAndKeepsTheMiddle) {
    SliceStack stack = {};
    SliceLayer *layer = stack_add_layer(&stack);
    add_contour(layer, {{1, 1}});
    add_contour(layer, {{1, 0}, {2, 0}, {3, 0}, {4, 0}});
    add_contour(layer, {{1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}});
    stack_reverse(&stack);
    // Adding a contour may move the array: look the records up afterwards.
    const SliceContour *one = &layer->contours[0];
    const SliceContour *four = &layer->contours[1];
    const SliceContour *five = &layer->contours[2];
    EXPECT_EQ(one->points[0].x, 1.0f);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(four->points[i].x, 4.0f - i);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(five->points[i].x, 5.0f - i);
    stack_free(&stack);
}

TEST(SliceModel, ScaleRoundsToFloatAndBoundsTheStoredValues) {
    SliceStack stack = {};
    SliceBounds b;
    stack_scale(&stack, 2.0, &b);
    EXPECT_EQ(b.xmin, DBL_MAX);
    EXPECT_EQ(b.xmax, -DBL_MAX);
    EXPECT_EQ(b.zmin, DBL_MAX);

    SliceLayer *layer = stack_add_layer(&stack);
    layer->z = 0.3f;
    layer->thickness = 0.3f;
    add_contour(layer, {{-5, 3}, {GAP_MARK, GAP_MARK}, {10, 20}})->gaps = 1;
    stack_scale(&stack, 1 / 25.4, &b);
    EXPECT_EQ(static_cast<double>(layer->z), 0.011811024509370327);
    EXPECT_EQ(b.zmin, 0.011811024509370327);
    EXPECT_EQ(b.zmax, 0.011811024509370327);
    EXPECT_EQ(layer->thickness, 0.3f); // thickness is not scaled
    const SliceContour &c = layer->contours[0];
    EXPECT_EQ(c.points[0].x, static_cast<float>(-5 / 25.4));
    EXPECT_EQ(b.xmin, static_cast<double>(static_cast<float>(-5 / 25.4)));
    EXPECT_EQ(b.ymax, static_cast<double>(static_cast<float>(20 / 25.4)));
    // Gap marks survive scaling and moving and stay out of the bounds.
    EXPECT_TRUE(point_is_gap_mark(c.points[1]));
    stack_translate(&stack, 1, 2, 3);
    EXPECT_TRUE(point_is_gap_mark(c.points[1]));
    EXPECT_EQ(c.points[2].y, static_cast<float>(static_cast<float>(20 / 25.4) + 2.0));
    EXPECT_TRUE(bounds_negative(b));
    SliceBounds positive = {0, 1, 0, 1, 0, 1};
    EXPECT_FALSE(bounds_negative(positive));
    stack_free(&stack);
}
