// One short-lived session-bus connection for the permission providers, with
// the few XDG portal exchanges they need. Every call is bounded; every
// failure comes back as a message in `error` (never thrown). Not thread-safe:
// one PortalBus per operation and thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

struct sd_bus;

namespace zdr::detail {

/// The string and unsigned values of an a{sv} answer (others are skipped).
using PortalResults = std::map<std::string, std::variant<std::string, std::uint32_t>>;

struct PortalOption {
    std::string key;
    std::variant<std::string, std::uint32_t, bool> value;
};

struct PortalAnswer {
    /// 0 success, 1 cancelled by the person, 2 other.
    std::uint32_t response = 2;
    PortalResults results;
};

class PortalBus {
 public:
    /// Connects to `address`, or the default session bus; null with `error`.
    static std::unique_ptr<PortalBus> open(const std::optional<std::string>& address,
                                           std::chrono::milliseconds callTimeout,
                                           std::string* error);
    ~PortalBus();
    PortalBus(const PortalBus&) = delete;
    PortalBus& operator=(const PortalBus&) = delete;

    /// PermissionStore.Lookup(table, id): the strings stored for `appId`;
    /// none with `error` on failure, an empty list when there is no entry.
    std::optional<std::vector<std::string>> lookupPermission(const std::string& table,
                                                             const std::string& id,
                                                             const std::string& appId,
                                                             std::string* error);

    /// Calls a portal request method on org.freedesktop.portal.Desktop whose
    /// arguments are `leading` (an object path argument for the methods that
    /// take a session, "" for none; a u and an as for AccessDevice) followed
    /// by the options, and waits up to `responseTimeout` for the Request's
    /// Response. None with `error` on failure or timeout.
    struct RequestCall {
        std::string interface;
        std::string method;
        std::optional<std::string> sessionPath;   ///< "o" first argument
        std::optional<std::string> parentWindow;  ///< "s" argument after it
        std::optional<std::uint32_t> pid;         ///< AccessDevice's "u"
        std::vector<std::string> devices;         ///< AccessDevice's "as"
        std::vector<PortalOption> options;
    };
    std::optional<PortalAnswer> request(const RequestCall& call,
                                        std::chrono::milliseconds responseTimeout,
                                        std::string* error);

    /// org.freedesktop.Application.Activate on `busName` at `objectPath`.
    bool activateApplication(const std::string& busName, const std::string& objectPath,
                             std::string* error);

 private:
    explicit PortalBus(sd_bus* bus) : bus_(bus) {}
    sd_bus* bus_;
    unsigned tokenCounter_ = 0;
};

/// Whether `name` is a well-formed D-Bus well-known name with two or more
/// elements (an application id such as "org.gnome.Nautilus").
bool isApplicationBusName(const std::string& name);
/// "/org/gnome/Nautilus" for "org.gnome.Nautilus" ('-' becomes '_').
std::string applicationObjectPath(const std::string& busName);

}  // namespace zdr::detail
