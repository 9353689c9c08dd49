#pragma once

#include "device/DeviceManager.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// One command's connection: the device manager, which tries only the port given (or the
// built-in simulator's, for the demo) or else scans as the app does, and the orderly stop at the
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
    // Stops the manager and joins its scan, here on the command's own thread.
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
    std::string m_port;
    std::shared_ptr<DeviceManager> m_manager;
};

} // namespace dravinel::cli
