// The commands of zdrctl: devices, watch and demo, and the choice of backend
// they share. Each answers an exit code (see zdrctl_options.h) and writes its
// output to the streams it is given.
//
// Threads: call from the main thread; the commands drain the main queue.
#pragma once

#include <iosfwd>
#include <memory>

#include "apps/zdrctl/zdrctl_options.h"
#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"

namespace zdr::zdrctl {

/// Installs the backend the options ask for (a --hardware file makes a
/// simulated one; forceSimulated makes one even without a file, and says so
/// on `err`). When the simulated backend stands in for a missing audio
/// server, see standInForMissingServer(). Answers
/// kExitOK, or an exit code after writing the problem to `err`. *simulated
/// receives the simulated backend when one was made here.
int installBackend(const Options& options, bool forceSimulated, std::ostream& err,
                   std::shared_ptr<hal::SimulatedAudioHardware>* simulated);

/// What a command does when no audio server answered and the simulated
/// machine stands in for it: the commands that change things refuse (exit
/// kExitBackend, naming the missing server), the others say on `err` that the
/// simulated machine is shown and go on (kExitOK).
int standInForMissingServer(Command command, std::ostream& err);

/// Applies --log (the ZDR_LOG syntax; a bare list of categories shows every
/// level). False, after writing the problem to `err`, when the text is wrong.
bool applyLogOption(const Options& options, std::ostream& err);

int runDevices(const Options& options, std::ostream& out, std::ostream& err);
/// Runs until `stopFd` (a signalfd, or -1 for none) is readable or the
/// --seconds limit passes.
int runWatch(const Options& options, std::ostream& out, std::ostream& err, int stopFd);
int runDemo(const Options& options, std::ostream& out, std::ostream& err);

/// "builtin", "usb", "airplay"... for a transport type; the four characters
/// for one without a name.
std::string transportName(hal::UInt32 transport);

/// The readable name of a HAL selector in `watch` lines: the library's name,
/// else zdrctl's own for the controls users change most (mute, volume...).
std::string propertyName(hal::UInt32 selector);

}  // namespace zdr::zdrctl
