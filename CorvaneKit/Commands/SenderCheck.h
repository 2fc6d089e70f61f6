// Who sent a command over the command socket, decided from what the kernel says about the peer
// process (its program file and its parents), never from anything the peer wrote. Only reads
// /proc; safe from any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

class SenderCheck {
public:
    static constexpr std::string_view application = "com.pellmoor.corvane";
    static constexpr std::string_view fileManagerMenu = "com.pellmoor.corvane.finder";
    static constexpr std::string_view endToEndTest = "com.pellmoor.corvane.e2e";

    // Shells and launchers a file manager may start the menu's program through.
    static constexpr int maximumWrappers = 3;

    struct Facts {
        std::string ownExecutable;              // the running application's program file
        std::vector<std::string> fileManagers;  // program paths whose menus may send commands
        bool testOverride = false;
        uid_t uid = 0;

        // This process: its program, the usual file managers, the environment's override and
        // its effective user.
        static Facts current();
    };

    // What tells one process from any that later runs under its id or program: the program file
    // it runs and the moment it started. Read when a sender connects and again when its line has
    // been read; a sender whose facts changed in between (it ran another program) is refused.
    struct Process {
        dev_t device = 0;
        ino_t inode = 0;
        std::uint64_t startTime = 0;
        bool operator==(const Process&) const = default;
    };
    static std::optional<Process> process(pid_t pid);

    // Whether the environment `pid` started with asks the dynamic loader to load code of its own
    // (LD_PRELOAD, LD_AUDIT); also true when it cannot be read.
    static bool preloads(pid_t pid);

    // The identifier of the program behind `peer`: the application itself, the `corvane` program
    // installed beside it when a file manager started it, or the end-to-end test program under
    // the test override. Nothing for anything else, for a sender that loads code of its own into
    // the program, for whatever could not be read, and when the process ended (or its id was
    // reused) while it was looked at.
    static std::optional<std::string> senderIdentifier(pid_t peer, const Facts& facts);
};

}  // namespace corvane
