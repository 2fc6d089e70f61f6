// Fills the windows' seams from the model and the system checks, so that the windows themselves
// know neither and their tests need neither. The model must outlive the windows. Main thread only.
#pragma once

#include "SettingsWindow.h"
#include "SetupWindow.h"

namespace corvane::app {

class AppModel;

struct WindowSeams {
    static SetupWindow::Seams setup(AppModel& model);
    // Starting at log-in belongs to the desktop session, not to the model.
    static SettingsWindow::Seams settings(AppModel& model, std::function<bool()> startsAtLogin,
                                          std::function<void(bool)> setStartsAtLogin);
};

}  // namespace corvane::app
