#include "zdr/timing/random_label.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <random>

namespace zdr::detail {

std::string randomLabelNumber() {
    // One engine per thread, seeded from the system's random source: locks are
    // created from many threads and a shared engine would need a lock of its own.
    thread_local std::mt19937 engine{std::random_device{}()};
    std::uniform_int_distribution<int> distribution(0, 100000);
    return std::to_string(distribution(engine));
}

std::string typeDisplayName(const std::type_info& type) {
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
    return status == 0 && demangled ? std::string(demangled.get()) : std::string(type.name());
}

}  // namespace zdr::detail
