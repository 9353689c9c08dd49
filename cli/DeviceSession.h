#pragma once

#include "device/DeviceManager.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// One command's connection: the device manager whose scan finds the device as the app's does
// (an explicit port first), or the built-in simulator for the demo, and the orderly stop at the
// end.

namespace dravinel::sim {
class DeviceSimulator;
}

namespace dravinel::cli {

class DeviceSession
{
public:
    enum class Result { Connected, NoDevice, Interrupted, DemoFailed };

    DeviceSession();
    // Stops the manager, waits for its scan to end, and takes back the explicit port.
    ~DeviceSession();
    DeviceSession(const DeviceSession&) = delete;
    DeviceSession& operator=(const DeviceSession&) = delete;

    // Starts the scan and waits until the device is connected or the scan gives up.
    Result connect(const std::optional<std::string>& port, bool demo);

    DeviceManager& device() { return *m_manager; }
    // After NoDevice: the ports the scan tried, with its reasons, one per line; or why there were
    // none to try.
    std::vector<std::string> noDeviceReport() const;

private:
    std::unique_ptr<sim::DeviceSimulator> m_simulator;
    std::string m_registered;
    std::shared_ptr<DeviceManager> m_manager;
};

} // namespace dravinel::cli
