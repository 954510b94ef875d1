// Test support: a scripted stand-in for the XDG desktop portal services on a
// (private) session bus, speaking their real D-Bus interfaces, because a real
// portal would show a dialog to a person:
//
// - org.freedesktop.impl.portal.PermissionStore.Lookup (table, id)
// - org.freedesktop.portal.Camera.AccessCamera and
//   org.freedesktop.portal.Device.AccessDevice, answered through the
//   org.freedesktop.portal.Request.Response signal
// - org.freedesktop.portal.ScreenCast CreateSession / SelectSources / Start
//   with restore tokens (persist mode)
// - org.freedesktop.Application.Activate of one named application.
//
// Each "dialog" is answered as scripted: yes, no, cancel, a D-Bus error, no
// answer at all, or (for the store) a reply of the wrong shape. A yes or no
// is written to the permission store as the real portal does.
//
// Threads: the services run on the mock's own thread; the script setters and
// readers may be called from any thread.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <systemd/sd-bus.h>

namespace zdr::testing {

class MockPortal {
 public:
    enum class Answer { yes, no, cancel, error, noAnswer, garbage };

    explicit MockPortal(std::string busAddress);
    ~MockPortal();
    MockPortal(const MockPortal&) = delete;
    MockPortal& operator=(const MockPortal&) = delete;

    /// Connects, registers the services and owns their names; false with `error`.
    /// With `withApplication`, also owns that application's name.
    bool start(std::string* error, const std::string& applicationName = "");
    void stop();

    void setStoreEntry(const std::string& table, const std::string& id, const std::string& appId,
                       std::vector<std::string> values);
    std::vector<std::string> storeEntry(const std::string& table, const std::string& id,
                                        const std::string& appId) const;
    /// How Lookup answers: yes (normally), error, garbage or noAnswer.
    void setStoreAnswer(Answer answer);
    /// How the next camera/microphone dialogs are answered.
    void setDeviceAnswer(Answer answer);
    /// How the ScreenCast dialog (Start without an accepted token) is answered.
    void setScreenCastAnswer(Answer answer);
    void acceptRestoreToken(const std::string& token);
    /// How Activate answers: yes, error (access denied), noAnswer.
    void setApplicationAnswer(Answer answer);

    /// How often a person would have been asked (dialogs shown).
    int dialogs() const;
    /// Every method called, as "Interface.Method".
    std::vector<std::string> calls() const;
    /// The app id written with the device answers (the sandboxed app's).
    void setAppId(std::string appId);

 private:
    static int onLookup(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onAccessCamera(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onAccessDevice(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onCreateSession(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onSelectSources(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onStart(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onActivate(sd_bus_message* m, void* userdata, sd_bus_error* error);
    int deviceDialog(sd_bus_message* m, const std::string& id, sd_bus_error* error);
    std::string newRequestPath();
    void run();

    std::string address_;
    sd_bus* bus_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stopping_{false};

    mutable std::mutex mutex_;
    std::map<std::string, std::vector<std::string>> store_;  // "table/id/app" -> values
    Answer storeAnswer_ = Answer::yes;
    Answer deviceAnswer_ = Answer::yes;
    Answer screenAnswer_ = Answer::yes;
    Answer applicationAnswer_ = Answer::yes;
    std::set<std::string> acceptedTokens_;
    bool sessionRestored_ = false;
    int dialogs_ = 0;
    int counter_ = 0;
    std::string appId_ = "org.example.Recorder";
    std::vector<std::string> calls_;
};

}  // namespace zdr::testing
