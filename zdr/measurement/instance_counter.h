// Instance counting: a debugging aid that lists the live objects of interest,
// for leak hunting and a diagnostics view.
//
// An object that wants to be counted implements CountableInstance (a stable
// id), registers itself with InstanceCounter::shared()->instanceInit(*this)
// when made and calls safeDeinit(id) when destroyed. It may also implement
// CountableContext to add a description. Each entry is listed with its
// display name and its age: the seconds from the counter's start (the first
// registration) to its own registration.
//
// Display name: the object's dynamic C++ type, demangled
// ("zdr::AudioDevice"), followed by " (" context ")" when the object has a
// CountableContext: "zdr::AudioDevice (Built-in Output)".
//
// Threads: the counter is an actor, a serial queue that makes every change
// and every read of the list. instanceInit() may be called from any thread;
// it reads the id and name at once and registers them on the actor (the
// completion, if any, runs there). safeDeinit() never blocks and never
// throws, so it may be called from a destructor: the removal follows on the
// actor, and an object that has just unregistered may still be listed for a
// moment. instances() and sortedInstances() wait for the actor and answer
// what it holds after every registration submitted before them (from the
// same thread); call them from anywhere but the actor itself.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zdr/runtime/clock.h"
#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/uuid.h"

namespace zdr {

/// An object that can be counted: its id is stable for its life.
class CountableInstance {
 public:
    virtual ~CountableInstance() = default;
    virtual UUID id() const = 0;
};

/// An optional description a counted object adds to its display name.
class CountableContext {
 public:
    virtual ~CountableContext() = default;
    virtual std::string countableContext() const = 0;
};

struct CountedInstance {
    UUID id;
    std::string name;
    double age = 0.0;

    CountedInstance(UUID id_, std::string name_, double age_)
        : id(id_), name(std::move(name_)), age(age_) {}
    CountedInstance(const CountableInstance& object, double age_)
        : CountedInstance(object.id(), displayName(object), age_) {}

    /// The object's demangled dynamic type, plus " (context)" when it has one.
    static std::string displayName(const CountableInstance& object);

    friend bool operator==(const CountedInstance&, const CountedInstance&) = default;
};

class InstanceCounter : public std::enable_shared_from_this<InstanceCounter> {
    struct Key {
        explicit Key() = default;
    };

 public:
    /// The process-wide counter, made on first use, on the system clock.
    static std::shared_ptr<InstanceCounter> shared();
    /// An independent counter on `clock` (wall time).
    static std::shared_ptr<InstanceCounter> make(std::shared_ptr<Clock> clock = Clock::system());
    InstanceCounter(Key, std::shared_ptr<Clock> clock);

    /// Registers `object`; registering it twice lists it twice.
    void instanceInit(const CountableInstance& object, std::function<void()> completion = {});

    /// Removes every entry with the object's id, later, on the actor.
    void safeDeinit(const CountableInstance& object) noexcept;
    void safeDeinit(const UUID& id) noexcept;

    /// The entries in registration order.
    std::vector<CountedInstance> instances() const;
    /// The entries by age, then by name; entries equal in both keep their order.
    std::vector<CountedInstance> sortedInstances() const;
    /// The asynchronous forms: `completion` runs on the actor.
    void instances(std::function<void(std::vector<CountedInstance>)> completion) const;
    void sortedInstances(std::function<void(std::vector<CountedInstance>)> completion) const;

    /// The actor's queue.
    const DispatchQueue& queue() const { return queue_; }

 private:
    static std::vector<CountedInstance> sorted(std::vector<CountedInstance> list);

    std::shared_ptr<Clock> clock_;
    DispatchQueue queue_;
    // Touched only on queue_.
    std::optional<std::chrono::system_clock::time_point> start_;
    std::vector<CountedInstance> instances_;
};

}  // namespace zdr

template <>
struct std::hash<zdr::CountedInstance> {
    std::size_t operator()(const zdr::CountedInstance& c) const noexcept;
};
