#include "zdr/testing/mock_portal.h"

#include <systemd/sd-bus.h>

#include <cstring>

namespace zdr::testing {
namespace {

// A Response whose body is not (u, a{sv}).
int emitGarbageResponse(sd_bus_message* m, const std::string& path) {
    return sd_bus_emit_signal(sd_bus_message_get_bus(m), path.c_str(),
                              "org.freedesktop.portal.Request", "Response", "s", "garbage");
}

const char* kRequestPrefix = "/org/freedesktop/portal/desktop/request/mock/";

// Skips the a{sv} options, returning "restore_token" if present.
std::string readRestoreToken(sd_bus_message* m) {
    std::string token;
    if (sd_bus_message_enter_container(m, 'a', "{sv}") < 0) return token;
    while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
        const char* key = nullptr;
        sd_bus_message_read(m, "s", &key);
        const char* contents = nullptr;
        char type = 0;
        sd_bus_message_peek_type(m, &type, &contents);
        if (key && std::strcmp(key, "restore_token") == 0 && contents &&
            std::strcmp(contents, "s") == 0) {
            const char* s = nullptr;
            sd_bus_message_read(m, "v", "s", &s);
            if (s) token = s;
        } else {
            sd_bus_message_skip(m, "v");
        }
        sd_bus_message_exit_container(m);
    }
    sd_bus_message_exit_container(m);
    return token;
}

int emitResponse(sd_bus_message* m, const std::string& path, std::uint32_t response,
                 const char* key1 = nullptr, const char* value1 = nullptr) {
    sd_bus* bus = sd_bus_message_get_bus(m);
    sd_bus_message* signal = nullptr;
    int r = sd_bus_message_new_signal(bus, &signal, path.c_str(), "org.freedesktop.portal.Request",
                                      "Response");
    if (r < 0) return r;
    r = sd_bus_message_append(signal, "u", response);
    if (r >= 0) r = sd_bus_message_open_container(signal, 'a', "{sv}");
    if (r >= 0 && key1) r = sd_bus_message_append(signal, "{sv}", key1, "s", value1);
    if (r >= 0) r = sd_bus_message_close_container(signal);
    if (r >= 0) r = sd_bus_send(bus, signal, nullptr);
    sd_bus_message_unref(signal);
    return r;
}

int emitSessionResponse(sd_bus_message* m, const std::string& path, const std::string& session) {
    sd_bus* bus = sd_bus_message_get_bus(m);
    sd_bus_message* signal = nullptr;
    int r = sd_bus_message_new_signal(bus, &signal, path.c_str(), "org.freedesktop.portal.Request",
                                      "Response");
    if (r < 0) return r;
    r = sd_bus_message_append(signal, "ua{sv}", 0u, 1, "session_handle", "o", session.c_str());
    if (r >= 0) r = sd_bus_send(bus, signal, nullptr);
    sd_bus_message_unref(signal);
    return r;
}

}  // namespace

MockPortal::MockPortal(std::string busAddress) : address_(std::move(busAddress)) {}
MockPortal::~MockPortal() { stop(); }

