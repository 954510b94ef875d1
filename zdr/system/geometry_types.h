// Size, Point and Rect: the plain pairs and quadruples of doubles that frame
// sizes, screen frames and the fitting rules work in (points or pixels, as the
// caller uses them). A rectangle is an origin and a size; a size may be
// negative or not-a-number, exactly as the caller made it: nothing here
// normalises it. A rectangle has one text form, "{{x, y}, {width, height}}",
// used wherever one is shown or stored as text.
//
// Thread safety: value types.
#pragma once

#include <cmath>
#include <cstddef>
#include <functional>
#include <string>

namespace zdr {

struct Size {
    double width = 0.0;
    double height = 0.0;

    friend bool operator==(const Size&, const Size&) = default;
};

struct Point {
    double x = 0.0;
    double y = 0.0;

    friend bool operator==(const Point&, const Point&) = default;
};

struct Rect {
    Point origin;
    Size size;

    Rect() = default;
    Rect(Point o, Size s) : origin(o), size(s) {}
    Rect(double x, double y, double width, double height) : origin{x, y}, size{width, height} {}

    double x() const { return origin.x; }
    double y() const { return origin.y; }
    double width() const { return size.width; }
    double height() const { return size.height; }

    /// True when the width or the height is zero (a rectangle with a negative
    /// extent still covers an area, so it is not empty).
    bool isEmpty() const { return size.width == 0.0 || size.height == 0.0; }
    /// True when any of the four numbers is not-a-number.
    bool hasNaN() const {
        return std::isnan(origin.x) || std::isnan(origin.y) || std::isnan(size.width) ||
               std::isnan(size.height);
    }
    /// The standard text form, "{{x, y}, {width, height}}" ("{{0, 0}, {1920,
    /// 1080}}"): each number as the shortest text that reads back the same,
    /// with -0 written as 0.
    std::string description() const;

    friend bool operator==(const Rect&, const Rect&) = default;
};

}  // namespace zdr

template <>
struct std::hash<zdr::Size> {
    std::size_t operator()(const zdr::Size& s) const noexcept {
        std::size_t a = std::hash<double>{}(s.width);
        std::size_t b = std::hash<double>{}(s.height);
        return a ^ (b + 0x9e3779b97f4a7c15ULL + (a << 6) + (a >> 2));
    }
};
