#include "cli/EventQueue.h"

namespace dravinel::cli {

EventQueue::EventQueue(const Subscriptions& subscriptions)
    : m_interrupt([this] {
          std::lock_guard lock(m_mutex);
          m_changed.notify_all();
      })
{
    for (const auto& [name, key] : subscriptions) {
        m_tokens.push_back(NotificationCenter::defaultCenter().observe(
            name, [this, key = std::string(key)](const Notification& n) {
                Event event{n.name, n.integer(key).value_or(-1), Clock::now()};
                std::lock_guard lock(m_mutex);
                m_events.push_back(std::move(event));
                m_changed.notify_all();
            }));
    }
}

EventQueue::~EventQueue()
{
    // After remove() returns no handler runs any more, so the queue can go.
    for (const auto token : m_tokens)
        NotificationCenter::defaultCenter().remove(token);
}

EventQueue::Wait EventQueue::next(Clock::time_point deadline, Event& event)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait_until(lock, deadline,
                         [this] { return !m_events.empty() || interruptRequested(); });
    if (interruptRequested())
        return Wait::Interrupted;
    if (m_events.empty())
        return Wait::Timeout;
    event = std::move(m_events.front());
    m_events.pop_front();
    return Wait::Event;
}

} // namespace dravinel::cli
