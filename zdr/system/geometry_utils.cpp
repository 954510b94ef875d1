#include "zdr/system/geometry_utils.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "zdr/logging/shared2.h"

namespace zdr {

double GeometryUtils::scaleNeededToFitSource(Size sourceSize, Size intoDestSize) {
    if (sourceSize.width == 0.0 && sourceSize.height == 0.0) return 1.0;
    return std::min(intoDestSize.width / sourceSize.width, intoDestSize.height / sourceSize.height);
}

Point GeometryUtils::offsetToCenter(Size sourceSize, Size intoDestSize) {
    const double widthRatio = intoDestSize.width / sourceSize.width;
    const double heightRatio = intoDestSize.height / sourceSize.height;
    if (heightRatio < widthRatio) {
        return {(intoDestSize.width - sourceSize.width) / 2.0, 0.0};
    }
    return {0.0, (intoDestSize.height - sourceSize.height) / 2.0};
}

Size GeometryUtils::scale(Size thisSize, Rect canvasRect, Size toViewSize) {
    if (canvasRect.size.width == 0.0 && canvasRect.size.height == 0.0) return thisSize;
    const double factor = std::min(toViewSize.width / canvasRect.size.width,
                                   toViewSize.height / canvasRect.size.height);
    return {thisSize.width * factor, thisSize.height * factor};
}

double GeometryUtils::distanceFromZeroToFitSize(Size size, double fov) {
    const double halfAngle = fov / 2.0 * std::numbers::pi / 180.0;
    return size.height * -0.5 / std::tan(halfAngle);
}

Rect GeometryUtils::fit(Rect thisRect, Rect destRect) {
    const auto sensible = [](const Rect& r) { return !r.isEmpty() && !r.hasNaN(); };
    const bool thisSensible = sensible(thisRect);
    const bool destSensible = sensible(destRect);
    if (!thisSensible && !destSensible) {
        Shared2::geometry()->warning(
            "WARNING: you're getting a rect; but BOTH inputs are non-sensible. RETURNING A ZERO "
            "RECT");
        return Rect{};
    }
    if (!thisSensible) return destRect;
    if (!destSensible) return thisRect;

    const double s = scaleNeededToFitSource(thisRect.size, destRect.size);
    const double w = s * thisRect.size.width;
    const double h = s * thisRect.size.height;
    if (!(destRect.size.width / w > destRect.size.height / h)) {
        return {0.0, (destRect.size.height - h) / 2.0, w, h};
    }
    return {(destRect.size.width - w) / 2.0, 0.0, w, h};
}

}  // namespace zdr
