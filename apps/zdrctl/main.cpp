// zdrctl: lists, watches and demonstrates the machine's audio devices.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <iostream>

#include "apps/zdrctl/zdrctl_analytics_commands.h"
#include "apps/zdrctl/zdrctl_channel_commands.h"
#include "apps/zdrctl/zdrctl_commands.h"
#include "apps/zdrctl/zdrctl_machine_commands.h"
#include "apps/zdrctl/zdrctl_options.h"
#include "apps/zdrctl/zdrctl_permissions_commands.h"

int main(int argc, char** argv) {
    using namespace zdr::zdrctl;
    // Block SIGINT and SIGTERM before any library thread starts, so every
    // thread inherits the mask and `watch` can take them from a signalfd and
    // stop cleanly.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    const int stopFd = signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);

    const std::vector<std::string> args(argv + 1, argv + argc);
    // screens and processes need no audio backend.
    if (auto rc = runMachineCommand(args, std::cout, std::cerr)) return *rc;
    if (auto rc = runPermissionsCommand(args, std::cout, std::cerr)) return *rc;
    if (auto rc = runAnalyticsCommand(args, std::cout, std::cerr)) return *rc;
    const ParseResult parsed = parseArguments(args);
    if (!parsed.options) {
        std::cerr << "zdrctl: " << parsed.error << "\nRun 'zdrctl --help' for usage.\n";
        return kExitUsage;
    }
    const Options& options = *parsed.options;
    if (options.command == Command::help) {
        std::cout << usageText();
        return kExitOK;
    }
    if (!applyLogOption(options, std::cerr)) return kExitUsage;
    if (const int rc =
            installBackend(options, options.command == Command::demo, std::cerr, nullptr);
        rc != kExitOK) {
        return rc;
    }
    int rc = kExitOK;
    switch (options.command) {
        case Command::devices:
            rc = runDevices(options, std::cout, std::cerr);
            break;
        case Command::watch:
            rc = runWatch(options, std::cout, std::cerr, stopFd);
            break;
        case Command::demo:
            rc = runDemo(options, std::cout, std::cerr);
            break;
        case Command::volume:
            rc = runVolume(options, std::cout, std::cerr);
            break;
        case Command::mute:
            rc = runMute(options, std::cout, std::cerr);
            break;
        case Command::defaultDevice:
            rc = runDefault(options, std::cout, std::cerr);
            break;
        case Command::help:
            break;
    }
    if (stopFd >= 0) ::close(stopFd);
    return rc;
}
