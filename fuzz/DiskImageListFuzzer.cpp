// The disk image tool's list of attached images, as its property-list output arrives: any bytes
// give a list or the tool's own error, never a crash or another exception.
#include "FileSystem/DiskImageTool.h"
#include "FuzzSupport.h"
#include "Records/CorvaneError.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        for (const auto& image : DiskImageTool::parseAttachedImages(fuzzing::text(data, size)))
            CORVANE_FUZZ_CHECK(!image.imagePath.empty() && image.imagePath.front() == '/');
    } catch (const CorvaneError& error) {
        CORVANE_FUZZ_CHECK(error.errorCase() == CorvaneError::Case::diskImage);
    }
    return 0;
}
