#include "DeviceWorker.h"

#include <utility>

namespace dravinel {

DeviceWorker::DeviceWorker() : m_thread([this](std::stop_token stop) { run(std::move(stop)); }) {}

DeviceWorker::~DeviceWorker()
{
    stop();
    join();
}

void DeviceWorker::post(Job job)
{
    {
        std::lock_guard lock(m_mutex);
        if (m_thread.get_stop_token().stop_requested())
            return;
        m_jobs.push_back(std::move(job));
    }
    m_wake.notify_all();
}

void DeviceWorker::setPeriodic(Task task, std::chrono::milliseconds period)
{
    {
        std::lock_guard lock(m_mutex);
        m_periodic = task ? std::make_shared<const Task>(std::move(task)) : nullptr;
        m_period = period;
        m_nextRun = std::chrono::steady_clock::now();
        ++m_changes;
    }
    m_wake.notify_all();
}

void DeviceWorker::stop()
{
    std::deque<Job> dropped;
    std::shared_ptr<const Task> periodic;
    {
        std::lock_guard lock(m_mutex);
        m_thread.request_stop();
        dropped.swap(m_jobs);
        periodic.swap(m_periodic);
    }
    m_wake.notify_all();
    // What the dropped jobs hold is released here, outside the lock.
}

void DeviceWorker::join()
{
    if (m_thread.joinable())
        m_thread.join();
}

void DeviceWorker::run(std::stop_token stop)
{
    std::unique_lock lock(m_mutex);
    while (!stop.stop_requested()) {
        if (!m_jobs.empty()) {
            Job job = std::move(m_jobs.front());
            m_jobs.pop_front();
            lock.unlock();
            job(stop);
            job = nullptr; // released before the lock is taken again
            lock.lock();
            continue;
        }
        if (m_periodic && std::chrono::steady_clock::now() >= m_nextRun) {
            // Held by a copy, so that replacing the task meanwhile does not pull it from under
            // the run.
            std::shared_ptr<const Task> task = m_periodic;
            lock.unlock();
            (*task)();
            lock.lock();
            // A task replaced during the run keeps the start time it was given.
            if (task == m_periodic)
                m_nextRun = std::chrono::steady_clock::now() + m_period;
            lock.unlock();
            task.reset();
            lock.lock();
            continue;
        }
        const std::uint64_t seen = m_changes;
        const auto woken = [&] { return !m_jobs.empty() || m_changes != seen; };
        if (m_periodic)
            m_wake.wait_until(lock, stop, m_nextRun, woken);
        else
            m_wake.wait(lock, stop, woken);
    }
}

} // namespace dravinel
