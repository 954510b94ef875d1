#include "zdr/audio/hal/audio_hardware.h"

#include <cstdlib>
#include <mutex>

namespace zdr::detail {
// Defined in zdr/audio/backends/builtin_backends.cpp: registers the backends
// compiled into this library.
void registerBuiltinAudioBackends();
}  // namespace zdr::detail

namespace zdr::hal {

namespace {

struct BackendEntry {
    std::string name;
    AudioHardware::Factory factory;
    bool autoProbe = false;
};

struct Selection {
    std::mutex mutex;
    std::vector<BackendEntry> backends;
    bool builtinsRegistered = false;
    std::shared_ptr<AudioHardware> installed;
    std::optional<std::string> problem;
};

Selection& selection() {
    static Selection* s = new Selection();  // lives until the process ends
    return *s;
}

// Called with the mutex held. Registration of the built-in backends calls
// registerBackend(), so it runs with the lock released.
void ensureBuiltins(std::unique_lock<std::mutex>& lock) {
    Selection& s = selection();
    if (s.builtinsRegistered) return;
    s.builtinsRegistered = true;
    lock.unlock();
    detail::registerBuiltinAudioBackends();
    lock.lock();
}

AudioHardware::Factory findFactory(const std::string& name) {
    Selection& s = selection();
    for (const auto& b : s.backends) {
        if (b.name == name) return b.factory;
    }
    return nullptr;
}

}  // namespace

AudioObjectID AudioHardware::translateUIDToDevice(const std::string& uid) {
    PropertyValue qualifier(uid);
    PropertyValue out;
    const AudioObjectPropertyAddress address{kAudioHardwarePropertyTranslateUIDToDevice,
                                             kAudioObjectPropertyScopeGlobal,
                                             kAudioObjectPropertyElementMain};
    if (getPropertyData(kAudioObjectSystemObject, address, &qualifier, out) !=
        kAudioHardwareNoError) {
        return kAudioObjectUnknown;
    }
    return out.as<UInt32>().value_or(kAudioObjectUnknown);
}

void AudioHardware::registerBackend(const std::string& name, Factory factory, bool autoProbe) {
    Selection& s = selection();
    std::lock_guard lock(s.mutex);
    for (auto& b : s.backends) {
        if (b.name == name) {
            b.factory = std::move(factory);
            b.autoProbe = autoProbe;
            return;
        }
    }
    s.backends.push_back({name, std::move(factory), autoProbe});
}

std::vector<std::string> AudioHardware::registeredBackends() {
    Selection& s = selection();
    std::unique_lock lock(s.mutex);
    ensureBuiltins(lock);
    std::vector<std::string> names;
    for (const auto& b : s.backends) names.push_back(b.name);
    return names;
}

std::shared_ptr<AudioHardware> AudioHardware::makeBackend(const std::string& name) {
    Factory factory;
    {
        Selection& s = selection();
        std::unique_lock lock(s.mutex);
        ensureBuiltins(lock);
        factory = findFactory(name);
    }
    // Factories may take time (connecting to a server): run them unlocked.
    return factory ? factory() : nullptr;
}

void AudioHardware::install(std::shared_ptr<AudioHardware> hardware) {
    Selection& s = selection();
    std::lock_guard lock(s.mutex);
    s.installed = std::move(hardware);
}

std::shared_ptr<AudioHardware> AudioHardware::installed() {
    Selection& s = selection();
    std::lock_guard lock(s.mutex);
    return s.installed;
}

std::optional<std::string> AudioHardware::lastSelectionProblem() {
    Selection& s = selection();
    std::lock_guard lock(s.mutex);
    return s.problem;
}

std::shared_ptr<AudioHardware> AudioHardware::current() {
    Selection& s = selection();
    std::unique_lock lock(s.mutex);
    if (s.installed) return s.installed;
    ensureBuiltins(lock);
    if (s.installed) return s.installed;

    // Choose with the lock released (factories may connect to a server), then
    // install unless another thread was quicker; everyone gets the same backend.
    std::vector<BackendEntry> backends = s.backends;
    lock.unlock();

    std::shared_ptr<AudioHardware> chosen;
    std::optional<std::string> problem;
    const char* env = std::getenv("ZDR_AUDIO_BACKEND");
    if (env != nullptr && *env != '\0') {
        const std::string wanted = env;
        bool known = false;
        for (const auto& b : backends) {
            if (b.name == wanted) {
                known = true;
                chosen = b.factory();
                break;
            }
        }
        if (!known) {
            problem = "ZDR_AUDIO_BACKEND names an unknown audio backend \"" + wanted +
                      "\"; using the simulated backend";
        } else if (!chosen) {
            problem = "the audio backend \"" + wanted +
                      "\" named by ZDR_AUDIO_BACKEND is not available; using the simulated backend";
        }
    } else {
        for (const auto& b : backends) {
            if (!b.autoProbe) continue;
            if ((chosen = b.factory())) break;
        }
    }
    if (!chosen) {
        for (const auto& b : backends) {
            if (b.name == "simulated") {
                chosen = b.factory();
                break;
            }
        }
    }

    lock.lock();
    if (problem) s.problem = problem;
    if (!s.installed) s.installed = std::move(chosen);
    return s.installed;
}

}  // namespace zdr::hal
