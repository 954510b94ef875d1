#include "zdr/timing/debounce.h"

#include <utility>

#include "zdr/timing/detail/fatal_error.h"

namespace zdr {

void Debounce::run(std::function<void()> action, const DispatchQueue& queue) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (workItem_) workItem_->cancel();
    if (!action) {
        workItem_.reset();
        return;
    }
    workItem_ = DispatchWorkItem::make(std::move(action));
    // The deadline is taken after the old item is cancelled, so the delay is
    // always counted from this, the latest, call.
    queue.asyncAfter(dispatchTimeAfter(delay_), workItem_);
}

std::shared_ptr<DispatchWorkItem> Debounce::workItem() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return workItem_;
}

std::shared_ptr<Debouncer> Debouncer::debouncerWithName(std::string name, double delayPeriod) {
    return std::make_shared<Debouncer>(std::move(name), delayPeriod);
}

std::shared_ptr<Debouncer> Debouncer::debouncerWithName(std::string name, double delayPeriod,
                                                        DispatchQueue queue) {
    return std::make_shared<Debouncer>(std::move(name), delayPeriod, std::move(queue));
}

Debouncer::Debouncer(std::string name, double delayPeriod, std::optional<DispatchQueue> queue)
    : queue_(queue ? std::move(*queue) : DispatchQueue::main()),
      name_(std::move(name)),
      delayPeriod_(delayPeriod),
      debouncer_(delayPeriod) {}

Debouncer::Debouncer() : queue_(DispatchQueue::main()), delayPeriod_(0), debouncer_(0) {
    detail::fatalError(
        "Use of unimplemented initializer 'init()' for class 'ZDRShared2.Debouncer'");
}

void Debouncer::debounce(std::function<void()> block) { debouncer_.run(std::move(block), queue_); }

}  // namespace zdr
