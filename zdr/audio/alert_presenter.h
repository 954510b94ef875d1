// AlertPresenter: how the library shows a modal alert to a person. The host's
// user interface installs one (GTK, Qt...); without one, code that would ask
// takes its safe default and logs the message instead.
//
// The library asks for single-button alerts: a title, a message, the button's
// text, and optionally a suppression check box ("Don't show this again")
// whose state the presenter reports back after the alert is closed.
//
// Thread safety: install()/installed() from any thread. runModal() is called
// on the thread that drives the user interface (the main thread) and returns
// when the person has closed the alert.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace zdr {

struct AlertRequest {
    std::string title;
    std::string message;
    std::string buttonText;
    /// The check box's title; none: no check box.
    std::optional<std::string> suppressionCheckboxTitle;
};

struct AlertResponse {
    /// Whether the suppression check box was on when the alert was closed
    /// (false when there was none).
    bool suppressionChecked = false;
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
