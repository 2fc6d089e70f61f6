// How Corvane starts a program: posix_spawn with the file actions a caller adds, and a clean
// signal state, whatever this process has set. SIGPIPE, which Corvane ignores, goes back to its
// default, and nothing is blocked unless asked, so that the SIGTERM of a cancel or time-out
// reaches the child.
#pragma once

#include <spawn.h>
#include <sys/types.h>

namespace corvane {

class ChildSpawn {
public:
    // `flags` adds to the signal ones: POSIX_SPAWN_SETPGROUP for a process group of its own,
    // POSIX_SPAWN_SETSID for a session of its own.
    explicit ChildSpawn(short flags);
    ~ChildSpawn();
    ChildSpawn(const ChildSpawn&) = delete;
    ChildSpawn& operator=(const ChildSpawn&) = delete;

    posix_spawn_file_actions_t* actions() { return &actions_; }

    // posix_spawn's error number: 0 once `child` runs.
    int start(pid_t& child, const char* program, char* const argv[]);

    // A tool in a process group of its own, with `input` as its standard input and `output` as
    // both its outputs, that the terminal's signals (Ctrl-C, Ctrl-\, a hang-up) never end: they
    // reach the user's Cancel instead. One typed while the new child was still in this process's
    // group stays pending in it, and a program that unblocks it at start (as Go's runtime does
    // for a signal it watches) would die of it; the child therefore ignores them, which also
    // discards a pending one, before it runs the tool. Nothing else is blocked or ignored, so a
    // cancel's SIGTERM ends it. It starts in the folder open as `workingFolder` unless that is
    // -1. The error number when it could not be started, else 0.
    static int startInOwnGroup(pid_t& child, const char* program, char* const argv[], int input,
                               int output, int workingFolder = -1);

private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

}  // namespace corvane
