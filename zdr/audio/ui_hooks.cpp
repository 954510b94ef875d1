// The host-installed undo manager and alert presenter.
#include <mutex>

#include "zdr/audio/alert_presenter.h"
#include "zdr/audio/undo_manager.h"

namespace zdr {
namespace {

std::mutex& hooksMutex() {
    static std::mutex m;
    return m;
}
std::shared_ptr<UndoManager>& undoSlot() {
    static std::shared_ptr<UndoManager> slot;
    return slot;
}
std::shared_ptr<AlertPresenter>& alertSlot() {
    static std::shared_ptr<AlertPresenter> slot;
    return slot;
}

}  // namespace

std::shared_ptr<UndoManager> UndoManager::installed() {
    std::lock_guard lock(hooksMutex());
    return undoSlot();
}
void UndoManager::install(std::shared_ptr<UndoManager> manager) {
    std::lock_guard lock(hooksMutex());
    undoSlot() = std::move(manager);
}
std::shared_ptr<AlertPresenter> AlertPresenter::installed() {
    std::lock_guard lock(hooksMutex());
    return alertSlot();
}
void AlertPresenter::install(std::shared_ptr<AlertPresenter> presenter) {
    std::lock_guard lock(hooksMutex());
    alertSlot() = std::move(presenter);
}

}  // namespace zdr
