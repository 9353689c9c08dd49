#include "protocol/SerialManager.h"

#include "device/DeviceManager.h"
#include "protocol/DeviceProtocol.h"
#include "protocol/Globals.h"
#include "serial/SerialCommunication.h"
#include "serial/serial.h"
#include "support/Converter.h"
#include "support/Logger.h"

#include <algorithm>
#include <exception>
#include <thread>

namespace dravinel {

namespace {

constexpr std::chrono::milliseconds kScanPause{DELAY_SCAN_CHECK};
// Budgets beyond this are waited as if endless; it keeps the deadline arithmetic finite.
constexpr std::chrono::hours kLongestBudget{24 * 365};

Logger& logger()
{
    return Logger::getInstance();
}

} // namespace

SerialManager::SerialManager(std::weak_ptr<DeviceManager> deviceManager)
    : m_deviceManager(std::move(deviceManager))
{}

SerialManager::~SerialManager()
{
    stop();
    stopSerial();
}

bool SerialManager::start()
{
    m_running = true;
    stopSerial();
    {
        std::lock_guard lock(m_responseMutex);
        m_listening = true;
    }
    {
        std::lock_guard lock(m_observationMutex);
        auto& center = NotificationCenter::defaultCenter();
        std::weak_ptr<SerialManager> weak = weak_from_this();
        m_observations.push_back(center.observe(
            ComOnIncomingFrame,
            [weak](const Notification& n) {
                if (auto self = weak.lock())
                    self->eventIncomingFrame(n);
            },
            this));
        m_observations.push_back(center.observe(
            ComOnOutcomingFrame,
            [weak](const Notification& n) {
                if (auto self = weak.lock())
                    self->eventOutcomingFrame(n);
            },
            this));
    }
    {
        std::lock_guard lock(m_sleepMutex);
        ++m_scanThreads;
    }
    // Detached on purpose: the thread holds what it uses, and a thread must never join itself,
    // which would happen when the last owner lets go on the scan thread.
    std::thread([self = shared_from_this()] {
        try {
            self->threadScan();
        } catch (...) {
            // Not a failure of the scan itself: the thread ends, as an unknown throw would.
        }
        std::lock_guard lock(self->m_sleepMutex);
        --self->m_scanThreads;
        self->m_wake.notify_all();
    }).detach();
    return true;
}

void SerialManager::stop()
{
    // First, so that whatever fails from here on is seen as the end of the connection.
    {
        std::lock_guard lock(m_sleepMutex);
        m_running = false;
        m_wake.notify_all();
    }
    std::vector<NotificationCenter::Token> observations;
    {
        std::lock_guard lock(m_observationMutex);
        observations.swap(m_observations);
    }
    for (auto token : observations)
        NotificationCenter::defaultCenter().remove(token);
    // No frame can reach a waiting transaction any more: let it fail now, not at its budget.
    std::lock_guard lock(m_responseMutex);
    m_listening = false;
    m_responseArrived.notify_all();
}

void SerialManager::clean()
{
    std::lock_guard lock(m_responseMutex);
    m_lResponseFrames.clear();
}

std::string SerialManager::getPort() const
{
    auto channel = serial();
    return channel ? channel->getPortName() : std::string();
}

Bytes SerialManager::createFrame(char code, const std::uint8_t* content,
                                 std::uint64_t contentLength)
{
    return buildRequestFrame(code, content, contentLength);
}

std::optional<std::vector<Bytes>> SerialManager::sendWithResponses(char code,
                                                                   const std::uint8_t* content,
                                                                   std::uint64_t contentLength,
                                                                   std::int32_t numResponses,
                                                                   std::uint64_t timeout)
{
    std::lock_guard transaction(m_lock);
    std::vector<Bytes> result;
    {
        std::lock_guard lock(m_responseMutex);
        m_lResponseFrames.clear();
        m_numRequestedFrames = numResponses;
    }
    const Bytes frame = createFrame(code, content, contentLength);
    if (auto channel = serial())
        channel->insertByteFrameToSend(frame);
    const auto start = std::chrono::steady_clock::now();

    // The budget is numResponses x timeout milliseconds, the count widened with its sign and
    // the product taken unsigned.
    const auto product =
        static_cast<std::uint64_t>(static_cast<std::int64_t>(numResponses)) * timeout;
    const std::chrono::duration<double, std::milli> budget(static_cast<double>(product));
    const auto deadline =
        start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                    std::min<std::chrono::duration<double, std::milli>>(budget, kLongestBudget));

