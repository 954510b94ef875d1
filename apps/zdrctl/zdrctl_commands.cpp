#include "apps/zdrctl/zdrctl_commands.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <ostream>
#include <set>
#include <sstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "apps/zdrctl/zdrctl_channel_commands.h"
#include "zdr/audio/audio_device.h"
#include "zdr/audio/backends/simulated/simulated_hardware_description.h"
#include "zdr/audio/hal/ca_hal_audio_system_object.h"
#include "zdr/logging/log_settings.h"
#include "zdr/runtime/notification_center.h"

namespace zdr::zdrctl {

using namespace hal;

std::string transportName(UInt32 transport) {
    switch (transport) {
        case kAudioDeviceTransportTypeBuiltIn:
            return "builtin";
        case kAudioDeviceTransportTypeUSB:
            return "usb";
        case kAudioDeviceTransportTypeHDMI:
            return "hdmi";
        case kAudioDeviceTransportTypeDisplayPort:
            return "displayport";
        case kAudioDeviceTransportTypeAirPlay:
            return "airplay";
        case kAudioDeviceTransportTypeBluetooth:
            return "bluetooth";
        case kAudioDeviceTransportTypeBluetoothLE:
            return "bluetoothle";
        case kAudioDeviceTransportTypeVirtual:
            return "virtual";
        case kAudioDeviceTransportTypeAggregate:
            return "aggregate";
        case kAudioDeviceTransportTypePCI:
            return "pci";
        case kAudioDeviceTransportTypeFireWire:
            return "firewire";
        case kAudioDeviceTransportTypeThunderbolt:
            return "thunderbolt";
        case kAudioDeviceTransportTypeAVB:
            return "avb";
        case kAudioDeviceTransportTypeUnknown:
            return "unknown";
        default:
            return fourCharString(transport);
    }
}

bool applyLogOption(const Options& options, std::ostream& err) {
    if (!options.logCategories) return true;
    // A bare list of categories shows everything they log.
    std::string text = *options.logCategories;
    if (text.find('=') == std::string::npos) text += "=debug";
    std::string problem;
    if (!applyLogSettings(text, &problem)) {
        err << "zdrctl: --log " << *options.logCategories << ": " << problem << "\n";
        return false;
    }
    return true;
}

int standInForMissingServer(Command command, std::ostream& err) {
    static constexpr const char* kNoServer =
        "zdrctl: no audio server answers (PulseAudio, or PipeWire with pipewire-pulse)";
    switch (command) {
        case Command::volume:
        case Command::mute:
        case Command::defaultDevice:
            // Changing the simulated machine would report a change that never
            // reached any hardware.
            err << kNoServer
                << "; nothing was changed. Start the audio server, or use --backend simulated "
                   "to act on the simulated machine.\n";
            return kExitBackend;
        default:
            err << kNoServer << "; showing the simulated machine.\n";
            return kExitOK;
    }
}

int installBackend(const Options& options, bool forceSimulated, std::ostream& err,
                   std::shared_ptr<SimulatedAudioHardware>* simulated) {
    if (forceSimulated && !options.hardware) {
        err << "zdrctl: " << (options.command == Command::demo ? "demo" : "this")
            << " runs on the simulated machine, not on this computer's audio devices.\n";
    }
    if (options.hardware || forceSimulated) {
        SimulatedHardwareDescription description = SimulatedAudioHardware::defaultDesktop();
        if (options.hardware) {
            std::string error;
            auto loaded = loadHardwareDescription(*options.hardware, &error);
            if (!loaded) {
                err << "zdrctl: " << error << "\n";
                return kExitHardwareFile;
            }
            description = std::move(*loaded);
        }
        auto hw = std::make_shared<SimulatedAudioHardware>(description);
        if (simulated) *simulated = hw;
        AudioHardware::install(hw);
        return kExitOK;
    }
    if (options.backend) {
        const auto names = AudioHardware::registeredBackends();
        if (std::find(names.begin(), names.end(), *options.backend) == names.end()) {
            std::string known;
            for (const auto& n : names) known += (known.empty() ? "" : ", ") + n;
            err << "zdrctl: unknown backend \"" << *options.backend << "\" (known: " << known
                << ")\n";
            return kExitBackend;
        }
        auto hw = AudioHardware::makeBackend(*options.backend);
        if (!hw) {
            err << "zdrctl: the " << *options.backend
                << " backend is not available here (is its audio server running?)\n";
            return kExitBackend;
        }
        if (simulated) *simulated = std::dynamic_pointer_cast<SimulatedAudioHardware>(hw);
        AudioHardware::install(hw);
        return kExitOK;
    }
    auto hw = AudioHardware::current();
    if (auto problem = AudioHardware::lastSelectionProblem()) err << "zdrctl: " << *problem << "\n";
    if (simulated) *simulated = std::dynamic_pointer_cast<SimulatedAudioHardware>(hw);
    // The simulated machine chosen only because no server answered, not asked for.
    const char* env = std::getenv("ZDR_AUDIO_BACKEND");
    const bool askedForSimulated = env != nullptr && std::string(env) == "simulated";
    if (std::dynamic_pointer_cast<SimulatedAudioHardware>(hw) && !askedForSimulated) {
        return standInForMissingServer(options.command, err);
    }
    return kExitOK;
}

namespace {

// Every device the HAL lists, in its order, as registered objects.
std::vector<std::shared_ptr<AudioDevice>> allDevices() {
    std::vector<std::shared_ptr<AudioDevice>> result;
    try {
        CAHALAudioSystemObject system(AudioHardware::current());
        for (AudioObjectID id : system.GetAudioDevices()) {
            if (auto d = AudioDevice::deviceForCoreAudioID(id)) result.push_back(d);
        }
    } catch (const CAException& e) {
        // An audio server that fails mid-listing gives a partial list; the
        // library has logged the status.
        (void)e;
    }
    return result;
}

struct Row {
    std::string marks, uid, name, direction, channels, rate, transport;
};

Row rowFor(const std::shared_ptr<AudioDevice>& d, const std::shared_ptr<AudioDevice>& out,
           const std::shared_ptr<AudioDevice>& sys, const std::shared_ptr<AudioDevice>& in) {
    const UInt32 ic = d->recordingChannelCount(), oc = d->playbackChannelCount();
    Row r;
    r.marks = std::string(d == out ? "O" : "") + (d == sys ? "S" : "") + (d == in ? "I" : "");
    r.uid = d->deviceUID();
    r.name = d->deviceName();
    r.direction = ic && oc ? "in/out" : ic ? "in" : oc ? "out" : "-";
    r.channels = (ic ? std::to_string(ic) : "-") + "/" + (oc ? std::to_string(oc) : "-");
    std::ostringstream rate;
    rate << std::fixed << std::setprecision(0) << d->nominalSampleRate();
    r.rate = rate.str();
    r.transport = transportName(d->transportType());
    return r;
}

std::string timeNow() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t t = std::chrono::system_clock::to_time_t(now);
    std::tm tm{};
    localtime_r(&t, &tm);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02d:%02d:%02d.%03d", tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<int>(ms));
    return buf;
}

}  // namespace

