#include "protocol/SerialManager.h"

#include "protocol/DeviceProtocol.h"
#include "protocol/Globals.h"
#include "serial/PortWatcher.h"
#include "serial/SerialCommunication.h"
#include "serial/serial.h"
#include "support/Converter.h"
#include "support/Logger.h"

#include <algorithm>
#include <exception>
#include <filesystem>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

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

SerialManager::SerialManager(ScanDelegate& deviceManager, ScanOptions options)
    : m_deviceManager(deviceManager), m_options(std::move(options))
{
    m_kickFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

SerialManager::~SerialManager()
{
    join();
    stopSerial();
    if (m_kickFd >= 0)
        close(m_kickFd);
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
        // Removed by stop(), which waits for a handler still running: this outlives them.
        m_observations.push_back(center.observe(
            ComOnIncomingFrame, [this](const Notification& n) { eventIncomingFrame(n); }, this));
        m_observations.push_back(center.observe(
            ComOnOutcomingFrame, [this](const Notification& n) { eventOutcomingFrame(n); }, this));
    }
    {
        std::lock_guard lock(m_sleepMutex);
        ++m_scanThreads;
    }
    std::lock_guard threads(m_threadsMutex);
    m_threads.emplace_back([this](std::stop_token stop) {
        try {
            threadScan(stop);
        } catch (...) {
            // Not a failure of the scan itself: the thread ends, as an unknown throw would.
        }
        std::lock_guard lock(m_sleepMutex);
        --m_scanThreads;
        m_wake.notify_all();
    });
    return true;
}

