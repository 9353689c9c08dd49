#pragma once

#include "device/Settings.h"
#include "device/SettingsData.h"
#include "protocol/ConnectionState.h"
#include "protocol/PortAttempt.h"
#include "protocol/ScanDelegate.h"
#include "protocol/SerialManager.h"
#include "support/Bytes.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
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

// What a write sent and what came back.
struct WriteResult
{
    bool confirmed = false;            // the device echoed the value written
    std::optional<std::string> answer; // the first answer without LF CR; empty when none came
    explicit operator bool() const { return confirmed; }
};

// A frame as a person reads it: its text without the LF CR that end it.
std::string answerText(const Bytes& frame);

class DeviceManager final : public ScanDelegate
{
    struct PassKey
    {};

public:
    using Options = ScanOptions;

    // Creates the manager and starts looking for the device at once. The destructor stops the
    // scan and joins its thread, so the last handle must never be dropped on the scan thread
    // (inside a handler of the state it posts): front ends drop it on their own thread.
    // With Start::Later nothing runs until start(): an owner can first learn the manager's
    // address, which its notifications carry as their sender.
    enum class Start { Now, Later };
    static std::shared_ptr<DeviceManager> create(Options options = {}, Start start = Start::Now);
    DeviceManager(PassKey, Options options);
    ~DeviceManager();
    DeviceManager(const DeviceManager&) = delete;
    DeviceManager& operator=(const DeviceManager&) = delete;

    void start();
    void stop();
    void clean();
    SerialManager& getSerialManager() { return m_serialManager; }
    bool isConnected() const;
    void setConnectionState(ConnectionState state) override;
    ConnectionState getConnectionState() const { return m_connectionState; }
    void enableKeepaliveCheck(bool enable);
    // Waits until the scan thread has ended (after stop(), or after two empty cycles).
    bool waitUntilStopped(std::chrono::milliseconds timeout) const;
    // The ports the scan tried, in the order tried, each with its last attempt's outcome.
    std::vector<PortAttempt> getPortAttempts() const;

    // The overloads with answer also hand back the device's first answer (without LF CR), valid
    // or not, or nothing when none came: a front end can then say what the device answered.
    std::optional<std::string> readRevision();
    std::optional<std::string> readRevision(std::optional<std::string>* answer) override;
    std::string getRevision() const;
    // With answers, every answer that came, valid or not.
    std::optional<SettingsData> readSettings(std::vector<std::string>* answers = nullptr);

    WriteResult save(Setting setting, std::uint16_t value);
    WriteResult saveCurrentLimit(std::uint16_t value);
    WriteResult saveIR(std::uint16_t value);
    WriteResult savePositiveRotation(std::uint16_t value);
    WriteResult saveNegativeRotation(std::uint16_t value);
    WriteResult saveMotorSpeed(std::uint16_t value);
    WriteResult saveCycleTimeout(std::uint16_t value);
    bool saveAndExit();

    std::uint16_t readVBatt();
    // With answer, the first answer as it came (none when nothing came); with ok, whether the
    // read gave a value, which tells a genuine 65535 from a failed read.
    std::uint16_t readVBatt(std::optional<std::string>* answer, bool* ok = nullptr);
    std::uint16_t readReedSensor();
    std::uint16_t readReedSensor(std::optional<std::string>* answer, bool* ok = nullptr);
    std::uint16_t readIR();
    std::uint16_t readIR(std::optional<std::string>* answer, bool* ok = nullptr);
    // The keep-alive's battery read: a reply that came, valid or not, keeps the connection.
    bool keepAliveAnswered() override;
    // Called on the scan thread with each keep-alive read that got a reply: the value, or
    // nothing and what came instead.
    using KeepAliveObserver =
        std::function<void(std::optional<std::uint16_t> value, const std::string& answer)>;
    void setKeepAliveObserver(KeepAliveObserver observer);
    // The reading of an IR reply text ("IR: <n>", LF CR), as readIR takes it.
    struct IRReply
    {
        enum class Status { Ok, Invalid, NonNumeric } status;
        std::uint16_t value;
    };
    static IRReply parseIRReply(const std::string& text);
    void startMotorMonitoring();
    void onMonitorFrameReceived(const Bytes& frame) override;

private:
    // The answer check shared by every command with one coded answer: the content text of the
    // first response, or nothing (logged under prefix, except for a missing answer).
    // With answer, the first answer's text is handed back too, whatever became of it.
    std::optional<std::string> requestContent(char request, const std::string& content,
                                              char response, const char* prefix,
                                              std::optional<std::string>* answer = nullptr);
    std::optional<std::uint16_t> requestNumber(char request, const std::string& content,
                                               char response, const char* prefix,
                                               std::optional<std::string>* answer = nullptr);
    std::optional<std::uint16_t> readSensor(char request, char response, const char* prefix,
                                            const char* notification, const char* key,
                                            std::optional<std::string>* answer);
    void post(const char* name, const char* key, std::int64_t value);

    mutable std::mutex m_revisionMutex;
    std::string m_revision = "???";
    float m_batteryLevel = 0.0f;
    std::int32_t m_reedSensor = 0;
    std::int32_t m_infraRed = 0;
    std::mutex m_observerMutex;
    KeepAliveObserver m_keepAliveObserver;
    std::atomic<ConnectionState> m_connectionState{ConnectionState::Disconnected};
    // Last: its scan thread uses the members above, so it is joined before they go.
    SerialManager m_serialManager;
};

} // namespace dravinel