std::string propertyName(UInt32 selector) {
    std::string name = AudioDevice::nameForPropertyID(selector);
    if (name.rfind("[Unknown", 0) != 0) return name;
    // The library's table leaves out some of what a user sees change most.
    switch (selector) {
        case kAudioDevicePropertyMute:
            return "kAudioDevicePropertyMute";
        case kAudioDevicePropertyVolumeScalar:
            return "kAudioDevicePropertyVolumeScalar";
        case kAudioDevicePropertyVolumeDecibels:
            return "kAudioDevicePropertyVolumeDecibels";
        case kAudioDevicePropertyDataSource:
            return "kAudioDevicePropertyDataSource";
        case kAudioDevicePropertyDeviceIsAlive:
            return "kAudioDevicePropertyDeviceIsAlive";
        default:
            return name;
    }
}

namespace {

// Prints notifications and property changes as they arrive, on the main queue.
class Watcher : public AudioDeviceDelegate, public std::enable_shared_from_this<Watcher> {
 public:
    explicit Watcher(std::ostream& out) : out_(out) {}

    void start() {
        auto center = NotificationCenter::defaultCenter();
        for (const char* name :
             {kAudioDevicesChanged, kAudioDriverDeviceGoneDead, kAudioDriverDeviceAliveAgain,
              kCoreAudioDRestarted, kAudioDevicesDefaultOutputChanged}) {
            std::weak_ptr<Watcher> weak = weak_from_this();
            // The default-output change is posted from the listener queue:
            // deliver it on the main queue so that all output comes from one thread.
            observers_.push_back(center->addObserver(name, nullptr, DispatchQueue::main(),
                                                     [weak](const Notification& n) {
                                                         if (auto self = weak.lock())
                                                             self->notification(n);
                                                     }));
        }
        // The library announces a new default output; a new default input
        // only reaches listeners of the system object.
        std::weak_ptr<Watcher> weak = weak_from_this();
        defaultInputListener_ = makeListenerBlock(
            [weak](AudioObjectID, const std::vector<AudioObjectPropertyAddress>&) {
                DispatchQueue::main().async([weak] {
                    if (auto self = weak.lock()) self->defaultInputChanged();
                });
            });
        hardware_ = AudioHardware::current();
        hardware_->addPropertyListenerBlock(kAudioObjectSystemObject, kDefaultInputAddress,
                                            AudioDevice::notificationQueue(),
                                            defaultInputListener_);
        adoptDevices();
    }
    ~Watcher() override {
        if (hardware_ && defaultInputListener_) {
            hardware_->removePropertyListenerBlock(kAudioObjectSystemObject, kDefaultInputAddress,
                                                   AudioDevice::notificationQueue(),
                                                   defaultInputListener_);
        }
    }

