#include "zdr/audio/backends/pulse/detail/pulse_connection.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "zdr/audio/detail/audio_log.h"

namespace zdr::detail {
namespace {

// Object IDs are ours and process-wide, so that two connections (or two
// incarnations of one device) never share one. They start above the small
// numbers that the hardware layer keeps for the system object, and come in
// pairs: a device takes an even ID and its one stream the odd one after it.
std::atomic<uint32_t> gNextObjectID{0x100};

uint32_t newObjectID() { return gNextObjectID.fetch_add(2, std::memory_order_relaxed); }

// Through the audio category, which stays silent until the host switches it
// on: a library never writes to the host's standard error on its own.
void logLine(AudioLogLevel level, const char* what, const std::string& detail) {
    if (level == AudioLogLevel::error) {
        ZDR_AUDIO_LOG(audio, error, "pulse: {}{}{}", what, detail.empty() ? "" : ": ", detail);
    } else if (level == AudioLogLevel::warning) {
        ZDR_AUDIO_LOG(audio, warning, "pulse: {}{}{}", what, detail.empty() ? "" : ": ", detail);
    } else {
        ZDR_AUDIO_LOG(audio, info, "pulse: {}{}{}", what, detail.empty() ? "" : ": ", detail);
    }
}

// Events wait here for the event thread. It is shared with that thread so that
// the connection may be destroyed from inside its own handler.
struct EventQueue {
    std::mutex mutex;
    std::condition_variable cv;
    std::deque<PulseEvent> events;
    bool stop = false;
    PulseConnection::EventHandler handler;
    std::thread::id threadID;
    bool direct = false;  // deliver on the main-loop thread, at once

    void push(PulseEvent event) {
        if (direct) {
            deliver(event);
            return;
        }
        {
            std::lock_guard lock(mutex);
            if (stop) return;
            events.push_back(std::move(event));
        }
        cv.notify_one();
    }

    void deliver(const PulseEvent& event) {
        if (!handler) return;
        try {
            handler(event);
        } catch (const std::exception& e) {
            logLine(AudioLogLevel::error, "event handler threw", e.what());
        } catch (...) {
            logLine(AudioLogLevel::error, "event handler threw", "unknown exception");
        }
    }

    static void run(const std::shared_ptr<EventQueue>& self) {
        std::unique_lock lock(self->mutex);
        for (;;) {
            self->cv.wait(lock, [&] { return self->stop || !self->events.empty(); });
            if (self->stop) return;
            PulseEvent event = std::move(self->events.front());
            self->events.pop_front();
            lock.unlock();
            self->deliver(event);
            lock.lock();
        }
    }
};

// What a blocking write waits for. The libpulse callbacks run on the main-loop
// thread; the waiter sleeps on its own condition variable, not on the libpulse
// lock, so a hanging server holds up nobody but the waiter, and only until
// its deadline.
struct OpWait {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    bool success = false;
    uint32_t index = PA_INVALID_INDEX;

