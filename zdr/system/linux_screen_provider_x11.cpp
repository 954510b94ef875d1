// Screens from an X server through RandR.
//
// Xlib ends the process when a connection breaks: its I/O error handler may
// not return. A library must not let a display server that goes away stop its
// host, so the query runs between setjmp and our I/O error handler's longjmp.
// Only plain data lives in the frames that the jump leaves (rawQuery and
// collect use no objects with destructors); what Xlib had allocated for the
// dead connection is kept aside (see abandonedDisplays), and its socket is
// closed.
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "zdr/logging/shared2.h"
#include "zdr/system/linux_screen_provider.h"

namespace zdr {

namespace {

constexpr int kMaxMonitors = 64;
constexpr int kMaxEdidBytes = 512;  // the base block and three extensions

struct RawMonitor {
    std::uint32_t displayID;
    int x, y, width, height;
    bool primary;
    char name[64];
    int edidLength;  // 0: none; -1: the property is not 8-bit integers
    unsigned char edid[kMaxEdidBytes];
};

struct RawQuery {
    int count;
    bool truncated;
    RawMonitor monitors[kMaxMonitors];
};

// Xlib's error handlers are process-wide. Ours are installed for the length
// of a query, under this lock, and answer only on the thread that queries;
// anything else goes to the handler that was there before.
std::mutex gHandlerMutex;
std::atomic<XErrorHandler> gPreviousErrorHandler{nullptr};
std::atomic<XIOErrorHandler> gPreviousIOErrorHandler{nullptr};
thread_local std::jmp_buf* tJump = nullptr;
thread_local Display* tBrokenDisplay = nullptr;
thread_local int tProtocolErrors = 0;

int onXError(Display* display, XErrorEvent* event) {
    if (tJump) {
        // An output that vanished between listing and reading it: skipped.
        ++tProtocolErrors;
        return 0;
    }
    const XErrorHandler previous = gPreviousErrorHandler.load();
    return previous ? previous(display, event) : 0;
}

int onXIOError(Display* display) {
    if (tJump) {
        tBrokenDisplay = display;
        std::longjmp(*tJump, 1);
    }
    const XIOErrorHandler previous = gPreviousIOErrorHandler.load();
    return previous ? previous(display) : 0;
}

void copyName(Display* display, Atom atom, char* out, std::size_t size) {
    out[0] = '\0';
    if (atom == None) return;
    char* name = XGetAtomName(display, atom);
    if (!name) return;
    std::strncpy(out, name, size - 1);
    out[size - 1] = '\0';
    XFree(name);
}

void readEdid(Display* display, RROutput output, Atom edidAtom, RawMonitor& monitor) {
    Atom type = None;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    monitor.edidLength = 0;
    const int rc =
        XRRGetOutputProperty(display, output, edidAtom, 0, kMaxEdidBytes / 4, False, False,
                             AnyPropertyType, &type, &format, &count, &after, &data);
    if (rc == Success && data && count > 0) {
        if (type == XA_INTEGER && format == 8) {
            monitor.edidLength = static_cast<int>(std::min<unsigned long>(count, kMaxEdidBytes));
            std::memcpy(monitor.edid, data, static_cast<std::size_t>(monitor.edidLength));
        } else {
            monitor.edidLength = -1;
        }
    }
    if (data) XFree(data);
}

// Every monitor of every X screen, the primary of each screen first.
void collect(Display* display, RawQuery* out) {
    int eventBase = 0, errorBase = 0, major = 0, minor = 0;
    const bool monitors = XRRQueryExtension(display, &eventBase, &errorBase) &&
                          XRRQueryVersion(display, &major, &minor) &&
                          (major > 1 || (major == 1 && minor >= 5));
    const Atom edidAtom = XInternAtom(display, RR_PROPERTY_RANDR_EDID, False);
    for (int s = 0; s < ScreenCount(display); ++s) {
        if (!monitors) {
            if (out->count == kMaxMonitors) {
                out->truncated = true;
                return;
            }
            RawMonitor& m = out->monitors[out->count++];
            m.displayID = static_cast<std::uint32_t>(s + 1);
            m.x = m.y = 0;
            m.width = DisplayWidth(display, s);
            m.height = DisplayHeight(display, s);
            m.primary = false;
            std::snprintf(m.name, sizeof m.name, "screen %d", s);
            m.edidLength = 0;
            continue;
        }
        int count = 0;
        XRRMonitorInfo* list = XRRGetMonitors(display, RootWindow(display, s), True, &count);
        if (!list) continue;
        for (int pass = 0; pass < 2; ++pass) {
            for (int i = 0; i < count; ++i) {
                const XRRMonitorInfo& info = list[i];
                if ((pass == 0) != (info.primary != 0)) continue;
                if (out->count == kMaxMonitors) {
                    out->truncated = true;
                    break;
                }
                RawMonitor& m = out->monitors[out->count++];
                m.x = info.x;
                m.y = info.y;
                m.width = info.width;
                m.height = info.height;
                m.primary = info.primary != 0;
                copyName(display, info.name, m.name, sizeof m.name);
                m.edidLength = 0;
                if (info.noutput > 0 && info.outputs) {
                    m.displayID = static_cast<std::uint32_t>(info.outputs[0]);
                    readEdid(display, info.outputs[0], edidAtom, m);
                } else {
                    m.displayID = static_cast<std::uint32_t>(info.name);
                }
            }
        }
        XRRFreeMonitors(list);
    }
}

enum class RawStatus { ok, cannotOpen, broken };

// The connections that broke mid-query. Xlib cannot free a display it was
// jumped out of, so they are kept (a few tens of kilobytes each, one per
// server that died under a query) rather than lost. Guarded by gHandlerMutex.
std::vector<Display*>& abandonedDisplays() {
    static auto* displays = new std::vector<Display*>();
    return *displays;
}

RawStatus rawQuery(const char* name, RawQuery* out) {
    std::jmp_buf jump;
    tBrokenDisplay = nullptr;
    tProtocolErrors = 0;
    tJump = &jump;
    if (setjmp(jump) != 0) {
        tJump = nullptr;
        if (tBrokenDisplay) {
            ::close(ConnectionNumber(tBrokenDisplay));
            abandonedDisplays().push_back(tBrokenDisplay);
        }
        return RawStatus::broken;
    }
    Display* display = XOpenDisplay(name);
    if (!display) {
        tJump = nullptr;
        return RawStatus::cannotOpen;
    }
    collect(display, out);
    XCloseDisplay(display);
    tJump = nullptr;
    return RawStatus::ok;
}

}  // namespace

X11ScreenProvider::X11ScreenProvider(std::optional<std::string> displayName)
    : displayName_(std::move(displayName)) {}

std::vector<DisplayRecord> X11ScreenProvider::displays() {
    return query().value_or(std::vector<DisplayRecord>{});
}

std::optional<std::vector<DisplayRecord>> X11ScreenProvider::query() {
    const char* environmentDisplay = std::getenv("DISPLAY");
    const std::string name =
        displayName_ ? *displayName_ : (environmentDisplay ? environmentDisplay : "");
    if (name.empty()) return std::nullopt;

    auto raw = std::make_unique<RawQuery>();
    raw->count = 0;
    raw->truncated = false;
    RawStatus status;
    int protocolErrors;
    {
        std::lock_guard lock(gHandlerMutex);
        gPreviousErrorHandler = XSetErrorHandler(onXError);
        gPreviousIOErrorHandler = XSetIOErrorHandler(onXIOError);
        status = rawQuery(name.c_str(), raw.get());
        protocolErrors = tProtocolErrors;
        XSetErrorHandler(gPreviousErrorHandler.load());
        XSetIOErrorHandler(gPreviousIOErrorHandler.load());
    }
    if (status == RawStatus::cannotOpen) {
        Shared2::geometry()->warning("Could not open the X display {}", name);
        return std::nullopt;
    }
    if (status == RawStatus::broken) {
        Shared2::geometry()->warning(
            "The connection to the X display {} broke while its screens were read", name);
        return std::nullopt;
    }
    if (protocolErrors > 0) {
        Shared2::geometry()->warning("The X display {} refused {} screen queries", name,
                                     protocolErrors);
    }
    if (raw->truncated) {
        Shared2::geometry()->warning("Only the first {} screens of {} are listed", kMaxMonitors,
                                     name);
    }
    std::vector<DisplayRecord> records;
    records.reserve(static_cast<std::size_t>(raw->count));
    for (int i = 0; i < raw->count; ++i) {
        const RawMonitor& m = raw->monitors[i];
        DisplayRecord record;
        record.displayID = m.displayID;
        record.frame = {double(m.x), double(m.y), double(m.width), double(m.height)};
        record.outputName = m.name;
        if (m.edidLength > 0) {
            std::string error;
            record.edid = parseEdid(
                std::span<const std::uint8_t>(m.edid, static_cast<std::size_t>(m.edidLength)),
                &error);
            if (!record.edid) {
                Shared2::geometry()->warning("Ignoring the EDID of {}: {}", record.outputName,
                                             error);
            }
        } else if (m.edidLength < 0) {
            Shared2::geometry()->warning("Ignoring the EDID of {}: not a list of bytes",
                                         record.outputName);
        }
        records.push_back(std::move(record));
    }
    return records;
}

}  // namespace zdr
