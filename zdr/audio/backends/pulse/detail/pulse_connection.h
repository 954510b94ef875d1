// PulseConnection: one libpulse client connection kept alive and mirrored.
//
// The connection runs libpulse's threaded main loop, subscribes to sink, source
// and server events, and keeps a snapshot of every sink and source (monitor
// sources included) and of the server's defaults. Reads answer from that
// snapshot without a server round trip, so they never block on a hanging
// server. Writes (volume, mute, port, default device, modules) are sent to the
// server and wait for its answer at most `callTimeout`.
//
// When the connection is lost it is retried with exponential back-off; each
// successful (re)connection re-reads everything before it is reported.
//
// Devices carry an object ID of our own, unique within the process: a sink that
// disappears and comes back (or survives a server restart) gets a new ID.
// Device IDs are even; ID + 1 is kept free for the device's stream object.
//
// A newly announced device is reported at once (deviceAppearing) and its
// details follow; until they arrive, reads of the device list and lookups by
// UID or name wait for them (at most callTimeout), so a reader that reacts to
// the announcement never sees the old list.
//
// Threads: every member may be called from any thread, the event handler
// included. Events are delivered in order on one event thread of this
// connection, never with a libpulse lock held, so the handler may call back
// into the connection (reads and writes alike); see deliverOnLoopThread for
// the exception.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zdr::detail {

enum class PulseDeviceKind { sink, source };

struct PulsePort {
    std::string name;
    std::string description;
    uint32_t priority = 0;
    int available = 0;  // pa_port_available_t
    bool operator==(const PulsePort&) const = default;
};

/// One sink or source as last seen.
struct PulseDevice {
    uint32_t objectID = 0;  // ours; see the header comment
    PulseDeviceKind kind = PulseDeviceKind::sink;
    uint32_t index = 0;  // the server's, valid within one connection
    std::string name;
    std::string description;
    std::string driver;
    std::string uid;  // proplist "zdr.uid", else the name
    bool hidden = false;
    bool isMonitor = false;  // a source that monitors a sink
    std::map<std::string, std::string> properties;
    uint32_t rate = 0;
    uint8_t channels = 0;
    int sampleFormat = -1;              // pa_sample_format_t
    std::vector<int> channelPositions;  // pa_channel_position_t per channel
    std::vector<uint32_t> volume;       // pa_volume_t per channel
    uint32_t baseVolume = 0;
    bool mute = false;
    bool hasHardwareVolume = false;
    bool hasDecibelVolume = false;
    std::vector<PulsePort> ports;
    std::string activePort;
    int state = -1;  // pa_sink_state_t / pa_source_state_t
    uint64_t latencyUsec = 0;
    uint64_t configuredLatencyUsec = 0;
    std::vector<std::string> formats;  // pa_format_info printed
    /// When it was last seen entering the running state (for device time).
    std::chrono::steady_clock::time_point runningSince{};

    bool isInput() const { return kind == PulseDeviceKind::source; }
    bool isRunning() const { return state == 0; }
};

struct PulseServerInfo {
    std::string defaultSinkName;
    std::string defaultSourceName;
    std::string serverName;
    std::string serverVersion;
    uint32_t rate = 0;
    uint8_t channels = 0;
    bool operator==(const PulseServerInfo&) const = default;
};

struct PulseEvent {
    enum class Type {
        connected,        // first sync or re-sync after a loss; `reconnected` says which
        disconnected,     // `removed` lists every device that went with it
        deviceAppearing,  // the server announced a new device; its details are on the way
        deviceAdded,      // `after`; `announced` when deviceAppearing came first
        deviceRemoved,    // `before`
        deviceChanged,    // `before`, `after`
        serverChanged,    // `serverBefore`, `serverAfter`
    };
    Type type = Type::connected;
    bool reconnected = false;
    bool announced = false;
    std::shared_ptr<const PulseDevice> before;
    std::shared_ptr<const PulseDevice> after;
    std::vector<std::shared_ptr<const PulseDevice>> removed;
    PulseServerInfo serverBefore;
    PulseServerInfo serverAfter;
};

enum class PulseCallResult { ok, failed, notConnected, timedOut };

class PulseConnection : public std::enable_shared_from_this<PulseConnection> {
 public:
    struct Options {
        /// Server address; empty means libpulse's default (PULSE_SERVER etc.).
        std::string server;
        std::string clientName = "ZDRShared2";
        std::chrono::milliseconds callTimeout{2000};
        std::chrono::milliseconds firstRetryDelay{20};
        std::chrono::milliseconds maxRetryDelay{1000};
        /// Deliver events on the main-loop thread as they happen, instead of
        /// on the event thread. For handlers that only hand work on (enqueue)
        /// and never call the blocking writes: those would wait for the very
        /// thread they run on.
        bool deliverOnLoopThread = false;
    };
    using EventHandler = std::function<void(const PulseEvent&)>;

    static std::shared_ptr<PulseConnection> create(Options options, EventHandler handler);
    ~PulseConnection();
    PulseConnection(const PulseConnection&) = delete;
    PulseConnection& operator=(const PulseConnection&) = delete;

    /// Stops the main loop and the event thread; no event is delivered after
    /// it returns (unless called from the handler itself). Idempotent.
    void shutdown();

    /// Waits until the snapshot is synced with a server, at most `timeout`;
    /// with `giveUpOnFailure`, also stops once an attempt to connect failed
    /// (no server there), so that probing for a server costs one attempt.
    bool waitUntilSynced(std::chrono::milliseconds timeout, bool giveUpOnFailure = false) const;
    bool synced() const;
    /// Number of successful syncs so far (1 after the first connection).
    uint64_t generation() const;

    // ---- snapshot reads (no server round trip) ----
    std::vector<std::shared_ptr<const PulseDevice>> devices() const;
    std::shared_ptr<const PulseDevice> device(uint32_t objectID) const;
    std::shared_ptr<const PulseDevice> deviceByUID(const std::string& uid) const;
    std::shared_ptr<const PulseDevice> deviceByName(PulseDeviceKind kind,
                                                    const std::string& name) const;
    PulseServerInfo serverInfo() const;

    // ---- writes (bounded by callTimeout) ----
    PulseCallResult setVolume(uint32_t objectID, const std::vector<uint32_t>& volume);
    PulseCallResult setMute(uint32_t objectID, bool mute);
    PulseCallResult setPort(uint32_t objectID, const std::string& port);
    PulseCallResult setDefault(uint32_t objectID);
    /// Loads a module; its index, or none (with `result` saying why).
    std::optional<uint32_t> loadModule(const std::string& name, const std::string& argument,
                                       PulseCallResult* result = nullptr);
    PulseCallResult unloadModule(uint32_t index);
    /// Two round trips: when it returns ok, every event that reached us before
    /// the first answer has been applied to the snapshot (not necessarily
    /// delivered yet). The server may send the events of a change after its
    /// answer to the request that caused it, so this is no barrier for those.
    PulseCallResult roundTrip();

    struct Impl;

 private:
    PulseConnection() = default;
    std::unique_ptr<Impl> impl_;
};

/// Maps a PulseCallResult to a short text for logs.
const char* toString(PulseCallResult result);

}  // namespace zdr::detail
