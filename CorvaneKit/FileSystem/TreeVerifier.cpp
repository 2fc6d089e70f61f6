#include "FileSystem/TreeVerifier.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

#include <openssl/evp.h>

#include "FileSystem/FileWalk.h"
#include "Records/CorvaneError.h"
#include "Records/Paths.h"
#include "Records/UTF8.h"

namespace corvane {

unsigned TreeVerifier::hashingThreads = std::max(1u, std::thread::hardware_concurrency());

namespace {

// Reads stay well under 1 MiB so that a large file never sits whole in memory, and small enough
// (128 KiB) for the buffer to stay in the core's cache: at 1 MiB the kernel's copy spills to
// memory and hashing runs a third slower.
constexpr std::size_t kReadSize = 128 << 10;

[[noreturn]] void throwErrno(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

std::string typeName(mode_t mode) {
    if (S_ISSOCK(mode)) return "socket";
    if (S_ISFIFO(mode)) return "fifo";
    if (S_ISCHR(mode)) return "characterSpecial";
    if (S_ISBLK(mode)) return "blockSpecial";
    return "unknown";
}

std::string linkTarget(const std::string& path, std::size_t sizeHint) {
    std::string target(std::max<std::size_t>(sizeHint, 255) + 1, '\0');
    for (;;) {
        ssize_t length = readlink(path.c_str(), target.data(), target.size());
        if (length < 0) throwErrno(path);
        if (static_cast<std::size_t>(length) < target.size()) {
            target.resize(static_cast<std::size_t>(length));
            return target;
        }
        target.resize(target.size() * 2);  // the link changed since its status was read
    }
}

// The entry for a status already read; files are left without their digest (filled in later).
TreeVerifier::Entry entryWithoutDigest(const std::string& path, const struct stat& status) {
    if (S_ISDIR(status.st_mode)) return TreeVerifier::Entry::directory();
    if (S_ISLNK(status.st_mode))
        return TreeVerifier::Entry::symlink(
            linkTarget(path, static_cast<std::size_t>(status.st_size)));
    if (S_ISREG(status.st_mode)) return TreeVerifier::Entry::file(status.st_size, {});
    return TreeVerifier::Entry::other(typeName(status.st_mode));
}

// "Could not read NAME", the name decoded for display only.
std::string readFailure(const std::string& what) {
    return "Could not read " + UTF8::lenient(what);
}

// Closes a file descriptor however its reading ends.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { close(fd_); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

private:
    int fd_;
};

// Bytes of file content read so far, added to by every thread hashing one tree.
using HashedCount = std::atomic<std::int64_t>;

// The SHA-256 of the regular file at `path`, shown as `shownAs` in errors. The file may have been
// swapped since its status was read: a link is not followed, a FIFO is not waited on, and
// anything but a regular file (or another file than `seen`, when given) is not read. Each piece
// read is counted in `hashed`, when given.
std::string digestOf(const std::string& path, const std::string& shownAs, const struct stat* seen,
                     HashedCount* hashed = nullptr) {
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) throwErrno(path);
    Descriptor file(fd);
    struct stat status {};
    if (fstat(fd, &status) != 0) throwErrno(path);
    if (!S_ISREG(status.st_mode) ||
        (seen && (status.st_dev != seen->st_dev || status.st_ino != seen->st_ino)))
        throw CorvaneError::copyFailed(readFailure(shownAs));

    thread_local std::unique_ptr<char[]> buffer(new char[kReadSize]);
    thread_local std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                            EVP_MD_CTX_free);
    EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
    for (;;) {
        ssize_t n = read(fd, buffer.get(), kReadSize);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throwErrno(path);
        if (n == 0) break;
        EVP_DigestUpdate(context.get(), buffer.get(), static_cast<std::size_t>(n));
        if (hashed) hashed->fetch_add(n, std::memory_order_relaxed);
    }
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), sum, &length);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned i = 0; i < length; ++i) {
        hex += kDigits[sum[i] >> 4];
        hex += kDigits[sum[i] & 0x0F];
    }
    return hex;
}