void SerialManager::stop()
{
    // First, so that whatever fails from here on is seen as the end of the connection.
    m_running = false;
    kick();
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

void SerialManager::join()
{
    stop();
    std::vector<std::jthread> threads;
    {
        std::lock_guard lock(m_threadsMutex);
        threads.swap(m_threads);
    }
    for (auto& thread : threads) {
        thread.request_stop();
        thread.join();
    }
}

void SerialManager::kick()
{
    if (m_kickFd < 0)
        return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(m_kickFd, &one, sizeof one);
}

void SerialManager::onLineLost()
{
    m_lineLost = true;
    kick();
    std::lock_guard lock(m_responseMutex);
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

std::optional<std::vector<Bytes>>
SerialManager::sendWithResponses(char code, const std::uint8_t* content,
                                 std::uint64_t contentLength, std::int32_t numResponses,
                                 std::chrono::milliseconds timeout, std::vector<Bytes>* received)
{
    std::lock_guard transaction(m_lock);
    std::vector<Bytes> result;
    {
        std::lock_guard lock(m_responseMutex);
        m_lResponseFrames.clear();
        m_numRequestedFrames = numResponses;
    }
    if (received)
        received->clear();
    const Bytes frame = createFrame(code, content, contentLength);
    // Without a channel nothing is sent and the wait runs out; a write that failed fails now.
    if (auto channel = serial(); channel && !channel->insertByteFrameToSend(frame)) {
        logger().logError("SerialManager sendWithResponses : Request not sent");
        return std::nullopt;
    }
    const auto start = std::chrono::steady_clock::now();

    // The budget is numResponses x timeout milliseconds, the count widened with its sign and
    // the product taken unsigned.
    const auto product = static_cast<std::uint64_t>(static_cast<std::int64_t>(numResponses)) *
                         static_cast<std::uint64_t>(timeout.count());
    const std::chrono::duration<double, std::milli> budget(static_cast<double>(product));
    const auto deadline =
        start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                    std::min<std::chrono::duration<double, std::milli>>(budget, kLongestBudget));

    std::unique_lock lock(m_responseMutex);
    const auto enough = [this] {
        return static_cast<std::int64_t>(m_lResponseFrames.size()) >= m_numRequestedFrames;
    };
    // A hung-up line or a stopped manager can bring no more frames: fail now, not at the budget.
    m_responseArrived.wait_until(lock, deadline,
                                 [&] { return enough() || !m_listening || m_lineLost; });
    if (received)
        *received = m_lResponseFrames;
    if (!enough()) {
        logger().logError("SerialManager sendWithResponses : Did not get enough responses");
        return std::nullopt;
    }
    // The answers are taken one at a time and the lock is let go after each: taking one makes
    // room below the count, so a frame the reader hands over while they are taken is buffered,
    // belongs to these answers and is returned with them, rather than left for the next request
    // to throw away. A frame that came before the first was taken found no room: unsolicited.
    while (!m_lResponseFrames.empty()) {
        if (!isValidResponseFrame(m_lResponseFrames.front())) {
            logger().logError("SerialManager sendWithResponses : Invalid frame received");
            return std::nullopt;
        }
        result.push_back(std::move(m_lResponseFrames.front()));
        m_lResponseFrames.erase(m_lResponseFrames.begin());
        lock.unlock();
        lock.lock();
    }
    return result;
}

bool SerialManager::sendWithoutResponse(char code, const std::uint8_t* content,
                                        std::uint64_t contentLength)
{
    std::lock_guard transaction(m_lock);
    const Bytes frame = createFrame(code, content, contentLength);
    auto channel = serial();
    return channel && channel->insertByteFrameToSend(frame);
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
        m_deviceManager.onMonitorFrameReceived(*data);
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
    return candidatePorts(m_options);
}

std::vector<std::string> SerialManager::presentPorts(const std::vector<std::string>& ports)
{
    std::vector<std::string> present;
    for (const auto& port : ports) {
        std::error_code ec;
        if (std::filesystem::exists(port, ec))
            present.push_back(port);
    }
    return present;
}

std::vector<std::string> SerialManager::candidatePorts(const ScanOptions& options)
{
    std::vector<std::string> ports = options.ports;
    if (!options.scanForOthers)
        return ports;
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

std::vector<std::string> SerialManager::watchedFolders() const
{
    return portFolders(m_options);
}

std::vector<std::string> SerialManager::portFolders(const ScanOptions& options)
{
    std::vector<std::string> folders;
    if (options.scanForOthers)
        folders.push_back(SerialRoots{}.byIdDir);
    for (const auto& port : options.ports)
        folders.push_back(std::filesystem::path(port).parent_path().string());
    return folders;
}

SerialManager::Wake SerialManager::pause(std::chrono::milliseconds duration, bool watchLine,
                                         PortWatcher* watcher)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + duration;
    // Listed after the watcher was set up, so nothing can appear unseen in between.
    const auto known = watcher ? presentPorts(getPorts()) : std::vector<std::string>{};
    for (;;) {
        if (!m_running)
            return Wake::Stopped;
        if (watchLine && m_lineLost)
            return Wake::LineLost;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return Wake::Elapsed;
        pollfd fds[2] = {{m_kickFd, POLLIN, 0}, {watcher ? watcher->fd() : -1, POLLIN, 0}};
        const int ready =
            poll(fds, 2, static_cast<int>(std::min<std::int64_t>(left.count(), 60000)));
        if (ready <= 0)
            continue;
        if ((fds[0].revents & POLLIN) != 0) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t n = read(m_kickFd, &count, sizeof count);
        }
        // Anything may appear in a watched folder; only a candidate port that was not there
        // before ends the pause.
        if ((fds[1].revents & POLLIN) != 0 && watcher->drain()) {
            for (const auto& port : presentPorts(getPorts()))
                if (std::find(known.begin(), known.end(), port) == known.end())
                    return Wake::PortAppeared;
        }
    }
}

std::vector<PortAttempt> SerialManager::getPortAttempts() const
{
    std::lock_guard lock(m_attemptsMutex);
    return m_attempts;
}