    static void onSuccess(pa_context*, int success, void* userdata) {
        auto* self = static_cast<OpWait*>(userdata);
        std::lock_guard lock(self->mutex);
        self->success = success != 0;
    }
    static void onIndex(pa_context*, uint32_t index, void* userdata) {
        auto* self = static_cast<OpWait*>(userdata);
        std::lock_guard lock(self->mutex);
        self->index = index;
        self->success = index != PA_INVALID_INDEX;
    }
    static void onServerInfo(pa_context*, const pa_server_info* info, void* userdata) {
        auto* self = static_cast<OpWait*>(userdata);
        std::lock_guard lock(self->mutex);
        self->success = info != nullptr;
    }
    static void onState(pa_operation* op, void* userdata) {
        auto* self = static_cast<OpWait*>(userdata);
        if (pa_operation_get_state(op) == PA_OPERATION_RUNNING) return;
        {
            std::lock_guard lock(self->mutex);
            self->done = true;
        }
        self->cv.notify_all();
    }
};

bool sameState(const PulseDevice& a, const PulseDevice& b) {
    return a.name == b.name && a.description == b.description && a.driver == b.driver &&
           a.uid == b.uid && a.hidden == b.hidden && a.properties == b.properties &&
           a.rate == b.rate && a.channels == b.channels && a.sampleFormat == b.sampleFormat &&
           a.channelPositions == b.channelPositions && a.volume == b.volume &&
           a.baseVolume == b.baseVolume && a.mute == b.mute && a.ports == b.ports &&
           a.activePort == b.activePort && a.state == b.state && a.latencyUsec == b.latencyUsec &&
           a.configuredLatencyUsec == b.configuredLatencyUsec && a.formats == b.formats;
}

std::map<std::string, std::string> readProplist(const pa_proplist* list) {
    std::map<std::string, std::string> out;
    if (!list) return out;
    void* state = nullptr;
    while (const char* key = pa_proplist_iterate(list, &state)) {
        if (const char* value = pa_proplist_gets(list, key)) out.emplace(key, value);
    }
    return out;
}

template <class Info>
void fillCommon(PulseDevice& d, const Info& info, bool isMonitor) {
    d.index = info.index;
    d.name = info.name ? info.name : "";
    d.description = info.description ? info.description : d.name;
    d.driver = info.driver ? info.driver : "";
    d.properties = readProplist(info.proplist);
    d.isMonitor = isMonitor;
    // pipewire-pulse copies a sink's properties onto its monitor source, so a
    // monitor's "zdr.uid" and "zdr.hidden" are its sink's, not its own: the
    // monitor would share the sink's UID (two devices under one key) and
    // vanish with a hidden sink. A monitor is known by its own name and shown.
    auto uid = d.properties.find("zdr.uid");
    d.uid = (!isMonitor && uid != d.properties.end() && !uid->second.empty()) ? uid->second
                                                                              : d.name;
    auto hidden = d.properties.find("zdr.hidden");
    d.hidden = !isMonitor && hidden != d.properties.end() &&
               (hidden->second == "1" || hidden->second == "true");
    d.rate = info.sample_spec.rate;
    d.channels = info.sample_spec.channels;
    d.sampleFormat = info.sample_spec.format;
    d.channelPositions.assign(info.channel_map.map,
                              info.channel_map.map + info.channel_map.channels);
    d.volume.assign(info.volume.values, info.volume.values + info.volume.channels);
    d.baseVolume = info.base_volume;
    d.mute = info.mute != 0;
    d.latencyUsec = info.latency;
    d.configuredLatencyUsec = info.configured_latency;
    d.state = info.state;
    for (uint32_t i = 0; i < info.n_ports; ++i) {
        const auto* p = info.ports[i];
        if (!p) continue;
        d.ports.push_back(PulsePort{p->name ? p->name : "", p->description ? p->description : "",
                                    p->priority, p->available});
    }
    if (info.active_port && info.active_port->name) d.activePort = info.active_port->name;
    for (uint32_t i = 0; i < info.n_formats; ++i) {
        char buf[PA_FORMAT_INFO_SNPRINT_MAX];
        d.formats.emplace_back(pa_format_info_snprint(buf, sizeof buf, info.formats[i]));
    }
}

std::shared_ptr<PulseDevice> fromSink(const pa_sink_info& info) {
    auto d = std::make_shared<PulseDevice>();
    d->kind = PulseDeviceKind::sink;
    fillCommon(*d, info, false);
    d->hasHardwareVolume = (info.flags & PA_SINK_HW_VOLUME_CTRL) != 0;
    d->hasDecibelVolume = (info.flags & PA_SINK_DECIBEL_VOLUME) != 0;
    return d;
}

std::shared_ptr<PulseDevice> fromSource(const pa_source_info& info) {
    auto d = std::make_shared<PulseDevice>();
    d->kind = PulseDeviceKind::source;
    fillCommon(*d, info, info.monitor_of_sink != PA_INVALID_INDEX);
    d->hasHardwareVolume = (info.flags & PA_SOURCE_HW_VOLUME_CTRL) != 0;
    d->hasDecibelVolume = (info.flags & PA_SOURCE_DECIBEL_VOLUME) != 0;
    return d;
}

struct QueuedChange {
    PulseDeviceKind kind;
    uint32_t index;
    bool removed;
};

}  // namespace

struct PulseConnection::Impl {
    Options options;
    std::shared_ptr<EventQueue> events = std::make_shared<EventQueue>();
    std::thread eventThread;

    // Owned by the main-loop thread (touched with the libpulse lock held).
    pa_threaded_mainloop* mainloop = nullptr;
    pa_context* context = nullptr;
    pa_context* deadContext = nullptr;  // released by the retry timer, not in its own callback
    pa_time_event* retryEvent = nullptr;
    std::chrono::milliseconds retryDelay{0};
    bool shuttingDown = false;
    bool syncing = false;
    int syncPending = 0;
    PulseServerInfo syncServer;
    std::vector<std::shared_ptr<PulseDevice>> syncDevices;
    std::vector<QueuedChange> syncQueued;

