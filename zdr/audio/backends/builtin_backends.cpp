// The backends compiled into this library, in the order they are probed when
// neither the host nor ZDR_AUDIO_BACKEND chooses one. A backend for a real
// audio server registers with autoProbe = true and a factory that answers null
// when no server answers; the simulated backend is the fallback and is never
// probed.
#include "zdr/audio/backends/pulse/pulse_audio_hardware.h"
#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"
#include "zdr/audio/hal/audio_hardware.h"

namespace zdr::detail {

void registerBuiltinAudioBackends() {
    using hal::AudioHardware;
    hal::PulseAudioHardware::registerBackend();
    AudioHardware::registerBackend(
        "simulated",
        [] {
            return std::make_shared<hal::SimulatedAudioHardware>(
                hal::SimulatedAudioHardware::defaultDesktop());
        },
        /*autoProbe=*/false);
}

}  // namespace zdr::detail
