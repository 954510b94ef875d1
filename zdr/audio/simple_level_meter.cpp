#include "zdr/audio/simple_level_meter.h"

#include <algorithm>
#include <cmath>

namespace zdr {

SimpleLevelMeter::SimpleLevelMeter(Binding<float> level)
    : SimpleLevelMeter(std::move(level), kDefaultWidth, kDefaultRadius, kDefaultHeight) {}

SimpleLevelMeter::SimpleLevelMeter(Binding<float> level, double width, double radius, double height,
                                   std::shared_ptr<NotificationCenter> center)
    : level_(std::move(level)),
      width_(width),
      radius_(radius),
      height_(height),
      state_(std::make_shared<State>()) {
    if (!center) center = NotificationCenter::defaultCenter();
    // The observers hold the state weakly: a meter that is gone must not be
    // kept alive (or written to) by the notification center.
    std::weak_ptr<State> weak = state_;
    state_->becameActive = center->addObserver(kNSApplicationDidBecomeActiveNotification, nullptr,
                                               std::nullopt, [weak](const Notification&) {
                                                   if (auto s = weak.lock()) s->active.store(true);
                                               });
    state_->willResign = center->addObserver(kNSApplicationWillResignActiveNotification, nullptr,
                                             std::nullopt, [weak](const Notification&) {
                                                 if (auto s = weak.lock()) s->active.store(false);
                                             });
}

float SimpleLevelMeter::normalisedClamped() const {
    const float value = level();
    if (!std::isfinite(value)) return 0.0f;
    return std::clamp(value, 0.0f, 1.0f);
}

MeterRect SimpleLevelMeter::backgroundRect() const {
    return MeterRect{0.0, 0.0, width_, height_, radius_};
}

MeterRect SimpleLevelMeter::levelRect() const {
    const double filled = height_ * static_cast<double>(normalisedClamped());
    return MeterRect{0.0, height_ - filled, width_, filled, radius_};
}

MeterColour SimpleLevelMeter::backgroundColour() const {
    return isApplicationActive() ? MeterColour{0.25, 0.25, 0.25, 0.6}
                                 : MeterColour{0.25, 0.25, 0.25, 0.3};
}

MeterColour SimpleLevelMeter::levelColour() const {
    // Inactive applications show their meters grey, as the platform dims
    // accent colours in background windows.
    return isApplicationActive() ? MeterColour{0.2, 0.78, 0.35, 1.0}
                                 : MeterColour{0.55, 0.55, 0.55, 1.0};
}

}  // namespace zdr