    // The snapshot, read from any thread.
    mutable std::mutex stateMutex;
    mutable std::condition_variable syncedCv;
    bool isSynced = false;
    uint64_t generation = 0;
    uint64_t failedAttempts = 0;
    PulseServerInfo server;          // what readers see (writes show at once)
    PulseServerInfo reportedServer;  // what the server last said (for diffs)
    std::map<uint32_t, std::shared_ptr<const PulseDevice>> visible;
    std::map<uint32_t, std::shared_ptr<const PulseDevice>> reported;
    std::map<uint32_t, uint32_t> sinkIDs;    // server index -> object ID
    std::map<uint32_t, uint32_t> sourceIDs;  // server index -> object ID
    // Info requests in flight, in request order (the server answers in that
    // order). Those for devices not known yet make list reads wait for them,
    // so that a device-list change announced on the server's word is never
    // followed by a read of the old list.
    struct InfoRequest {
        PulseDeviceKind kind;
        uint32_t index;
        bool unknown;
        bool announced;
    };
    std::deque<InfoRequest> infoRequests;  // main-loop thread only
    int pendingAdds = 0;                   // guarded by stateMutex

    std::map<uint32_t, uint32_t>& idsFor(PulseDeviceKind kind) {
        return kind == PulseDeviceKind::sink ? sinkIDs : sourceIDs;
    }

    // ---- connection lifecycle (main-loop thread, lock held) ----

    void connect() {
        if (shuttingDown) return;
        pa_proplist* props = pa_proplist_new();
        pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, options.clientName.c_str());
        context = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(mainloop),
                                               options.clientName.c_str(), props);
        pa_proplist_free(props);
        if (!context) {
            scheduleRetry();
            return;
        }
        pa_context_set_state_callback(context, &Impl::onContextState, this);
        pa_context_set_subscribe_callback(context, &Impl::onSubscription, this);
        const char* server = options.server.empty() ? nullptr : options.server.c_str();
        if (pa_context_connect(context, server, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
            retireContext();
            scheduleRetry();
        }
    }

    void retireContext() {
        if (!context) return;
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_set_subscribe_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        if (deadContext) pa_context_unref(deadContext);
        deadContext = context;
        context = nullptr;
    }

    void scheduleRetry() {
        {
            std::lock_guard lock(stateMutex);
            ++failedAttempts;
        }
        syncedCv.notify_all();
        if (shuttingDown || retryEvent) return;
        retryDelay = retryDelay.count() == 0 ? options.firstRetryDelay
                                             : std::min(retryDelay * 2, options.maxRetryDelay);
        timeval tv;
        pa_gettimeofday(&tv);
        pa_timeval_add(&tv, static_cast<pa_usec_t>(retryDelay.count()) * 1000);
        auto* api = pa_threaded_mainloop_get_api(mainloop);
        retryEvent = api->time_new(api, &tv, &Impl::onRetryTimer, this);
    }

    static void onRetryTimer(pa_mainloop_api* api, pa_time_event* e, const timeval*, void* ud) {
        auto* self = static_cast<Impl*>(ud);
        api->time_free(e);
        self->retryEvent = nullptr;
        if (self->deadContext) {
            pa_context_unref(self->deadContext);
            self->deadContext = nullptr;
        }
        self->connect();
    }

    static void onContextState(pa_context* c, void* ud) {
        auto* self = static_cast<Impl*>(ud);
        if (c != self->context) return;
        switch (pa_context_get_state(c)) {
            case PA_CONTEXT_READY:
                self->retryDelay = std::chrono::milliseconds(0);
                self->beginSync();
                break;
            case PA_CONTEXT_FAILED:
            case PA_CONTEXT_TERMINATED:
                self->retireContext();
                self->connectionLost();
                self->scheduleRetry();
                break;
            default:
                break;
        }
    }

    void connectionLost() {
        infoRequests.clear();
        {
            std::lock_guard lock(stateMutex);
            pendingAdds = 0;
        }
        syncedCv.notify_all();
        syncing = false;
        syncDevices.clear();
        syncQueued.clear();
        PulseEvent event;
        {
            std::lock_guard lock(stateMutex);
            if (!isSynced) return;
            isSynced = false;
            event.type = PulseEvent::Type::disconnected;
            for (auto& [id, device] : visible) event.removed.push_back(device);
            visible.clear();
            reported.clear();
            sinkIDs.clear();
            sourceIDs.clear();
        }
        logLine(AudioLogLevel::warning, "connection to the audio server lost", "retrying");
        events->push(std::move(event));
    }

