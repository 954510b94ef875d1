// A small program that the user-defaults process tests start many times:
//
//   user_defaults_test_helper exit <jobs>
//       Pool jobs set keys of UserDefaults::standard() (its folder comes from
//       XDG_CONFIG_HOME) while main returns: exit must neither crash nor write
//       anywhere but the computed settings file.
//   user_defaults_test_helper save-loop <file> <writer>
//       Saves <file> over and over until killed.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "zdr/runtime/bundle.h"
#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/user_defaults.h"

namespace {

int exitWhileJobsRun(int jobs) {
    zdr::Bundle::main().setInfo(zdr::kCFBundleIdentifierKey, "com.zdr.exit-probe");
    static std::atomic<int> started{0};
    for (int j = 0; j < jobs; ++j) {
        zdr::DispatchQueue::global().async([j] {
            started.fetch_add(1);
            for (int i = 0;; ++i) {
                auto defaults = zdr::UserDefaults::standard();
                defaults->setInteger(i, "job" + std::to_string(j));
                if (i % 64 == 0) defaults->synchronize();
                (void)defaults->integerForKey("job0");
            }
        });
    }
    // Return while the jobs are in the middle of their work: some have
    // started, the others are about to.
    while (started.load() < 1) std::this_thread::yield();
    if (jobs % 2 == 0) zdr::UserDefaults::standard()->setBool(true, "main");
    return 0;
}

int saveLoop(const char* file, const char* writer) {
    zdr::UserDefaults defaults(file);
    defaults.setAutosaveDelay(3600);
    const std::string filler(4096, 'x');
    for (long i = 0;; ++i) {
        defaults.setInteger(i, std::string("count-") + writer);
        defaults.setString(filler + std::to_string(i), std::string("filler-") + writer);
        defaults.synchronize();
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "exit") == 0) return exitWhileJobsRun(std::atoi(argv[2]));
    if (argc == 4 && std::strcmp(argv[1], "save-loop") == 0) return saveLoop(argv[2], argv[3]);
    return 2;
}
