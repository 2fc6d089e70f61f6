// The corvane:// command URLs other programs send: any bytes give a command or nothing, never an
// exception; a command has only absolute, NUL-free paths, as many as its action takes, and its own
// URL reads back as the same command, and is written back unchanged.
#include "Commands/CorvaneCommand.h"
#include "FuzzSupport.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto command = CorvaneCommand::parse(fuzzing::text(data, size));
    if (!command) return 0;
    using Kind = CorvaneCommand::Kind;
    bool several = command->kind == Kind::lock || command->kind == Kind::lockNow;
    CORVANE_FUZZ_CHECK(several ? !command->paths.empty() : command->paths.size() == 1);
    for (const auto& path : command->paths)
        CORVANE_FUZZ_CHECK(path.starts_with('/') && path.find('\0') == std::string::npos);
    // Characters a query may hold unencoded are encoded in the command's own URL, which may then
    // outgrow the size limit.
    std::string url = command->url();
    if (url.size() > CorvaneCommand::maximumURLSize) return 0;
    auto again = CorvaneCommand::parse(url);
    CORVANE_FUZZ_CHECK(again == command);
    CORVANE_FUZZ_CHECK(again->url() == url);
    return 0;
}