    // Subscribe first, then read everything: an event that arrives while the
    // lists are on their way is queued and applied once they are in.
    void beginSync() {
        syncing = true;
        syncPending = 3;
        syncServer = {};
        syncDevices.clear();
        syncQueued.clear();
        auto mask = static_cast<pa_subscription_mask_t>(
            PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SERVER);
        unrefOp(pa_context_subscribe(context, mask, nullptr, nullptr));
        unrefOp(pa_context_get_server_info(context, &Impl::onSyncServer, this));
        unrefOp(pa_context_get_sink_info_list(context, &Impl::onSyncSink, this));
        unrefOp(pa_context_get_source_info_list(context, &Impl::onSyncSource, this));
    }

    static void unrefOp(pa_operation* op) {
        if (op) pa_operation_unref(op);
    }

    static PulseServerInfo toServerInfo(const pa_server_info& info) {
        PulseServerInfo s;
        s.defaultSinkName = info.default_sink_name ? info.default_sink_name : "";
        s.defaultSourceName = info.default_source_name ? info.default_source_name : "";
        s.serverName = info.server_name ? info.server_name : "";
        s.serverVersion = info.server_version ? info.server_version : "";
        s.rate = info.sample_spec.rate;
        s.channels = info.sample_spec.channels;
        return s;
    }

    static void onSyncServer(pa_context* c, const pa_server_info* info, void* ud) {
        auto* self = static_cast<Impl*>(ud);
        if (c != self->context || !self->syncing) return;
        if (info) self->syncServer = toServerInfo(*info);
        self->syncStepDone();
    }

    static void onSyncSink(pa_context* c, const pa_sink_info* info, int eol, void* ud) {
        auto* self = static_cast<Impl*>(ud);
        if (c != self->context || !self->syncing) return;
        if (eol == 0 && info) {
            self->syncDevices.push_back(fromSink(*info));
        } else {
            self->syncStepDone();
        }
    }

    static void onSyncSource(pa_context* c, const pa_source_info* info, int eol, void* ud) {
        auto* self = static_cast<Impl*>(ud);
        if (c != self->context || !self->syncing) return;
        if (eol == 0 && info) {
            self->syncDevices.push_back(fromSource(*info));
        } else {
            self->syncStepDone();
        }
    }

    void syncStepDone() {
        if (--syncPending > 0) return;
        syncing = false;
        // Apply removals that raced with the lists before anything is published.
        for (const auto& q : syncQueued) {
            if (!q.removed) continue;
            std::erase_if(syncDevices,
                          [&](const auto& d) { return d->kind == q.kind && d->index == q.index; });
        }
        PulseEvent event;
        event.type = PulseEvent::Type::connected;
        const auto now = std::chrono::steady_clock::now();
        {
            std::lock_guard lock(stateMutex);
            server = reportedServer = syncServer;
            for (auto& d : syncDevices) {
                d->objectID = newObjectID();
                if (d->isRunning()) d->runningSince = now;
                idsFor(d->kind)[d->index] = d->objectID;
                visible[d->objectID] = d;
                reported[d->objectID] = d;
            }
            isSynced = true;
            ++generation;
            event.reconnected = generation > 1;
        }
        syncDevices.clear();
        syncedCv.notify_all();
        events->push(std::move(event));
        for (const auto& q : syncQueued) {
            if (!q.removed) requestInfo(q.kind, q.index);
        }
        syncQueued.clear();
    }

    // ---- live updates (main-loop thread, lock held) ----

    static void onSubscription(pa_context* c, pa_subscription_event_type_t t, uint32_t index,
                               void* ud) {
        auto* self = static_cast<Impl*>(ud);
        if (c != self->context) return;
        const auto facility = t & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
        const auto type = t & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
        if (facility == PA_SUBSCRIPTION_EVENT_SERVER) {
            unrefOp(pa_context_get_server_info(c, &Impl::onServerInfo, self));
            return;
        }
        PulseDeviceKind kind;
        if (facility == PA_SUBSCRIPTION_EVENT_SINK) {
            kind = PulseDeviceKind::sink;
        } else if (facility == PA_SUBSCRIPTION_EVENT_SOURCE) {
            kind = PulseDeviceKind::source;
        } else {
            return;
        }
        const bool removed = type == PA_SUBSCRIPTION_EVENT_REMOVE;
        if (self->syncing) {
            self->syncQueued.push_back({kind, index, removed});
            return;
        }
        if (removed) {
            self->removeDevice(kind, index);
        } else {
            self->requestInfo(kind, index);
        }
    }

