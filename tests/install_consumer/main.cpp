#include <cstdio>

#include "zdr/runtime/dispatch_queue.h"

int main() {
    zdr::DispatchQueue q("consumer", zdr::DispatchQueue::Attributes::concurrent);
    int v = q.sync([] { return 41; }) + 1;
    std::printf("%d\n", v);
    return v == 42 ? 0 : 1;
}