    // Becomes the delegate of every listed device (new ones included).
    void adoptDevices() {
        auto self = shared_from_this();
        for (const auto& d : allDevices()) {
            if (adopted_.insert(d.get()).second) devices_.push_back(d);
            d->setDelegate(self);
        }
    }

    void propertyChangedOnDevice(const std::shared_ptr<AudioDevice>& device,
                                 const Dictionary& info) override {
        const UInt32 selector = dictionaryGet<UInt32>(info, kPropertyChangePropertyID).value_or(0);
        const UInt32 element =
            dictionaryGet<UInt32>(info, kPropertyChangeChannelNumber).value_or(0);
        const bool isInput = dictionaryGet<std::uint8_t>(info, kPropertyChangeIsInput).value_or(0);
        std::string what = propertyName(selector);
        if (selector == kAudioDevicePropertyMute || selector == kAudioDevicePropertyVolumeScalar ||
            selector == kAudioDevicePropertyVolumeDecibels) {
            what += std::string(isInput ? " input" : " output") +
                    (element == 0 ? " main" : " ch " + std::to_string(element));
        }
        const std::string value = valueOf(device, selector, isInput, element);
        out_ << timeNow() << "  " << device->deviceName() << "  " << what
             << (value.empty() ? "" : " = " + value) << std::endl;
    }

    std::ostream& out() { return out_; }

 private:
    static constexpr AudioObjectPropertyAddress kDefaultInputAddress{
        kAudioHardwarePropertyDefaultInputDevice, kAudioObjectPropertyScopeGlobal,
        kAudioObjectPropertyElementMain};

