#pragma once

#include "protocol/SettingsTable.h"
#include "support/Bytes.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// Plays the device on a real pseudo-terminal: the host opens portPath() like a USB serial port
// and talks to it through the real serial code. Used by the demo mode, the tests and the
// benchmark.

namespace dravinel::sim {

// The device's record: one value a row of the settings table, in the table's order.
struct SimSettings
{
    std::array<std::uint16_t, kSettings.size()> values = {120, 300, 40, 35, 200, 90};

    std::uint16_t get(Setting setting) const { return values[settingIndex(setting)]; }
    void set(Setting setting, std::uint16_t value) { values[settingIndex(setting)] = value; }
    bool operator==(const SimSettings&) const = default;
};

struct ReceivedRequest
{
    std::chrono::steady_clock::time_point at;
    char code = 0;
    std::string content; // the bytes between the code and LF
};

class DeviceSimulator
{
public:
    struct Options
    {
        std::string revision = "2.1";
        // Folder for the port's symlink; empty means a fresh folder under the system temp dir.
        std::filesystem::path linkDir;
        // The symlink's file name; it carries the product word as a USB serial name would.
        std::string linkName = "usb-Dravinel_Simulator-if00-port0";
        // Delay every byte written as a 115200-baud line would (10 bits per byte).
        bool wireTime = false;
        // The motor test: two passes, each a stream of current samples then "MX:<n>".
        std::chrono::milliseconds motorPass{1000};
        std::chrono::milliseconds motorSampleInterval{50};
        std::uint32_t seed = 1;
    };

    DeviceSimulator();
    explicit DeviceSimulator(Options options);
    ~DeviceSimulator(); // stops and removes the port
    DeviceSimulator(const DeviceSimulator&) = delete;
    DeviceSimulator& operator=(const DeviceSimulator&) = delete;

    bool start();
    void stop();

    std::string portPath() const;  // the symlink holding the product word
    std::string slavePath() const; // the pty's own /dev/pts/N

    SimSettings settings() const;
    void setSettings(const SimSettings& settings);
    std::uint16_t batteryRaw() const;
    void setBatteryRaw(std::uint16_t raw); // fixes the reading; it no longer drifts

    // Every request received, in order, with its arrival time.
    std::vector<ReceivedRequest> requests() const;
    std::size_t requestCount(char code) const;
    void clearRequests();
    // Waits until at least count requests with this code were received.
    bool waitForRequests(char code, std::size_t count, std::chrono::milliseconds timeout) const;
    // True once 'Z' stored the settings.
    bool savedAndExited() const;

    // Fault controls.
    void setMute(bool mute);                            // receive and record, answer nothing
    void setResponseDelay(std::chrono::milliseconds d); // wait before each answer
    // Answer this request code with the given line (LF CR appended) instead of the real answer.
    // With after, the next after requests of the code are still answered truly.
    void setAnswerOverride(char requestCode, std::string line, std::size_t after = 0);
    void clearAnswerOverrides();
    // The answer codes of 'G', in the order sent; repeat or omit codes to send duplicates or
    // leave a setting out. Empty (the default): every row of the table, in its order.
    void setSettingsOrder(std::string codes);
    void sendLine(const std::string& line); // an unsolicited line; LF CR appended
    void sendBytes(const Bytes& bytes);     // raw bytes, nothing appended
    void unplug();                          // close the master and remove the symlink
    bool plugIn();                          // a new pty behind the same symlink path

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace dravinel::sim