    void requestInfo(PulseDeviceKind kind, uint32_t index) {
        if (!context) return;
        bool unknown;
        bool announce = false;
        {
            std::lock_guard lock(stateMutex);
            unknown = idsFor(kind).count(index) == 0;
            if (unknown) {
                ++pendingAdds;
                // Any event for an index we do not know is a newcomer (the
                // server may send a change before the "new" of the same
                // device); one announcement each, however many events it raises.
                announce = std::none_of(
                    infoRequests.begin(), infoRequests.end(), [&](const InfoRequest& r) {
                        return r.kind == kind && r.index == index && r.announced;
                    });
            }
        }
        infoRequests.push_back({kind, index, unknown, announce});
        if (announce) {
            PulseEvent event;
            event.type = PulseEvent::Type::deviceAppearing;
            events->push(std::move(event));
        }
        if (kind == PulseDeviceKind::sink) {
            unrefOp(pa_context_get_sink_info_by_index(context, index, &Impl::onSinkInfo, this));
        } else {
            unrefOp(pa_context_get_source_info_by_index(context, index, &Impl::onSourceInfo, this));
        }
    }

    static void onSinkInfo(pa_context* c, const pa_sink_info* info, int eol, void* ud) {
        auto* self = static_cast<Impl*>(ud);
        if (c != self->context) return;
        if (eol == 0 && info) {
            self->applyDevice(fromSink(*info));
        } else {
            self->infoAnswered();
        }
    }

    static void onSourceInfo(pa_context* c, const pa_source_info* info, int eol, void* ud) {
        auto* self = static_cast<Impl*>(ud);
        if (c != self->context) return;
        if (eol == 0 && info) {
            self->applyDevice(fromSource(*info));
        } else {
            self->infoAnswered();
        }
    }

    // The request at the front is answered (found or not).
    void infoAnswered() {
        if (infoRequests.empty()) return;
        const InfoRequest r = infoRequests.front();
        infoRequests.pop_front();
        if (!r.unknown) return;
        {
            std::lock_guard lock(stateMutex);
            --pendingAdds;
        }
        syncedCv.notify_all();
    }

    void applyDevice(std::shared_ptr<PulseDevice> d) {
        PulseEvent event;
        {
            std::lock_guard lock(stateMutex);
            if (!isSynced) return;
            auto& ids = idsFor(d->kind);
            auto it = ids.find(d->index);
            if (it == ids.end()) {
                d->objectID = newObjectID();
                if (d->isRunning()) d->runningSince = std::chrono::steady_clock::now();
                ids[d->index] = d->objectID;
                event.type = PulseEvent::Type::deviceAdded;
                event.announced = std::any_of(
                    infoRequests.begin(), infoRequests.end(), [&](const InfoRequest& r) {
                        return r.kind == d->kind && r.index == d->index && r.announced;
                    });
            } else {
                const auto& before = reported[it->second];
                d->objectID = it->second;
                d->runningSince = before->runningSince;
                if (d->isRunning() && !before->isRunning()) {
                    d->runningSince = std::chrono::steady_clock::now();
                }
                const bool changed = !sameState(*before, *d);
                // Even without a reported change, what readers see goes back to
                // the server's word: an optimistic write may have been refused.
                visible[d->objectID] = d;
                if (!changed) {
                    reported[d->objectID] = d;
                    return;
                }
                event.type = PulseEvent::Type::deviceChanged;
                event.before = before;
            }
            visible[d->objectID] = d;
            reported[d->objectID] = d;
            event.after = d;
        }
        events->push(std::move(event));
    }

    void removeDevice(PulseDeviceKind kind, uint32_t index) {
        PulseEvent event;
        {
            std::lock_guard lock(stateMutex);
            auto& ids = idsFor(kind);
            auto it = ids.find(index);
            if (it == ids.end()) return;
            event.type = PulseEvent::Type::deviceRemoved;
            event.before = reported[it->second];
            visible.erase(it->second);
            reported.erase(it->second);
            ids.erase(it);
        }
        events->push(std::move(event));
    }

    static void onServerInfo(pa_context* c, const pa_server_info* info, void* ud) {
        auto* self = static_cast<Impl*>(ud);
        if (c != self->context || !info) return;
        PulseEvent event;
        {
            std::lock_guard lock(self->stateMutex);
            if (!self->isSynced) return;
            PulseServerInfo now = toServerInfo(*info);
            self->server = now;
            if (now == self->reportedServer) return;
            event.type = PulseEvent::Type::serverChanged;
            event.serverBefore = self->reportedServer;
            event.serverAfter = now;
            self->reportedServer = now;
        }
        self->events->push(std::move(event));
    }

