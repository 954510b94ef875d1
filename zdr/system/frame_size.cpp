#include "zdr/system/frame_size.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <fmt/format.h>

namespace zdr {

namespace {

// Prints a double the way the original platform prints one inside a size:
// shortest round-trip digits, always with a fraction part. (Built in a
// buffer: GCC 12 at -O3 warns falsely about appending to a short string.)
std::string printDouble(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    char buffer[64];
    auto end = fmt::format_to_n(buffer, sizeof buffer - 3, "{}", value).out;
    std::string_view digits(buffer, static_cast<std::size_t>(end - buffer));
    if (digits.find_first_of(".e") == std::string_view::npos) {
        *end++ = '.';
        *end++ = '0';
    }
    return std::string(buffer, static_cast<std::size_t>(end - buffer));
}

std::string formatWithAccuracy(double value, int fractionDigits) {
    if (std::isnan(value)) return "NaN";
    if (std::isinf(value)) return value < 0 ? "-∞" : "∞";
    fractionDigits = std::clamp(fractionDigits, 0, 17);
    // printf rounds the exact binary value and breaks ties to even, as a
    // decimal formatter with a maximum digit count does.
    char buffer[400];
    int n = std::snprintf(buffer, sizeof buffer, "%.*f", fractionDigits, value);
    if (n <= 0) return "0";
    std::size_t length = std::min(static_cast<std::size_t>(n), sizeof buffer - 1);
    if (std::memchr(buffer, '.', length) != nullptr) {
        while (buffer[length - 1] == '0') --length;
        if (buffer[length - 1] == '.') --length;
    }
    if (length == 2 && buffer[0] == '-' && buffer[1] == '0') return "0";
    return std::string(buffer, length);
}

}  // namespace

const std::vector<DescribedFrameSize>& DescribedFrameSize::humanReadableFrameSizes() {
    // Kept exactly as the applications have always shown them, 720x576 under
    // "Half HD" included.
    static const auto* table = new std::vector<DescribedFrameSize>{
        {"Half HD", {720, 576}},    {"High Definition", {1280, 720}}, {"Full HD", {1920, 1080}},
        {"Quad HD", {2560, 1440}},  {"2K Video", {2048, 1080}},       {"4K Video", {3840, 2160}},
        {"8K Video", {7680, 4320}},
    };
    return *table;
}

const std::vector<Size>& DescribedFrameSize::humanReadableSizes() {
    static const auto* sizes = [] {
        auto* result = new std::vector<Size>;
        for (const auto& entry : humanReadableFrameSizes()) result->push_back(entry.size);
        return result;
    }();
    return *sizes;
}

const DescribedFrameSize& DescribedFrameSize::defaultSize() { return humanReadableFrameSizes()[1]; }

DescribedFrameSize DescribedFrameSize::sizeWithVertical(
    long height, std::optional<DescribedFrameSize> fallback) {
    for (const auto& entry : humanReadableFrameSizes()) {
        if (static_cast<long>(entry.size.height) == height) return entry;
    }
    if (fallback) return std::move(*fallback);
    return defaultSize();
}

std::string DescribedFrameSize::id() const { return name + ", " + sizeDescription(size); }

std::string DescribedFrameSize::description() const {
    // The table holds whole numbers; a size made by hand is truncated the
    // same way, and one that is not finite prints as 0.
    auto whole = [](double v) {
        return std::isfinite(v) && std::fabs(v) < 9.2e18 ? static_cast<long long>(v) : 0LL;
    };
    return fmt::format("{} - {}x{}", name, whole(size.width), whole(size.height));
}

nlohmann::json DescribedFrameSize::toJSON() const {
    return nlohmann::json{{"name", name}, {"size", {size.width, size.height}}};
}

std::optional<DescribedFrameSize> DescribedFrameSize::fromJSON(const nlohmann::json& json) {
    if (!json.is_object()) return std::nullopt;
    auto name = json.find("name");
    auto size = json.find("size");
    if (name == json.end() || size == json.end() || !name->is_string() || !size->is_array() ||
        size->size() != 2 || !(*size)[0].is_number() || !(*size)[1].is_number()) {
        return std::nullopt;
    }
    return DescribedFrameSize{name->get<std::string>(),
                              {(*size)[0].get<double>(), (*size)[1].get<double>()}};
}

std::string sizeDescription(Size size) {
    return fmt::format("({}, {})", printDouble(size.width), printDouble(size.height));
}

std::optional<DescribedFrameSize> closestDescribedFrameSize(Size size) {
    for (const auto& entry : DescribedFrameSize::humanReadableFrameSizes()) {
        if (std::fabs(entry.size.width - size.width) <= 1.0 &&
            std::fabs(entry.size.height - size.height) <= 1.0) {
            return entry;
        }
    }
    return std::nullopt;
}

std::string humanReadableString(Size size) {
    if (auto entry = closestDescribedFrameSize(size)) return entry->name;
    return sizeDescription(size);
}

std::string descriptionWithAccuracy(Size size, int fractionDigits) {
    return formatWithAccuracy(size.width, fractionDigits) + "x" +
           formatWithAccuracy(size.height, fractionDigits);
}

std::string descriptionAsPoints(Size size) { return descriptionWithAccuracy(size, 0); }

Size halfTheDifference(Size a, Size b) {
    return {(a.width - b.width) / 2.0, (a.height - b.height) / 2.0};
}
Size add(Size a, Size b) { return {a.width + b.width, a.height + b.height}; }
Size subtract(Size a, Size b) { return {a.width - b.width, a.height - b.height}; }
Size multiply(Size a, Size b) { return {a.width * b.width, a.height * b.height}; }
Size multiply(Size a, double factor) { return {a.width * factor, a.height * factor}; }

}  // namespace zdr
