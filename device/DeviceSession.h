#pragma once

#include "device/DeviceManager.h"
#include "device/Settings.h"
#include "device/SettingsData.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// One connection to the device for every front end: it owns the device manager's life, decides
// when the device is lost, owns a running motor test until its passes end, and says which ports
// are candidates and when one appears. Front ends keep their requests on one thread of their
// own; close() may come from another, and then ends a request that waits for an answer at once.
// What the device reports arrives through the Listener on the engine's threads.

namespace dravinel {

// Which ports a search tries.
struct PortChoice
{
    enum class Others { Scan, Never };
    std::vector<std::string> ports; // tried first, in this order
    Others others = Others::Scan;   // Never: nothing but ports is ever opened

    static PortChoice any() { return {}; }
    static PortChoice only(std::string path) { return {{std::move(path)}, Others::Never}; }
};

// A sensor or battery read, keeping apart what the protocol's "no value" marker cannot: a value
// (65535 included), a reply that came but was wrong (with what came), and no reply at all.
struct Reading
{
    enum class Kind { Value, WrongReply, NoReply };
    Kind kind = Kind::NoReply;
    std::uint16_t value = 0;
    std::string answer; // WrongReply: the reply without LF CR

    bool ok() const { return kind == Kind::Value; }
};

enum class Sensor { Position, InfraRed };

enum class MotorTestEnd {
    Finished, // both passes ended with their done value
    Silent,   // no frame for kMotorSilence
    Lost,     // the connection ended during the test
};

// Why a port was not the device, in a technician's words.
struct PortReport
{
    std::string path;
    std::string reason;
};

class DeviceSession
{
public:
    // A motor test with no frame for this long has ended, whatever the device says later.
    static constexpr std::chrono::seconds kMotorSilence{5};
    // Sensor reads in a row with no reply at all after which the device counts as lost.
    static constexpr int kFailedReadsToLose = 3;
    // Raw battery units a volt.
    static constexpr double kBatteryUnitsPerVolt = 111.0;

    // Called on the engine's threads, except for the result of readBattery and readSensor,
    // which is also passed here on the thread that asked; a front end moves screen work to its
    // own thread. Called without the session's lock held: a listener never calls the session.
    class Listener
    {
    public:
        virtual void stateChanged(ConnectionState state) = 0;
        virtual void revisionRead(const std::string& revision) { (void)revision; }
        virtual void batteryRead(const Reading& reading, double volts)
        {
            (void)reading, (void)volts;
        }
        virtual void sensorRead(Sensor sensor, const Reading& reading)
        {
            (void)sensor, (void)reading;
        }
        virtual void motorSample(std::uint16_t current) { (void)current; }
        // pass is 1 or 2.
        virtual void motorPassDone(int pass, std::uint16_t value) { (void)pass, (void)value; }
        virtual void motorTestEnded(MotorTestEnd end) { (void)end; }
        // Three sensor reads in a row got no reply: the session searches again.
        virtual void deviceLost() {}
        // A candidate port appeared while watching (see watchPorts).
        virtual void portAppeared() {}

    protected:
        ~Listener() = default;
    };

    explicit DeviceSession(Listener* listener = nullptr);
    // Ends a running motor test quietly, stops the manager and joins every thread.
    ~DeviceSession();
    DeviceSession(const DeviceSession&) = delete;
    DeviceSession& operator=(const DeviceSession&) = delete;

    // Starts a search (a new manager); a manager still running is stopped first.
    void open(PortChoice ports = PortChoice::any());
    // Stops the search or the connection; state 3 (when connected) then 0 follow.
    void close();
    ConnectionState state() const;
    // Waits until connected (true) or the search gave up or was closed (false).
    bool waitForConnection(std::chrono::milliseconds timeout);
    // Waits until the connection ends (true) or timeout passes while connected (false). A read
    // cut short by a hang-up fails at once; the scan reports the loss a moment later.
    bool waitForLoss(std::chrono::milliseconds timeout);
    // Ends a waitForConnection now (from any thread, e.g. on Ctrl-C); the next open() clears it.
    void interruptWait();
    // After a search that gave up: each port tried with why it was not the device.
    std::vector<PortReport> searchReport() const;

    // Device requests. Each first waits for a running motor test to end. While not connected
    // they fail as a device that does not answer.
    // With answer, the first answer as it came (none when nothing came).
    std::optional<std::string> readRevision(std::optional<std::string>* answer = nullptr);
    // The revision the search read when it found the device; nothing while not searching.
    std::optional<std::string> revision() const;
    std::optional<SettingsData> readSettings(std::vector<std::string>* answers = nullptr);
    WriteResult write(Setting setting, std::uint16_t value);
    bool saveAndExit(); // sends Z, then closes
    Reading readBattery();
    Reading readSensor(Sensor sensor);
    // Sends the motor test request and turns the keep-alive off; the test's frames then arrive
    // through the listener.
    bool startMotorTest();
    bool motorTestRunning() const;
    // Waits until a running motor test ends; nothing more is passed to the listener for it, and
    // no call of the listener about it runs any more once this returns.
    void drainMotorTest();
    void enableKeepalive(bool enable);

    static double batteryVolts(std::uint16_t raw) { return raw / kBatteryUnitsPerVolt; }

    // Ports: what a search would try now, and a watch that calls Listener::portAppeared when one
    // appears (inotify on the folders ports appear in; no polling).
    static std::vector<std::string> candidatePorts(const PortChoice& ports = PortChoice::any());
    static std::size_t machinePortCount();
    // The word a port's name carries when it is the device's ("Dravinel").
    static std::string_view productWord();
    // Every serial port of the machine, candidate or not.
    static std::vector<std::string> machinePorts();
    void watchPorts(bool watch);

    // Where the serial module's messages go (standard error by default).
    static void setSerialMessageSink(std::function<void(const std::string&)> sink);

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace dravinel
