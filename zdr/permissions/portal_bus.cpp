#include <systemd/sd-bus.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "zdr/permissions/portal_bus_internal.h"

namespace zdr::detail {
namespace {

constexpr const char* kDesktopService = "org.freedesktop.portal.Desktop";
constexpr const char* kDesktopPath = "/org/freedesktop/portal/desktop";
constexpr const char* kStoreService = "org.freedesktop.impl.portal.PermissionStore";
constexpr const char* kStorePath = "/org/freedesktop/impl/portal/PermissionStore";
constexpr const char* kStoreInterface = "org.freedesktop.impl.portal.PermissionStore";

struct MessageRef {
    sd_bus_message* m = nullptr;
    ~MessageRef() { sd_bus_message_unref(m); }
};
struct ErrorRef {
    sd_bus_error e = SD_BUS_ERROR_NULL;
    ~ErrorRef() { sd_bus_error_free(&e); }
    std::string text(int r) const {
        if (e.name) return std::string(e.name) + ": " + (e.message ? e.message : "");
        return std::string("error ") + std::strerror(-r);
    }
};

std::string errnoText(const char* what, int r) {
    return std::string(what) + ": " + std::strerror(-r);
}

// Reads an a{sv}, keeping the string, object path and unsigned values.
int readResults(sd_bus_message* m, PortalResults* out) {
    int r = sd_bus_message_enter_container(m, 'a', "{sv}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
        const char* key = nullptr;
        if ((r = sd_bus_message_read(m, "s", &key)) < 0) return r;
        char type = 0;
        const char* contents = nullptr;
        if ((r = sd_bus_message_peek_type(m, &type, &contents)) < 0) return r;
        if (contents && (std::strcmp(contents, "s") == 0 || std::strcmp(contents, "o") == 0)) {
            const char* s = nullptr;
            if ((r = sd_bus_message_read(m, "v", contents, &s)) < 0) return r;
            (*out)[key] = std::string(s ? s : "");
        } else if (contents && std::strcmp(contents, "u") == 0) {
            std::uint32_t u = 0;
            if ((r = sd_bus_message_read(m, "v", "u", &u)) < 0) return r;
            (*out)[key] = u;
        } else {
            if ((r = sd_bus_message_skip(m, "v")) < 0) return r;
        }
        if ((r = sd_bus_message_exit_container(m)) < 0) return r;
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

int appendOptions(sd_bus_message* m, const std::vector<PortalOption>& options) {
    int r = sd_bus_message_open_container(m, 'a', "{sv}");
    if (r < 0) return r;
    for (const auto& option : options) {
        if ((r = sd_bus_message_open_container(m, 'e', "sv")) < 0) return r;
        if ((r = sd_bus_message_append(m, "s", option.key.c_str())) < 0) return r;
        if (auto* s = std::get_if<std::string>(&option.value)) {
            r = sd_bus_message_append(m, "v", "s", s->c_str());
        } else if (auto* u = std::get_if<std::uint32_t>(&option.value)) {
            r = sd_bus_message_append(m, "v", "u", *u);
        } else {
            r = sd_bus_message_append(m, "v", "b", std::get<bool>(option.value) ? 1 : 0);
        }
        if (r < 0) return r;
        if ((r = sd_bus_message_close_container(m)) < 0) return r;
    }
    return sd_bus_message_close_container(m);
}

struct ResponseCollector {
    std::vector<std::pair<std::string, PortalAnswer>> answers;
    bool malformed = false;
};

int onResponse(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* collector = static_cast<ResponseCollector*>(userdata);
    PortalAnswer answer;
    const char* path = sd_bus_message_get_path(m);
    if (sd_bus_message_read(m, "u", &answer.response) < 0 || readResults(m, &answer.results) < 0) {
        collector->malformed = true;
        collector->answers.emplace_back(path ? path : "", PortalAnswer{2, {}});
        return 0;
    }
    collector->answers.emplace_back(path ? path : "", std::move(answer));
    return 0;
}

}  // namespace

std::unique_ptr<PortalBus> PortalBus::open(const std::optional<std::string>& address,
                                           std::chrono::milliseconds callTimeout,
                                           std::string* error) {
    sd_bus* bus = nullptr;
    int r = 0;
    if (address) {
        r = sd_bus_new(&bus);
        if (r >= 0) r = sd_bus_set_address(bus, address->c_str());
        if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
        if (r >= 0) r = sd_bus_start(bus);
    } else {
        r = sd_bus_open_user(&bus);
    }
    if (r < 0) {
        sd_bus_flush_close_unref(bus);
        if (error) *error = errnoText("No session bus", r);
        return nullptr;
    }
    sd_bus_set_method_call_timeout(bus, static_cast<std::uint64_t>(callTimeout.count()) * 1000);
    return std::unique_ptr<PortalBus>(new PortalBus(bus));
}

PortalBus::~PortalBus() { sd_bus_flush_close_unref(bus_); }

std::optional<std::vector<std::string>> PortalBus::lookupPermission(const std::string& table,
                                                                    const std::string& id,
                                                                    const std::string& appId,
                                                                    std::string* error) {
    ErrorRef err;
    MessageRef reply;
    int r = sd_bus_call_method(bus_, kStoreService, kStorePath, kStoreInterface, "Lookup", &err.e,
                               &reply.m, "ss", table.c_str(), id.c_str());
    if (r < 0) {
        // No entry at all is an ordinary answer: nothing decided.
        if (err.e.name && std::strcmp(err.e.name, "org.freedesktop.portal.Error.NotFound") == 0) {
            return std::vector<std::string>{};
        }
        if (error) *error = "Permission store lookup failed: " + err.text(r);
        return std::nullopt;
    }
    if (std::strcmp(sd_bus_message_get_signature(reply.m, 1), "a{sas}v") != 0) {
        if (error) {
            *error = std::string("Permission store answered with signature ") +
                     sd_bus_message_get_signature(reply.m, 1);
        }
        return std::nullopt;
    }
    std::vector<std::string> values;
    bool found = false;
    r = sd_bus_message_enter_container(reply.m, 'a', "{sas}");
    while (r >= 0 && (r = sd_bus_message_enter_container(reply.m, 'e', "sas")) > 0) {
        const char* app = nullptr;
        if ((r = sd_bus_message_read(reply.m, "s", &app)) < 0) break;
        char** strv = nullptr;
        if ((r = sd_bus_message_read_strv(reply.m, &strv)) < 0) break;
        if (app && appId == app && !found) {
            found = true;
            for (char** s = strv; s && *s; ++s) values.emplace_back(*s);
        }
        for (char** s = strv; s && *s; ++s) free(*s);
        free(strv);
        if ((r = sd_bus_message_exit_container(reply.m)) < 0) break;
    }
    if (r < 0) {
        if (error) *error = errnoText("Malformed permission store answer", r);
        return std::nullopt;
    }
    return values;
}

std::optional<PortalAnswer> PortalBus::request(const RequestCall& call,
                                               std::chrono::milliseconds responseTimeout,
                                               std::string* error) {
    ResponseCollector collector;
    sd_bus_slot* slot = nullptr;
    // Subscribed before the call, so that an answer sent at once is not missed.
    int r = sd_bus_match_signal(bus_, &slot, nullptr, nullptr, "org.freedesktop.portal.Request",
                                "Response", onResponse, &collector);
    if (r < 0) {
        if (error) *error = errnoText("Cannot watch portal responses", r);
        return std::nullopt;
    }
    struct SlotRef {
        sd_bus_slot* s;
        ~SlotRef() { sd_bus_slot_unref(s); }
    } slotRef{slot};

    MessageRef message;
    r = sd_bus_message_new_method_call(bus_, &message.m, kDesktopService, kDesktopPath,
                                       call.interface.c_str(), call.method.c_str());
    if (r >= 0 && call.sessionPath)
        r = sd_bus_message_append(message.m, "o", call.sessionPath->c_str());
    if (r >= 0 && call.parentWindow)
        r = sd_bus_message_append(message.m, "s", call.parentWindow->c_str());
    if (r >= 0 && call.pid) r = sd_bus_message_append(message.m, "u", *call.pid);
    if (r >= 0 && call.pid) {
        r = sd_bus_message_open_container(message.m, 'a', "s");
        for (const auto& d : call.devices) {
            if (r >= 0) r = sd_bus_message_append(message.m, "s", d.c_str());
        }
        if (r >= 0) r = sd_bus_message_close_container(message.m);
    }
    auto options = call.options;
    options.push_back({"handle_token", "zdr" + std::to_string(++tokenCounter_)});
    if (r >= 0) r = appendOptions(message.m, options);
    if (r < 0) {
        if (error) *error = errnoText("Cannot build portal call", r);
        return std::nullopt;
    }
    ErrorRef err;
    MessageRef reply;
    r = sd_bus_call(bus_, message.m, 0, &err.e, &reply.m);
    if (r < 0) {
        if (error) *error = call.interface + "." + call.method + " failed: " + err.text(r);
        return std::nullopt;
    }
    const char* handle = nullptr;
    if (sd_bus_message_read(reply.m, "o", &handle) < 0 || !handle) {
        if (error)
            *error = call.interface + "." + call.method + " answered without a request handle";
        return std::nullopt;
    }
    const std::string handlePath = handle;
    const auto deadline = std::chrono::steady_clock::now() + responseTimeout;
    for (;;) {
        for (auto& [path, answer] : collector.answers) {
            if (path == handlePath) {
                if (collector.malformed && answer.results.empty() && answer.response == 2) {
                    if (error) *error = "Malformed portal response on " + handlePath;
                }
                return std::move(answer);
            }
        }
        r = sd_bus_process(bus_, nullptr);
        if (r < 0) {
            if (error) *error = errnoText("Lost the session bus while waiting", r);
            return std::nullopt;
        }
        if (r > 0) continue;
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            if (error) *error = call.interface + "." + call.method + ": no answer in time";
            return std::nullopt;
        }
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - now);
        r = sd_bus_wait(bus_, static_cast<std::uint64_t>(left.count()));
        if (r < 0) {
            if (error) *error = errnoText("Lost the session bus while waiting", r);
            return std::nullopt;
        }
    }
}

bool PortalBus::activateApplication(const std::string& busName, const std::string& objectPath,
                                    std::string* error) {
    ErrorRef err;
    MessageRef reply;
    int r =
        sd_bus_call_method(bus_, busName.c_str(), objectPath.c_str(), "org.freedesktop.Application",
                           "Activate", &err.e, &reply.m, "a{sv}", 0);
    if (r < 0) {
        if (error) *error = err.text(r);
        return false;
    }
    return true;
}

bool isApplicationBusName(const std::string& name) {
    if (name.empty() || name.size() > 255) return false;
    std::size_t elements = 0;
    std::size_t start = 0;
    for (;;) {
        auto dot = name.find('.', start);
        const std::string element =
            name.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
        if (element.empty()) return false;
        if (std::isdigit(static_cast<unsigned char>(element[0]))) return false;
        for (unsigned char c : element) {
            if (!std::isalnum(c) && c != '_' && c != '-') return false;
        }
        ++elements;
        if (dot == std::string::npos) break;
        start = dot + 1;
    }
    return elements >= 2;
}

std::string applicationObjectPath(const std::string& busName) {
    std::string path = "/";
    for (char c : busName) path += c == '.' ? '/' : c == '-' ? '_' : c;
    return path;
}

}  // namespace zdr::detail