void SerialManager::recordAttempt(PortAttempt attempt)
{
    std::lock_guard lock(m_attemptsMutex);
    auto it = std::find_if(m_attempts.begin(), m_attempts.end(),
                           [&](const PortAttempt& a) { return a.path == attempt.path; });
    if (it == m_attempts.end())
        m_attempts.push_back(std::move(attempt));
    else
        *it = std::move(attempt);
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

bool SerialManager::keepsRunning(const std::stop_token& stop) const
{
    return m_running && !stop.stop_requested();
}

void SerialManager::threadScan(std::stop_token stop)
{
    // m_running was set by start(), before this thread existed: setting it again here would
    // undo a stop() that came first.
    m_scanning = true;
    m_enableKeepalive = true;
    // A stop that came before the first cycle ends as any stop of a search does: the search it
    // cut short, then the end. Without it the end would repeat the first state and go unposted.
    if (!keepsRunning(stop))
        m_deviceManager.setConnectionState(ConnectionState::Scanning);
    int idleCycles = 0;

    while (keepsRunning(stop) && idleCycles < 2) {
        m_deviceManager.setConnectionState(ConnectionState::Scanning);
        std::unique_ptr<PortWatcher> watcher;
        const CycleEnd cycle = scanCycle(stop, watcher);
        if (cycle.connected)
            idleCycles = 0;
        if (keepsRunning(stop) && !cycle.portAppeared) {
            const Wake wake = pause(kScanPause, false, watcher.get());
            // A device plugged in now is looked for at once, and the search does not count as
            // idle.
            if (wake != Wake::PortAppeared)
                ++idleCycles;
        }
    }
    m_deviceManager.setConnectionState(ConnectionState::Disconnected);
    m_running = false;
}

SerialManager::CycleEnd SerialManager::scanCycle(const std::stop_token& stop,
                                                 std::unique_ptr<PortWatcher>& watcher)
{
    CycleEnd cycle;
    try {
        if (m_scanning) {
            m_inLoopScan = true;
            stopSerial();
            // Watching before listing, so that a port appearing in between is not missed.
            watcher = std::make_unique<PortWatcher>(watchedFolders());
            const std::vector<std::string> ports = getPorts();
            for (std::size_t index = 0;
                 index < ports.size() && m_scanning && keepsRunning(stop) && !cycle.portAppeared;) {
                tryPort(ports[index], stop, cycle);
                if (keepsRunning(stop)) {
                    ++index;
                    // A port that appears here is tried in a new cycle, at once.
                    cycle.portAppeared =
                        pause(kScanPause, false, watcher.get()) == Wake::PortAppeared;
                }
            }
        }
    } catch (const std::exception& e) {
        logger().logError("SerialManager threadScan: %s", e.what());
    } catch (...) {
        m_inLoopScan = false;
        throw;
    }
    std::lock_guard lock(m_sleepMutex);
    m_inLoopScan = false;
    m_wake.notify_all();
    return cycle;
}

void SerialManager::tryPort(const std::string& path, const std::stop_token& stop, CycleEnd& cycle)
{
    auto channel = std::make_shared<SerialCommunication>(
        Framing{END_1, [](Bytes piece) { return frameFromPiece(std::move(piece)); }});
    channel->setPortName(path);
    m_lineLost = false;
    channel->setOnLineLost([this] { onLineLost(); });
    setSerial(channel);
    if (channel->start()) {
        std::optional<std::string> answer;
        const bool present = m_deviceManager.readRevision(&answer).has_value();
        // A read cut short by stop() says nothing about the device.
        if (present)
            recordAttempt({path, PortAttempt::Outcome::Answered, {}, {}});
        else if (keepsRunning(stop))
            recordAttempt({path, PortAttempt::Outcome::NoAnswer, {}, answer});
        holdConnection(present, stop, cycle);
        m_deviceManager.setConnectionState(keepsRunning(stop) ? ConnectionState::Scanning
                                                              : ConnectionState::Disconnecting);
    } else {
        recordAttempt({path, PortAttempt::Outcome::CouldNotOpen, channel->lastError(), {}});
    }
    m_connected = false;
    stopSerial();
}

void SerialManager::holdConnection(bool present, const std::stop_token& stop, CycleEnd& cycle)
{
    while (keepsRunning(stop) && serial() && present && m_scanning) {
        m_deviceManager.setConnectionState(ConnectionState::Connected);
        cycle.connected = true;
        m_connected = true;
        // The keep-alive may be off, but a hang-up ends the connection now.
        const Wake wake = pause(KEEPALIVE_PERIOD, true);
        if (wake == Wake::Stopped || wake == Wake::LineLost)
            break;
        if (m_enableKeepalive)
            present = m_deviceManager.keepAliveAnswered();
        if (m_lineLost)
            present = false;
    }
}

} // namespace dravinel
