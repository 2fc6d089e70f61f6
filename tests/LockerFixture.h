// A home folder holding a sample folder "Taxes" (nested folders, an empty file, a link, non-Latin
// names) with a pristine copy beside it, and an engine working on a private support directory.
// Whatever a test leaves attached under its folder is detached at the end.
#pragma once

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <unistd.h>

#include "Engine/Locker.h"
#include "FileSystem/GocryptfsTool.h"
#include "FileSystem/MountTable.h"
#include "FileSystem/ProcessRunner.h"
#include "FileSystem/TreeVerifier.h"
#include "TestSupport.h"

namespace corvane::testing {

class LockerFixture : public ::testing::Test {
public:
    void SetUp() override {
        std::filesystem::create_directories(home);
        makeSample(home + "/Taxes");
        std::filesystem::create_directories(pristine);
        ProcessRunner::run("/bin/cp", {"-a", home + "/Taxes", pristine + "/Taxes"});
    }

    // Every mount a test left under its folder goes, wherever a rename has taken it.
    void TearDown() override {
        for (const auto& image : ourMounts())
            ProcessRunner::run("/usr/bin/fusermount3", {"-u", "-z", image.mountPoint});
        auto mounts = MountTable::read();
        for (auto mount = mounts.rbegin(); mount != mounts.rend(); ++mount)
            if (mount->mountPoint.starts_with(root.path() + "/"))
                umount2(mount->mountPoint.c_str(), MNT_DETACH);
    }

    static void makeSample(const std::string& folder) {
        writeFile(folder + "/2024/scan é.pdf", std::string(300000, 'p'));
        writeFile(folder + "/2024/deep/empty.txt", "");
        writeFile(folder + "/notes 日本.txt", "notes");
        symlink("2024/scan é.pdf", (folder + "/latest").c_str());
    }

    // Mounts `source` again at `place`; false where mounting is not allowed. The test unmounts.
    static bool bindMount(const std::string& source, const std::string& place) {
        std::filesystem::create_directories(place);
        return mount(source.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) == 0;
    }

    Locker makeLocker() const {
        return Locker(support, home, std::nullopt, std::make_shared<GocryptfsTool>());
    }

    bool sameAsPristine(const std::string& restored) const {
        return TreeVerifier::compare(pristine + "/Taxes", restored, {}).empty();
    }

    // What an operation that ended, or was undone, leaves: `names` in the home folder, nothing
    // attached, no mount point, no journal entry, and (when given) these records.
    void expectSettled(const Locker& locker, const std::vector<std::string>& names,
                       const std::optional<std::vector<LockedItem>>& records = std::nullopt) {
        EXPECT_EQ(listing(home), names);
        EXPECT_TRUE(ourMounts().empty());
        EXPECT_TRUE(!std::filesystem::exists(locker.mountsRoot) ||
                    std::filesystem::is_empty(locker.mountsRoot));
        EXPECT_TRUE(locker.journal.load().empty());
        if (records) {
            EXPECT_EQ(locker.index.load(), *records);
        }
    }

    // Images attached by this test; other test processes mount their own meanwhile.
    std::vector<AttachedImage> ourMounts() const {
        std::vector<AttachedImage> ours;
        for (const auto& image : GocryptfsTool().attachedImages())
            if (image.mountPoint.starts_with(root.path() + "/")) ours.push_back(image);
        return ours;
    }

    TempDir root;
    std::string home = root / "home";
    std::string support = root / "support";
    std::string pristine = root / "pristine";
};

}  // namespace corvane::testing
