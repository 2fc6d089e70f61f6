// What setup and the settings ask of the system: whether deleted originals are protected by disk
// encryption, and the file-manager menu. Blocking calls of a few seconds at most; main thread.
#pragma once

#include <optional>
#include <string>

namespace corvane::app {

struct SystemChecks {
    // Whether the file system of the home folder lies on a dm-crypt device.
    static bool diskEncryptionOn();

    // Installs the file-manager actions for the user; nothing on success, else the sentence to
    // show.
    static std::optional<std::string> enableFileManagerMenu();
    // Removes them again.
    static std::optional<std::string> disableFileManagerMenu();
    static bool fileManagerMenuEnabled();
};

}  // namespace corvane::app
