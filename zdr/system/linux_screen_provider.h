// The Linux screen providers.
//
// X11ScreenProvider asks an X server through RandR: each monitor (RandR 1.5;
// the outputs that drive a CRTC, as the server groups them) is a screen, the
// primary first, then in the server's order, over every X screen of the
// display. The display ID is the monitor's first RandR output (stable while
// the server runs); a monitor without an output, such as one a user defined
// with `xrandr --setmonitor ... none`, is identified by its name's atom. The
// EDID is the output's "EDID" property. A server without RandR 1.5 gives one
// screen per X screen, the size of its root window.
//
// DrmScreenProvider reads the kernel's connectors under /sys/class/drm: each
// connected one is a screen, in name order, identified by its connector ID,
// with the EDID the kernel read. Without a display server there is no desktop
// layout: a screen's frame is its preferred mode's size at the origin (zero
// when the kernel lists no mode).
//
// LinuxScreenProvider uses X11 when the display opens ($DISPLAY, or the name
// given), and the DRM connectors otherwise (a Wayland session without
// Xwayland, a console).
//
// A server that refuses the connection or goes away mid-query, and EDIDs that
// are short, corrupt or hostile, are logged and give what could be read
// (fewer screens, or a screen without EDID numbers); they never stop the
// process. While the X provider queries, Xlib's process-wide error handlers
// are its own, answering for the querying thread only; errors on the host's
// connections meanwhile go on to the host's handlers.
//
// Threads: any; each query opens its own connection.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "zdr/system/screen_provider.h"

namespace zdr {

class X11ScreenProvider : public ScreenProvider {
 public:
    /// `displayName` as XOpenDisplay takes it (":1"); none for $DISPLAY.
    explicit X11ScreenProvider(std::optional<std::string> displayName = std::nullopt);
    /// The displays, or none when the X display cannot be opened.
    std::optional<std::vector<DisplayRecord>> query();
    /// query(), or no displays when the display cannot be opened.
    std::vector<DisplayRecord> displays() override;

 private:
    std::optional<std::string> displayName_;
};

class DrmScreenProvider : public ScreenProvider {
 public:
    explicit DrmScreenProvider(std::string drmFolder = "/sys/class/drm");

    /// The connected connectors now.
    std::vector<DisplayRecord> displays() override;

 private:
    std::string folder_;
};

class LinuxScreenProvider : public ScreenProvider {
 public:
    LinuxScreenProvider();

 protected:
    std::vector<DisplayRecord> displays() override;

 private:
    std::shared_ptr<X11ScreenProvider> x11_;
    std::shared_ptr<DrmScreenProvider> drm_;
};

}  // namespace zdr
