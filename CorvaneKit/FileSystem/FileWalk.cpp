#include "FileSystem/FileWalk.h"

#include <fts.h>

#include <cerrno>
#include <memory>

#include "Records/Paths.h"
#include "Records/UTF8.h"

namespace corvane {

std::string FileWalk::Entry::name() const {
    std::string_view path = relativePath;
    while (!path.empty() && path.back() == '/') path.remove_suffix(1);
    auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

FileWalk::WalkError::WalkError(std::string path, int code)
    : path_(std::move(path)),
      code_(code),
      description_("Could not read " + UTF8::lenient(lastPathComponent(path_)) + ".") {}

void FileWalk::walk(const std::string& root, const std::function<Next(const Entry&)>& visit) {
    // fts joins names to the root with one slash, reusing a slash the root already ends with.
    std::size_t prefix = root.size() + (root.ends_with('/') ? 0 : 1);
    char* roots[] = {const_cast<char*>(root.c_str()), nullptr};
    std::unique_ptr<FTS, int (*)(FTS*)> walk(fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR, nullptr),
                                             fts_close);
    if (!walk) throw WalkError(root, errno);

    errno = 0;
    while (FTSENT* node = fts_read(walk.get())) {
        bool atRoot = node->fts_level == FTS_ROOTLEVEL;
        Entry entry;
        switch (node->fts_info) {
            case FTS_DP: errno = 0; continue;  // each directory is reported once, on the way down
            case FTS_DNR:
            case FTS_ERR:
            case FTS_NS:
                if (atRoot) throw WalkError(root, node->fts_errno);
                entry.problem = node->fts_errno;
                break;
            default:
                if (atRoot) {
                    errno = 0;
                    continue;
                }
        }
        std::string_view path(node->fts_path, node->fts_pathlen);
        entry.relativePath = path.size() > prefix ? path.substr(prefix) : std::string_view();
        bool hasStatus = node->fts_info != FTS_NS && node->fts_info != FTS_ERR;
        if (hasStatus) entry.info = *node->fts_statp;
        entry.isDirectory = node->fts_info == FTS_D || node->fts_info == FTS_DNR;
        // fts finds out that a folder cannot be read only after returning it, and then returns it
        // again; reading its contents now reports it once, with its problem. fts_read reuses them.
        bool unreadable = false;
        if (node->fts_info == FTS_D) {
            errno = 0;
            if (!fts_children(walk.get(), 0) && errno != 0) {
                entry.problem = errno;
                unreadable = true;
            }
        }
        if ((visit(entry) == Next::skipDescendants || unreadable) && node->fts_info == FTS_D)
            fts_set(walk.get(), node, FTS_SKIP);
        errno = 0;
    }
    if (errno != 0) throw WalkError(root, errno);
}

std::vector<std::string> FileWalk::relativePaths(const std::string& root) {
    std::vector<std::string> paths;
    walk(root, [&](const Entry& entry) {
        paths.push_back(entry.relativePath);
        return Next::descend;
    });
    return paths;
}

}  // namespace corvane
