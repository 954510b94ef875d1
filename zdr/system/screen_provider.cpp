#include "zdr/system/screen_provider.h"

#include "zdr/system/linux_screen_provider.h"

namespace zdr {

namespace {

struct Installed {
    std::mutex mutex;
    std::shared_ptr<ScreenProvider> provider;
};
Installed& installed() {
    static auto* instance = new Installed();  // lives to the end of the process
    return *instance;
}

}  // namespace

std::vector<DisplayRecord> ScreenProvider::readDisplays() {
    // One reader at a time: a provider may hold one connection to its server.
    std::lock_guard lock(mutex_);
    latest_ = displays();
    return latest_;
}

std::vector<std::shared_ptr<Screen>> ScreenProvider::screens() {
    const auto records = readDisplays();
    std::weak_ptr<ScreenProvider> self = weak_from_this();
    std::vector<std::shared_ptr<Screen>> list;
    list.reserve(records.size());
    for (const auto& record : records) {
        Dictionary description;
        if (record.displayID) description.emplace(kNSScreenNumber, *record.displayID);
        if (!record.outputName.empty())
            description.emplace(kZDRScreenOutputName, record.outputName);
        std::optional<std::string> colorSpace;
        if (record.edid) colorSpace = record.edid->colorSpaceName();
        list.push_back(
            std::make_shared<Screen>(std::move(description), record.frame, colorSpace, self));
    }
    return list;
}

std::optional<EdidInfo> ScreenProvider::edidFor(std::uint32_t displayID) {
    auto find = [&](const std::vector<DisplayRecord>& records) -> const DisplayRecord* {
        for (const auto& r : records) {
            if (r.displayID == displayID) return &r;
        }
        return nullptr;
    };
    {
        std::lock_guard lock(mutex_);
        if (const auto* record = find(latest_)) return record->edid;
    }
    const auto fresh = readDisplays();
    const auto* record = find(fresh);
    return record ? record->edid : std::nullopt;
}

std::uint32_t ScreenProvider::displayModelNumber(std::uint32_t displayID) {
    auto edid = edidFor(displayID);
    return edid ? edid->productCode : 0;
}

std::uint32_t ScreenProvider::displaySerialNumber(std::uint32_t displayID) {
    auto edid = edidFor(displayID);
    return edid ? edid->serialNumber : 0;
}

std::uint32_t ScreenProvider::displayVendorNumber(std::uint32_t displayID) {
    auto edid = edidFor(displayID);
    return edid ? edid->vendorNumber : 0;
}

std::shared_ptr<ScreenProvider> ScreenProvider::current() {
    auto& i = installed();
    std::lock_guard lock(i.mutex);
    if (!i.provider) i.provider = std::make_shared<LinuxScreenProvider>();
    return i.provider;
}

void ScreenProvider::install(std::shared_ptr<ScreenProvider> provider) {
    auto& i = installed();
    std::lock_guard lock(i.mutex);
    i.provider = std::move(provider);
}

FixedScreenProvider::FixedScreenProvider(std::vector<DisplayRecord> displays)
    : displays_(std::move(displays)) {}

void FixedScreenProvider::setDisplays(std::vector<DisplayRecord> displays) {
    std::lock_guard lock(mutex_);
    displays_ = std::move(displays);
}

std::vector<DisplayRecord> FixedScreenProvider::displays() {
    std::lock_guard lock(mutex_);
    return displays_;
}

}  // namespace zdr