    // ---- blocking writes (caller's thread) ----

    template <class Start>
    PulseCallResult call(Start&& start, OpWait& wait) {
        pa_threaded_mainloop_lock(mainloop);
        if (!context || pa_context_get_state(context) != PA_CONTEXT_READY || shuttingDown) {
            pa_threaded_mainloop_unlock(mainloop);
            return PulseCallResult::notConnected;
        }
        pa_operation* op = start(context, &wait);
        if (!op) {
            pa_threaded_mainloop_unlock(mainloop);
            return PulseCallResult::failed;
        }
        pa_operation_set_state_callback(op, &OpWait::onState, &wait);
        pa_threaded_mainloop_unlock(mainloop);

        bool finished;
        {
            std::unique_lock lock(wait.mutex);
            finished = wait.cv.wait_for(lock, options.callTimeout, [&] { return wait.done; });
        }
        pa_threaded_mainloop_lock(mainloop);
        // Once detached and cancelled, libpulse never calls back into `wait`.
        pa_operation_set_state_callback(op, nullptr, nullptr);
        const auto state = pa_operation_get_state(op);
        if (state == PA_OPERATION_RUNNING) pa_operation_cancel(op);
        pa_operation_unref(op);
        pa_threaded_mainloop_unlock(mainloop);

        std::lock_guard lock(wait.mutex);
        if (!finished && state == PA_OPERATION_RUNNING) return PulseCallResult::timedOut;
        if (state == PA_OPERATION_CANCELLED) return PulseCallResult::notConnected;
        return wait.success ? PulseCallResult::ok : PulseCallResult::failed;
    }

    void waitForPendingAdds(std::unique_lock<std::mutex>& lock) const;

    template <class Mutate>
    void updateVisible(uint32_t objectID, Mutate&& mutate) {
        std::lock_guard lock(stateMutex);
        auto it = visible.find(objectID);
        if (it == visible.end()) return;
        auto copy = std::make_shared<PulseDevice>(*it->second);
        mutate(*copy);
        it->second = std::move(copy);
    }
};

std::shared_ptr<PulseConnection> PulseConnection::create(Options options, EventHandler handler) {
    std::shared_ptr<PulseConnection> self(new PulseConnection());
    self->impl_ = std::make_unique<Impl>();
    Impl& impl = *self->impl_;
    impl.options = std::move(options);
    impl.events->handler = std::move(handler);
    impl.events->direct = impl.options.deliverOnLoopThread;
    impl.eventThread = std::thread([q = impl.events] { EventQueue::run(q); });
    impl.events->threadID = impl.eventThread.get_id();
    impl.mainloop = pa_threaded_mainloop_new();
    if (!impl.mainloop) {
        logLine(AudioLogLevel::error, "could not create the libpulse main loop", "");
        return self;
    }
    pa_threaded_mainloop_set_name(impl.mainloop, "zdr-pulse");
    pa_threaded_mainloop_lock(impl.mainloop);
    if (pa_threaded_mainloop_start(impl.mainloop) < 0) {
        pa_threaded_mainloop_unlock(impl.mainloop);
        logLine(AudioLogLevel::error, "could not start the libpulse main loop", "");
        pa_threaded_mainloop_free(impl.mainloop);
        impl.mainloop = nullptr;
        return self;
    }
    impl.connect();
    pa_threaded_mainloop_unlock(impl.mainloop);
    return self;
}

PulseConnection::~PulseConnection() { shutdown(); }

void PulseConnection::shutdown() {
    if (!impl_) return;
    Impl& impl = *impl_;
    if (impl.mainloop) {
        pa_threaded_mainloop_lock(impl.mainloop);
        impl.shuttingDown = true;
        if (impl.retryEvent) {
            auto* api = pa_threaded_mainloop_get_api(impl.mainloop);
            api->time_free(impl.retryEvent);
            impl.retryEvent = nullptr;
        }
        impl.retireContext();
        if (impl.deadContext) {
            pa_context_unref(impl.deadContext);
            impl.deadContext = nullptr;
        }
        pa_threaded_mainloop_unlock(impl.mainloop);
        pa_threaded_mainloop_stop(impl.mainloop);
        pa_threaded_mainloop_free(impl.mainloop);
        impl.mainloop = nullptr;
    }
    {
        std::lock_guard lock(impl.events->mutex);
        impl.events->stop = true;
        impl.events->events.clear();
    }
    impl.events->cv.notify_all();
    if (impl.eventThread.joinable()) {
        if (std::this_thread::get_id() == impl.eventThread.get_id()) {
            impl.eventThread.detach();  // it holds its own reference to the queue
        } else {
            impl.eventThread.join();
        }
    }
    // The handler may capture owners of this connection; drop it outside the
    // queue's lock so their destructors can run freely.
    PulseConnection::EventHandler dropped;
    {
        std::lock_guard lock(impl.events->mutex);
        if (std::this_thread::get_id() != impl.events->threadID) dropped.swap(impl.events->handler);
    }
}