    void defaultInputChanged() {
        out_ << timeNow() << "  default input changed";
        if (auto d = AudioDevice::defaultInputDevice()) out_ << "  now " << d->deviceName();
        out_ << std::endl;
    }

    void notification(const Notification& n) {
        out_ << timeNow() << "  " << n.name;
        if (auto* device = static_cast<AudioDevice*>(n.object.get())) {
            out_ << "  " << device->deviceName() << " (" << device->deviceUID() << ", id "
                 << device->deviceID() << ")";
        }
        if (n.name == kAudioDevicesDefaultOutputChanged) {
            if (auto d = AudioDevice::defaultOutputDevice()) out_ << "  now " << d->deviceName();
        }
        out_ << std::endl;
        if (n.name == kAudioDevicesChanged) adoptDevices();
    }

    static std::string valueOf(const std::shared_ptr<AudioDevice>& device, UInt32 selector,
                               bool isInput, UInt32 element) {
        auto* hal = device->coreAudioDevice();
        if (hal == nullptr) return "";
        const auto scope = AudioDevice::scopeForIsInput(isInput);
        std::ostringstream s;
        try {
            switch (selector) {
                case kAudioDevicePropertyVolumeScalar:
                    s << std::setprecision(3) << hal->GetVolumeControlScalarValue(scope, element);
                    break;
                case kAudioDevicePropertyVolumeDecibels:
                    s << std::fixed << std::setprecision(1)
                      << hal->GetVolumeControlDecibelValue(scope, element) << " dB";
                    break;
                case kAudioDevicePropertyMute:
                    s << (hal->GetMuteControlValue(scope, element) ? "muted" : "unmuted");
                    break;
                case kAudioDevicePropertyNominalSampleRate:
                    s << std::fixed << std::setprecision(0) << hal->GetNominalSampleRate() << " Hz";
                    break;
                case kAudioDevicePropertyDeviceIsRunning:
                    s << (hal->IsRunning() ? "running" : "stopped");
                    break;
                case kAudioDevicePropertyDeviceIsAlive:
                    s << (hal->IsAlive() ? "alive" : "not alive");
                    break;
                case kAudioDevicePropertyDataSource:
                    s << device->nameOfDataSource(isInput).value_or("none");
                    break;
                default:
                    break;
            }
        } catch (const CAException&) {
            return "(gone)";
        }
        return s.str();
    }

    std::ostream& out_;
    std::shared_ptr<AudioHardware> hardware_;
    ListenerBlockRef defaultInputListener_;
    std::vector<std::shared_ptr<NotificationObserverToken>> observers_;
    std::set<const AudioDevice*> adopted_;
    std::vector<std::shared_ptr<AudioDevice>> devices_;  // keeps adopted devices' addresses unique
};

// Runs the listener queue and the main queue until both are quiet.
void settle() {
    for (int i = 0; i < 6; ++i) {
        AudioDevice::notificationQueue().sync([] {});
        DispatchQueue::main().drain();
    }
}

}  // namespace