    std::unique_lock lock(m_responseMutex);
    const auto enough = [this] {
        return static_cast<std::int64_t>(m_lResponseFrames.size()) >= m_numRequestedFrames;
    };
    m_responseArrived.wait_until(lock, deadline, [&] { return enough() || !m_listening; });
    if (!enough()) {
        logger().logError("SerialManager sendWithResponses : Did not get enough responses");
        return std::nullopt;
    }
    while (!m_lResponseFrames.empty()) {
        if (!isValidResponseFrame(m_lResponseFrames.front())) {
            logger().logError("SerialManager sendWithResponses : Invalid frame received");
            return std::nullopt;
        }
        result.push_back(std::move(m_lResponseFrames.front()));
        m_lResponseFrames.erase(m_lResponseFrames.begin());
    }
    return result;
}

void SerialManager::sendWithoutResponse(char code, const std::uint8_t* content,
                                        std::uint64_t contentLength)
{
    std::lock_guard transaction(m_lock);
    const Bytes frame = createFrame(code, content, contentLength);
    if (auto channel = serial())
        channel->insertByteFrameToSend(frame);
}

void SerialManager::eventOutcomingFrame(const Notification& notification)
{
    auto channel = serial();
    if (!channel || notification.sender != channel.get())
        return;
    if (auto data = notification.bytes("data"))
        logger().logDebug(" => : %s", Converter::getInstance().bytesToByteString(*data).c_str());
}

void SerialManager::eventIncomingFrame(const Notification& notification)
{
    // Frames of another manager's channel are not ours to sort.
    auto channel = serial();
    if (!channel || notification.sender != channel.get())
        return;
    auto data = notification.bytes("data");
    if (!data)
        return;
    const std::string text = asciiText(*data);

    if (isMonitorFrame(*data)) {
        logger().logDebug(" <= MONITOR : %s", text.c_str());
        if (auto deviceManager = m_deviceManager.lock())
            deviceManager->onMonitorFrameReceived(*data);
        return;
    }
    {
        std::lock_guard lock(m_responseMutex);
        if (static_cast<std::int64_t>(m_lResponseFrames.size()) < m_numRequestedFrames) {
            logger().logDebug(" <= RESPONSE : %s", text.c_str());
            m_lResponseFrames.push_back(std::move(*data));
            m_responseArrived.notify_all();
            return;
        }
    }
    if (isWellFormedUnsolicitedFrame(*data))
        logger().logDebug(" <= UNSOLICITED : %s", text.c_str());
    else
        logger().logError("Unsolicited incoming frame : Misformed frame received");
}

std::vector<std::string> SerialManager::getPorts() const
{
    std::vector<std::string> ports = registered_port_paths();
    for (const auto& path : SerialCommunication::getSerialPortPaths()) {
        if (path.find(PRODUCT_WORD) == std::string::npos)
            continue;
        if (std::find(ports.begin(), ports.end(), path) == ports.end())
            ports.push_back(path);
    }
    return ports;
}

void SerialManager::setScanning(bool scanning)
{
    m_scanning = scanning;
    std::unique_lock lock(m_sleepMutex);
    m_wake.wait(lock, [this] { return !m_inLoopScan; });
}

bool SerialManager::waitUntilScanEnded(std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(m_sleepMutex);
    return m_wake.wait_for(lock, timeout, [this] { return m_scanThreads == 0; });
}

