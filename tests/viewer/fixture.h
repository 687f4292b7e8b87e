// A small model for the viewer tests: four layers with every path kind, a
// gap, clockwise and counter-clockwise contours, a contour whose declared
// direction disagrees with its points, an empty layer, and header texts
// that need escaping.
#pragma once

#include "view/view.h"

namespace viewer_fixture {

using namespace laytran::view;

inline Path path(PathKind kind, Direction dir, std::vector<Point> points) {
    return Path{kind, dir, std::move(points)};
}

inline Document sample_document() {
    const Point B = break_mark;
    Document doc;
    doc.title = "plaque-\xE9 <demo> & \"sample\".cli";
    doc.header = {{"UNITS", "1.0"}, {"VERSION", "200"}, {"LABEL", "caf\xE9 </script><b>x</b>"}};
    doc.summary = {{"format", "CLI ASCII"}, {"layers", "4"}, {"empty", ""}};
    doc.notice = "sample notice";
    // Layer 0: an outer contour (counter-clockwise) with a hole (clockwise),
    // two hatches, an open polyline with a gap between x 30 and 70, a support.
    Layer l0{
        0.05,
        {path(PathKind::contour, Direction::counter_clockwise,
              {{10, 10}, {90, 10}, {90, 50}, {10, 50}, {10, 10}}),
         path(PathKind::contour, Direction::clockwise,
              {{40, 20}, {40, 40}, {60, 40}, {60, 20}, {40, 20}}),
         path(PathKind::hatches, Direction::unknown, {{12, 15}, {38, 15}, {12, 45}, {88, 45}}),
         path(PathKind::polyline, Direction::unknown, {{5, 55}, {30, 57}, B, {70, 57}, {95, 55}}),
         path(PathKind::support, Direction::unknown, {{70, 25}, {85, 25}, {85, 35}})}};
    // Layer 1: the outer contour declared clockwise although its points run
    // counter-clockwise; a contour with a gap; an unknown direction.
    Layer l1{0.1,
             {path(PathKind::contour, Direction::clockwise,
                   {{10, 10}, {90, 10}, {90, 50}, {10, 50}, {10, 10}}),
              path(PathKind::contour, Direction::unknown,
                   {{20, 20}, {30, 20}, B, {30, 30}, {20, 30}, {20, 20}})}};
    // Layer 2: a small triangle and a support; fractional coordinates.
    Layer l2{0.15,
             {path(PathKind::contour, Direction::counter_clockwise,
                   {{0.1f, 0.2f}, {33.3f, 0.2f}, {16.7f, 28.9f}, {0.1f, 0.2f}}),
              path(PathKind::support, Direction::unknown, {{-5.5f, -2.25f}, {100.125f, 60}})}};
    Layer l3{0.2, {}};
    doc.layers = {l0, l1, l2, l3};
    return doc;
}

} // namespace viewer_fixture
