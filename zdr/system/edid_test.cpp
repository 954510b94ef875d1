#include "zdr/system/edid.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "zdr/system/edid_test_support.h"

namespace zdr {
namespace {

using testing::EdidBuilder;

TEST(EdidTest, ReadsTheBaseBlockFields) {
    const auto bytes = EdidBuilder()
                           .manufacturer("DEL")
                           .productCode(0xA0C5)
                           .serialNumber(0x4C4B4A31)
                           .manufactured(12, 2021)
                           .sizeCentimetres(60, 34)
                           .sRGBDefault(true)
                           .name("DELL U2720Q")
                           .serialText("ABC123")
                           .build();
    std::string error;
    const auto info = parseEdid(bytes, &error);
    ASSERT_TRUE(info) << error;
    EXPECT_EQ(info->manufacturer, "DEL");
    EXPECT_EQ(info->vendorNumber, 0x10AC);  // Dell's PNP ID, as macOS reports it too
    EXPECT_EQ(info->productCode, 0xA0C5);
    EXPECT_EQ(info->serialNumber, 0x4C4B4A31u);
    EXPECT_EQ(info->weekOfManufacture, 12);
    EXPECT_EQ(info->yearOfManufacture, 2021);
    EXPECT_EQ(info->version, 1);
    EXPECT_EQ(info->revision, 4);
    EXPECT_TRUE(info->digitalInput);
    EXPECT_EQ(info->widthCentimetres, 60);
    EXPECT_EQ(info->heightCentimetres, 34);
    EXPECT_TRUE(info->sRGBIsDefault);
    EXPECT_EQ(info->colorSpaceName(), "sRGB");
    EXPECT_EQ(info->displayName, "DELL U2720Q");
    EXPECT_EQ(info->serialNumberString, "ABC123");
}

TEST(EdidTest, WithoutSRGBOrDescriptorsTheColourSpaceIsUnknown) {
    const auto info = parseEdid(EdidBuilder().manufacturer("GSM").build());
    ASSERT_TRUE(info);
    EXPECT_FALSE(info->sRGBIsDefault);
    EXPECT_EQ(info->colorSpaceName(), "<unknown colorspace>");
    EXPECT_EQ(info->displayName, std::nullopt);
    EXPECT_EQ(info->serialNumber, 0u);
}

TEST(EdidTest, RefusesShortWrongHeaderAndBadChecksum) {
    const auto good = EdidBuilder().manufacturer("SAM").serialNumber(7).build();
    std::string error;
    EXPECT_FALSE(parseEdid(std::span(good.data(), 127), &error));
    EXPECT_NE(error.find("127 bytes"), std::string::npos) << error;
    EXPECT_FALSE(parseEdid({}, &error));

    auto corrupt = good;
    corrupt[12] ^= 0x01;
    EXPECT_FALSE(parseEdid(corrupt, &error));
    EXPECT_NE(error.find("checksum"), std::string::npos) << error;

    auto header = good;
    header[0] = 0x01;
    header[127] = static_cast<std::uint8_t>(header[127] - 1);  // checksum still right
    EXPECT_FALSE(parseEdid(header, &error));
    EXPECT_NE(error.find("header"), std::string::npos) << error;

    // Extension blocks after the base block do not matter, even broken ones.
    auto extended = good;
    extended.resize(256, 0xAB);
    EXPECT_TRUE(parseEdid(extended));
}

TEST(EdidTest, HostileDescriptorTextIsKeptPrintable) {
    auto bytes = EdidBuilder()
                     .name(std::string("A\x01\x7f"
                                       "B\xff",
                                       5))
                     .build();
    const auto info = parseEdid(bytes);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->displayName, "A??B?");
}

// Cross-check with the edid-decode tool on blocks with varied fields.
std::optional<std::string> edidDecode(const std::vector<std::uint8_t>& bytes) {
    const auto path = std::filesystem::temp_directory_path() /
                      ("zdr-edid-" + std::to_string(::getpid()) + ".bin");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    const std::string command = "edid-decode '" + path.string() + "' 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return std::nullopt;
    std::string output;
    char buffer[4096];
    while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
    ::pclose(pipe);
    std::filesystem::remove(path);
    return output;
}

// The text after `prefix` up to the first of `stops`.
std::string field(const std::string& text, const std::string& prefix,
                  const std::string& stops = "\n") {
    const auto start = text.find(prefix);
    if (start == std::string::npos) return {};
    const auto from = start + prefix.size();
    return text.substr(from, text.find_first_of(stops, from) - from);
}

TEST(EdidTest, AgreesWithEdidDecode) {
    if (::access("/usr/bin/edid-decode", X_OK) != 0) {
        GTEST_SKIP() << "edid-decode is not installed (Debian package edid-decode)";
    }
    std::mt19937 rng(20240601);
    const char* makers[] = {"DEL", "GSM", "SAM", "AUS", "LEN", "BNQ", "ZZZ"};
    for (int i = 0; i < 8; ++i) {
        const std::string maker = makers[rng() % 7];
        const auto product = static_cast<std::uint16_t>(rng());
        const auto serial = static_cast<std::uint32_t>(rng() | 1u);
        const int week = 1 + int(rng() % 52), year = 1995 + int(rng() % 30);
        const bool srgb = rng() % 2 == 0;
        const std::string name = "Panel " + std::to_string(rng() % 1000);
        const auto bytes = EdidBuilder()
                               .manufacturer(maker)
                               .productCode(product)
                               .serialNumber(serial)
                               .manufactured(week, year)
                               .sRGBDefault(srgb)
                               .name(name)
                               .build();
        const auto info = parseEdid(bytes);
        ASSERT_TRUE(info);
        const auto decoded = edidDecode(bytes);
        ASSERT_TRUE(decoded);
        SCOPED_TRACE(*decoded);
        EXPECT_EQ(field(*decoded, "Manufacturer: "), info->manufacturer);
        EXPECT_EQ(field(*decoded, "Model: "), std::to_string(info->productCode));
        EXPECT_EQ(field(*decoded, "  Serial Number: "), std::to_string(info->serialNumber));
        EXPECT_EQ(field(*decoded, "Made in: week ", " "), std::to_string(info->weekOfManufacture));
        EXPECT_EQ(field(field(*decoded, "Made in: week "), " of "),
                  std::to_string(info->yearOfManufacture));
        EXPECT_EQ(field(*decoded, "Display Product Name: '", "'"), info->displayName.value());
        EXPECT_EQ(decoded->find("Default (sRGB) color space is primary") != std::string::npos,
                  info->sRGBIsDefault);
    }
    // Both see a broken checksum.
    auto broken = EdidBuilder().manufacturer("DEL").build();
    broken[20] ^= 0x10;
    EXPECT_FALSE(parseEdid(broken));
    EXPECT_NE(edidDecode(broken)->find("should be"), std::string::npos);
}

}  // namespace
}  // namespace zdr