// One entry of a manifest in walk order: recorded, or the error that stops the manifest there.
struct Step {
    std::string relativePath;
    TreeVerifier::Entry entry;
    std::exception_ptr error;
    struct stat seen {};  // as the walk found it, so that a file swapped since is not read
};

// Fills in the digests of the files among `steps` on several threads. Returns the error that a
// one-by-one reading would have met first: the earliest failing step.
std::exception_ptr hashFiles(const std::string& root, std::vector<Step>& steps,
                             const CancelToken* cancel, HashedCount* hashed) {
    std::vector<std::size_t> files;
    for (std::size_t i = 0; i < steps.size(); ++i)
        if (!steps[i].error && steps[i].entry.kind == TreeVerifier::Entry::Kind::file)
            files.push_back(i);

    std::atomic<std::size_t> next{0};
    std::atomic<bool> stop{false};
    auto work = [&] {
        for (std::size_t k; !stop && (k = next++) < files.size();) {
            Step& step = steps[files[k]];
            try {
                if (cancel) cancel->check();
                step.entry.text =
                    digestOf(root + "/" + step.relativePath, step.relativePath, &step.seen, hashed);
            } catch (...) {
                step.error = std::current_exception();
                stop = true;  // nothing after the first failure can matter
            }
        }
    };
    unsigned threads =
        std::min<std::size_t>(TreeVerifier::hashingThreads, std::max<std::size_t>(files.size(), 1));
    std::vector<std::thread> helpers;
    for (unsigned i = 1; i < threads; ++i) helpers.emplace_back(work);
    work();
    for (auto& helper : helpers) helper.join();

    // Files after a failure may not have been hashed, so only the earliest failure is reported.
    for (const auto& step : steps)
        if (step.error) return step.error;
    return nullptr;
}

// TreeVerifier::entry, counting the bytes hashed in `hashed` when given.
TreeVerifier::Entry entryOf(const std::string& path, HashedCount* hashed) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) throwErrno(path);
    TreeVerifier::Entry entry = entryWithoutDigest(path, status);
    if (entry.kind == TreeVerifier::Entry::Kind::file)
        entry.text = digestOf(path, lastPathComponent(path), &status, hashed);
    return entry;
}

// TreeVerifier::manifest, counting the bytes hashed in `hashed` when given.
TreeVerifier::Manifest manifestOf(const std::string& root, const std::set<std::string>& ignoring,
                                  const CancelToken* cancel, HashedCount* hashed) {
    using Manifest = TreeVerifier::Manifest;
    TreeVerifier::Entry top = entryOf(root, hashed);
    if (top.kind != TreeVerifier::Entry::Kind::directory) return {{"", top}};
    if (access(root.c_str(), R_OK) != 0)
        throw CorvaneError::copyFailed(readFailure(lastPathComponent(root)));

    // Walk first, then hash the files found on all cores. The walk stops at the first entry it
    // cannot record; a file before it that cannot be read is reported instead, as reading one
    // entry after another would have met it first.
    struct StopWalk {};
    std::vector<Step> steps;
    std::exception_ptr stoppedAt;
    try {
        FileWalk::walk(root, [&](const FileWalk::Entry& found) {
            if (cancel) cancel->check();
            const std::string& path = found.relativePath;
            if (path.find('/') == std::string::npos && ignoring.count(path))
                return FileWalk::Next::skipDescendants;
            try {
                if (found.problem) throw CorvaneError::copyFailed(readFailure(path));
                steps.push_back(
                    {path, entryWithoutDigest(root + "/" + path, found.info), nullptr, found.info});
            } catch (...) {
                stoppedAt = std::current_exception();
                throw StopWalk{};
            }
            return FileWalk::Next::descend;
        });
    } catch (const StopWalk&) {
    } catch (const FileWalk::WalkError&) {
        stoppedAt =
            std::make_exception_ptr(CorvaneError::copyFailed(readFailure(lastPathComponent(root))));
    }
    if (auto failure = hashFiles(root, steps, cancel, hashed)) std::rethrow_exception(failure);
    if (stoppedAt) std::rethrow_exception(stoppedAt);

    Manifest manifest;
    for (auto& step : steps) manifest.emplace(std::move(step.relativePath), std::move(step.entry));
    return manifest;
}

}  // namespace

