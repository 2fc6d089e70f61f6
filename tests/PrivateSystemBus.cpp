#include "PrivateSystemBus.h"

#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace corvane::testing {

PrivateSystemBus::PrivateSystemBus(const std::string& scenario) {
    service_ = std::make_unique<DaemonProcess>(
        std::vector<std::string>{CORVANE_FPRINTD_STANDIN, scenario, bus_.folder() / "calls.log"},
        bus_.errorLog(), std::vector<std::string>{"DBUS_SYSTEM_BUS_ADDRESS=" + bus_.address()});
    if (service_->readLine() != "ready")
        throw std::runtime_error("the stand-in fingerprint service did not start");
    if (const char* previous = std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) previousAddress_ = previous;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus_.address().c_str(), 1);
}

PrivateSystemBus::~PrivateSystemBus() {
    if (previousAddress_)
        setenv("DBUS_SYSTEM_BUS_ADDRESS", previousAddress_->c_str(), 1);
    else
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    service_.reset();
}

std::vector<std::string> PrivateSystemBus::calls() const {
    std::istringstream log(readFile(bus_.folder() / "calls.log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(log, line);) lines.push_back(line);
    return lines;
}

}  // namespace corvane::testing
