#include "SelfTest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "Records/JSONCodec.h"
#include "Records/SharedState.h"

namespace corvane::app {

namespace {

bool roundTrip() {
    auto path = SharedState::defaultURL();
    if (!path) return false;
    struct stat before {};
    auto previous = JSONCodec::readIfPresent(*path, JSONCodec::smallRecordLimit, &before);

    // A record no application would write, so that reading back proves this write landed.
    auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    SharedState probe{
        {"/corvane-self-test/" + std::to_string(getpid()) + "-" + std::to_string(stamp)},
        SharedState::currentBootTime()};
    probe.write(*path);
    bool same = SharedState::read(path) == probe;

    // Only while it still holds the probe: a record the application wrote meanwhile stays.
    if (SharedState::read(path) == probe) {
        if (previous)
            JSONCodec::writeAtomically(*previous, *path, before.st_mode & 07777);
        else
            std::remove(path->c_str());
    }
    return same;
}

}  // namespace

int SelfTest::run(std::ostream& out) {
    bool passed = false;
    try {
        passed = roundTrip();
    } catch (const std::exception&) {
        passed = false;
    }
    out << "self-test: group container " << (passed ? "OK" : "FAILED") << '\n';
    return passed ? 0 : 1;
}

}  // namespace corvane::app
