// Screens from an X server through RandR.
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>

#include "zdr/logging/shared2.h"
#include "zdr/system/linux_screen_provider.h"

namespace zdr {

namespace {

// Xlib's error handlers are process-wide. Ours is installed for the length of
// a query, under this lock, and answers only for the connection the query
// thread opened; anything else goes to the handler that was there before.
std::mutex gHandlerMutex;
thread_local Display* tQueryDisplay = nullptr;
thread_local bool tIOFailed = false;
XErrorHandler gPreviousErrorHandler = nullptr;
XIOErrorHandler gPreviousIOErrorHandler = nullptr;

int onXError(Display* display, XErrorEvent* event) {
    if (display == tQueryDisplay) {
        char text[128] = {};
        XGetErrorText(display, event->error_code, text, sizeof text);
        Shared2::geometry()->warning("X server refused a screen query (request {}.{}): {}",
                                     int(event->request_code), int(event->minor_code), text);
        return 0;
    }
    return gPreviousErrorHandler ? gPreviousErrorHandler(display, event) : 0;
}

int onXIOError(Display* display) {
    if (display == tQueryDisplay) {
        tIOFailed = true;
        return 0;
    }
    return gPreviousIOErrorHandler ? gPreviousIOErrorHandler(display) : 0;
}

// Called instead of exit() when our connection breaks: returning lets the
// query unwind with what it has.
void onXIOErrorExit(Display*, void*) { tIOFailed = true; }

class HandlerScope {
 public:
    explicit HandlerScope(Display* display) : lock_(gHandlerMutex) {
        tQueryDisplay = display;
        tIOFailed = false;
        gPreviousErrorHandler = XSetErrorHandler(onXError);
        gPreviousIOErrorHandler = XSetIOErrorHandler(onXIOError);
        XSetIOErrorExitHandler(display, onXIOErrorExit, nullptr);
    }
    ~HandlerScope() {
        XSetErrorHandler(gPreviousErrorHandler);
        XSetIOErrorHandler(gPreviousIOErrorHandler);
        tQueryDisplay = nullptr;
    }

 private:
    std::lock_guard<std::mutex> lock_;
};

std::optional<EdidInfo> outputEdid(Display* display, RROutput output, Atom edidAtom,
                                   const std::string& outputName) {
    Atom type = None;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    const int rc = XRRGetOutputProperty(display, output, edidAtom, 0, 256, False, False,
                                        AnyPropertyType, &type, &format, &count, &after, &data);
    std::optional<EdidInfo> info;
    if (rc == Success && data && type == XA_INTEGER && format == 8 && count > 0) {
        std::string error;
        info = parseEdid(std::span<const std::uint8_t>(data, count), &error);
        if (!info) {
            Shared2::geometry()->warning("Ignoring the EDID of output {}: {}", outputName, error);
        }
    }
    if (data) XFree(data);
    return info;
}

std::string atomName(Display* display, Atom atom) {
    if (atom == None) return {};
    char* name = XGetAtomName(display, atom);
    if (!name) return {};
    std::string out(name);
    XFree(name);
    return out;
}

}  // namespace

X11ScreenProvider::X11ScreenProvider(std::optional<std::string> displayName)
    : displayName_(std::move(displayName)) {}

std::vector<DisplayRecord> X11ScreenProvider::displays() {
    return query().value_or(std::vector<DisplayRecord>{});
}

std::optional<std::vector<DisplayRecord>> X11ScreenProvider::query() {
    const char* name = displayName_ ? displayName_->c_str() : nullptr;
    if (!name && !std::getenv("DISPLAY")) return std::nullopt;
    Display* display = XOpenDisplay(name);
    if (!display) {
        Shared2::geometry()->warning("Could not open the X display {}",
                                     name ? name : std::getenv("DISPLAY"));
        return std::nullopt;
    }
    std::vector<DisplayRecord> records;
    {
        HandlerScope scope(display);
        int eventBase = 0, errorBase = 0, major = 0, minor = 0;
        const bool monitors = XRRQueryExtension(display, &eventBase, &errorBase) &&
                              XRRQueryVersion(display, &major, &minor) &&
                              (major > 1 || (major == 1 && minor >= 5));
        const Atom edidAtom = XInternAtom(display, RR_PROPERTY_RANDR_EDID, False);
        for (int s = 0; s < ScreenCount(display) && !tIOFailed; ++s) {
            const Window root = RootWindow(display, s);
            if (!monitors) {
                DisplayRecord record;
                record.displayID = static_cast<std::uint32_t>(s + 1);
                record.frame = {0, 0, double(DisplayWidth(display, s)),
                                double(DisplayHeight(display, s))};
                record.outputName = "screen " + std::to_string(s);
                records.push_back(std::move(record));
                continue;
            }
            int count = 0;
            XRRMonitorInfo* list = XRRGetMonitors(display, root, True, &count);
            if (!list) continue;
            std::vector<DisplayRecord> found;
            std::vector<bool> primary;
            for (int m = 0; m < count && !tIOFailed; ++m) {
                const XRRMonitorInfo& monitor = list[m];
                DisplayRecord record;
                record.frame = {double(monitor.x), double(monitor.y), double(monitor.width),
                                double(monitor.height)};
                record.outputName = atomName(display, monitor.name);
                if (monitor.noutput > 0 && monitor.outputs) {
                    record.displayID = static_cast<std::uint32_t>(monitor.outputs[0]);
                    record.edid =
                        outputEdid(display, monitor.outputs[0], edidAtom, record.outputName);
                } else {
                    record.displayID = static_cast<std::uint32_t>(monitor.name);
                }
                found.push_back(std::move(record));
                primary.push_back(monitor.primary != 0);
            }
            XRRFreeMonitors(list);
            // The primary screen comes first, the others keep the server's order.
            for (std::size_t i = 0; i < found.size(); ++i) {
                if (primary[i]) records.push_back(found[i]);
            }
            for (std::size_t i = 0; i < found.size(); ++i) {
                if (!primary[i]) records.push_back(found[i]);
            }
        }
        if (tIOFailed) {
            Shared2::geometry()->warning(
                "The X server went away while its screens were read; {} screens were read",
                records.size());
        }
    }
    XCloseDisplay(display);
    return records;
}

}  // namespace zdr
