#pragma once

#include "protocol/ConnectionState.h"
#include "protocol/PortAttempt.h"
#include "protocol/ScanDelegate.h"
#include "support/Bytes.h"
#include "support/NotificationCenter.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

// The single gateway between the device model and the serial channel: request/response
// transactions, the sorting of incoming frames, and the scan thread that finds the device and
// keeps the connection alive.

namespace dravinel {

class PortWatcher;
class SerialCommunication;

// Which ports the scan tries.
struct ScanOptions
{
    std::vector<std::string> ports; // explicit ports, tried first, in this order
    bool scanForOthers = true;      // false: nothing but ports is ever opened
};

class SerialManager
{
public:
    // The delegate owns this object and outlives every scan thread (its destructor calls join()).
    SerialManager(ScanDelegate& deviceManager, ScanOptions options = {});
    ~SerialManager(); // stops and joins
    SerialManager(const SerialManager&) = delete;
    SerialManager& operator=(const SerialManager&) = delete;

    // Starts a scan thread; it ends by itself after stop(), or after two cycles without a device.
    bool start();
    void stop();
    // Stops and waits for every scan thread. Never called on a scan thread (from a handler of the
    // state it posts): a thread cannot join itself.
    void join();
    void clean();
    bool isConnected() const { return m_connected; }
    std::string getPort() const;

    static Bytes createFrame(char code, const std::uint8_t* content, std::uint64_t contentLength);

    // Sends one request and waits for numResponses frames within numResponses x timeout
    // milliseconds. Returns the validated frames in arrival order, or nothing.
    // Fails at once when the request could not be written, or when the line hangs up or the
    // manager is stopped while it waits. With
    // received, every frame that came in answer is handed back too, valid or not, so that a
    // caller can tell a device that answered wrongly from one that did not answer.
    std::optional<std::vector<Bytes>> sendWithResponses(char code, const std::uint8_t* content,
                                                        std::uint64_t contentLength,
                                                        std::int32_t numResponses,
                                                        std::chrono::milliseconds timeout,
                                                        std::vector<Bytes>* received = nullptr);
    // True when the frame was written whole.
    bool sendWithoutResponse(char code, const std::uint8_t* content, std::uint64_t contentLength);

    void enableKeepAlive(bool enable) { m_enableKeepalive = enable; }

    void eventIncomingFrame(const Notification& notification);
    void eventOutcomingFrame(const Notification& notification);

    // The candidate ports: explicit ports first, as given, then (when scanning for others)
    // every enumerated path that carries the product word.
    std::vector<std::string> getPorts() const;
    static std::vector<std::string> candidatePorts(const ScanOptions& options);
    // Those of ports whose node exists now.
    static std::vector<std::string> presentPorts(const std::vector<std::string>& ports);
    // The folders where the candidate ports of options appear.
    static std::vector<std::string> portFolders(const ScanOptions& options);
    bool getScanning() const { return m_scanning; }
    void setScanning(bool scanning);

    // Waits until no scan thread of this object runs any more.
    bool waitUntilScanEnded(std::chrono::milliseconds timeout) const;

    // Every port the scan tried, in the order first tried, each with its last attempt's outcome.
    std::vector<PortAttempt> getPortAttempts() const;

private:
    enum class Wake { Elapsed, Stopped, LineLost, PortAppeared };
    // How a pass over the ports ended.
    struct CycleEnd
    {
        bool connected = false;    // a device answered on some port
        bool portAppeared = false; // a new candidate port cut the pass short
    };

    bool keepsRunning(const std::stop_token& stop) const;
    void threadScan(std::stop_token stop);
    // One pass over the candidate ports; watcher is left watching for the pause that follows.
    CycleEnd scanCycle(const std::stop_token& stop, std::unique_ptr<PortWatcher>& watcher);
    // Opens path, asks for the revision and holds the connection while the device answers.
    void tryPort(const std::string& path, const std::stop_token& stop, CycleEnd& cycle);
    // The connected loop: state 2 every keep-alive period while the battery read answers.
    void holdConnection(bool present, const std::stop_token& stop, CycleEnd& cycle);
    // Waits for duration unless stop() comes first, or (with watchLine) the line hangs up, or
    // (with a watcher) a candidate port appears that was not there when the pause began.
    Wake pause(std::chrono::milliseconds duration, bool watchLine, PortWatcher* watcher = nullptr);
    void kick(); // ends a pause at once, to look at the flags again
    void onLineLost();
    std::vector<std::string> watchedFolders() const;
    std::shared_ptr<SerialCommunication> serial() const;
    void setSerial(std::shared_ptr<SerialCommunication> serial);
    void stopSerial();
    void recordAttempt(PortAttempt attempt);

    ScanDelegate& m_deviceManager;
    const ScanOptions m_options;

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
    std::atomic<bool> m_enableKeepalive{true};
    std::atomic<bool> m_lineLost{false}; // the current channel's line hung up

    std::vector<NotificationCenter::Token> m_observations;
    std::mutex m_observationMutex;

    mutable std::mutex m_attemptsMutex;
    std::vector<PortAttempt> m_attempts;

    int m_kickFd = -1; // an eventfd: stop() and a hang-up end a pause through it
    mutable std::mutex m_sleepMutex;
    mutable std::condition_variable m_wake;
    int m_scanThreads = 0; // guarded by m_sleepMutex
    std::mutex m_threadsMutex;
    std::vector<std::jthread> m_threads; // last: joined before anything they use goes
};

} // namespace dravinel
