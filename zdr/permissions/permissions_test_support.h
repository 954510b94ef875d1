// Test support: a scripted AlertPresenter, a Workspace that records what it
// was asked to open, and providers whose statuses and answers the test sets.
#pragma once

#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "zdr/audio/alert_presenter.h"
#include "zdr/permissions/ask_permission.h"
#include "zdr/permissions/trust.h"

namespace zdr::testing {

class ScriptedAlertPresenter : public AlertPresenter {
 public:
    /// Each alert is answered with the next response (the first button when none is left).
    void answerWith(int modalResponse) {
        std::lock_guard lock(mutex_);
        answers_.push_back(modalResponse);
    }
    AlertResponse runModal(const AlertRequest& request) override {
        std::lock_guard lock(mutex_);
        shown_.push_back(request);
        AlertResponse response;
        if (!answers_.empty()) {
            response.modalResponse = answers_.front();
            answers_.pop_front();
        }
        return response;
    }
    std::vector<AlertRequest> shown() const {
        std::lock_guard lock(mutex_);
        return shown_;
    }

 private:
    mutable std::mutex mutex_;
    std::deque<int> answers_;
    std::vector<AlertRequest> shown_;
};

class RecordingWorkspace : public Workspace {
 public:
    bool open(const std::string& url) override {
        std::lock_guard lock(mutex_);
        opened_.push_back(url);
        return true;
    }
    std::vector<std::string> opened() const {
        std::lock_guard lock(mutex_);
        return opened_;
    }

 private:
    mutable std::mutex mutex_;
    std::vector<std::string> opened_;
};

/// A provider with a set status; requestPermission() moves it to `afterRequest`
/// and answers `answer`.
class ScriptedProvider : public PermissionProvider {
 public:
    ScriptedProvider(AskAuthorizationStatus status, AskAuthorizationStatus afterRequest,
                     bool answer)
        : status_(status), afterRequest_(afterRequest), answer_(answer) {}
    AskAuthorizationStatus authorizationStatus() const override {
        ++statusReads;
        return status_.load();
    }
    void requestPermission(std::function<void(bool)> handler) override {
        ++requests;
        status_ = afterRequest_;
        handler(answer_);
    }
    mutable std::atomic<int> statusReads{0};
    std::atomic<int> requests{0};

 private:
    std::atomic<AskAuthorizationStatus> status_;
    AskAuthorizationStatus afterRequest_;
    bool answer_;
};

class ScriptedProviders : public PermissionProviders {
 public:
    struct Script {
        AskAuthorizationStatus status = AskAuthorizationStatus::notDetermined;
        AskAuthorizationStatus afterRequest = AskAuthorizationStatus::notDetermined;
        bool answer = false;
    };
    void set(PermissionTarget target, Script script) {
        std::lock_guard lock(mutex_);
        scripts_[static_cast<int>(target)] = script;
    }
    std::shared_ptr<PermissionProvider> makeProvider(PermissionTarget target) override {
        std::lock_guard lock(mutex_);
        made_.push_back(target);
        if (target == PermissionTarget::applescript) return nullptr;
        const auto& s = scripts_[static_cast<int>(target)];
        auto provider = std::make_shared<ScriptedProvider>(s.status, s.afterRequest, s.answer);
        providers_.push_back(provider);
        return provider;
    }
    std::shared_ptr<PermissionProvider> makeApplescriptProvider(const std::string& name) override {
        std::lock_guard lock(mutex_);
        appNames_.push_back(name);
        const auto& s = scripts_[static_cast<int>(PermissionTarget::applescript)];
        auto provider = std::make_shared<ScriptedProvider>(s.status, s.afterRequest, s.answer);
        providers_.push_back(provider);
        return provider;
    }
    std::vector<PermissionTarget> made() const {
        std::lock_guard lock(mutex_);
        return made_;
    }
    std::vector<std::string> appNames() const {
        std::lock_guard lock(mutex_);
        return appNames_;
    }
    std::vector<std::shared_ptr<ScriptedProvider>> providers() const {
        std::lock_guard lock(mutex_);
        return providers_;
    }

 private:
    mutable std::mutex mutex_;
    Script scripts_[4];
    std::vector<PermissionTarget> made_;
    std::vector<std::string> appNames_;
    std::vector<std::shared_ptr<ScriptedProvider>> providers_;
};

}  // namespace zdr::testing
