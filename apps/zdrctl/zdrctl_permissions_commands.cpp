#include "apps/zdrctl/zdrctl_permissions_commands.h"

#include <condition_variable>
#include <mutex>
#include <nlohmann/json.hpp>
#include <ostream>

#include "apps/zdrctl/zdrctl_options.h"
#include "zdr/permissions/ask_permission.h"

namespace zdr::zdrctl {
namespace {

struct Row {
    PermissionTarget target;
    AskAuthorizationStatus status;
    std::string source;
    std::string note;
};

std::vector<Row> currentRows() {
    std::vector<Row> rows;
    auto providers = PermissionProviders::installed();
    for (auto target : kAllPermissionTargets) {
        if (target == PermissionTarget::applescript) {
            // Scripting is per application: there is nothing to show without one.
            const auto response = AskPermission::determinePermissionsFor(target);
            rows.push_back({target, response.result, "application",
                            response.error ? std::string(permissionErrorName(*response.error))
                                           : std::string()});
            continue;
        }
        auto provider = providers->makeProvider(target);
        rows.push_back(
            {target,
             provider ? provider->authorizationStatus() : AskAuthorizationStatus::notDetermined,
             provider ? provider->source() : std::string(), std::string()});
    }
    return rows;
}

int runList(bool json, std::ostream& out) {
    const auto rows = currentRows();
    if (json) {
        auto list = nlohmann::json::array();
        for (const auto& r : rows) {
            nlohmann::json item{{"target", permissionTargetName(r.target)},
                                {"status", static_cast<int>(r.status)},
                                {"statusText", authorizationStatusText(r.status)},
                                {"source", r.source}};
            if (!r.note.empty()) item["error"] = r.note;
            list.push_back(std::move(item));
        }
        out << list.dump(2) << "\n";
        return kExitOK;
    }
    for (const auto& r : rows) {
        std::string line = std::string(permissionTargetName(r.target));
        line.resize(13, ' ');
        std::string status = authorizationStatusText(r.status);
        status.resize(16, ' ');
        out << line << status << r.source;
        if (!r.note.empty()) out << " (" << r.note << ")";
        out << "\n";
    }
    return kExitOK;
}

int runRequest(PermissionTarget target, std::ostream& out) {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    AskAuthorizationStatus status = AskAuthorizationStatus::notDetermined;
    AskPermission::requestPermissionFor(target, [&](AskAuthorizationStatus s, auto) {
        std::lock_guard lock(mutex);
        status = s;
        done = true;
        cv.notify_all();
    });
    std::unique_lock lock(mutex);
    cv.wait(lock, [&] { return done; });
    out << permissionTargetName(target) << ": " << authorizationStatusText(status) << "\n";
    return status == AskAuthorizationStatus::authorized ? kExitOK : kExitFailure;
}

}  // namespace

std::string authorizationStatusText(AskAuthorizationStatus status) {
    switch (status) {
        case AskAuthorizationStatus::notDetermined:
            return "not determined";
        case AskAuthorizationStatus::restricted:
            return "restricted";
        case AskAuthorizationStatus::denied:
            return "denied";
        case AskAuthorizationStatus::authorized:
            return "authorized";
    }
    return "unknown";
}

std::optional<int> runPermissionsCommand(const std::vector<std::string>& args, std::ostream& out,
                                         std::ostream& err) {
    if (args.empty() || args[0] != "permissions") return std::nullopt;
    auto usage = [&](const std::string& message) {
        err << "zdrctl: " << message << "\nRun 'zdrctl --help' for usage.\n";
        return kExitUsage;
    };
    if (args.size() >= 2 && args[1] == "request") {
        if (args.size() != 3)
            return usage("permissions request needs microphone, camera or screen");
        auto target = permissionTargetFromName(args[2]);
        if (!target || *target == PermissionTarget::applescript) {
            return usage("cannot request \"" + args[2] + "\": use microphone, camera or screen");
        }
        return runRequest(*target, out);
    }
    bool json = false;
    for (std::size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--json") {
            json = true;
        } else {
            return usage("unexpected argument \"" + args[i] + "\" for \"permissions\"");
        }
    }
    return runList(json, out);
}

}  // namespace zdr::zdrctl
