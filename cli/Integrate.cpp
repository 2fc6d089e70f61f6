// corvane integrate [--remove]: installs the file-manager menus for the current user, or takes
// away exactly what it installed. Files that are not Corvane's are never replaced, and the user's
// own Thunar actions are kept byte for byte. Runs beside the application: no support lock, no
// keyring.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>
#include <system_error>

#include "Arguments.h"
#include "CommandFailure.h"
#include "Commands.h"
#include "Records/AppPaths.h"
#include "FileManagerMenus.h"
#include "Records/JSONCodec.h"
#include "ThunarActions.h"
#include "UsageError.h"

namespace corvane::cli {

namespace {

constexpr std::size_t kOwnFileLimit = std::size_t(1) << 20;
constexpr std::size_t kThunarFileLimit = std::size_t(4) << 20;

// $VARIABLE when it is absolute (the XDG rules ignore a relative one), else the home folder's.
std::string xdgFolder(const char* variable, const char* underHome) {
    const char* value = std::getenv(variable);
    return value && value[0] == '/' ? value : AppPaths::home() + "/" + underHome;
}

// The menus run this very program, by its exact bytes.
std::string runningProgram() {
    std::string program(4096, '\0');
    ssize_t length = readlink("/proc/self/exe", program.data(), program.size());
    program.resize(length > 0 ? std::size_t(length) : 0);
    constexpr std::string_view deleted = " (deleted)";  // replaced while running: an upgrade
    if (program.ends_with(deleted)) program.resize(program.size() - deleted.size());
    return program;
}

class Installer {
public:
    explicit Installer(const CommandContext& context) : context_(context) {}

    std::vector<std::string> problems;

    void install(const std::string& path, const std::string& contents, mode_t mode) {
        attempt(path, [&] {
            struct stat status {};
            auto existing = read(path, kOwnFileLimit, status);
            if (existing && !existing->starts_with(FileManagerMenus::marker))
                throw CommandFailure(leftAlone(path, "it is not a file Corvane added"));
            if (existing == contents && (status.st_mode & 07777) == mode) return;
            JSONCodec::writeAtomically(contents, path, mode);
        });
    }

    void remove(const std::string& path) {
        attempt(path, [&] {
            struct stat status {};
            std::optional<std::string> existing;
            try {
                existing = readIfRegular(path, kOwnFileLimit, status);
            } catch (const CommandFailure&) {
                return;  // too large to be Corvane's
            }
            if (!existing || !existing->starts_with(FileManagerMenus::marker)) return;
            removeIfSame(path, status);
            if (path.ends_with(".py")) removeBytecode(path);
        });
    }

    // A missing file starts as the system's (Thunar reads the user's file instead of it, so the
    // system's actions are kept).
    void mergeThunar(const std::string& path, const std::string& elements,
                     const std::string& base) {
        attempt(path, [&] {
            struct stat status {};
            auto existing = read(path, kThunarFileLimit, status);
            auto merged = ThunarActions::withOurs(existing.value_or(base), elements);
            if (!merged) throw CommandFailure(unreadableThunarFile(path));
            if (merged == existing) return;
            if (existing)
                JSONCodec::writeAtomically(*merged, path, status.st_mode & 07777);
            else
                JSONCodec::writeAtomically(*merged, path);
        });
    }

    // The file goes when nothing but what integrate made of it is left.
    void unmergeThunar(const std::string& path, const std::string& base) {
        attempt(path, [&] {
            struct stat status {};
            auto existing = readIfRegular(path, kThunarFileLimit, status);
            if (!existing) return;
            auto kept = ThunarActions::withoutOurs(*existing);
            if (!kept) throw CommandFailure(unreadableThunarFile(path));
            if (*kept == base)
                removeIfSame(path, status);
            else if (*kept != *existing)
                JSONCodec::writeAtomically(*kept, path, status.st_mode & 07777);
        });
    }

private:
    std::string leftAlone(const std::string& path, std::string_view why) const {
        return "Corvane left " + context_.forError(path) + " untouched: " + std::string(why) + ".";
    }

    std::string unreadableThunarFile(const std::string& path) const {
        return leftAlone(path, "it is not a Thunar actions file Corvane can read");
    }

    // The regular file at `path`, never through a link; nothing when there is none. Anything else
    // there is refused.
    std::optional<std::string> read(const std::string& path, std::size_t limit,
                                    struct stat& status) const {
        try {
            return JSONCodec::readIfPresent(path, limit, &status);
        } catch (const DecodingError&) {
            throw CommandFailure(leftAlone(path, "it is larger than any file Corvane writes"));
        } catch (const std::system_error& error) {
            int code = error.code().value();
            if (code == ELOOP) throw CommandFailure(leftAlone(path, "it is a symbolic link"));
            if (code == EISDIR) throw CommandFailure(leftAlone(path, "it is a folder"));
            if (code == EINVAL) throw CommandFailure(leftAlone(path, "it is not a regular file"));
            throw;
        }
    }

