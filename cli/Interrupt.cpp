#include "cli/Interrupt.h"

#include <atomic>
#include <map>
#include <mutex>

namespace dravinel::cli {

namespace {

std::atomic<bool> gInterrupted{false};
std::mutex gHooksMutex;
std::map<std::uint64_t, std::function<void()>> gHooks;
std::uint64_t gNextHook = 1;

} // namespace

void requestInterrupt()
{
    gInterrupted = true;
    // Held while the hooks run, so a hook's owner cannot go away under it.
    std::lock_guard lock(gHooksMutex);
    for (const auto& [id, wake] : gHooks)
        wake();
}

bool interruptRequested()
{
    return gInterrupted;
}

void clearInterrupt()
{
    gInterrupted = false;
}

InterruptHook::InterruptHook(std::function<void()> wake)
{
    std::lock_guard lock(gHooksMutex);
    m_id = gNextHook++;
    gHooks.emplace(m_id, std::move(wake));
}

InterruptHook::~InterruptHook()
{
    std::lock_guard lock(gHooksMutex);
    gHooks.erase(m_id);
}

} // namespace dravinel::cli
