#include "FileSystem/ChildSpawn.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

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

int ChildSpawn::start(pid_t& child, const char* program, char* const argv[]) {
    return posix_spawn(&child, program, &actions_, &attributes_, argv, environ);
}

int ChildSpawn::startInOwnGroup(pid_t& child, const char* program, char* const argv[], int input,
                                int output, int workingFolder) {
    // The child reports a failed exec through this pipe; a successful one closes it empty.
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) return errno;
    // Everything stays blocked in the child until its signals are set, so that no handler of
    // this process runs in it.
    sigset_t all, saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    pid_t pid = fork();
    if (pid == 0) {
        // Only async-signal-safe calls from here to exec.
        setpgid(0, 0);
        struct sigaction ignore {
        }, byDefault{};
        ignore.sa_handler = SIG_IGN;
        byDefault.sa_handler = SIG_DFL;
        for (int number = 1; number < NSIG; ++number)
            sigaction(
                number,
                number == SIGINT || number == SIGQUIT || number == SIGHUP ? &ignore : &byDefault,
                nullptr);
        int error = 0;
        if (dup2(input, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 ||
            dup2(output, STDERR_FILENO) < 0 || (workingFolder >= 0 && fchdir(workingFolder) != 0))
            error = errno;
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        if (error == 0) {
            execve(program, argv, environ);
            error = errno;
        }
        ssize_t ignored = write(report[1], &error, sizeof error);
        (void)ignored;
        _exit(127);
    }
    int error = pid < 0 ? errno : 0;
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    close(report[1]);
    if (pid > 0) {
        // The group is set here too, so that it is in place whichever of the two runs first.
        setpgid(pid, pid);
        int failed = 0;
        ssize_t n;
        while ((n = read(report[0], &failed, sizeof failed)) < 0 && errno == EINTR) {
        }
        if (n == sizeof failed) {
            error = failed;
            while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
    }
    close(report[0]);
    if (error == 0) child = pid;
    return error;
}

}  // namespace corvane
