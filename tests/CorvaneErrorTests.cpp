// The sentences the user sees: errors, byte counts and what the application is busy with.
#include <gtest/gtest.h>

#include <clocale>
#include <iostream>
#include <locale>

#include "FileSystem/ProcessRunner.h"

#include "Records/Activity.h"
#include "Records/ByteCount.h"
#include "Records/CorvaneError.h"
#include "TestSupport.h"

namespace corvane {
namespace {

std::vector<TreeMismatch> mismatches(int count) {
    return std::vector<TreeMismatch>(static_cast<std::size_t>(count), TreeMismatch{"a", "differs"});
}

TEST(CorvaneError, EveryCaseHasItsSentenceInBothWordings) {
    struct Row {
        CorvaneError error;
        const char* linuxDesktop;
        const char* macOS = nullptr;  // where it differs
    };
    const Row rows[] = {
        {CorvaneError::notEnoughSpace(1'200'000'000, 350'000'000),
         "Not enough free space. Corvane needs 1.2 GB, but only 350 MB is free."},
        {CorvaneError::inUse({"Mail", "Preview"}),
         "Files are still open in Mail and Preview. Close them, then try again."},
        {CorvaneError::inUse({}), "Some files are still open. Close them, then try again."},
        {CorvaneError::copyFailed("disk full"), "Copying failed: disk full"},
        {CorvaneError::verificationFailed(mismatches(1)),
         "The locked copy did not match the original (1 difference), so nothing was changed."},
        {CorvaneError::verificationFailed(mismatches(2)),
         "The locked copy did not match the original (2 differences), so nothing was changed."},
        {CorvaneError::restoreVerificationFailed(mismatches(0)),
         "The restored copy did not match the locked item (0 differences), so nothing was changed. The item is "
         "still locked."},
        {CorvaneError::refused(LockRefusal::tooLarge), "Corvane locks items up to 2 TB."},
        {CorvaneError::refused(LockRefusal::shortcut),
         "This is a shortcut to another item. Lock the original instead."},
        {CorvaneError::refused(LockRefusal::lockedItemShortcut),
         "This is a shortcut to a locked item. Choose the locked item itself instead."},
        {CorvaneError::lockedButOriginalRemains("Taxes"),
         "Taxes is locked, but Corvane could not remove the unlocked original. It will try again next time it opens."},
        {CorvaneError::lockedButRemovalUnfinished("Taxes"),
         "Taxes is locked, but Corvane could not finish removing the unlocked original. It will finish next time it "
         "opens."},
        {CorvaneError::stillInICloud("Photos"),
         "Some files in Photos are still in iCloud. Download them first, then try again."},
        {CorvaneError::containsUnlockedItem("Work"),
         "Work contains an unlocked Corvane item. Lock it first."},
        {CorvaneError::containsMountedDisk("Work"),
         "Work contains a mounted disk image. Eject it, then try again."},
        {CorvaneError::containsAppleDouble("Work"),
         "Work contains hidden macOS metadata files (their names start with ._) that Corvane cannot lock safely. "
         "Remove them, then try again."},
        {CorvaneError::hardLinked("notes.txt"),
         "notes.txt has another copy linked to it elsewhere, so Corvane cannot lock it safely."},
        {CorvaneError::wrongPassword(), "That password did not work."},
        {CorvaneError::notLocked(), "This is not a Corvane locked item."},
        {CorvaneError::notFound(), "That item could not be found."},
        {CorvaneError::cancelled(), "Cancelled. Nothing was changed."},
        {CorvaneError::needsAllLocked(), "Lock every unlocked item first."},
        {CorvaneError::changedWhileLocking(),
         "The item changed while it was being locked, so nothing was changed. Try again."},
        {CorvaneError::diskImage("bad"), "The system could not open the locked item: bad",
         "macOS could not open the locked item: bad"},
        {CorvaneError::finderLocked("Taxes"),
         "Taxes is marked immutable or append-only. Clear the mark (chattr -i -a), then try again.",
         "Taxes is marked Locked in Finder. Choose File > Get Info, untick Locked, then try again."},
        {CorvaneError::containsFinderLocked("Taxes"),
         "Taxes contains files marked immutable or append-only. Clear the mark (chattr -i -a), then try again.",
         "Taxes contains files marked Locked in Finder. Choose File > Get Info, untick Locked, then try again."},
        {CorvaneError::refused(LockRefusal::systemLocation),
         "Corvane does not lock system folders.", "Corvane does not lock macOS system folders."},
        {CorvaneError::refused(LockRefusal::libraryFolder),
         "Corvane does not lock your .config, .local or .cache folders, because apps rely on them.",
         "Corvane does not lock items in your Library folder, because apps rely on them."},
    };
    for (const auto& [error, linuxDesktop, macOS] : rows) {
        SCOPED_TRACE(linuxDesktop);
        EXPECT_EQ(error.errorDescription(), linuxDesktop) << "wrong sentence in this Linux build";
        EXPECT_STREQ(error.what(), linuxDesktop) << "what() differs from the description";
        EXPECT_EQ(error.message(Wording::linuxDesktop), linuxDesktop) << "wrong Linux wording";
        EXPECT_EQ(error.message(Wording::macOS), macOS ? macOS : linuxDesktop)
            << "wrong macOS wording";
    }
}

TEST(CorvaneError, LockedNoticeOnlyWhenLockingSucceeded) {
    EXPECT_EQ(
        CorvaneError::lockedButOriginalRemains("Taxes").lockedNotice(),
        (CorvaneError::Notice{"The unlocked original is still there",
                              CorvaneError::lockedButOriginalRemains("Taxes").errorDescription()}));
    EXPECT_EQ(
        CorvaneError::lockedButRemovalUnfinished("Taxes").lockedNotice(),
        (CorvaneError::Notice{
            "Taxes is locked",
            "Corvane could not finish removing the unlocked original. It will finish next time it opens."}));
    for (const auto& other :
         {CorvaneError::cancelled(), CorvaneError::hardLinked("Taxes"),
          CorvaneError::refused(LockRefusal::shortcut), CorvaneError::inUse({})})
        EXPECT_FALSE(other.lockedNotice())
            << "a notice for a failure: " << other.errorDescription();
}

TEST(CorvaneError, ListJoinsWithoutCommaBeforeAnd) {
    EXPECT_EQ(CorvaneError::list({}), "");
    EXPECT_EQ(CorvaneError::list({"Mail"}), "Mail");
    EXPECT_EQ(CorvaneError::list({"A", "B", "C", "D"}), "A, B, C and D");
}

// Decimal commas, as a German desktop's locale has them, for C++ streams.
struct DecimalCommas : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

// Sets the C library's number format to German until the end of the scope: the system's own
// de_DE.UTF-8, else one built with localedef. False when neither can be had.
class GermanNumbers {
public:
    GermanNumbers() {
        active_ = setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr;
        if (active_) return;
        if (ProcessRunner::run("/usr/bin/localedef",
                               {"-i", "de_DE", "-f", "UTF-8", built_ / "de_DE.UTF-8"})
                .status > 1)
            return;
        setenv("LOCPATH", built_.path().c_str(), 1);
        active_ = setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr;
    }
    ~GermanNumbers() {
        setlocale(LC_NUMERIC, "C");
        unsetenv("LOCPATH");
    }
    bool active() const { return active_; }

private:
    testing::TempDir built_;
    bool active_ = false;
};

TEST(ByteCount, FileSizeStyleInDecimalUnitsUnderAnyLocale) {
    const std::pair<std::int64_t, const char*> rows[] = {
        {0, "0 bytes"},
        {1, "1 byte"},
        {999, "999 bytes"},
        {1000, "1 KB"},
        {1499, "1 KB"},
        {1500, "2 KB"},
        {999'499, "999 KB"},
        {999'999, "1 MB"},
        {1'234'567, "1.2 MB"},
        {10'000'000, "10 MB"},
        {1'200'000'000, "1.2 GB"},
        {1'234'567'890, "1.23 GB"},
        {2'000'000'000'000, "2 TB"},
        {-1'500'000, "-1.5 MB"},
        {INT64_MIN, "-9223.37 PB"},
    };
    auto expectEveryRow = [&](const char* locale) {
        for (const auto& [bytes, text] : rows)
            EXPECT_EQ(ByteCount::file(bytes), text)
                << "wrong unit, rounding or sign for " << bytes << " under " << locale;
    };
    expectEveryRow("the C locale");
    // The sentences around the numbers are English, so their decimal point stays a point.
    std::locale saved = std::locale::global(std::locale(std::locale::classic(), new DecimalCommas));
    expectEveryRow("a C++ locale with decimal commas");
    {
        GermanNumbers german;
        if (german.active())
            expectEveryRow("de_DE.UTF-8");
        else
            std::cout << "de_DE.UTF-8 could not be had; checked under the C++ locale only\n";
    }
    std::locale::global(saved);
}

TEST(Activity, RunningWorkIsNamedOldestFirst) {
    Activity activity;
    EXPECT_TRUE(activity.isIdle()) << "new activity is busy";
    EXPECT_FALSE(activity.passwordChangeRefusal()) << "refused while idle";
    EXPECT_EQ(Activity::quitQuestion(activity.descriptions()),
              "Corvane is still working. Quit when it finishes?");
    EXPECT_EQ(Activity::passwordChangeRefusal(std::vector<std::string>{}),
              "Wait until Corvane finishes, then try again.");

    Uuid recovering = activity.begin("finishing interrupted work");
    Uuid locking = activity.begin("locking Taxes");
    EXPECT_EQ(activity.descriptions(),
              (std::vector<std::string>{"finishing interrupted work", "locking Taxes"}));
    EXPECT_EQ(
        Activity::quitQuestion(activity.descriptions()),
        "Corvane is still finishing interrupted work and locking Taxes. Quit when it finishes?");

    activity.beginQuitting();
    EXPECT_FALSE(activity.acceptsNewWork()) << "new work accepted while quitting";
    EXPECT_EQ(
        activity.passwordChangeRefusal(),
        "Wait until Corvane finishes finishing interrupted work and locking Taxes, then try again.")
        << "running work is named before quitting";

    activity.end(recovering);
    activity.end(recovering);
    activity.end(Uuid::random());
    EXPECT_EQ(activity.descriptions(), std::vector<std::string>{"locking Taxes"})
        << "ending twice or an unknown id removed other work";
    activity.end(locking);
    EXPECT_EQ(activity.passwordChangeRefusal(),
              "Corvane is quitting, so it cannot start anything new.");
    activity.cancelQuitting();
    EXPECT_FALSE(activity.passwordChangeRefusal()) << "still refused after quitting was cancelled";
}

}  // namespace
}  // namespace corvane
