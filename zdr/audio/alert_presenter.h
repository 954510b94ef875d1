// AlertPresenter: how the library shows a modal alert to a person. The host's
// user interface installs one (GTK, Qt...); without one, code that would ask
// takes its safe default and logs the message instead.
//
// The library asks for alerts with a title, a message, the first button's
// text, optionally further buttons, an icon name and a suppression check box
// ("Don't show this again") whose state the presenter reports back after the
// alert is closed, together with the button that closed it.
//
// Thread safety: install()/installed() from any thread. runModal() is called
// on the thread that drives the user interface (the main thread) and returns
// when the person has closed the alert.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zdr {

struct AlertRequest {
    std::string title;
    std::string message;
    std::string buttonText;
    /// The check box's title; none: no check box.
    std::optional<std::string> suppressionCheckboxTitle;
    /// Buttons after the first, in order (a second button is usually the way
    /// out: "No thanks", "Cancel").
    std::vector<std::string> otherButtons;
    /// Informational rather than warning style.
    bool informational = false;
    /// The application's image to show as the alert's icon; none: the default.
    std::optional<std::string> iconName;
};

/// The modal response of the first button; the n-th button answers
/// kAlertFirstButtonReturn + n - 1.
inline constexpr long kAlertFirstButtonReturn = 1000;
inline constexpr long kAlertSecondButtonReturn = 1001;

struct AlertResponse {
    /// Whether the suppression check box was on when the alert was closed
    /// (false when there was none).
    bool suppressionChecked = false;
    /// Which button closed the alert (kAlertFirstButtonReturn for the first).
    long modalResponse = kAlertFirstButtonReturn;
};

class AlertPresenter {
 public:
    virtual ~AlertPresenter() = default;
    virtual AlertResponse runModal(const AlertRequest& request) = 0;

    /// The presenter the host installed, or null.
    static std::shared_ptr<AlertPresenter> installed();
    /// Installs (or, with null, removes) the host's presenter.
    static void install(std::shared_ptr<AlertPresenter> presenter);
};

}  // namespace zdr
