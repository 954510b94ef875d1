// The DRM connector provider and the provider that picks X11 or DRM.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "zdr/logging/shared2.h"
#include "zdr/system/linux_screen_provider.h"

namespace zdr {

namespace fs = std::filesystem;

namespace {

std::optional<std::string> readFile(const fs::path& path, std::size_t limit) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::string data(limit, '\0');
    in.read(data.data(), std::streamsize(limit));
    data.resize(static_cast<std::size_t>(in.gcount()));
    return data;
}

std::string firstLine(const std::string& text) {
    std::string line = text.substr(0, text.find('\n'));
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    return line;
}

}  // namespace

DrmScreenProvider::DrmScreenProvider(std::string drmFolder) : folder_(std::move(drmFolder)) {}

std::vector<DisplayRecord> DrmScreenProvider::displays() {
    std::vector<fs::path> connectors;
    std::error_code ec;
    for (fs::directory_iterator it(folder_, ec); !ec && it != fs::directory_iterator();
         it.increment(ec)) {
        // Connectors are named card<N>-<type>-<index>; card<N> itself is the GPU.
        const std::string name = it->path().filename().string();
        if (name.rfind("card", 0) == 0 && name.find('-') != std::string::npos) {
            connectors.push_back(it->path());
        }
    }
    std::sort(connectors.begin(), connectors.end());
    std::vector<DisplayRecord> records;
    for (std::size_t i = 0; i < connectors.size(); ++i) {
        const fs::path& connector = connectors[i];
        const auto status = readFile(connector / "status", 64);
        if (!status || firstLine(*status) != "connected") continue;
        DisplayRecord record;
        const std::string name = connector.filename().string();
        record.outputName = name.substr(name.find('-') + 1);
        if (auto id = readFile(connector / "connector_id", 32)) {
            try {
                const unsigned long value = std::stoul(firstLine(*id));
                if (value <= 0xFFFFFFFFul) record.displayID = static_cast<std::uint32_t>(value);
            } catch (const std::exception&) {
                Shared2::geometry()->warning("{}: connector_id is not a number", name);
            }
        }
        // Older kernels have no connector_id; the place in the list stands in.
        if (!record.displayID) record.displayID = static_cast<std::uint32_t>(i + 1);
        if (auto modes = readFile(connector / "modes", 4096)) {
            const std::string mode = firstLine(*modes);
            unsigned width = 0, height = 0;
            if (std::sscanf(mode.c_str(), "%ux%u", &width, &height) == 2) {
                record.frame = {0, 0, double(width), double(height)};
            }
        }
        if (auto edid = readFile(connector / "edid", 32768); edid && !edid->empty()) {
            std::string error;
            record.edid = parseEdid(
                std::span(reinterpret_cast<const std::uint8_t*>(edid->data()), edid->size()),
                &error);
            if (!record.edid) {
                Shared2::geometry()->warning("Ignoring the EDID of {}: {}", name, error);
            }
        }
        records.push_back(std::move(record));
    }
    return records;
}

LinuxScreenProvider::LinuxScreenProvider()
    : x11_(std::make_shared<X11ScreenProvider>()), drm_(std::make_shared<DrmScreenProvider>()) {}

std::vector<DisplayRecord> LinuxScreenProvider::displays() {
    if (auto fromX = x11_->query()) return *fromX;
    return drm_->displays();
}

}  // namespace zdr
