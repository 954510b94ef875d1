#include "apps/zdrctl/zdrctl_options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace zdr::zdrctl {

std::string usageText() {
    return R"(Usage: zdrctl [options] <command> [command options]

The machine's audio devices as long-lived objects that survive unplugging,
replugging and audio-server restarts.

Commands:
  devices [--json]     List the audio devices: UID, name, direction, channels,
                       sample rate, transport and default marks
                       (O default output, S system output, I default input).
                       --json prints one JSON array for scripts.
  watch [--seconds N]  Print every device notification and property change as it
                       happens (time, device, what changed) until interrupted
                       (Ctrl-C, SIGTERM) or for N seconds (at most a week).
  demo                 On the simulated backend: unplug and replug a device,
                       restart the audio server, change the default output and a
                       volume, and show that the same device objects come back.
  devices --channels   Also list each device's channels: volume, mute, label.
  volume DEVICE [VALUE]
                       Show the device's output and input volume, or set its
                       output volume (input for a device without outputs);
                       VALUE is 0 to 1 or a percentage (40%).
  mute DEVICE [on|off] Show or set the device's output mute.
  default [output|input] [DEVICE]
                       Show the default devices, or make DEVICE the default
                       output (or input) device.
                       DEVICE is a UID or a name; "default" is the default output.
  screens [--json]     List the screens in order: display ID, output, frame,
                       model, serial and vendor numbers, colour space.
  processes [NAME] [--json]
                       List the running processes (pid, parent, name,
                       desktop-file ID); with NAME, the pids whose kernel name
                       (at most 15 bytes) is NAME, and the search's status
                       (exit code 1 when none is found).
  permissions [--json] The microphone, camera, screen and scripting
                       permissions: status and where it came from.
  permissions request microphone|camera|screen
                       Ask for one (exit code 1 when not granted).
  analytics-test --endpoint URL [--measurement-id ID] [--client-id ID]
                 [--timeout SECONDS]
                       Send one application-start analytics event to URL's
                       "/g/collect" and print what went out and the status
                       (exit code 1 when the collector does not answer 2xx).

Options:
  --backend NAME       pulse or simulated. Default: $ZDR_AUDIO_BACKEND, else the
                       real audio server when one answers, else simulated.
  --hardware FILE      Describe the simulated machine with a JSON file (implies
                       --backend simulated).
  --log CATEGORIES     Switch log categories on, comma-separated: audio,
                       audioProperties, debug, app... A bare list shows every
                       level; the ZDR_LOG syntax ('audio=info;debug=on') works.
  -h, --help           Show this text.

Exit codes:
  0  success
  1  the command failed (for example, demo saw a device object replaced)
  2  bad command line
  3  the --hardware file is missing, unreadable, malformed or inconsistent
  4  the backend is unknown or not available
)";
}

ParseResult parseArguments(const std::vector<std::string>& args) {
    Options o;
    std::optional<Command> command;
    auto fail = [](std::string message) { return ParseResult{std::nullopt, std::move(message)}; };
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](const char* name) -> std::optional<std::string> {
            if (i + 1 >= args.size() || args[i + 1].empty()) return std::nullopt;
            (void)name;
            return args[++i];
        };
        if (a == "-h" || a == "--help" || a == "help") {
            o.command = Command::help;
            return {o, ""};
        } else if (a == "--backend") {
            auto v = value("--backend");
            if (!v) return fail("--backend needs a name (pulse or simulated)");
            o.backend = *v;
        } else if (a == "--hardware") {
            auto v = value("--hardware");
            if (!v) return fail("--hardware needs a JSON file");
            o.hardware = *v;
        } else if (a == "--log") {
            auto v = value("--log");
            if (!v) return fail("--log needs a comma-separated list of categories");
            o.logCategories = *v;
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--channels") {
            o.channels = true;
        } else if (a == "--seconds") {
            auto v = value("--seconds");
            if (!v) return fail("--seconds needs a number of seconds");
            char* end = nullptr;
            errno = 0;
            const double s = std::strtod(v->c_str(), &end);
            if (errno != 0 || end == v->c_str() || *end != '\0' || !std::isfinite(s) || s < 0) {
                return fail("--seconds needs a non-negative number, not \"" + *v + "\"");
            }
            if (s > kMaxWatchSeconds) {
                return fail("--seconds must be at most 604800 (a week), not \"" + *v +
                            "\"; leave it out to watch until interrupted");
            }
            o.seconds = s;
        } else if (!a.empty() && a[0] == '-') {
            return fail("unknown option \"" + a + "\"");
        } else if (command && (*command == Command::volume || *command == Command::mute ||
                               *command == Command::defaultDevice)) {
            o.arguments.push_back(a);
        } else if (command) {
            return fail("unexpected argument \"" + a + "\"");
        } else if (a == "devices") {
            command = Command::devices;
        } else if (a == "watch") {
            command = Command::watch;
        } else if (a == "demo") {
            command = Command::demo;
        } else if (a == "volume") {
            command = Command::volume;
        } else if (a == "mute") {
            command = Command::mute;
        } else if (a == "default") {
            command = Command::defaultDevice;
        } else {
            return fail("unknown command \"" + a +
                        "\" (devices, watch, demo, volume, mute or default)");
        }
    }
    if (!command) return fail("no command given (devices, watch, demo, volume, mute or default)");
    o.command = *command;
    if (o.json && o.command != Command::devices) return fail("--json belongs to \"devices\"");
    if (o.channels && o.command != Command::devices) {
        return fail("--channels belongs to \"devices\"");
    }
    if ((o.command == Command::volume || o.command == Command::mute) &&
        (o.arguments.empty() || o.arguments.size() > 2)) {
        return fail(o.command == Command::volume ? "usage: volume DEVICE [VALUE]"
                                                 : "usage: mute DEVICE [on|off]");
    }
    if (o.command == Command::defaultDevice) {
        const bool side =
            !o.arguments.empty() && (o.arguments[0] == "output" || o.arguments[0] == "input");
        if (o.arguments.size() > (side ? 2u : 1u)) {
            return fail("usage: default [output|input] [DEVICE]");
        }
    }
    if (o.seconds && o.command != Command::watch) return fail("--seconds belongs to \"watch\"");
    if (o.hardware && o.backend && *o.backend != "simulated") {
        return fail(
            "--hardware describes the simulated backend; it cannot be used with --backend " +
            *o.backend);
    }
    if (o.command == Command::demo && o.backend && *o.backend != "simulated") {
        return fail("demo runs on the simulated backend; it cannot be used with --backend " +
                    *o.backend);
    }
    return {o, ""};
}

}  // namespace zdr::zdrctl
