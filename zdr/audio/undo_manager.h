// UndoManager: the application's undo stack as the library sees it. The host
// installs one (usually the one its main window or application delegate
// uses); without one, undoable operations of the library simply register
// nothing.
//
// Registration records a closure that reverts a change of `target`; the host
// decides how and when it is run (its Edit menu, a shortcut). A host that keeps
// separate stacks per window can ignore `target`, which only identifies the
// object that changed (removeAllActions(target) style clean-up).
//
// Thread safety: install()/installed() from any thread. Library code calls
// registerUndo() on whichever thread made the change; implementations that
// feed a user interface forward to their own thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace zdr {

class UndoManager {
 public:
    virtual ~UndoManager() = default;

    /// Records `undo`, which reverts a change of `target`; `actionName` is the
    /// text for the menu item ("Change Volume"), possibly empty.
    virtual void registerUndo(const void* target, std::function<void()> undo,
                              const std::string& actionName) = 0;

    /// The undo manager the host installed, or null.
    static std::shared_ptr<UndoManager> installed();
    /// Installs (or, with null, removes) the host's undo manager.
    static void install(std::shared_ptr<UndoManager> manager);
};

}  // namespace zdr
