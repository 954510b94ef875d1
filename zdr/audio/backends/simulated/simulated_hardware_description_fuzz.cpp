// Fuzzes the JSON description of a simulated machine: any text is either
// refused with a message or gives a description that is written out and read
// back the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zdr/audio/backends/simulated/simulated_hardware_description.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string error;
    auto description = zdr::hal::parseHardwareDescription(text, &error);
    if (!description) {
        if (error.empty()) std::abort();
        return 0;
    }
    const std::string written = zdr::hal::hardwareDescriptionToJSON(*description);
    std::string again;
    auto reread = zdr::hal::parseHardwareDescription(written, &again);
    if (!reread || zdr::hal::hardwareDescriptionToJSON(*reread) != written) std::abort();
    return 0;
}
