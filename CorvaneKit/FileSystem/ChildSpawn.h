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

    // For a child in a group of its own: the terminal's signals (Ctrl-C, Ctrl-\, a hang-up) stay
    // blocked in it. One that reaches this process's group while the child is still in it, before
    // the group change, would otherwise be delivered the moment the child unblocks, and end it.
    void keepTerminalSignalsBlocked();

    // posix_spawn's error number: 0 once `child` runs.
    int start(pid_t& child, const char* program, char* const argv[]);

private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

}  // namespace corvane