int runDevices(const Options& options, std::ostream& out, std::ostream& err) {
    (void)err;
    const auto devices = allDevices();
    const auto defOut = AudioDevice::defaultOutputDevice();
    const auto defSys = AudioDevice::systemOutputDevice();
    const auto defIn = AudioDevice::defaultInputDevice();
    if (options.json) {
        nlohmann::json list = nlohmann::json::array();
        for (const auto& d : devices) {
            list.push_back({{"uid", d->deviceUID()},
                            {"name", d->deviceName()},
                            {"manufacturer", d->deviceManufacturer()},
                            {"id", d->deviceID()},
                            {"inputChannels", d->recordingChannelCount()},
                            {"outputChannels", d->playbackChannelCount()},
                            {"sampleRate", d->nominalSampleRate()},
                            {"transport", transportName(d->transportType())},
                            {"running", d->isRunning()},
                            {"defaultOutput", d == defOut},
                            {"systemOutput", d == defSys},
                            {"defaultInput", d == defIn}});
            if (options.channels) list.back()["channels"] = channelsJSON(d);
        }
        out << list.dump(2) << "\n";
        return kExitOK;
    }
    std::vector<Row> rows{{"DEF", "UID", "NAME", "DIRECTION", "CH IN/OUT", "RATE", "TRANSPORT"}};
    for (const auto& d : devices) rows.push_back(rowFor(d, defOut, defSys, defIn));
    std::size_t w[7] = {};
    for (const auto& r : rows) {
        const std::string* cells[] = {&r.marks,    &r.uid,  &r.name,     &r.direction,
                                      &r.channels, &r.rate, &r.transport};
        for (int i = 0; i < 7; ++i) w[i] = std::max(w[i], cells[i]->size());
    }
    for (const auto& r : rows) {
        const std::string* cells[] = {&r.marks,    &r.uid,  &r.name,     &r.direction,
                                      &r.channels, &r.rate, &r.transport};
        for (int i = 0; i < 6; ++i) {
            out << std::left << std::setw(static_cast<int>(w[i])) << *cells[i] << "  ";
        }
        out << *cells[6];
        out << "\n";
    }
    if (devices.empty()) out << "(no audio devices)\n";
    if (options.channels) {
        out << "\n";
        printChannels(out, devices);
    }
    out << "Backend: " << AudioHardware::current()->backendName()
        << ". DEF: O default output, S system output, I default input.\n";
    return kExitOK;
}

int runWatch(const Options& options, std::ostream& out, std::ostream& err, int stopFd) {
    (void)err;
    auto watcher = std::make_shared<Watcher>(out);
    watcher->start();
    out << "Watching " << AudioHardware::current()->backendName()
        << " audio devices; Ctrl-C to stop." << std::endl;
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        int timeoutMs = -1;
        if (options.seconds) {
            const double left =
                *options.seconds -
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (left <= 0) break;
            // Bounded by the option parser; clamped again so the conversion
            // can never leave int's range.
            timeoutMs = static_cast<int>(std::min(std::ceil(left * 1000.0), 2147483647.0));
        }
        pollfd fds[2] = {{DispatchQueue::main().pollFd(), POLLIN, 0}, {stopFd, POLLIN, 0}};
        const int n = ::poll(fds, stopFd >= 0 ? 2 : 1, timeoutMs);
        if (n < 0 && errno != EINTR) break;
        DispatchQueue::main().drain();
        if (stopFd >= 0 && (fds[1].revents & POLLIN)) break;
    }
    DispatchQueue::main().drain();
    out << "Stopped." << std::endl;
    return kExitOK;
}

