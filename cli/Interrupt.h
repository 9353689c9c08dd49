#pragma once

#include <cstdint>
#include <functional>

// Ctrl-C for the command line: the program's signal watcher requests an interrupt, and every wait
// of a running command wakes at once instead of sleeping on.

namespace dravinel::cli {

void requestInterrupt();
bool interruptRequested();
// Forgets an earlier request (a new command starts uninterrupted).
void clearInterrupt();

// Calls wake (on the requesting thread) for each interrupt while it lives.
class InterruptHook
{
public:
    explicit InterruptHook(std::function<void()> wake);
    ~InterruptHook();
    InterruptHook(const InterruptHook&) = delete;
    InterruptHook& operator=(const InterruptHook&) = delete;

private:
    std::uint64_t m_id = 0;
};

} // namespace dravinel::cli
