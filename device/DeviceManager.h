#pragma once

#include "device/SettingsData.h"
#include "protocol/SerialManager.h"
#include "support/Bytes.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// The device's model: every device command as one typed operation, the connection state, and
// the notifications that report readings and state changes.

namespace dravinel {

// Notification names and their user-information keys.
inline constexpr const char* ConnStateChangedEvent = "ConnStateChangedEvent";   // "state"
inline constexpr const char* ReadRevisionEvent = "ReadRevisionEvent";           // "rev"
inline constexpr const char* ReadVBattEvent = "ReadVBattEvent";                 // "vbatt"
inline constexpr const char* MonitorMotorEvent = "MonitorMotorEvent";           // "value"
inline constexpr const char* MonitorMotorDoneEvent = "MonitorMotorDoneEvent";   // "value"
inline constexpr const char* MonitorIREvent = "MonitorIREvent";                 // "value"
inline constexpr const char* MonitorReedSensorEvent = "MonitorReedSensorEvent"; // "value"

enum ConnectionState : std::int32_t {
    Disconnected = 0,
    Scanning = 1,
    Connected = 2,
    Disconnecting = 3,
};

class DeviceManager : public std::enable_shared_from_this<DeviceManager>
{
    struct PassKey
    {};

public:
    // Creates the manager and starts looking for the device at once. The scan thread shares
    // ownership until it ends, so dropping the last handle never pulls the manager from under it.
    static std::shared_ptr<DeviceManager> create();
    explicit DeviceManager(PassKey);
    ~DeviceManager();
    DeviceManager(const DeviceManager&) = delete;
    DeviceManager& operator=(const DeviceManager&) = delete;

    void stop();
    void clean();
    std::shared_ptr<SerialManager> getSerialManager() const { return m_serialManager; }
    bool isConnected() const;
    void setConnectionState(std::int32_t state);
    std::int32_t getConnectionState() const { return m_connectionState; }
    void enableKeepaliveCheck(bool enable);
    // Waits until the scan thread has ended (after stop(), or after two empty cycles).
    bool waitUntilStopped(std::chrono::milliseconds timeout) const;
    // The ports the scan tried, in the order tried, each with its last attempt's outcome.
    std::vector<PortAttempt> getPortAttempts() const;

    std::optional<std::string> readRevision();
    std::string getRevision() const;
    std::optional<SettingsData> readSettings();

    bool saveCurrentLimit(std::uint16_t value);
    bool saveIR(std::uint16_t value);
    bool savePositiveRotation(std::uint16_t value);
    bool saveNegativeRotation(std::uint16_t value);
    bool saveMotorSpeed(std::uint16_t value);
    bool saveCycleTimeout(std::uint16_t value);
    bool saveAndExit();

    std::uint16_t readVBatt();
    std::uint16_t readReedSensor();
    std::uint16_t readIR();
    // The reading of an IR reply text ("IR: <n>", LF CR), as readIR takes it.
    struct IRReply
    {
        enum class Status { Ok, Invalid, NonNumeric } status;
        std::uint16_t value;
    };
    static IRReply parseIRReply(const std::string& text);
    void startMotorMonitoring();
    void onMonitorFrameReceived(const Bytes& frame);

private:
    // The answer check shared by every command with one coded answer: the content text of the
    // first response, or nothing (logged under prefix, except for a missing answer).
    std::optional<std::string> requestContent(char request, const std::string& content,
                                              char response, const char* prefix);
    std::optional<std::uint16_t> requestNumber(char request, const std::string& content,
                                               char response, const char* prefix);
    bool saveSetting(char request, char response, const char* prefix, std::uint16_t value);
    std::uint16_t readSensor(char request, char response, const char* prefix,
                             const char* notification, const char* key);
    void post(const char* name, const char* key, std::int64_t value);

    std::shared_ptr<SerialManager> m_serialManager;
    mutable std::mutex m_revisionMutex;
    std::string m_revision = "???";
    float m_batteryLevel = 0.0f;
    std::int32_t m_reedSensor = 0;
    std::int32_t m_infraRed = 0;
    std::atomic<std::int32_t> m_connectionState{0};
};

} // namespace dravinel
