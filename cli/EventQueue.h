#pragma once

#include "cli/Interrupt.h"
#include "support/NotificationCenter.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// Hands the device model's notifications, which arrive on the engine's threads, to the command's
// thread in order; a wait ends early on Ctrl-C.

namespace dravinel::cli {

class EventQueue
{
public:
    using Clock = std::chrono::steady_clock;

    struct Event
    {
        std::string name;
        std::int64_t value = 0;
        Clock::time_point at;
    };

    enum class Wait { Event, Timeout, Interrupted };

    // Notification names, each with the key of its integer value.
    using Subscriptions = std::vector<std::pair<const char*, const char*>>;

    explicit EventQueue(const Subscriptions& subscriptions);
    ~EventQueue();
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    // The next event, unless the deadline passes or an interrupt comes first.
    Wait next(Clock::time_point deadline, Event& event);

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Event> m_events;
    std::vector<NotificationCenter::Token> m_tokens;
    InterruptHook m_interrupt;
};

} // namespace dravinel::cli
