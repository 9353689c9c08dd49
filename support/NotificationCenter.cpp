#include "support/NotificationCenter.h"

#include <algorithm>
#include <thread>

namespace dravinel {

struct NotificationCenter::Entry
{
    Token token;
    std::string name;
    const void* observer;
    Handler handler;
    bool alive = true;
    // Threads inside the handler right now; a removal waits until only its own thread is left.
    std::vector<std::thread::id> running;
};

namespace {

template <typename T> std::optional<T> lookUp(const UserInfo& info, const std::string& key)
{
    auto it = info.find(key);
    if (it == info.end())
        return std::nullopt;
    if (const T* value = std::get_if<T>(&it->second))
        return *value;
    return std::nullopt;
}

} // namespace

std::optional<std::int64_t> Notification::integer(const std::string& key) const
{
    return lookUp<std::int64_t>(userInfo, key);
}

std::optional<std::string> Notification::text(const std::string& key) const
{
    return lookUp<std::string>(userInfo, key);
}

std::optional<Bytes> Notification::bytes(const std::string& key) const
{
    return lookUp<Bytes>(userInfo, key);
}

NotificationCenter& NotificationCenter::defaultCenter()
{
    // Never destroyed: an owner destroyed at exit, after it would be, may still join a thread
    // that posts on its way out.
    static auto* center = new NotificationCenter;
    return *center;
}

NotificationCenter::Token NotificationCenter::observe(const std::string& name, Handler handler,
                                                      const void* observer)
{
    std::lock_guard lock(m_mutex);
    auto entry = std::make_shared<Entry>();
    entry->token = m_nextToken++;
    entry->name = name;
    entry->observer = observer;
    entry->handler = std::move(handler);
    m_entries.push_back(entry);
    return entry->token;
}

void NotificationCenter::remove(Token token)
{
    removeIf([token](const Entry& e) { return e.token == token; });
}

void NotificationCenter::removeObserver(const void* observer)
{
    removeIf([observer](const Entry& e) { return e.observer == observer; });
}

void NotificationCenter::removeIf(const std::function<bool(const Entry&)>& matches)
{
    std::unique_lock lock(m_mutex);
    std::vector<std::shared_ptr<Entry>> retired;
    std::erase_if(m_entries, [&](const std::shared_ptr<Entry>& e) {
        if (!matches(*e))
            return false;
        retired.push_back(e);
        return true;
    });
    retire(std::move(retired), lock);
}

void NotificationCenter::retire(std::vector<std::shared_ptr<Entry>> retired,
                                std::unique_lock<std::mutex>& lock)
{
    const auto self = std::this_thread::get_id();
    for (auto& entry : retired)
        entry->alive = false;
    // Wait for calls on other threads to finish, so the caller may then destroy what the handler
    // uses. A call on this thread (a handler removing itself) cannot be waited for.
    m_idle.wait(lock, [&] {
        return std::all_of(retired.begin(), retired.end(), [&](const auto& entry) {
            return std::all_of(entry->running.begin(), entry->running.end(),
                               [&](std::thread::id id) { return id == self; });
        });
    });
}

void NotificationCenter::post(const std::string& name, const void* sender, UserInfo userInfo)
{
    std::vector<std::shared_ptr<Entry>> targets;
    {
        std::lock_guard lock(m_mutex);
        for (const auto& entry : m_entries)
            if (entry->name == name)
                targets.push_back(entry);
    }
    if (targets.empty())
        return;

    const Notification notification{name, sender, std::move(userInfo)};
    const auto self = std::this_thread::get_id();
    for (const auto& entry : targets) {
        {
            std::lock_guard lock(m_mutex);
            if (!entry->alive)
                continue;
            entry->running.push_back(self);
        }
        struct Leave
        {
            NotificationCenter& center;
            Entry& entry;
            std::thread::id self;
            ~Leave()
            {
                std::lock_guard lock(center.m_mutex);
                auto it = std::find(entry.running.begin(), entry.running.end(), self);
                if (it != entry.running.end())
                    entry.running.erase(it);
                center.m_idle.notify_all();
            }
        } leave{*this, *entry, self};
        entry->handler(notification);
    }
}

std::size_t NotificationCenter::observerCount(const std::string& name) const
{
    std::lock_guard lock(m_mutex);
    return static_cast<std::size_t>(std::count_if(m_entries.begin(), m_entries.end(),
                                                  [&](const auto& e) { return e->name == name; }));
}

} // namespace dravinel