bool MockPortal::start(std::string* error, const std::string& applicationName) {
    auto fail = [&](const char* what, int r) {
        if (error) *error = std::string(what) + ": " + std::strerror(-r);
        if (bus_) bus_ = sd_bus_flush_close_unref(bus_);
        return false;
    };
    int r = sd_bus_new(&bus_);
    if (r >= 0) r = sd_bus_set_address(bus_, address_.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(bus_, 1);
    if (r >= 0) r = sd_bus_start(bus_);
    if (r < 0) return fail("connect", r);

    static const sd_bus_vtable store[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Lookup", "ss", "a{sas}v", &MockPortal::onLookup, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    static const sd_bus_vtable camera[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("AccessCamera", "a{sv}", "o", &MockPortal::onAccessCamera,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    static const sd_bus_vtable device[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("AccessDevice", "uasa{sv}", "o", &MockPortal::onAccessDevice,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    static const sd_bus_vtable screencast[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("CreateSession", "a{sv}", "o", &MockPortal::onCreateSession,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("SelectSources", "oa{sv}", "o", &MockPortal::onSelectSources,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Start", "osa{sv}", "o", &MockPortal::onStart, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    static const sd_bus_vtable application[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Activate", "a{sv}", "", &MockPortal::onActivate, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};

    const char* desktop = "/org/freedesktop/portal/desktop";
    r = sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/impl/portal/PermissionStore",
                                 "org.freedesktop.impl.portal.PermissionStore", store, this);
    if (r >= 0) {
        r = sd_bus_add_object_vtable(bus_, nullptr, desktop, "org.freedesktop.portal.Camera",
                                     camera, this);
    }
    if (r >= 0) {
        r = sd_bus_add_object_vtable(bus_, nullptr, desktop, "org.freedesktop.portal.Device",
                                     device, this);
    }
    if (r >= 0) {
        r = sd_bus_add_object_vtable(bus_, nullptr, desktop, "org.freedesktop.portal.ScreenCast",
                                     screencast, this);
    }
    if (r < 0) return fail("register", r);
    if (!applicationName.empty()) {
        std::string path = "/";
        for (char c : applicationName) path += c == '.' ? '/' : c == '-' ? '_' : c;
        r = sd_bus_add_object_vtable(bus_, nullptr, path.c_str(), "org.freedesktop.Application",
                                     application, this);
        if (r >= 0) r = sd_bus_request_name(bus_, applicationName.c_str(), 0);
        if (r < 0) return fail("application", r);
    }
    r = sd_bus_request_name(bus_, "org.freedesktop.portal.Desktop", 0);
    if (r >= 0) r = sd_bus_request_name(bus_, "org.freedesktop.impl.portal.PermissionStore", 0);
    if (r < 0) return fail("request name", r);
    thread_ = std::thread([this] { run(); });
    return true;
}

void MockPortal::stop() {
    if (thread_.joinable()) {
        stopping_ = true;
        thread_.join();
    }
    if (bus_) bus_ = sd_bus_flush_close_unref(bus_);
}

void MockPortal::run() {
    while (!stopping_) {
        int r = sd_bus_process(bus_, nullptr);
        if (r < 0) break;
        if (r > 0) continue;
        sd_bus_wait(bus_, 20000);
    }
}

void MockPortal::setStoreEntry(const std::string& table, const std::string& id,
                               const std::string& appId, std::vector<std::string> values) {
    std::lock_guard lock(mutex_);
    store_[table + "/" + id + "/" + appId] = std::move(values);
}
std::vector<std::string> MockPortal::storeEntry(const std::string& table, const std::string& id,
                                                const std::string& appId) const {
    std::lock_guard lock(mutex_);
    auto it = store_.find(table + "/" + id + "/" + appId);
    return it == store_.end() ? std::vector<std::string>{} : it->second;
}
void MockPortal::setStoreAnswer(Answer answer) {
    std::lock_guard lock(mutex_);
    storeAnswer_ = answer;
}
void MockPortal::setDeviceAnswer(Answer answer) {
    std::lock_guard lock(mutex_);
    deviceAnswer_ = answer;
}
void MockPortal::setScreenCastAnswer(Answer answer) {
    std::lock_guard lock(mutex_);
    screenAnswer_ = answer;
}
void MockPortal::acceptRestoreToken(const std::string& token) {
    std::lock_guard lock(mutex_);
    acceptedTokens_.insert(token);
}
void MockPortal::setApplicationAnswer(Answer answer) {
    std::lock_guard lock(mutex_);
    applicationAnswer_ = answer;
}
void MockPortal::setAppId(std::string appId) {
    std::lock_guard lock(mutex_);
    appId_ = std::move(appId);
}
int MockPortal::dialogs() const {
    std::lock_guard lock(mutex_);
    return dialogs_;
}
std::vector<std::string> MockPortal::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

std::string MockPortal::newRequestPath() { return kRequestPrefix + std::to_string(++counter_); }

int MockPortal::onLookup(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<MockPortal*>(userdata);
    const char* table = nullptr;
    const char* id = nullptr;
    int r = sd_bus_message_read(m, "ss", &table, &id);
    if (r < 0) return r;
    std::lock_guard lock(self->mutex_);
    self->calls_.push_back("PermissionStore.Lookup");
    switch (self->storeAnswer_) {
        case Answer::error:
            return sd_bus_error_set(error, "org.freedesktop.DBus.Error.Failed", "store broken");
        case Answer::garbage:
            return sd_bus_reply_method_return(m, "s", "not a table");
        case Answer::noAnswer:
            return 1;
        default:
            break;
    }
    const std::string prefix = std::string(table) + "/" + id + "/";
    sd_bus_message* reply = nullptr;
    r = sd_bus_message_new_method_return(m, &reply);
    if (r < 0) return r;
    bool any = false;
    r = sd_bus_message_open_container(reply, 'a', "{sas}");
    for (const auto& [key, values] : self->store_) {
        if (r < 0 || key.rfind(prefix, 0) != 0) continue;
        any = true;
        const std::string app = key.substr(prefix.size());
        r = sd_bus_message_open_container(reply, 'e', "sas");
        if (r >= 0) r = sd_bus_message_append(reply, "s", app.c_str());
        if (r >= 0) r = sd_bus_message_open_container(reply, 'a', "s");
        for (const auto& v : values) {
            if (r >= 0) r = sd_bus_message_append(reply, "s", v.c_str());
        }
        if (r >= 0) r = sd_bus_message_close_container(reply);
        if (r >= 0) r = sd_bus_message_close_container(reply);
    }
    if (r >= 0) r = sd_bus_message_close_container(reply);
    if (r >= 0) r = sd_bus_message_append(reply, "v", "s", "");
    if (!any) {
        sd_bus_message_unref(reply);
        return sd_bus_error_set(error, "org.freedesktop.portal.Error.NotFound", "No entry");
    }
    if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return r < 0 ? r : 1;
}

int MockPortal::deviceDialog(sd_bus_message* m, const std::string& id, sd_bus_error* error) {
    std::unique_lock lock(mutex_);
    ++dialogs_;
    const Answer answer = deviceAnswer_;
    if (answer == Answer::error) {
        return sd_bus_error_set(error, "org.freedesktop.portal.Error.Failed", "dialog failed");
    }
    const std::string path = newRequestPath();
    const std::string key = "devices/" + id + "/" + appId_;
    if (answer == Answer::yes) store_[key] = {"yes"};
    if (answer == Answer::no) store_[key] = {"no"};
    lock.unlock();
    int r = sd_bus_reply_method_return(m, "o", path.c_str());
    if (r < 0) return r;
    switch (answer) {
        case Answer::yes:
            return emitResponse(m, path, 0);
        case Answer::no:
            return emitResponse(m, path, 2);
        case Answer::cancel:
            return emitResponse(m, path, 1);
        case Answer::garbage:
            return emitGarbageResponse(m, path);
        default:
            return 1;
    }
}

int MockPortal::onAccessCamera(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<MockPortal*>(userdata);
    {
        std::lock_guard lock(self->mutex_);
        self->calls_.push_back("Camera.AccessCamera");
    }
    return self->deviceDialog(m, "camera", error);
}

int MockPortal::onAccessDevice(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<MockPortal*>(userdata);
    std::uint32_t pid = 0;
    int r = sd_bus_message_read(m, "u", &pid);
    char** devices = nullptr;
    if (r >= 0) r = sd_bus_message_read_strv(m, &devices);
    if (r < 0) return r;
    std::string id = devices && devices[0] ? devices[0] : "";
    for (char** d = devices; d && *d; ++d) free(*d);
    free(devices);
    {
        std::lock_guard lock(self->mutex_);
        self->calls_.push_back("Device.AccessDevice:" + id);
    }
    return self->deviceDialog(m, id, error);
}

int MockPortal::onCreateSession(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<MockPortal*>(userdata);
    std::string path;
    std::string session;
    {
        std::lock_guard lock(self->mutex_);
        self->calls_.push_back("ScreenCast.CreateSession");
        path = self->newRequestPath();
        session = "/org/freedesktop/portal/desktop/session/mock/s" + std::to_string(self->counter_);
        self->sessionRestored_ = false;
    }
    int r = sd_bus_reply_method_return(m, "o", path.c_str());
    if (r < 0) return r;
    return emitSessionResponse(m, path, session);
}

int MockPortal::onSelectSources(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<MockPortal*>(userdata);
    const char* session = nullptr;
    int r = sd_bus_message_read(m, "o", &session);
    if (r < 0) return r;
    const std::string token = readRestoreToken(m);
    std::string path;
    {
        std::lock_guard lock(self->mutex_);
        self->calls_.push_back("ScreenCast.SelectSources");
        self->sessionRestored_ = !token.empty() && self->acceptedTokens_.count(token) > 0;
        if (self->sessionRestored_) self->acceptedTokens_.erase(token);  // tokens are single-use
        path = self->newRequestPath();
    }
    r = sd_bus_reply_method_return(m, "o", path.c_str());
    if (r < 0) return r;
    return emitResponse(m, path, 0);
}

int MockPortal::onStart(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<MockPortal*>(userdata);
    std::unique_lock lock(self->mutex_);
    self->calls_.push_back("ScreenCast.Start");
    Answer answer = Answer::yes;
    if (!self->sessionRestored_) {
        ++self->dialogs_;
        answer = self->screenAnswer_;
    }
    if (answer == Answer::error) {
        return sd_bus_error_set(error, "org.freedesktop.portal.Error.Failed", "no screens");
    }
    const std::string path = self->newRequestPath();
    const std::string token = "token-" + std::to_string(self->counter_);
    if (answer == Answer::yes) self->acceptedTokens_.insert(token);
    lock.unlock();
    int r = sd_bus_reply_method_return(m, "o", path.c_str());
    if (r < 0) return r;
    switch (answer) {
        case Answer::yes:
            return emitResponse(m, path, 0, "restore_token", token.c_str());
        case Answer::no:
            return emitResponse(m, path, 2);
        case Answer::cancel:
            return emitResponse(m, path, 1);
        default:
            return 1;
    }
}

int MockPortal::onActivate(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<MockPortal*>(userdata);
    std::lock_guard lock(self->mutex_);
    self->calls_.push_back("Application.Activate");
    switch (self->applicationAnswer_) {
        case Answer::yes:
            return sd_bus_reply_method_return(m, "");
        case Answer::noAnswer:
            return 1;
        default:
            return sd_bus_error_set(error, "org.freedesktop.DBus.Error.AccessDenied",
                                    "not allowed");
    }
}

}  // namespace zdr::testing
