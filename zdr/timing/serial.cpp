#include "zdr/timing/serial.h"

#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

namespace zdr {

SerialNumberSource::SerialNumberSource(std::vector<Reader> readers)
    : readers_(std::move(readers)) {}

std::optional<std::string> SerialNumberSource::serialNumber() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (cached_) return cached_;
    }
    // Readers may block (a bus call): they run without the lock, so two first
    // callers can both read; the first to store wins and both answer it.
    for (const auto& reader : readers_) {
        if (!reader) continue;
        std::optional<std::string> raw = reader();
        if (!raw) continue;
        std::string value = trimmed(*raw);
        if (value.empty()) continue;
        std::lock_guard<std::mutex> guard(mutex_);
        if (!cached_) cached_ = std::move(value);
        return cached_;
    }
    return std::nullopt;
}

SerialNumberSource::Reader SerialNumberSource::fileReader(std::string path) {
    return [path = std::move(path)]() -> std::optional<std::string> {
        std::ifstream in(path, std::ios::binary);
        if (!in) return std::nullopt;
        std::ostringstream contents;
        contents << in.rdbuf();
        if (in.bad()) return std::nullopt;
        return contents.str();
    };
}

std::string SerialNumberSource::trimmed(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\n\r\v\f";
    const auto first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(kBlanks);
    return std::string(text.substr(first, last - first + 1));
}

std::optional<std::string> Serial::serialNumber() {
    // Process-wide and never destroyed, so late callers during exit are safe.
    static SerialNumberSource* source = new SerialNumberSource(defaultReaders());
    return source->serialNumber();
}

}  // namespace zdr