    // The same, but what is not a regular file holds nothing of Corvane's: integrate never makes
    // one, so there is nothing to remove.
    std::optional<std::string> readIfRegular(const std::string& path, std::size_t limit,
                                             struct stat& status) const {
        struct stat link {};
        if (lstat(path.c_str(), &link) != 0 || !S_ISREG(link.st_mode)) return std::nullopt;
        return read(path, limit, status);
    }

    // Only the file that was read goes, never one put there since.
    static void removeIfSame(const std::string& path, const struct stat& read) {
        struct stat now {};
        if (lstat(path.c_str(), &now) != 0 || now.st_dev != read.st_dev ||
            now.st_ino != read.st_ino)
            return;
        if (unlink(path.c_str()) != 0 && errno != ENOENT)
            throw std::system_error(errno, std::generic_category(), path);
    }

    // What Python compiled from a removed module goes with it: __pycache__/NAME.*.pyc.
    static void removeBytecode(const std::string& module) {
        auto slash = module.rfind('/');
        std::string cache = module.substr(0, slash) + "/__pycache__";
        std::string prefix = module.substr(slash + 1, module.size() - slash - 4) + ".";
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(cache, error)) {
            std::string name = entry.path().filename();
            if (name.starts_with(prefix) && name.ends_with(".pyc") &&
                entry.is_regular_file(error) && !entry.is_symlink(error))
                std::filesystem::remove(entry.path(), error);
        }
    }

    void attempt(const std::string& path, const std::function<void()>& change) {
        try {
            change();
        } catch (const CommandFailure& refusal) {
            problems.push_back(refusal.what());
        } catch (const std::system_error& error) {
            problems.push_back("Corvane could not change " + context_.forError(path) + ": " +
                               std::strerror(error.code().value()) + ".");
        }
    }

    const CommandContext& context_;
};

// The system's custom-actions file, as Thunar would read it without the user's; else an empty
// one.
std::string thunarBase() {
    const char* variable = std::getenv("XDG_CONFIG_DIRS");
    std::istringstream folders(variable && *variable ? variable : "/etc/xdg");
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (folder.empty() || folder.front() != '/') continue;
        try {
            auto text = JSONCodec::readIfPresent(folder + "/Thunar/uca.xml", kThunarFileLimit);
            if (text && ThunarActions::withoutOurs(*text)) return *text;
            if (text) break;
        } catch (const std::exception&) {
            break;
        }
    }
    return std::string(ThunarActions::emptyFile);
}

}  // namespace

int runIntegrate(CommandContext& context, const Words& words, std::istream&, std::ostream& out,
                 std::ostream& err) {
    Arguments arguments = Arguments::parse(words, {"--remove"});
    if (!arguments.operands.empty()) throw UsageError("integrate takes no paths");
    bool removing = arguments.has("--remove");

    std::string program = runningProgram();
    if (!removing && !FileManagerMenus::canName(program))
        throw CommandFailure(
            "Corvane cannot add its menus while the corvane program lies in a folder whose name "
            "holds a line break, '%' or ';' or is not UTF-8 text: " +
            context.forError(program) + ".");

    std::string data = xdgFolder("XDG_DATA_HOME", ".local/share");
    std::string thunarFile = xdgFolder("XDG_CONFIG_HOME", ".config") + "/Thunar/uca.xml";
    Installer installer(context);
    for (const auto& file : FileManagerMenus::dataFiles(program, FileManagerMenus::Copy::user)) {
        if (removing)
            installer.remove(data + "/" + file.path);
        else
            installer.install(data + "/" + file.path, file.contents, file.mode);
    }
    if (removing)
        installer.unmergeThunar(thunarFile, thunarBase());
    else
        installer.mergeThunar(thunarFile, FileManagerMenus::thunarActions(program), thunarBase());

    for (const auto& problem : installer.problems) err << problem << '\n';
    if (!installer.problems.empty()) return 1;
    out << (removing ? "Removed Corvane's menus from Files, Nemo, Thunar and Dolphin.\n"
                     : "Added Corvane's menus to Files, Nemo, Thunar and Dolphin. Files shows its "
                       "entries once it is restarted.\n");
    return 0;
}

}  // namespace corvane::cli
