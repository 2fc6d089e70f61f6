// Path normalisation shared by the whole engine. Pure functions over the file system's current
// state; safe from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// Absolute (relative paths start at the working directory), with ".", ".." and repeated or
// trailing slashes removed without looking at the disk.
std::string standardizedPath(std::string_view path);

// The path through realpath(3), so ".." goes where the kernel would go: to the parent of what a
// symbolic link points at, not the one written. For a path that does not exist, the deepest
// ancestor that resolves is resolved and the rest appended, standardised. Used to decide what an
// item is, and to compare image paths and mount points.
std::string realPath(std::string_view path);
std::string canonicalPath(std::string_view path);

// The item a user's path names: its folder resolved as by realPath, its own last name kept, so
// that a symbolic link stays itself and a trailing slash changes nothing.
std::string itemPath(std::string_view path);

// "/" first, then each name: the components of an absolute path.
std::vector<std::string> pathComponents(std::string_view path);

// The extension as file managers see it: after the last dot, but a leading dot starts a name, so
// ".env" has none.
std::string pathExtension(std::string_view name);

// The folder holding an absolute path ("/" for a name at the top).
std::string parentPath(std::string_view path);

// The last component of a path ("" for "/").
std::string lastPathComponent(std::string_view path);

// $XDG_RUNTIME_DIR/corvane, where the application and the commands of one session meet; nothing
// when the variable is unset or relative, which the base directory rules say to ignore.
std::optional<std::string> sessionRuntimeFolder();

}  // namespace corvane