int runDemo(const Options& options, std::ostream& out, std::ostream& err) {
    (void)options;
    auto sim = std::dynamic_pointer_cast<SimulatedAudioHardware>(AudioHardware::current());
    if (!sim) {
        err << "zdrctl: demo needs the simulated backend\n";
        return kExitBackend;
    }
    auto say = [&](const std::string& text) { out << "\n==> " << text << std::endl; };
    auto watcher = std::make_shared<Watcher>(out);
    watcher->start();

    say("The machine's devices, as long-lived objects:");
    auto held = allDevices();
    for (const auto& d : held) {
        out << "    " << std::left << std::setw(28) << d->deviceName() << " id " << std::setw(4)
            << d->deviceID() << " object " << static_cast<const void*>(d.get()) << "\n";
    }
    if (held.empty()) {
        err << "zdrctl: the simulated machine has no devices to demonstrate with\n";
        return kExitFailure;
    }
    bool ok = true;
    auto check = [&](bool condition, const std::string& what) {
        out << "    " << (condition ? "yes" : "NO ") << "  " << what << "\n";
        ok = ok && condition;
    };

    // Pick a device to unplug: a USB one if there is one, else the first.
    std::shared_ptr<AudioDevice> target = held.front();
    for (const auto& d : held) {
        if (d->transportType() == kAudioDeviceTransportTypeUSB) target = d;
    }
    const std::string uid = target->deviceUID();
    const AudioObjectID idBefore = target->deviceID();
    float volumeSeen = -1.0f;
    std::mutex volumeMutex;
    auto token = AudioDevice::addGlobalListenerForProperties(
        {kAudioDevicePropertyVolumeScalar},
        [&](const std::shared_ptr<AudioDevice>& d, AudioObjectPropertySelector) {
            // Runs on a global queue, not the main thread.
            try {
                const float v = d->coreAudioDevice()->GetVolumeControlScalarValue(
                    kAudioObjectPropertyScopeOutput, kAudioObjectPropertyElementMain);
                std::lock_guard lock(volumeMutex);
                volumeSeen = v;
            } catch (const CAException&) {
            }
        });

    say("Unplugging " + target->deviceName() + " (" + uid + ")");
    sim->unplugDevice(uid);
    settle();
    check(target->isMarkedAsDead(), "the object is marked dead and out of the registry");

    say("Plugging it back in: the server gives it a new object ID");
    sim->replugDevice(uid);
    settle();
    check(AudioDevice::lookupDeviceSingletonByDeviceUID(uid) == target,
          "the same object is back in the registry");
    check(target->deviceID() != idBefore, "its ID was re-bound in place (" +
                                              std::to_string(idBefore) + " -> " +
                                              std::to_string(target->deviceID()) + ")");

    say("Restarting the audio server: every device gets a new ID");
    std::vector<AudioObjectID> idsBefore;
    for (const auto& d : held) idsBefore.push_back(d->deviceID());
    sim->restartServer();
    settle();
    const auto after = allDevices();
    bool same = after.size() == held.size();
    for (std::size_t i = 0; i < held.size(); ++i) {
        const bool found = std::find(after.begin(), after.end(), held[i]) != after.end();
        same = same && found;
        out << "    " << std::left << std::setw(28) << held[i]->deviceName() << " id "
            << std::setw(4) << idsBefore[i] << "-> " << std::setw(4) << held[i]->deviceID()
            << " object " << static_cast<const void*>(held[i].get())
            << (found ? "" : "  (replaced!)") << "\n";
    }
    check(same, "all " + std::to_string(held.size()) + " device objects are the same objects");

    std::shared_ptr<AudioDevice> newDefault;
    for (const auto& d : held) {
        if (d->playbackChannelCount() > 0 && d != AudioDevice::defaultOutputDevice()) {
            newDefault = d;
            break;
        }
    }
    if (newDefault) {
        say("Making " + newDefault->deviceName() + " the default output");
        sim->setDefaultDevice(false, false, newDefault->deviceUID());
        settle();
        check(AudioDevice::defaultOutputDevice() == newDefault,
              "defaultOutputDevice() answers the held object");
    }

    auto withVolume = AudioDevice::defaultOutputDevice();
    if (withVolume && withVolume->hasMasterOutputVolume()) {
        say("Moving the volume of " + withVolume->deviceName() + " to 0.35");
        sim->setVolume(withVolume->deviceUID(), false, kAudioObjectPropertyElementMain, 0.35f);
        for (int i = 0; i < 500; ++i) {  // the listener closure runs on a global queue
            settle();
            std::lock_guard lock(volumeMutex);
            if (volumeSeen >= 0.0f) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        std::lock_guard lock(volumeMutex);
        check(std::abs(volumeSeen - 0.35f) < 1e-4f, "a listener closure saw the new volume");
    }
    AudioDevice::removeGlobalListenerForToken(token);
    settle();

    say(ok ? "Done: the same device objects came back every time."
           : "Done, but some checks failed (see above).");
    return ok ? kExitOK : kExitFailure;
}

}  // namespace zdr::zdrctl
