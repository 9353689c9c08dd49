#pragma once

#include "support/Bytes.h"
#include "support/NotificationCenter.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// The single gateway between the device model and the serial channel: request/response
// transactions, the sorting of incoming frames, and the scan thread that finds the device and
// keeps the connection alive.

namespace dravinel {

class DeviceManager;
class SerialCommunication;

// The outcome of the scan's last attempt on one port, so that a front end can say why no device
// was found.
struct PortAttempt
{
    enum class Outcome {
        Answered,     // opened, and the device answered the revision request
        CouldNotOpen, // reason holds the failing call and the system's error
        NoAnswer,     // opened, but no valid answer within the budget
    };

    std::string path;
    Outcome outcome = Outcome::NoAnswer;
    std::string reason;
};

class SerialManager : public std::enable_shared_from_this<SerialManager>
{
public:
    explicit SerialManager(std::weak_ptr<DeviceManager> deviceManager);
    ~SerialManager();
    SerialManager(const SerialManager&) = delete;
    SerialManager& operator=(const SerialManager&) = delete;

    // Starts a scan thread. The thread shares ownership of this object and of the device
    // manager, so neither is destroyed under it; it ends by itself after stop().
    bool start();
    void stop();
    void clean();
    bool isConnected() const { return m_connected; }
    std::string getPort() const;

    static Bytes createFrame(char code, const std::uint8_t* content, std::uint64_t contentLength);

    // Sends one request and waits for numResponses frames within numResponses x timeout
    // milliseconds. Returns the validated frames in arrival order, or nothing.
    std::optional<std::vector<Bytes>> sendWithResponses(char code, const std::uint8_t* content,
                                                        std::uint64_t contentLength,
                                                        std::int32_t numResponses,
                                                        std::uint64_t timeout);
    void sendWithoutResponse(char code, const std::uint8_t* content, std::uint64_t contentLength);

    void enableKeepAlive(bool enable) { m_enableKeepalive = enable; }

    void eventIncomingFrame(const Notification& notification);
    void eventOutcomingFrame(const Notification& notification);

    // The candidate ports: explicit ports first, as given, then every enumerated path that
    // carries the product word.
    std::vector<std::string> getPorts() const;
    bool getScanning() const { return m_scanning; }
    void setScanning(bool scanning);

    // Waits until no scan thread of this object runs any more.
    bool waitUntilScanEnded(std::chrono::milliseconds timeout) const;

    // Every port the scan tried, in the order first tried, each with its last attempt's outcome.
    std::vector<PortAttempt> getPortAttempts() const;

private:
    void threadScan();
    // Sleeps unless stop() comes first; returns false when woken by stop().
    bool sleepWhileRunning(std::chrono::milliseconds duration);
    std::shared_ptr<SerialCommunication> serial() const;
    void setSerial(std::shared_ptr<SerialCommunication> serial);
    void stopSerial();
    void recordAttempt(const std::string& path, PortAttempt::Outcome outcome, std::string reason);

    mutable std::mutex m_serialMutex;
    std::shared_ptr<SerialCommunication> m_serial;
    std::recursive_mutex m_lock; // one transaction in flight at a time

    mutable std::mutex m_responseMutex;
    std::condition_variable m_responseArrived;
    std::vector<Bytes> m_lResponseFrames;
    std::int32_t m_numRequestedFrames = 0;
    bool m_listening = false; // observing incoming frames; guarded by m_responseMutex

    std::atomic<bool> m_running{false};
    std::atomic<bool> m_connected{false};
    std::atomic<bool> m_scanning{false};
    std::atomic<bool> m_inLoopScan{false};
    std::weak_ptr<DeviceManager> m_deviceManager;
    std::atomic<bool> m_enableKeepalive{true};

    std::vector<NotificationCenter::Token> m_observations;
    std::mutex m_observationMutex;

    mutable std::mutex m_attemptsMutex;
    std::vector<PortAttempt> m_attempts;

    mutable std::mutex m_sleepMutex;
    mutable std::condition_variable m_wake;
    int m_scanThreads = 0; // guarded by m_sleepMutex
};

} // namespace dravinel