std::string TreeVerifier::digest(const std::string& path) {
    return digestOf(path, lastPathComponent(path), nullptr);
}

TreeVerifier::Entry TreeVerifier::entry(const std::string& path) {
    return entryOf(path, nullptr);
}

TreeVerifier::Manifest TreeVerifier::manifest(const std::string& root,
                                              const std::set<std::string>& ignoring,
                                              const CancelToken* cancel) {
    return manifestOf(root, ignoring, cancel, nullptr);
}

std::vector<TreeMismatch> TreeVerifier::compare(const std::string& original,
                                                const std::string& copy,
                                                const std::set<std::string>& ignoringAtRoot,
                                                const CancelToken* cancel, const Progress& hashed) {
    // Both trees are read at once, each on its own thread (the copy usually through a slower file
    // system), while this one reports; the original's failure is reported first, as if it had
    // been read first. Leaving, even by an exception, waits for both (std::async's futures).
    HashedCount originalHashed{0}, copyHashed{0};
    auto copyManifest = std::async(std::launch::async, [&] {
        return manifestOf(copy, ignoringAtRoot, cancel, hashed ? &copyHashed : nullptr);
    });
    auto originalManifest = std::async(std::launch::async, [&] {
        return manifestOf(original, ignoringAtRoot, cancel, hashed ? &originalHashed : nullptr);
    });
    if (hashed) {
        using Clock = std::chrono::steady_clock;
        auto isReady = [](const std::future<Manifest>& manifest) {
            return manifest.wait_for(Clock::duration::zero()) == std::future_status::ready;
        };
        auto next = Clock::now() + progressInterval;
        while (!isReady(originalManifest) || !isReady(copyManifest)) {
            auto& pending = isReady(originalManifest) ? copyManifest : originalManifest;
            if (pending.wait_until(next) != std::future_status::timeout) continue;
            hashed(std::min(originalHashed.load(), copyHashed.load()));
            next = Clock::now() + progressInterval;
        }
    }
    Manifest before;
    try {
        before = originalManifest.get();
    } catch (...) {
        try {
            copyManifest.get();
        } catch (...) {
        }
        throw;
    }
    Manifest after = copyManifest.get();

    std::vector<TreeMismatch> mismatches;
    auto mine = before.begin();
    auto theirs = after.begin();
    while (mine != before.end() || theirs != after.end()) {
        if (theirs == after.end() || (mine != before.end() && mine->first < theirs->first)) {
            mismatches.push_back({mine->first, "missing from copy"});
            ++mine;
            continue;
        }
        if (mine == before.end() || theirs->first < mine->first) {
            mismatches.push_back({theirs->first, "extra in copy"});
            ++theirs;
            continue;
        }
        const Entry& a = mine->second;
        const Entry& b = theirs->second;
        std::optional<std::string> reason;
        if (a.kind != b.kind)
            reason = "type differs";
        else if (a.kind == Entry::Kind::file && a.size != b.size)
            reason = "size differs";
        else if (a.kind == Entry::Kind::file && a.text != b.text)
            reason = "content differs";
        else if (a.kind == Entry::Kind::symlink && a.text != b.text)
            reason = "link target differs";
        else if (a.kind == Entry::Kind::other && a.text != b.text)
            reason = "type differs";
        if (reason) mismatches.push_back({mine->first, *reason});
        ++mine;
        ++theirs;
    }
    return mismatches;
}

}  // namespace corvane
