#include "FileSystem/DiskImageTool.h"

#include <cstdlib>
#include <memory>

#include <plist/plist.h>

#include "FileSystem/ProcessRunner.h"
#include "Records/CorvaneError.h"
#include "Records/FatalError.h"
#include "Records/Paths.h"

namespace corvane {

namespace {

const std::string kUnlistable = "Could not list mounted disk images.";

std::optional<std::string> stringValue(plist_t node) {
    if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    // By pointer and length: a string holding a NUL would stop the copying call with an assertion.
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    if (!text) return std::nullopt;
    return std::string(text, static_cast<std::size_t>(length));
}

std::vector<plist_t> dictionaries(plist_t array) {
    std::vector<plist_t> found;
    if (!array || plist_get_node_type(array) != PLIST_ARRAY) return found;
    for (uint32_t i = 0; i < plist_array_get_size(array); ++i) {
        plist_t item = plist_array_get_item(array, i);
        if (item && plist_get_node_type(item) == PLIST_DICT) found.push_back(item);
    }
    return found;
}

}  // namespace

ProcessResult DiskImageTool::run(const std::vector<std::string>& arguments,
                                 std::optional<std::string> input) const {
    return ProcessRunner::run(hdiutil_, arguments, std::move(input));
}

void DiskImageTool::expectSuccess(const ProcessResult& result, bool passwordChecked) const {
    if (result.status == 0) return;
    if (passwordChecked && result.output.find("Authentication error") != std::string::npos)
        throw CorvaneError::wrongPassword();
    throw CorvaneError::diskImage(clean(result.output));
}

bool DiskImageTool::isImage(int folder, const std::string& name) const {
    return isFolderHolding(folder, name, "Info.plist", {"Info.bckup", "bands", "token"});
}

void DiskImageTool::create(const std::string& image, const std::string& volumeName,
                           const std::string& password) const {
    if (!image.ends_with(".sparsebundle")) fatalError("disk images must be sparse bundles");
    expectSuccess(
        run({"create", "-size", virtualSize, "-type", "SPARSEBUNDLE", "-fs", "APFS", "-encryption",
             "AES-256", "-stdinpass", "-volname", volumeName, "-quiet", image},
            password),
        false);
}

void DiskImageTool::attach(const std::string& image, const std::string& mountPoint,
                           const std::string& password, bool readOnly) const {
    std::vector<std::string> arguments{"attach",      "-stdinpass",  "-nobrowse",
                                       "-noautoopen", "-mountpoint", mountPoint};
    if (readOnly) arguments.push_back("-readonly");
    arguments.push_back(image);
    expectSuccess(run(arguments, password), true);
}

void DiskImageTool::changePassword(const std::string& image, const std::string& oldPassword,
                                   const std::string& newPassword) const {
    expectSuccess(run({"chpass", "-oldstdinpass", "-newstdinpass", image},
                      ProcessRunner::joinedInput({oldPassword, newPassword}, '\0')),
                  true);
}

std::vector<AttachedImage> DiskImageTool::attachedImages() const {
    ProcessResult result = run({"info", "-plist"}, std::nullopt);
    expectSuccess(result, false);
    return parseAttachedImages(result.output);
}

std::vector<AttachedImage> DiskImageTool::parseAttachedImages(std::string_view output) {
    auto start = output.find("<?xml");
    if (start == std::string::npos) throw CorvaneError::diskImage(kUnlistable);
    std::string text(output.substr(start));

    plist_t parsed = nullptr;
    plist_from_memory(text.data(), static_cast<uint32_t>(text.size()), &parsed);
    std::unique_ptr<void, void (*)(plist_t)> root(parsed, plist_free);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT)
        throw CorvaneError::diskImage(kUnlistable);

    std::vector<AttachedImage> attached;
    for (plist_t image : dictionaries(plist_dict_get_item(root.get(), "images"))) {
        auto imagePath = stringValue(plist_dict_get_item(image, "image-path"));
        if (!imagePath) continue;
        for (plist_t entity : dictionaries(plist_dict_get_item(image, "system-entities")))
            if (auto mountPoint = stringValue(plist_dict_get_item(entity, "mount-point")))
                attached.push_back({canonicalPath(*imagePath), *mountPoint});
    }
    return attached;
}

ProcessResult DiskImageTool::detachAttempt(const std::string& mountPoint, bool force) const {
    std::vector<std::string> arguments{"detach", mountPoint, "-quiet"};
    if (force) arguments.push_back("-force");
    return run(arguments, std::nullopt);
}

bool DiskImageTool::isBusy(const ProcessResult& result) const {
    return result.status == 16 || result.output.find("Resource busy") != std::string::npos;
}

void DiskImageTool::forceDetach(const std::string& mountPoint) const {
    expectSuccess(run({"detach", mountPoint, "-quiet", "-force"}, std::nullopt), false);
}

std::string DiskImageTool::clean(const std::string& output) {
    return oneLine(output, [](std::string line) -> std::optional<std::string> {
        for (std::size_t at; (at = line.find("hdiutil: ")) != std::string::npos;) line.erase(at, 9);
        return line;
    });
}

}  // namespace corvane
