#pragma once

#include "device/DeviceManager.h"
#include "serial/serial.h"
#include "sim/DeviceSimulator.h"
#include "support/Logger.h"
#include "support/NotificationCenter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

// Shared by the integration tests: a simulated device on a real pty, named to the engine as its
// only port, and recorders for notifications and log lines.

namespace dravinel::testing {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::int64_t state(ConnectionState s)
{
    return static_cast<std::int64_t>(s);
}

// Items added from any thread, and waits for them.
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
    std::size_t size() const { return items().size(); }
    void clear()
    {
        std::lock_guard lock(m_mutex);
        m_items.clear();
    }
    // The index of the first item from index from on that matches, once there is one.
    template <typename Match>
    std::optional<std::size_t> waitFor(Match match, std::chrono::milliseconds timeout,
                                       std::size_t from = 0) const
    {
        std::unique_lock lock(m_mutex);
        std::optional<std::size_t> hit;
        m_added.wait_for(lock, timeout, [&] {
            for (std::size_t i = from; i < m_items.size() && !hit; ++i)
                if (match(m_items[i]))
                    hit = i;
            return hit.has_value();
        });
        return hit;
    }
    bool waitForCount(std::size_t count, std::chrono::milliseconds timeout) const
    {
        return count == 0 || waitFor([](const T&) { return true; }, timeout, count - 1);
    }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_added;
    std::vector<T> m_items;
};

// Every posting of one notification (by one sender, if given): the value under key, as an
// integer or as text, and when it came.
struct Posted
{
    std::int64_t value = 0;
    std::string text;
    Clock::time_point at;
};

class Recorder : public Collector<Posted>
{
public:
    Recorder(const char* name, const char* key, const void* sender = nullptr)
        : m_token(
              NotificationCenter::defaultCenter().observe(name, [=, this](const Notification& n) {
                  if (!sender || n.sender == sender)
                      add({n.integer(key).value_or(-1000), toText(n.bytes(key).value_or(Bytes{})),
                           Clock::now()});
              }))
    {}
    ~Recorder() { NotificationCenter::defaultCenter().remove(m_token); }
    std::optional<std::size_t> waitFor(std::int64_t value, std::chrono::milliseconds timeout,
                                       std::size_t from = 0) const
    {
        return Collector::waitFor([=](const Posted& p) { return p.value == value; }, timeout, from);
    }
    std::vector<std::int64_t> values() const { return project(&Posted::value); }
    std::vector<std::string> texts() const { return project(&Posted::text); }

private:
    template <typename Field> std::vector<Field> project(Field Posted::*field) const
    {
        std::vector<Field> out;
        for (const auto& posted : items())
            out.push_back(posted.*field);
        return out;
    }
    NotificationCenter::Token m_token;
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
        return static_cast<std::size_t>(
            std::ranges::count_if(items(), [&](const std::string& line) {
                return line.find(text) != std::string::npos;
            }));
    }
    bool contains(const std::string& text) const { return count(text) > 0; }
    // Waits until text stands in at least times lines.
    bool waitFor(const std::string& text, std::chrono::milliseconds timeout,
                 std::size_t times = 1) const
    {
        std::optional<std::size_t> hit;
        for (std::size_t i = 0; i < times; ++i)
            if (!(hit = Collector::waitFor(
                      [&](const std::string& l) { return l.find(text) != std::string::npos; },
                      timeout, hit ? *hit + 1 : 0)))
                return false;
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
    // The modem-line calls a pty refuses are reported on every open.
    void SetUp() override
    {
        set_serial_message_sink([](const std::string&) {});
    }
    void TearDown() override
    {
        m_manager.reset(); // stops and joins its scan
        m_sim.reset();
        set_serial_message_sink({});
    }
    void startSimulator(sim::DeviceSimulator::Options options = fastOptions())
    {
        m_sim = std::make_unique<sim::DeviceSimulator>(options);
        ASSERT_TRUE(m_sim->start());
    }
    // Starts a device manager on the simulator's port alone and waits for the connection.
    void connect()
    {
        if (!m_sim)
            startSimulator();
        m_manager = DeviceManager::create({{m_sim->portPath()}, false});
        ASSERT_TRUE(m_states.waitFor(state(ConnectionState::Connected), 8s)) << "no connection";
    }

    LogCapture m_log;
    Recorder m_states{ConnStateChangedEvent, "state"};
    std::unique_ptr<sim::DeviceSimulator> m_sim;
    std::shared_ptr<DeviceManager> m_manager;
};

} // namespace dravinel::testing
