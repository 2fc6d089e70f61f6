#include "SystemChecks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "Records/AppPaths.h"
#include "FileSystem/DiskEncryption.h"
#include "FileSystem/ProcessRunner.h"
#include "Records/Characters.h"
#include "Records/UTF8.h"

namespace corvane::app {

namespace {

constexpr double kIntegrateTimeLimit = 10;

bool isExecutableFile(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           access(path.c_str(), X_OK) == 0;
}

// The command-line program that installs the menu: the one shipped beside this program, else
// the first on PATH.
std::optional<std::string> corvaneProgram() {
    std::error_code error;
    auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error && isExecutableFile(self.parent_path() / "corvane"))
        return self.parent_path() / "corvane";
    const char* path = std::getenv("PATH");
    std::istringstream folders(path ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (!folder.empty() && folder.front() == '/' && isExecutableFile(folder + "/corvane"))
            return folder + "/corvane";
    return std::nullopt;
}

// The first line the tool wrote, shortened and made displayable.
std::string firstLine(const std::string& output) {
    auto start = output.find_first_not_of(" \t\r\n");
    if (start == std::string::npos) return {};
    auto line = output.substr(start, output.find_first_of("\r\n", start) - start);
    return UTF8::lenient(Characters::prefix(line, 300));
}

std::optional<std::string> integrate(const std::vector<std::string>& arguments,
                                     const std::string& failure) {
    auto program = corvaneProgram();
    if (!program)
        return failure + "the corvane command is not installed beside the application or on the " +
               "search path.";
    try {
        auto result = ProcessRunner::run(*program, arguments, std::nullopt, kIntegrateTimeLimit);
        if (result.timedOut) return failure + "the corvane command did not finish in 10 seconds.";
        if (result.status == 0) return std::nullopt;
        auto line = firstLine(result.output);
        return failure + (line.empty() ? "the corvane command ended with status " +
                                             std::to_string(result.status) + "."
                                       : line);
    } catch (const std::exception& error) {
        return failure + "the corvane command could not be started (" +
               UTF8::lenient(error.what()) + ").";
    }
}

std::string dataHome() {
    const char* data = std::getenv("XDG_DATA_HOME");
    if (data && data[0] == '/') return data;
    return AppPaths::home() + "/.local/share";
}

bool isFile(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

bool SystemChecks::diskEncryptionOn() {
    return DiskEncryption::protects(AppPaths::home()).value_or(false);
}

std::optional<std::string> SystemChecks::enableFileManagerMenu() {
    return integrate({"integrate"}, "Corvane could not add its menu to the file manager: ");
}

std::optional<std::string> SystemChecks::disableFileManagerMenu() {
    return integrate({"integrate", "--remove"},
                     "Corvane could not remove its menu from the file manager: ");
}

bool SystemChecks::fileManagerMenuEnabled() {
    auto data = dataHome();
    return isFile(data + "/nautilus-python/extensions/corvane.py") ||
           isFile(data + "/nemo/actions/corvane-lock.nemo_action");
}

}  // namespace corvane::app
