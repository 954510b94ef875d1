#include "zdr/measurement/instance_counter.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <typeinfo>
#include <utility>

namespace zdr {

std::string CountedInstance::displayName(const CountableInstance& object) {
    const char* mangled = typeid(object).name();
    int status = 0;
    char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::string name = (status == 0 && demangled) ? demangled : mangled;
    std::free(demangled);
    if (const auto* context = dynamic_cast<const CountableContext*>(&object)) {
        name += " (" + context->countableContext() + ")";
    }
    return name;
}

std::shared_ptr<InstanceCounter> InstanceCounter::shared() {
    // Lives until the process ends, so objects destroyed during exit can
    // still unregister.
    static const auto* counter = new std::shared_ptr<InstanceCounter>(make());
    return *counter;
}

std::shared_ptr<InstanceCounter> InstanceCounter::make(std::shared_ptr<Clock> clock) {
    return std::make_shared<InstanceCounter>(Key{}, std::move(clock));
}

InstanceCounter::InstanceCounter(Key, std::shared_ptr<Clock> clock)
    : clock_(clock ? std::move(clock) : Clock::system()), queue_("com.zdr.InstanceCounter") {}

void InstanceCounter::instanceInit(const CountableInstance& object,
                                   std::function<void()> completion) {
    // The object may be gone before the actor runs: take what is needed now.
    UUID id = object.id();
    std::string name = CountedInstance::displayName(object);
    queue_.async([self = shared_from_this(), id, name = std::move(name),
                  completion = std::move(completion)]() mutable {
        const auto now = self->clock_->now();
        if (!self->start_) self->start_ = now;
        const double age = std::chrono::duration<double>(now - *self->start_).count();
        self->instances_.emplace_back(id, std::move(name), age);
        if (completion) completion();
    });
}

void InstanceCounter::safeDeinit(const CountableInstance& object) noexcept {
    try {
        safeDeinit(object.id());
    } catch (...) {
        // An id() that throws during teardown leaves the entry listed.
    }
}

void InstanceCounter::safeDeinit(const UUID& id) noexcept {
    try {
        queue_.async([self = shared_from_this(), id] {
            std::erase_if(self->instances_, [&](const CountedInstance& c) { return c.id == id; });
        });
    } catch (...) {
        // Out of memory while tearing down: the entry stays listed, which is
        // better than an exception leaving a destructor.
    }
}

std::vector<CountedInstance> InstanceCounter::sorted(std::vector<CountedInstance> list) {
    std::stable_sort(list.begin(), list.end(),
                     [](const CountedInstance& a, const CountedInstance& b) {
                         if (a.age != b.age) return a.age < b.age;
                         return a.name < b.name;
                     });
    return list;
}

std::vector<CountedInstance> InstanceCounter::instances() const {
    return queue_.sync([this] { return instances_; });
}

std::vector<CountedInstance> InstanceCounter::sortedInstances() const {
    return sorted(instances());
}

void InstanceCounter::instances(
    std::function<void(std::vector<CountedInstance>)> completion) const {
    queue_.async([self = shared_from_this(), completion = std::move(completion)] {
        completion(self->instances_);
    });
}

void InstanceCounter::sortedInstances(
    std::function<void(std::vector<CountedInstance>)> completion) const {
    queue_.async([self = shared_from_this(), completion = std::move(completion)] {
        completion(sorted(self->instances_));
    });
}

}  // namespace zdr

std::size_t std::hash<zdr::CountedInstance>::operator()(
    const zdr::CountedInstance& c) const noexcept {
    std::size_t h = std::hash<std::string>()(c.id.uuidString());
    h ^= std::hash<std::string>()(c.name) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    h ^= std::hash<double>()(c.age) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    return h;
}
