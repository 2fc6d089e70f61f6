#include "FileManagerMenus.h"

#include <cstdio>

#include "Records/UTF8.h"

namespace corvane::cli {

const std::array<FileManagerMenus::Action, 5> FileManagerMenus::actions = {{
    {"lock", "Lock with Corvane", "Lock the selected files and folders with Corvane", false,
     "notnone"},
    {"unlock", "Unlock with Corvane", "Open the selected locked item", true, "s"},
    {"lock-now", "Lock Now", "Close the selected unlocked items", true, "notnone"},
    {"reveal", "Show Unlocked Files", "Show the unlocked files of the selected item", true, "s"},
    {"remove-lock", "Remove Lock…", "Turn the selected locked item back into normal files", true,
     "s"},
}};

namespace {

constexpr std::string_view kPlainCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._+-";

bool isPlain(std::string_view word) {
    return !word.empty() && word.find_first_not_of(kPlainCharacters) == std::string_view::npos;
}

// One word for a POSIX shell, which is how Nemo and Thunar split their command lines.
std::string shellWord(std::string_view word) {
    if (isPlain(word)) return std::string(word);
    std::string quoted = "'";
    for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// One word of a desktop entry's Exec value, before the string escapes.
std::string desktopWord(std::string_view word) {
    if (isPlain(word)) return std::string(word);
    std::string quoted = "\"";
    for (char c : word) {
        if (c == '"' || c == '`' || c == '$' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted + "\"";
}

// A key file's string escapes; line breaks and other control characters never get this far.
std::string keyFileValue(std::string_view text) {
    std::string value;
    for (char c : text) value += c == '\\' ? std::string("\\\\") : std::string(1, c);
    return value;
}

std::string xmlText(std::string_view text) {
    std::string escaped;
    for (char c : text) {
        switch (c) {
            case '&': escaped += "&amp;"; break;
            case '<': escaped += "&lt;"; break;
            case '>': escaped += "&gt;"; break;
            default: escaped += c;
        }
    }
    return escaped;
}

// A Python bytes literal, so that the program's path keeps its exact bytes.
std::string pythonBytes(std::string_view bytes) {
    std::string literal = "b\"";
    for (unsigned char c : bytes) {
        if (c == '"' || c == '\\') {
            literal += '\\';
            literal += char(c);
        } else if (c >= 0x20 && c < 0x7f) {
            literal += char(c);
        } else {
            char escape[5];
            std::snprintf(escape, sizeof escape, "\\x%02x", c);
            literal += escape;
        }
    }
    return literal + "\"";
}

constexpr std::string_view kFilesExtension =
    R"PY(# Corvane's entries in the Files context menu: `corvane menu` says which entries a selection
# offers, and `corvane open-url` hands the chosen one to the Corvane application.
import json
import subprocess
from urllib.parse import unquote_to_bytes

import gi

try:
    gi.require_version("Nautilus", "4.0")
except ValueError:
    gi.require_version("Nautilus", "3.0")
from gi.repository import GObject, Nautilus

CORVANE = @PROGRAM@
# Files waits for the menu while it opens it.
TIME_LIMIT = 2


def local_paths(files):
    """The selection's paths as bytes; none when any item is not a local file."""
    paths = []
    for file in files:
        uri = file.get_uri()
        if not uri.startswith("file:///"):
            return []
        paths.append(unquote_to_bytes(uri[len("file://"):]))
    return paths


def menu_entries(paths):
    """The (title, URL) pairs `corvane menu` offers; none when it fails in any way."""
    if not paths:
        return []
    try:
        done = subprocess.run([CORVANE, b"menu", b"--json", *paths], stdin=subprocess.DEVNULL,
                              capture_output=True, timeout=TIME_LIMIT)
        if done.returncode != 0:
            return []
        return [(entry["title"], entry["url"]) for entry in json.loads(done.stdout)
                if isinstance(entry["title"], str) and isinstance(entry["url"], str)]
    except Exception:
        return []


def open_url(_item, url):
    try:
        subprocess.Popen([CORVANE, b"open-url", url.encode()], stdin=subprocess.DEVNULL,
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                         start_new_session=True)
    except Exception:
        pass


class CorvaneMenu(GObject.GObject, Nautilus.MenuProvider):
    # Files 43 passes (files); earlier versions (window, files).
    def get_file_items(self, *args):
        try:
            items = []
            for index, (title, url) in enumerate(menu_entries(local_paths(args[-1]))):
                item = Nautilus.MenuItem(name="CorvaneMenu::%d" % index, label=title)
                item.connect("activate", open_url, url)
                items.append(item)
            return items
        except Exception:
            return []
)PY";

std::string replaced(std::string_view text, std::string_view placeholder,
                     const std::string& value) {
    std::string result(text);
    result.replace(result.find(placeholder), placeholder.size(), value);
    return result;
}

std::string command(const std::string& program, std::string_view action,
                    std::string_view option = {}) {
    std::string words = shellWord(program) + " menu-action ";
    if (!option.empty()) words += std::string(option) + " ";
    return words + std::string(action) + " %F";
}

std::string nemoAction(const std::string& program, const FileManagerMenus::Action& action) {
    return "[Nemo Action]\nName=" + std::string(action.title) +
           "\nComment=" + std::string(action.description) +
           "\nExec=" + keyFileValue(command(program, action.name)) +
           "\nIcon-Name=corvane\nSelection=" + std::string(action.selection) +
           "\nExtensions=" + (action.lockedItemsOnly ? "corvlock;" : "any;") +
           // Shown only when `corvane menu` would offer the entry for this selection.
           "\nConditions=exec " + keyFileValue(command(program, action.name, "--offers")) + ";\n";
}

std::string serviceMenu(const std::string& program) {
    std::string names, groups;
    for (const auto& action : FileManagerMenus::actions) {
        names += std::string(action.name) + ";";
        groups += "\n[Desktop Action " + std::string(action.name) +
                  "]\nName=" + std::string(action.title) + "\nIcon=corvane\nExec=" +
                  keyFileValue(desktopWord(program) + " menu-action " + std::string(action.name) +
                               " %F") +
                  "\n";
    }
    return "[Desktop Entry]\nType=Service\nName=Corvane\nMimeType=all/all;\nActions=" + names +
           "\nX-KDE-Submenu=Corvane\n" + groups;
}

}  // namespace

std::vector<FileManagerMenus::File> FileManagerMenus::dataFiles(const std::string& program,
                                                                Copy copy) {
    std::string header = copy == Copy::user ? std::string(marker) : "";
    std::vector<File> files;
    files.push_back({"nautilus-python/extensions/corvane.py",
                     header + replaced(kFilesExtension, "@PROGRAM@", pythonBytes(program)), 0644});
    for (const auto& action : actions)
        files.push_back({"nemo/actions/corvane-" + std::string(action.name) + ".nemo_action",
                         header + nemoAction(program, action), 0644});
    // Plasma runs service menus only from executable files.
    files.push_back({"kio/servicemenus/corvane.desktop", header + serviceMenu(program), 0755});
    return files;
}

std::string FileManagerMenus::thunarActions(const std::string& program) {
    std::string elements;
    for (const auto& action : actions) {
        elements += "<action>\n\t<icon>corvane</icon>\n\t<name>" + xmlText(action.title) +
                    "</name>\n\t<unique-id>corvane-" + std::string(action.name) +
                    "</unique-id>\n\t<command>" + xmlText(command(program, action.name)) +
                    "</command>\n\t<description>" + xmlText(action.description) +
                    "</description>\n";
        elements += action.lockedItemsOnly ? "\t<patterns>*.corvlock</patterns>\n\t<directories/>\n"
                                           : "\t<patterns>*</patterns>\n\t<directories/>\n"
                                             "\t<audio-files/>\n\t<image-files/>\n"
                                             "\t<other-files/>\n\t<text-files/>\n"
                                             "\t<video-files/>\n";
        elements += "</action>\n";
    }
    return elements;
}

bool FileManagerMenus::canName(std::string_view program) {
    if (program.empty() || program.front() != '/' || !UTF8::isValid(program)) return false;
    for (unsigned char c : program)
        if (c < 0x20 || c == 0x7f || c == '%' || c == ';') return false;
    return true;
}

}  // namespace corvane::cli
