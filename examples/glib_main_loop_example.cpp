// Hooking the library's main queue into a GLib main loop: watch pollFd() and
// drain when it is readable. Qt (QSocketNotifier) and libuv (uv_poll) work the
// same way.
#include <glib-unix.h>
#include <glib.h>

#include <cstdio>
#include <thread>

#include "zdr/runtime/dispatch_queue.h"

namespace {

gboolean drainMainQueue(gint /*fd*/, GIOCondition /*condition*/, gpointer /*data*/) {
    zdr::DispatchQueue::main().drain();
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main() {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    guint watch =
        g_unix_fd_add(zdr::DispatchQueue::main().pollFd(), G_IO_IN, drainMainQueue, nullptr);

    // Work from another thread lands on the GLib thread.
    std::thread worker([loop] {
        zdr::DispatchQueue::main().async([loop] {
            std::printf("ran on the main thread: %s\n",
                        zdr::DispatchQueue::isMainThread() ? "yes" : "no");
            g_main_loop_quit(loop);
        });
    });
    g_main_loop_run(loop);
    worker.join();
    g_source_remove(watch);
    g_main_loop_unref(loop);
    return 0;
}
