#include "Records/Wording.h"

namespace corvane {

const Wording Wording::macOS = {
    "macOS could not open the locked item: ",
    " is marked Locked in Finder. Choose File > Get Info, untick Locked, then try again.",
    " contains files marked Locked in Finder. Choose File > Get Info, untick Locked, then try again.",
    "Corvane does not lock macOS system folders.",
    "Corvane does not lock items in your Library folder, because apps rely on them.",
};

const Wording Wording::linuxDesktop = {
    "The system could not open the locked item: ",
    " is marked immutable or append-only. Clear the mark (chattr -i -a), then try again.",
    " contains files marked immutable or append-only. Clear the mark (chattr -i -a), then try again.",
    "Corvane does not lock system folders.",
    "Corvane does not lock your .config, .local or .cache folders, because apps rely on them.",
};

const Wording& Wording::host() {
#if defined(__APPLE__)
    return macOS;
#else
    return linuxDesktop;
#endif
}

}  // namespace corvane
