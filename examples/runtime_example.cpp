// A host that owns the main thread: background work hands results to the main
// queue, which the host drains with run() until the job is done.
#include <cstdio>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/dispatch_source_timer.h"
#include "zdr/runtime/notification_center.h"

int main() {
    using namespace zdr;
    auto main = DispatchQueue::main();
    auto center = NotificationCenter::defaultCenter();

    // Observe on the main queue: delivery happens when the host drains it.
    int ticks = 0;
    auto token = center->addObserver("Tick", nullptr, main, [&](const Notification& n) {
        auto count = dictionaryGet<int>(n.userInfo, "count").value_or(0);
        std::printf("tick %d on the main thread: %s\n", count,
                    DispatchQueue::isMainThread() ? "yes" : "no");
        if (++ticks == 3) main.stop();
    });

    // A reader/writer discipline on a concurrent queue: reads run side by side,
    // the barrier write runs alone.
    DispatchQueue state("com.example.state", DispatchQueue::Attributes::concurrent);
    int total = 0;
    for (int i = 1; i <= 10; ++i) state.async([&, i] { total += i; }, DispatchFlags::barrier);
    std::printf("total after ten barrier writes: %d\n", state.sync([&] { return total; }));

    // A repeating timer on a global queue posts the notification.
    auto timer = DispatchSourceTimer::make(DispatchQueue::global());
    int count = 0;
    timer->setEventHandler([&] { center->post("Tick", nullptr, {{"count", ++count}}); });
    timer->schedule(dispatchNow(), 0.05);
    timer->resume();

    main.run();  // returns after the third tick calls stop()
    timer->cancel();
    std::printf("done\n");
    return ticks == 3 ? 0 : 1;
}