bool PulseConnection::waitUntilSynced(std::chrono::milliseconds timeout,
                                      bool giveUpOnFailure) const {
    std::unique_lock lock(impl_->stateMutex);
    const uint64_t failuresBefore = impl_->failedAttempts;
    impl_->syncedCv.wait_for(lock, timeout, [&] {
        return impl_->isSynced || (giveUpOnFailure && impl_->failedAttempts != failuresBefore);
    });
    return impl_->isSynced;
}

bool PulseConnection::synced() const {
    std::lock_guard lock(impl_->stateMutex);
    return impl_->isSynced;
}

uint64_t PulseConnection::generation() const {
    std::lock_guard lock(impl_->stateMutex);
    return impl_->generation;
}

void PulseConnection::Impl::waitForPendingAdds(std::unique_lock<std::mutex>& lock) const {
    if (pendingAdds == 0 || !mainloop || pa_threaded_mainloop_in_thread(mainloop)) return;
    syncedCv.wait_for(lock, options.callTimeout, [&] { return pendingAdds == 0; });
}

std::vector<std::shared_ptr<const PulseDevice>> PulseConnection::devices() const {
    std::unique_lock lock(impl_->stateMutex);
    impl_->waitForPendingAdds(lock);
    std::vector<std::shared_ptr<const PulseDevice>> out;
    out.reserve(impl_->visible.size());
    for (const auto& [id, d] : impl_->visible) out.push_back(d);
    return out;
}

std::shared_ptr<const PulseDevice> PulseConnection::device(uint32_t objectID) const {
    std::lock_guard lock(impl_->stateMutex);
    auto it = impl_->visible.find(objectID);
    return it == impl_->visible.end() ? nullptr : it->second;
}

std::shared_ptr<const PulseDevice> PulseConnection::deviceByUID(const std::string& uid) const {
    std::unique_lock lock(impl_->stateMutex);
    impl_->waitForPendingAdds(lock);
    for (const auto& [id, d] : impl_->visible) {
        if (d->uid == uid) return d;
    }
    return nullptr;
}

std::shared_ptr<const PulseDevice> PulseConnection::deviceByName(PulseDeviceKind kind,
                                                                 const std::string& name) const {
    std::unique_lock lock(impl_->stateMutex);
    impl_->waitForPendingAdds(lock);
    for (const auto& [id, d] : impl_->visible) {
        if (d->kind == kind && d->name == name) return d;
    }
    return nullptr;
}

PulseServerInfo PulseConnection::serverInfo() const {
    std::lock_guard lock(impl_->stateMutex);
    return impl_->server;
}

PulseCallResult PulseConnection::setVolume(uint32_t objectID, const std::vector<uint32_t>& volume) {
    auto d = device(objectID);
    if (!d) return PulseCallResult::notConnected;
    if (volume.empty() || volume.size() > PA_CHANNELS_MAX) return PulseCallResult::failed;
    if (!impl_->mainloop) return PulseCallResult::notConnected;
    pa_cvolume cv;
    pa_cvolume_init(&cv);
    cv.channels = static_cast<uint8_t>(volume.size());
    for (size_t i = 0; i < volume.size(); ++i) {
        cv.values[i] = std::min<uint32_t>(volume[i], PA_VOLUME_MAX);
    }
    OpWait wait;
    auto result = impl_->call(
        [&](pa_context* c, OpWait* w) {
            return d->kind == PulseDeviceKind::sink ? pa_context_set_sink_volume_by_index(
                                                          c, d->index, &cv, &OpWait::onSuccess, w)
                                                    : pa_context_set_source_volume_by_index(
                                                          c, d->index, &cv, &OpWait::onSuccess, w);
        },
        wait);
    if (result == PulseCallResult::ok) {
        impl_->updateVisible(
            objectID, [&](PulseDevice& v) { v.volume.assign(cv.values, cv.values + cv.channels); });
    }
    return result;
}

