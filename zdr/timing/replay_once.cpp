#include "zdr/timing/replay_once.h"

#include <cxxabi.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "zdr/timing/detail/fatal_error.h"

namespace zdr::detail {

std::int64_t replayOnceUptimeNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double replayOnceElapsedNanoseconds(std::int64_t startNanoseconds) {
    const std::int64_t now = replayOnceUptimeNanoseconds();
    // The monotonic clock cannot go back; if it ever did, the elapsed time
    // would be meaningless and the statistics wrong without notice.
    if (now < startNanoseconds) fatalError("ReplayOnce: the monotonic clock went backwards");
    return static_cast<double>(now - startNanoseconds);
}

void replayOnceTimidSkip(const std::optional<std::string>& identifier, bool isValue,
                         const std::string& description) {
    // Written to standard output on purpose: this is the one place where the
    // library tells a developer directly that a result was thrown away.
    std::string line = "ReplayOnce(Timid) is skipping [" + identifier.value_or("<unknown>") +
                       "], because it cannot get the lock. " +
                       (isValue ? "Did not send: " : "Did not execute: ") + description + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

std::string demangledTypeName(const std::type_info& type) {
    int status = 0;
    char* name = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    std::string out = (status == 0 && name != nullptr) ? name : type.name();
    std::free(name);
    return out;
}

}  // namespace zdr::detail
