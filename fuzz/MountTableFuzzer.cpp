// The mount table as /proc/self/mountinfo gives it: any text parses without throwing, and every
// mount found holds its own mount point.
#include "FileSystem/MountTable.h"
#include "FuzzSupport.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto mounts = MountTable::parse(fuzzing::text(data, size));
    for (const auto& mount : mounts) {
        auto holder = MountTable::containing(mounts, mount.mountPoint, mount.device);
        CORVANE_FUZZ_CHECK(holder && holder->device == mount.device);
    }
    return 0;
}
