// Linux sources of the hardware serial number.
#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdlib>

#include "zdr/timing/serial.h"

namespace zdr {

namespace {
constexpr const char* kFirmwareSerialPath = "/sys/class/dmi/id/product_serial";
constexpr const char* kHostnameService = "org.freedesktop.hostname1";
constexpr const char* kHostnamePath = "/org/freedesktop/hostname1";
constexpr const char* kHostnameInterface = "org.freedesktop.hostname1";
// hostnamed is started on demand; give it time to start, but never hang a
// caller for the bus library's default of 25 seconds.
constexpr std::uint64_t kBusTimeoutMicroseconds = 2'000'000;
}  // namespace

std::vector<SerialNumberSource::Reader> Serial::defaultReaders() {
    return {SerialNumberSource::fileReader(kFirmwareSerialPath), &Serial::readFromHostnamed};
}

std::optional<std::string> Serial::readFromHostnamed() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0 || !bus) return std::nullopt;
    sd_bus_set_method_call_timeout(bus, kBusTimeoutMicroseconds);

    std::optional<std::string> result;
    // Newer hostnamed versions offer the serial as a property; the versions
    // before that answer it through a method call.
    sd_bus_error error = SD_BUS_ERROR_NULL;
    char* value = nullptr;
    if (sd_bus_get_property_string(bus, kHostnameService, kHostnamePath, kHostnameInterface,
                                   "HardwareSerial", &error, &value) >= 0 &&
        value) {
        result = std::string(value);
    }
    std::free(value);
    sd_bus_error_free(&error);

    if (!result || result->empty()) {
        sd_bus_error callError = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        if (sd_bus_call_method(bus, kHostnameService, kHostnamePath, kHostnameInterface,
                               "GetHardwareSerial", &callError, &reply, "") >= 0) {
            const char* text = nullptr;
            if (sd_bus_message_read(reply, "s", &text) >= 0 && text) result = std::string(text);
        }
        sd_bus_message_unref(reply);
        sd_bus_error_free(&callError);
    }
    sd_bus_flush_close_unref(bus);
    return result;
}

}  // namespace zdr
