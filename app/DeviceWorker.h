#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <thread>

// Runs the device calls the window asks for on one thread of its own, one after another in the
// order asked, so that a device that is slow to answer never freezes the window. Between jobs it
// can run one periodic task (a sensor poll).

namespace dravinel {

class DeviceWorker
{
public:
    // A job gets the worker's stop token: a job of several device calls checks it between them,
    // so that nothing more is sent once the window is closing.
    using Job = std::function<void(std::stop_token)>;
    using Task = std::function<void()>;

    DeviceWorker();
    ~DeviceWorker(); // stops and joins
    DeviceWorker(const DeviceWorker&) = delete;
    DeviceWorker& operator=(const DeviceWorker&) = delete;

    // Queued behind the jobs already waiting; ignored once stopped.
    void post(Job job);

    // The task runs at once, then again each period after its last run ended, whenever no job
    // waits. An empty task ends it; a run already under way finishes.
    void setPeriodic(Task task, std::chrono::milliseconds period);

    // Drops the waiting jobs and asks the running one to end; does not wait for it.
    void stop();
    // Waits for the thread to end; call stop() first.
    void join();

private:
    void run(std::stop_token stop);

    std::mutex m_mutex;
    std::condition_variable_any m_wake;
    std::deque<Job> m_jobs;                          // guarded by m_mutex
    std::shared_ptr<const Task> m_periodic;          // guarded by m_mutex
    std::chrono::milliseconds m_period{0};           // guarded by m_mutex
    std::chrono::steady_clock::time_point m_nextRun; // guarded by m_mutex
    std::uint64_t m_changes = 0;                     // guarded by m_mutex; wakes the wait
    // Last: it starts running once everything above is in place.
    std::jthread m_thread;
};

} // namespace dravinel
