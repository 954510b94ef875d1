// AtomicProperty<T>: one optional value guarded by its own concurrent queue.
//
// Reads (wrappedValue) run side by side; writes (setWrappedValue) are barrier
// submissions that return before the value is stored, yet every later read
// sees them, because reads queue behind the write. performAtomic is an atomic
// read-modify-write. A compound change made of wrappedValue() followed by
// setWrappedValue() is two steps, not one; use performAtomic for that.
//
// Threads: every member may be called from any thread. The closure given to
// performAtomic runs on the calling thread while every other access waits.
// Not reentrant: touching the same property from inside performAtomic stops
// the program (a synchronous submission to the queue one is already on).
// Destruction waits for writes still pending on the queue.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <typeinfo>
#include <utility>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/timing/random_label.h"

namespace zdr {

template <class T>
class AtomicProperty {
 public:
    /// Label: U+201C, "AtomicProperty", a random number from 0 to 100000 and
    /// the value type's name, e.g. “AtomicProperty48213int.
    AtomicProperty()
        : lock_(
              "\u201C"
              "AtomicProperty" +
                  detail::randomLabelNumber() + detail::typeDisplayName(typeid(T)),
              DispatchQueue::Attributes::concurrent, DispatchQoS::unspecified) {}

    AtomicProperty(const AtomicProperty&) = delete;
    AtomicProperty& operator=(const AtomicProperty&) = delete;

    ~AtomicProperty() {
        // Pending setters captured `this`: let them finish before the storage goes.
        lock_.sync([] {}, DispatchFlags::barrier);
    }

    /// A copy of the value, or nullopt when absent.
    std::optional<T> wrappedValue() const {
        return lock_.sync([this] { return property_; });
    }

    /// Stores `value` (nullopt makes it absent) asynchronously, as a barrier.
    void setWrappedValue(std::optional<T> value) {
        auto box = std::make_shared<std::optional<T>>(std::move(value));
        lock_.async([this, box] { property_ = std::move(*box); }, DispatchFlags::barrier);
    }

    /// Atomic read-modify-write: when a value is present, `atomicOperation`
    /// receives a copy of it by reference and the copy is stored back. When
    /// absent, the operation is not called. If it throws, the stored value is
    /// unchanged and the exception reaches the caller.
    template <class F>
    void performAtomic(F&& atomicOperation) {
        lock_.sync(
            [&] {
                if (!property_) return;
                T copy = *property_;
                atomicOperation(copy);
                property_ = std::move(copy);
            },
            DispatchFlags::barrier);
    }

    const std::string& label() const { return lock_.label(); }

 private:
    std::optional<T> property_;
    DispatchQueue lock_;
};

}  // namespace zdr
