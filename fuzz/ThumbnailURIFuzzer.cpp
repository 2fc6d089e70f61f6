// The source a thumbnail records, read from whatever file lies in the thumbnail folders: any
// bytes give nothing or a text that the bytes hold, never a read past their end.
#include "FileSystem/ThumbnailScrubber.h"
#include "FuzzSupport.h"

using namespace corvane;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view bytes = fuzzing::text(data, size);
    auto source = ThumbnailScrubber::thumbnailSource(bytes);
    if (!source) return 0;
    CORVANE_FUZZ_CHECK(bytes.starts_with(std::string_view("\x89PNG\r\n\x1a\n", 8)));
    CORVANE_FUZZ_CHECK(bytes.find(*source) != std::string_view::npos);
    return 0;
}