bool SerialManager::sleepWhileRunning(std::chrono::milliseconds duration)
{
    std::unique_lock lock(m_sleepMutex);
    return !m_wake.wait_for(lock, duration, [this] { return !m_running; });
}

std::vector<PortAttempt> SerialManager::getPortAttempts() const
{
    std::lock_guard lock(m_attemptsMutex);
    return m_attempts;
}

void SerialManager::recordAttempt(const std::string& path, PortAttempt::Outcome outcome,
                                  std::string reason)
{
    std::lock_guard lock(m_attemptsMutex);
    auto it = std::find_if(m_attempts.begin(), m_attempts.end(),
                           [&](const PortAttempt& attempt) { return attempt.path == path; });
    if (it == m_attempts.end())
        it = m_attempts.insert(m_attempts.end(), PortAttempt{path, outcome, {}});
    it->outcome = outcome;
    it->reason = std::move(reason);
}

std::shared_ptr<SerialCommunication> SerialManager::serial() const
{
    std::lock_guard lock(m_serialMutex);
    return m_serial;
}

void SerialManager::setSerial(std::shared_ptr<SerialCommunication> serial)
{
    std::lock_guard lock(m_serialMutex);
    m_serial = std::move(serial);
}

void SerialManager::stopSerial()
{
    std::shared_ptr<SerialCommunication> channel;
    {
        std::lock_guard lock(m_serialMutex);
        channel.swap(m_serial);
    }
    if (channel)
        channel->stop();
}

void SerialManager::threadScan()
{
    // Held for the whole thread, so the manager outlives the last state it reports.
    auto deviceManager = m_deviceManager.lock();
    if (!deviceManager)
        return;

    // m_running was set by start(), before this thread existed: setting it again here would
    // undo a stop() that came first.
    m_scanning = true;
    m_enableKeepalive = true;
    int idleCycles = 0;

    while (m_running && idleCycles < 2) {
        deviceManager->setConnectionState(1);
        try {
            if (m_scanning) {
                m_inLoopScan = true;
                stopSerial();
                const auto ports = getPorts();
                for (std::size_t index = 0; index < ports.size() && m_scanning && m_running;) {
                    auto channel = std::make_shared<SerialCommunication>();
                    setSerial(channel);
                    channel->setPortName(ports[index]);
                    const bool opened = channel->start();
                    if (opened) {
                        bool present = deviceManager->readRevision().has_value();
                        // A read cut short by stop() says nothing about the device.
                        if (present)
                            recordAttempt(ports[index], PortAttempt::Outcome::Answered, {});
                        else if (m_running)
                            recordAttempt(ports[index], PortAttempt::Outcome::NoAnswer, {});
                        while (m_running && serial() && present && m_scanning) {
                            deviceManager->setConnectionState(2);
                            idleCycles = 0;
                            m_connected = true;
                            if (!sleepWhileRunning(KEEPALIVE_PERIOD))
                                break;
                            if (m_enableKeepalive)
                                present = deviceManager->readVBatt() != VAL_UNDEF;
                        }
                        deviceManager->setConnectionState(m_running ? 1 : 3);
                    } else {
                        // The open ran on this thread, so its failure is this thread's to read.
                        recordAttempt(ports[index], PortAttempt::Outcome::CouldNotOpen,
                                      ports[index].empty() ? "empty path" : last_open_error());
                    }
                    m_connected = false;
                    stopSerial();
                    if (m_running) {
                        ++index;
                        sleepWhileRunning(kScanPause);
                    }
                }
            }
        } catch (const std::exception& e) {
            logger().logError("SerialManager threadScan: %s", e.what());
        } catch (...) {
            m_inLoopScan = false;
            throw;
        }
        {
            std::lock_guard lock(m_sleepMutex);
            m_inLoopScan = false;
            m_wake.notify_all();
        }
        if (m_running) {
            sleepWhileRunning(kScanPause);
            ++idleCycles;
        }
    }
    deviceManager->setConnectionState(0);
    m_running = false;
}

} // namespace dravinel
