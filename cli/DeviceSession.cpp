#include "cli/DeviceSession.h"

#include "cli/EventQueue.h"
#include "protocol/Globals.h"
#include "serial/serial.h"
#include "sim/DeviceSimulator.h"

#include <algorithm>

namespace dravinel::cli {

namespace {

// The scan ends within one port attempt of a stop; this only guards against a hang.
constexpr std::chrono::seconds kStopBudget{10};

} // namespace

DeviceSession::DeviceSession() = default;

DeviceSession::~DeviceSession()
{
    if (m_manager) {
        // A monitor may have turned it off; a manager left behind must not stay without it.
        m_manager->enableKeepaliveCheck(true);
        m_manager->stop();
        m_manager->waitUntilStopped(kStopBudget);
        m_manager.reset();
    }
    m_simulator.reset();
}

DeviceSession::Result DeviceSession::connect(const std::optional<std::string>& port, bool demo)
{
    if (demo) {
        m_simulator = std::make_unique<sim::DeviceSimulator>();
        if (!m_simulator->start())
            return Result::DemoFailed;
        m_port = m_simulator->portPath();
    } else if (port) {
        m_port = *port;
    }

    // Observing before the manager exists, so that no state can slip by.
    EventQueue states(EventQueue::Subscriptions{{ConnStateChangedEvent, "state"}});
    DeviceManager::Options options;
    if (!m_port.empty())
        options = {{m_port}, false};
    m_manager = DeviceManager::create(options);
    for (;;) {
        EventQueue::Event event;
        // The scan ends by itself when it finds nothing, so the wait needs no limit of its own.
        switch (states.next(EventQueue::Clock::now() + std::chrono::hours(1), event)) {
        case EventQueue::Wait::Interrupted:
            return Result::Interrupted;
        case EventQueue::Wait::Timeout:
            continue;
        case EventQueue::Wait::Event:
            break;
        }
        if (event.value == static_cast<std::int64_t>(ConnectionState::Connected))
            return Result::Connected;
        if (event.value == static_cast<std::int64_t>(ConnectionState::Disconnected))
            return Result::NoDevice;
    }
}

std::vector<std::string> DeviceSession::noDeviceReport() const
{
    std::vector<std::string> lines;
    const auto attempts = m_manager ? m_manager->getPortAttempts() : std::vector<PortAttempt>{};
    if (attempts.empty()) {
        const auto machinePorts = get_port_paths();
        lines.push_back("no serial port carries \"" + std::string(PRODUCT_WORD) + "\" (" +
                        std::to_string(machinePorts.size()) +
                        " serial ports on this machine); name one with --port PATH");
        return lines;
    }
    std::size_t width = 0;
    for (const auto& attempt : attempts)
        width = std::max(width, attempt.path.size());
    for (const auto& attempt : attempts)
        lines.push_back(attempt.path + std::string(width - attempt.path.size() + 2, ' ') +
                        describePortAttempt(attempt));
    return lines;
}

} // namespace dravinel::cli
