#include "WindowSeams.h"

#include "AppModel.h"
#include "SystemChecks.h"

namespace corvane::app {

SetupWindow::Seams WindowSeams::setup(AppModel& model) {
    return {
        .fingerprintAvailable = model.fingerprintAvailable(),
        .diskEncryptionOn = &SystemChecks::diskEncryptionOn,
        .fileManagerMenuEnabled = &SystemChecks::fileManagerMenuEnabled,
        .enableFileManagerMenu = &SystemChecks::enableFileManagerMenu,
        .save = [&model](
                    const std::string& password,
                    bool useFingerprint) { return model.finishSetup(password, useFingerprint); },
        .keyringProblem = model.keyringProblem(),
    };
}

SettingsWindow::Seams WindowSeams::settings(AppModel& model, std::function<bool()> startsAtLogin,
                                            std::function<void(bool)> setStartsAtLogin) {
    return {
        .idleMinutes = [&model] { return model.idleMinutes(); },
        .setIdleMinutes = [&model](int minutes) { model.setIdleMinutes(minutes); },
        .fingerprintAvailable = [&model] { return model.fingerprintAvailable(); },
        .fingerprintEnabled = [&model] { return model.touchIDEnabled(); },
        .setFingerprintEnabled = [&model](bool on) { model.setTouchIDEnabled(on); },
        .startsAtLogin = std::move(startsAtLogin),
        .setStartsAtLogin = std::move(setStartsAtLogin),
        .fileManagerMenuEnabled = &SystemChecks::fileManagerMenuEnabled,
        .setFileManagerMenu =
            [](bool on) {
                return on ? SystemChecks::enableFileManagerMenu()
                          : SystemChecks::disableFileManagerMenu();
            },
        .changePassword =
            [&model](std::string current, std::string next) {
                return model.changePassword(std::move(current), std::move(next));
            },
        .idleAvailable = [&model] { return model.autoLock().idleAvailable(); },
    };
}

}  // namespace corvane::app
