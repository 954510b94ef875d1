#include "apps/zdrctl/zdrctl_machine_commands.h"

#include <fmt/format.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <ostream>

#include "apps/zdrctl/zdrctl_commands.h"
#include "apps/zdrctl/zdrctl_options.h"
#include "zdr/system/bsd_proc_utils.h"
#include "zdr/system/screen_info.h"

namespace zdr::zdrctl {

namespace {

// The three letters a vendor number (an EDID manufacturer ID) stands for.
std::string vendorLetters(std::uint32_t vendor) {
    std::string out;
    for (int shift : {10, 5, 0}) {
        const int letter = static_cast<int>((vendor >> shift) & 0x1F);
        if (letter < 1 || letter > 26) return {};
        out += static_cast<char>('A' + letter - 1);
    }
    return out;
}

std::string outputName(const Screen& screen) {
    const auto* name =
        dictionaryValue<std::string>(screen.deviceDescription(), kZDRScreenOutputName);
    return name ? *name : std::string();
}

int runScreens(bool json, std::ostream& out) {
    const auto screens = Screen::screens();
    if (json) {
        auto list = nlohmann::json::array();
        for (std::size_t i = 0; i < screens.size(); ++i) {
            const auto& s = *screens[i];
            const ScreenInfo info(s);
            const auto f = s.frame();
            list.push_back(
                {{"order", i},
                 {"displayID", s.displayID()},
                 {"output", outputName(s)},
                 {"frame",
                  {{"x", f.x()}, {"y", f.y()}, {"width", f.width()}, {"height", f.height()}}},
                 {"modelNumber", info.modelNumber},
                 {"serialNumber", info.serialNumber},
                 {"vendorNumber", info.vendorNumber},
                 {"vendor", vendorLetters(info.vendorNumber)},
                 {"colorSpace", s.colorSpaceName().value_or("<unknown colorspace>")},
                 {"screenInfo", info.toJSON()}});
        }
        out << list.dump(2) << "\n";
        return kExitOK;
    }
    if (screens.empty()) {
        out << "No screens.\n";
        return kExitOK;
    }
    out << fmt::format("{:<3} {:<11} {:<10} {:<28} {:>6} {:>11} {:<13} {}\n", "#", "DISPLAY ID",
                       "OUTPUT", "FRAME", "MODEL", "SERIAL", "VENDOR", "COLOUR SPACE");
    for (std::size_t i = 0; i < screens.size(); ++i) {
        const auto& s = *screens[i];
        const ScreenInfo info(s);
        const std::string letters = vendorLetters(info.vendorNumber);
        const std::string vendor = info.vendorNumber == 0
                                       ? "0"
                                       : fmt::format("0x{:04X}{}", info.vendorNumber,
                                                     letters.empty() ? "" : " " + letters);
        out << fmt::format("{:<3} {:<11} {:<10} {:<28} {:>6} {:>11} {:<13} {}\n", i, s.displayID(),
                           outputName(s), s.frame().description(), info.modelNumber,
                           info.serialNumber, vendor,
                           s.colorSpaceName().value_or("<unknown colorspace>"));
    }
    return kExitOK;
}

int runProcessList(bool json, std::ostream& out) {
    const auto processes = BSDProcUtils::getBSDProcessList();
    if (json) {
        auto list = nlohmann::json::array();
        for (const auto& p : processes) {
            const auto bid = dictionaryGet<std::string>(p, kProcessBundleID);
            list.push_back({{"pid", dictionaryGet<pid_t>(p, kProcessPIDKey).value_or(0)},
                            {"ppid", dictionaryGet<pid_t>(p, kProcessParentPIDKey).value_or(0)},
                            {"name", dictionaryGet<std::string>(p, kProcessName).value_or("")},
                            {"desktopFileID", bid ? nlohmann::json(*bid) : nlohmann::json()}});
        }
        out << list.dump(2) << "\n";
        return kExitOK;
    }
    out << fmt::format("{:>8} {:>8} {:<16} {}\n", "PID", "PPID", "NAME", "DESKTOP-FILE ID");
    for (const auto& p : processes) {
        out << fmt::format("{:>8} {:>8} {:<16} {}\n",
                           dictionaryGet<pid_t>(p, kProcessPIDKey).value_or(0),
                           dictionaryGet<pid_t>(p, kProcessParentPIDKey).value_or(0),
                           dictionaryGet<std::string>(p, kProcessName).value_or(""),
                           dictionaryGet<std::string>(p, kProcessBundleID).value_or("-"));
    }
    return kExitOK;
}

int runPidSearch(const std::string& name, bool json, std::ostream& out) {
    // Room for every process the kernel can number by default.
    std::vector<std::int32_t> pids(32768);
    unsigned int count = 0;
    int error = 0;
    const int status = getAllPIDsForProcessName(name.c_str(), pids.data(),
                                                static_cast<unsigned>(pids.size()), &count, &error);
    pids.resize(std::min<std::size_t>(count, pids.size()));
    if (json) {
        out << nlohmann::json{{"name", name},
                              {"status", status},
                              {"statusText", pidSearchStatusText(status)},
                              {"error", error},
                              {"pids", pids}}
                   .dump(2)
            << "\n";
    } else {
        for (auto pid : pids) out << pid << "\n";
        out << "status " << status << " (" << pidSearchStatusText(status) << ")";
        if (error != 0) out << ": " << std::strerror(error);
        out << "\n";
    }
    return status == kZDRGetPIDsFound ? kExitOK : kExitFailure;
}

}  // namespace

std::string pidSearchStatusText(int status) {
    switch (status) {
        case kZDRGetPIDsFound:
            return "found";
        case kZDRGetPIDsNoneFound:
            return "none found";
        case kZDRGetPIDsBadArgument:
            return "bad argument";
        case kZDRGetPIDsTableUnreadable:
            return "process table unreadable";
        case kZDRGetPIDsNoMemory:
            return "out of memory";
        case kZDRGetPIDsArrayFull:
            return "more processes than room";
        default:
            return "unknown status";
    }
}

std::optional<int> runMachineCommand(const std::vector<std::string>& args, std::ostream& out,
                                     std::ostream& err) {
    std::optional<std::string> logCategories;
    std::size_t i = 0;
    // Global options before the command: only --log means anything here.
    while (i < args.size() && !args[i].empty() && args[i][0] == '-') {
        if (args[i] == "--log" && i + 1 < args.size()) {
            logCategories = args[i + 1];
            i += 2;
        } else if ((args[i] == "--backend" || args[i] == "--hardware") && i + 1 < args.size()) {
            i += 2;  // checked below: they belong to the audio commands
        } else {
            return std::nullopt;  // --help and the like: the main parser answers
        }
    }
    if (i >= args.size() || (args[i] != "screens" && args[i] != "processes")) return std::nullopt;
    const std::string command = args[i++];
    auto usage = [&](const std::string& message) {
        err << "zdrctl: " << message << "\nRun 'zdrctl --help' for usage.\n";
        return kExitUsage;
    };
    for (std::size_t k = 0; k + 1 < i; ++k) {
        if (args[k] == "--backend" || args[k] == "--hardware") {
            return usage(args[k] + " belongs to the audio commands, not \"" + command + "\"");
        }
    }
    bool json = false;
    std::optional<std::string> name;
    for (; i < args.size(); ++i) {
        if (args[i] == "--json") {
            json = true;
        } else if (!args[i].empty() && args[i][0] == '-') {
            return usage("unknown option \"" + args[i] + "\" for \"" + command + "\"");
        } else if (command == "processes" && !name && !args[i].empty()) {
            name = args[i];
        } else {
            return usage("unexpected argument \"" + args[i] + "\"");
        }
    }
    if (logCategories) {
        Options options;
        options.logCategories = logCategories;
        if (!applyLogOption(options, err)) return kExitUsage;
    }
    if (command == "screens") return runScreens(json, out);
    if (name) return runPidSearch(*name, json, out);
    return runProcessList(json, out);
}

}  // namespace zdr::zdrctl
