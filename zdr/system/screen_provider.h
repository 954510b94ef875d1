// ScreenProvider: where the list of screens and each display's model, serial
// and vendor numbers come from.
//
// A provider answers displays(), the attached displays in screen order (the
// primary first); the base class turns them into Screen objects and answers
// the display numbers from the latest list. The installed provider is the
// Linux one (linux_screen_provider.h) unless the host installs another, such
// as a FixedScreenProvider filled from its own toolkit's screen list.
//
// Threads: every member may be called from any thread; displays() of one
// provider is never called twice at once.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zdr/system/edid.h"
#include "zdr/system/screen_info.h"

namespace zdr {

/// One attached display as a provider sees it.
struct DisplayRecord {
    /// The display ID; none makes a screen without "NSScreenNumber" (see
    /// screen_info.h).
    std::optional<std::uint32_t> displayID;
    Rect frame;
    std::string outputName;        // "HDMI-1"; may be empty
    std::optional<EdidInfo> edid;  // none when the display gave none or a broken one
};

class ScreenProvider : public std::enable_shared_from_this<ScreenProvider> {
 public:
    virtual ~ScreenProvider() = default;

    /// The displays now, in screen order.
    std::vector<std::shared_ptr<Screen>> screens();

    /// The display's numbers from its EDID (0 when it has none or the display
    /// is unknown); a display not in the latest list makes the list be read
    /// again once.
    std::uint32_t displayModelNumber(std::uint32_t displayID);
    std::uint32_t displaySerialNumber(std::uint32_t displayID);
    std::uint32_t displayVendorNumber(std::uint32_t displayID);

    /// The installed provider (the Linux one by default).
    static std::shared_ptr<ScreenProvider> current();
    /// Installs `provider`; null restores the default.
    static void install(std::shared_ptr<ScreenProvider> provider);

 protected:
    virtual std::vector<DisplayRecord> displays() = 0;

 private:
    std::optional<EdidInfo> edidFor(std::uint32_t displayID);
    std::vector<DisplayRecord> readDisplays();

    std::mutex mutex_;
    std::vector<DisplayRecord> latest_;
};

/// A provider over a list the host (or a test) keeps up to date.
class FixedScreenProvider : public ScreenProvider {
 public:
    explicit FixedScreenProvider(std::vector<DisplayRecord> displays = {});
    void setDisplays(std::vector<DisplayRecord> displays);

 protected:
    std::vector<DisplayRecord> displays() override;

 private:
    std::mutex mutex_;
    std::vector<DisplayRecord> displays_;
};

}  // namespace zdr