PulseCallResult PulseConnection::setMute(uint32_t objectID, bool mute) {
    auto d = device(objectID);
    if (!d || !impl_->mainloop) return PulseCallResult::notConnected;
    OpWait wait;
    auto result = impl_->call(
        [&](pa_context* c, OpWait* w) {
            return d->kind == PulseDeviceKind::sink
                       ? pa_context_set_sink_mute_by_index(c, d->index, mute, &OpWait::onSuccess, w)
                       : pa_context_set_source_mute_by_index(c, d->index, mute, &OpWait::onSuccess,
                                                             w);
        },
        wait);
    if (result == PulseCallResult::ok) {
        impl_->updateVisible(objectID, [&](PulseDevice& v) { v.mute = mute; });
    }
    return result;
}

PulseCallResult PulseConnection::setPort(uint32_t objectID, const std::string& port) {
    auto d = device(objectID);
    if (!d || !impl_->mainloop) return PulseCallResult::notConnected;
    OpWait wait;
    auto result = impl_->call(
        [&](pa_context* c, OpWait* w) {
            return d->kind == PulseDeviceKind::sink
                       ? pa_context_set_sink_port_by_index(c, d->index, port.c_str(),
                                                           &OpWait::onSuccess, w)
                       : pa_context_set_source_port_by_index(c, d->index, port.c_str(),
                                                             &OpWait::onSuccess, w);
        },
        wait);
    if (result == PulseCallResult::ok) {
        impl_->updateVisible(objectID, [&](PulseDevice& v) { v.activePort = port; });
    }
    return result;
}

PulseCallResult PulseConnection::setDefault(uint32_t objectID) {
    auto d = device(objectID);
    if (!d || !impl_->mainloop) return PulseCallResult::notConnected;
    OpWait wait;
    auto result = impl_->call(
        [&](pa_context* c, OpWait* w) {
            return d->kind == PulseDeviceKind::sink
                       ? pa_context_set_default_sink(c, d->name.c_str(), &OpWait::onSuccess, w)
                       : pa_context_set_default_source(c, d->name.c_str(), &OpWait::onSuccess, w);
        },
        wait);
    if (result == PulseCallResult::ok) {
        std::lock_guard lock(impl_->stateMutex);
        (d->kind == PulseDeviceKind::sink ? impl_->server.defaultSinkName
                                          : impl_->server.defaultSourceName) = d->name;
    }
    return result;
}

std::optional<uint32_t> PulseConnection::loadModule(const std::string& name,
                                                    const std::string& argument,
                                                    PulseCallResult* result) {
    PulseCallResult r = PulseCallResult::notConnected;
    OpWait wait;
    if (impl_->mainloop) {
        r = impl_->call(
            [&](pa_context* c, OpWait* w) {
                return pa_context_load_module(c, name.c_str(), argument.c_str(), &OpWait::onIndex,
                                              w);
            },
            wait);
    }
    if (result) *result = r;
    if (r != PulseCallResult::ok) return std::nullopt;
    std::lock_guard lock(wait.mutex);
    return wait.index;
}

PulseCallResult PulseConnection::unloadModule(uint32_t index) {
    if (!impl_->mainloop) return PulseCallResult::notConnected;
    OpWait wait;
    return impl_->call(
        [&](pa_context* c, OpWait* w) {
            return pa_context_unload_module(c, index, &OpWait::onSuccess, w);
        },
        wait);
}

PulseCallResult PulseConnection::roundTrip() {
    if (!impl_->mainloop) return PulseCallResult::notConnected;
    // Two trips: the first makes sure every event sent before it has been
    // read (and its info request issued); the second waits for those answers.
    for (int i = 0; i < 2; ++i) {
        OpWait wait;
        auto r = impl_->call(
            [&](pa_context* c, OpWait* w) {
                return pa_context_get_server_info(c, &OpWait::onServerInfo, w);
            },
            wait);
        if (r != PulseCallResult::ok) return r;
    }
    return PulseCallResult::ok;
}

const char* toString(PulseCallResult result) {
    switch (result) {
        case PulseCallResult::ok:
            return "ok";
        case PulseCallResult::failed:
            return "refused by the audio server";
        case PulseCallResult::notConnected:
            return "not connected to the audio server";
        case PulseCallResult::timedOut:
            return "the audio server did not answer in time";
    }
    return "unknown";
}

}  // namespace zdr::detail
