// SimpleLevelMeter: the view model of a compact level meter that shows one
// normalised level as a filled rounded rectangle inside a background one.
//
// The level is a two-way binding (a getter and a setter over whatever the host
// keeps the level in); the meter reads it each time it is drawn. Geometry is
// in display coordinates with the origin at the top left and y growing down:
// the meter is `width` wide and `height` long, and the level fills it from the
// bottom.
//
// The meter follows the application's activity (kNSApplicationDidBecomeActive-
// Notification and kNSApplicationWillResignActiveNotification on
// NotificationCenter::defaultCenter(), or the center given) and dims while the
// application is inactive. Copies share one activity state.
//
// Thread safety: any thread may read a meter and post the notifications; the
// activity flag is atomic. The binding's closures are called on the thread
// that reads the meter.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "zdr/runtime/notification_center.h"

namespace zdr {

/// Posted by the host's user interface when the application becomes active /
/// is about to resign active.
inline constexpr const char* kNSApplicationDidBecomeActiveNotification =
    "NSApplicationDidBecomeActiveNotification";
inline constexpr const char* kNSApplicationWillResignActiveNotification =
    "NSApplicationWillResignActiveNotification";

/// A two-way binding to a value the host owns.
template <class T>
struct Binding {
    std::function<T()> get;
    std::function<void(T)> set;

    /// A binding to a value kept inside the binding (shared by its copies).
    static Binding constant(T value) {
        auto box = std::make_shared<std::atomic<T>>(value);
        return Binding{[box] { return box->load(); }, [box](T v) { box->store(v); }};
    }
};

struct MeterRect {
    double x = 0.0;
    double y = 0.0;
    double width = 0.0;
    double height = 0.0;
    double cornerRadius = 0.0;
};

struct MeterColour {
    double red = 0.0;
    double green = 0.0;
    double blue = 0.0;
    double alpha = 1.0;
};

class SimpleLevelMeter {
 public:
    static constexpr double kDefaultWidth = 4.0;
    static constexpr double kDefaultRadius = 7.0;
    static constexpr double kDefaultHeight = 60.0;

    explicit SimpleLevelMeter(Binding<float> level);
    SimpleLevelMeter(Binding<float> level, double width, double radius, double height,
                     std::shared_ptr<NotificationCenter> center = nullptr);

    float level() const { return level_.get ? level_.get() : 0.0f; }
    void setLevel(float value) const {
        if (level_.set) level_.set(value);
    }
    double width() const { return width_; }
    double radius() const { return radius_; }
    double height() const { return height_; }

    /// The level limited to 0...1; infinite and NaN levels count as 0.
    float normalisedClamped() const;

    MeterRect backgroundRect() const;
    /// The filled part: the full width, normalisedClamped() of the height,
    /// anchored at the bottom.
    MeterRect levelRect() const;

    /// Whether the application is active (true until told otherwise).
    bool isApplicationActive() const { return state_->active.load(); }
    MeterColour backgroundColour() const;
    MeterColour levelColour() const;

 private:
    struct State {
        std::atomic<bool> active{true};
        std::shared_ptr<NotificationObserverToken> becameActive;
        std::shared_ptr<NotificationObserverToken> willResign;
    };

    Binding<float> level_;
    double width_;
    double radius_;
    double height_;
    std::shared_ptr<State> state_;
};

}  // namespace zdr
