// UUID: random (version 4) identifiers with the upper-case text form
// 8-4-4-4-12, and parsing of that form in either case.
//
// Thread safety: value type; UUID::random() may be called from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zdr {

class UUID {
 public:
    UUID() = default;  // all zero
    explicit UUID(const std::array<std::uint8_t, 16>& bytes) : bytes_(bytes) {}

    static UUID random();
    static std::optional<UUID> fromString(std::string_view text);

    std::string uuidString() const;
    const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }

    auto operator<=>(const UUID&) const = default;

 private:
    std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace zdr
