// What a running process has written so far, from its own I/O counters in /proc/PID/io: the
// `wchar` line, every byte it handed to write-like system calls (copy_file_range and sendfile
// included), whether or not it has reached a disk. Any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace corvane {

struct ProcessIO {
    // The count on the one `wchar:` line of the text of /proc/PID/io. Only whole lines (ending in
    // a newline) count, so that a cut-off read is never taken for a smaller number. Nothing when
    // the line is missing, repeated or garbled, or its number does not fit an int64. Any text.
    static std::optional<std::int64_t> bytesWrittenIn(std::string_view text);

    // Reads at most the first 4 KiB of /proc/`pid`/io; nothing when it cannot be read (the process
    // has exited, or may not be examined) or says nothing usable.
    static std::optional<std::int64_t> bytesWritten(pid_t pid);
};

}  // namespace corvane
