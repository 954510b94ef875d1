// Links from callers and desktop names from the environment: whatever they
// hold, parsing and mapping them must neither crash nor start anything that
// is not a single argument vector of a known program.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zdr/permissions/trust.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const auto split = input.find('\0');
    const std::string url = input.substr(0, split);
    const std::string desktop = split == std::string::npos ? "GNOME" : input.substr(split + 1);
    (void)zdr::Trust::parsesAsURL(url);
    if (auto command = zdr::LinuxWorkspace::commandFor(url, desktop)) {
        const auto& program = (*command)[0];
        if (program != "xdg-open" && program != "gnome-control-center" &&
            program != "systemsettings") {
            std::abort();
        }
        if (command->size() != 2) std::abort();
        if (program == "xdg-open" && (*command)[1] != url) std::abort();
    }
    return 0;
}
