#include "FileSystem/ChildSpawn.h"

#include <signal.h>

#include <initializer_list>

extern char** environ;

namespace corvane {

ChildSpawn::ChildSpawn(short flags) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
    sigset_t defaults, unblocked;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigemptyset(&unblocked);
    posix_spawnattr_setsigdefault(&attributes_, &defaults);
    posix_spawnattr_setsigmask(&attributes_, &unblocked);
    posix_spawnattr_setpgroup(&attributes_, 0);
    posix_spawnattr_setflags(&attributes_, flags | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
}

ChildSpawn::~ChildSpawn() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
}

void ChildSpawn::keepTerminalSignalsBlocked() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (int signal : {SIGINT, SIGQUIT, SIGHUP}) sigaddset(&blocked, signal);
    posix_spawnattr_setsigmask(&attributes_, &blocked);
}

int ChildSpawn::start(pid_t& child, const char* program, char* const argv[]) {
    return posix_spawn(&child, program, &actions_, &attributes_, argv, environ);
}

}  // namespace corvane
