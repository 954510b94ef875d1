// Serial: the machine's hardware serial number, read once and cached.
//
// On Linux the number comes from the firmware table
// (/sys/class/dmi/id/product_serial, readable by root only) and, failing that,
// from systemd-hostnamed over the system bus; a machine where neither answers
// has none. The value is trimmed of leading and trailing whitespace; an empty
// value counts as none. A value, once found, is cached for the life of the
// process (the first one cached wins); "none" is not cached, so a later call
// tries again.
//
// SerialNumberSource is the same logic over sources the caller chooses (a file,
// a function), for tests and for hosts with their own machine identifier.
//
// Threads: callable from any thread. Sources are read without holding a lock,
// so two first callers may both read; they get the same value.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zdr {

class SerialNumberSource {
 public:
    /// One way to read the number: nullopt when it has none.
    using Reader = std::function<std::optional<std::string>()>;

    explicit SerialNumberSource(std::vector<Reader> readers);

    /// The cached value, else the first reader whose trimmed answer is not
    /// empty (then cached), else nullopt.
    std::optional<std::string> serialNumber();

    /// A reader of the whole file at `path`; nullopt when it cannot be read.
    static Reader fileReader(std::string path);
    /// `text` without leading and trailing whitespace and newlines.
    static std::string trimmed(std::string_view text);

 private:
    std::vector<Reader> readers_;
    std::mutex mutex_;
    std::optional<std::string> cached_;
};

class Serial {
 public:
    /// The machine's serial number, or nullopt (see the header comment).
    static std::optional<std::string> serialNumber();

    /// The readers serialNumber() uses, in order: the firmware table file, then
    /// systemd-hostnamed.
    static std::vector<SerialNumberSource::Reader> defaultReaders();
    /// systemd-hostnamed's HardwareSerial over the system bus, with a short
    /// timeout; nullopt on any failure.
    static std::optional<std::string> readFromHostnamed();
};

}  // namespace zdr
