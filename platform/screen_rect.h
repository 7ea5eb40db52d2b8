#pragma once
// A rectangle in screen points (X11: root-window pixels), origin at the top left.
namespace aimwise {

struct ScreenRect {
    double x = 0, y = 0, width = 0, height = 0;

    // Strict on all four sides: rectangles that only share an edge do not overlap.
    bool overlaps(const ScreenRect& other) const {
        return x < other.x + other.width && other.x < x + width && y < other.y + other.height &&
               other.y < y + height;
    }
    bool operator==(const ScreenRect&) const = default;
};

}  // namespace aimwise
