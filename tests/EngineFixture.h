#pragma once

#include "device/DeviceManager.h"
#include "serial/serial.h"
#include "sim/DeviceSimulator.h"
#include "support/Logger.h"
#include "support/NotificationCenter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// Shared by the integration tests: a simulated device on a real pty, registered as an explicit
// port, and recorders for notifications and log lines.

namespace dravinel::testing {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Records every posting of one notification name, with its integer or text value and time.
class Recorder
{
public:
    struct Entry
    {
        std::int64_t value = 0;
        std::string text;
        Clock::time_point at;
    };

    Recorder(const char* name, const char* key) : m_key(key)
    {
        m_token = NotificationCenter::defaultCenter().observe(name, [this](const Notification& n) {
            Entry e;
            e.value = n.integer(m_key).value_or(-1000);
            e.text = n.text(m_key).value_or("");
            e.at = Clock::now();
            std::lock_guard lock(m_mutex);
            m_entries.push_back(std::move(e));
            m_changed.notify_all();
        });
    }
    ~Recorder() { NotificationCenter::defaultCenter().remove(m_token); }

    std::vector<Entry> entries() const
    {
        std::lock_guard lock(m_mutex);
        return m_entries;
    }
    std::vector<std::int64_t> values() const
    {
        std::vector<std::int64_t> out;
        for (const auto& e : entries())
            out.push_back(e.value);
        return out;
    }
    // Waits until value was recorded (at or after index from); returns its entry index.
    std::optional<std::size_t> waitFor(std::int64_t value, std::chrono::milliseconds timeout,
                                       std::size_t from = 0) const
    {
        std::unique_lock lock(m_mutex);
        std::optional<std::size_t> hit;
        m_changed.wait_for(lock, timeout, [&] {
            for (std::size_t i = from; i < m_entries.size(); ++i)
                if (m_entries[i].value == value) {
                    hit = i;
                    return true;
                }
            return false;
        });
        return hit;
    }
    bool waitForCount(std::size_t count, std::chrono::milliseconds timeout) const
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return m_entries.size() >= count; });
    }
    void clear()
    {
        std::lock_guard lock(m_mutex);
        m_entries.clear();
    }

private:
    std::string m_key;
    NotificationCenter::Token m_token = 0;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<Entry> m_entries;
};

// Collects the log lines while it lives.
class LogCapture
{
public:
    LogCapture()
    {
        Logger::getInstance().setSink([this](const std::string& line) {
            std::lock_guard lock(m_mutex);
            m_lines.push_back(line);
            m_added.notify_all();
        });
    }
    ~LogCapture() { Logger::getInstance().setSink({}); }

    bool contains(const std::string& text) const
    {
        std::lock_guard lock(m_mutex);
        return containsLocked(text);
    }
    bool waitFor(const std::string& text, std::chrono::milliseconds timeout) const
    {
        std::unique_lock lock(m_mutex);
        return m_added.wait_for(lock, timeout, [&] { return containsLocked(text); });
    }
    std::size_t count(const std::string& text) const
    {
        std::lock_guard lock(m_mutex);
        return static_cast<std::size_t>(
            std::count_if(m_lines.begin(), m_lines.end(), [&](const std::string& line) {
                return line.find(text) != std::string::npos;
            }));
    }
    void clear()
    {
        std::lock_guard lock(m_mutex);
        m_lines.clear();
    }

private:
    bool containsLocked(const std::string& text) const
    {
        return std::any_of(m_lines.begin(), m_lines.end(), [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        });
    }

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_added;
    std::vector<std::string> m_lines;
};

class EngineTest : public ::testing::Test
{
protected:
    static sim::DeviceSimulator::Options fastOptions()
    {
        sim::DeviceSimulator::Options options;
        options.motorPass = 300ms;
        options.motorSampleInterval = 30ms;
        return options;
    }

    void startSimulator(sim::DeviceSimulator::Options options = fastOptions())
    {
        m_sim = std::make_unique<sim::DeviceSimulator>(options);
        ASSERT_TRUE(m_sim->start());
        register_port_path(m_sim->portPath());
    }

    // Starts a device manager and waits for the connected state.
    void connect()
    {
        if (!m_sim)
            startSimulator();
        m_manager = DeviceManager::create();
        ASSERT_TRUE(m_states.waitFor(Connected, 5s)) << "no connection to the simulator";
    }

    void TearDown() override
    {
        if (m_manager) {
            m_manager->stop();
            EXPECT_TRUE(m_manager->waitUntilStopped(5s)) << "scan thread did not end";
            m_manager.reset();
        }
        if (m_sim) {
            unregister_port_path(m_sim->portPath());
            m_sim.reset();
        }
    }

    LogCapture m_log;
    Recorder m_states{ConnStateChangedEvent, "state"};
    std::unique_ptr<sim::DeviceSimulator> m_sim;
    std::shared_ptr<DeviceManager> m_manager;
};

} // namespace dravinel::testing
