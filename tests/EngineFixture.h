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
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// Shared by the integration tests: a simulated device on a real pty, named to the engine as its
// only port, and recorders for notifications and log lines.

namespace dravinel::testing {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::int64_t state(ConnectionState s)
{
    return static_cast<std::int64_t>(s);
}

// Collects items posted from any thread and lets the test wait for one.
template <typename T> class Collector
{
public:
    void add(T item)
    {
        std::lock_guard lock(m_mutex);
        m_items.push_back(std::move(item));
        m_added.notify_all();
    }
    std::vector<T> items() const
    {
        std::lock_guard lock(m_mutex);
        return m_items;
    }
    // The index of the first item from index from on that matches, once there is one.
    std::optional<std::size_t> waitFor(const std::function<bool(const T&)>& match,
                                       std::chrono::milliseconds timeout,
                                       std::size_t from = 0) const
    {
        std::unique_lock lock(m_mutex);
        std::optional<std::size_t> hit;
        m_added.wait_for(lock, timeout, [&] {
            for (std::size_t i = from; i < m_items.size(); ++i)
                if (match(m_items[i]))
                    return (hit = i).has_value();
            return false;
        });
        return hit;
    }
    bool waitForCount(std::size_t count, std::chrono::milliseconds timeout) const
    {
        std::unique_lock lock(m_mutex);
        return m_added.wait_for(lock, timeout, [&] { return m_items.size() >= count; });
    }
    std::size_t size() const { return items().size(); }
    void clear()
    {
        std::lock_guard lock(m_mutex);
        m_items.clear();
    }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_added;
    std::vector<T> m_items;
};

// Every posting of one notification: its integer value and when it came.
struct Posted
{
    std::int64_t value = 0;
    Clock::time_point at;
};

class Recorder : public Collector<Posted>
{
public:
    Recorder(const char* name, const char* key)
    {
        m_token =
            NotificationCenter::defaultCenter().observe(name, [this, key](const Notification& n) {
                add({n.integer(key).value_or(-1000), Clock::now()});
            });
    }
    ~Recorder() { NotificationCenter::defaultCenter().remove(m_token); }
    std::optional<std::size_t> waitFor(std::int64_t value, std::chrono::milliseconds timeout,
                                       std::size_t from = 0) const
    {
        return Collector::waitFor([value](const Posted& p) { return p.value == value; }, timeout,
                                  from);
    }
    std::vector<std::int64_t> values() const
    {
        std::vector<std::int64_t> out;
        std::ranges::transform(items(), std::back_inserter(out), &Posted::value);
        return out;
    }

private:
    NotificationCenter::Token m_token = 0;
};

// The log lines written while it lives.
class LogCapture : public Collector<std::string>
{
public:
    LogCapture()
    {
        Logger::getInstance().setSink([this](const std::string& line) { add(line); });
    }
    ~LogCapture() { Logger::getInstance().setSink({}); }
    std::size_t count(const std::string& text) const
    {
        return static_cast<std::size_t>(std::ranges::count_if(
            items(), [&](const std::string& l) { return l.find(text) != std::string::npos; }));
    }
    bool contains(const std::string& text) const { return count(text) > 0; }
    // Waits until text stands in at least times lines.
    bool waitFor(const std::string& text, std::chrono::milliseconds timeout,
                 std::size_t times = 1) const
    {
        const auto match = [&](const std::string& l) { return l.find(text) != std::string::npos; };
        std::size_t from = 0;
        for (std::size_t i = 0; i < times; ++i) {
            const auto hit = Collector::waitFor(match, timeout, from);
            if (!hit)
                return false;
            from = *hit + 1;
        }
        return true;
    }
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

    void SetUp() override
    {
        // The modem-line calls a pty refuses are reported on every open.
        set_serial_message_sink([](const std::string&) {});
    }

    void startSimulator(sim::DeviceSimulator::Options options = fastOptions())
    {
        m_sim = std::make_unique<sim::DeviceSimulator>(options);
        ASSERT_TRUE(m_sim->start());
    }

    // Starts a device manager on the simulator's port alone and waits for the connection.
    void connect(std::vector<std::string> before = {})
    {
        if (!m_sim)
            startSimulator();
        before.push_back(m_sim->portPath());
        m_manager = DeviceManager::create({before, false});
        ASSERT_TRUE(m_states.waitFor(state(ConnectionState::Connected), 8s)) << "no connection";
    }

    void TearDown() override
    {
        m_manager.reset(); // stops and joins its scan
        m_sim.reset();
        set_serial_message_sink({});
    }

    LogCapture m_log;
    Recorder m_states{ConnStateChangedEvent, "state"};
    std::unique_ptr<sim::DeviceSimulator> m_sim;
    std::shared_ptr<DeviceManager> m_manager;
};

} // namespace dravinel::testing
