#pragma once

#include "support/Bytes.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

// Process-wide publish/subscribe by name; delivery is synchronous on the posting thread.

namespace dravinel {

using NotificationValue = std::variant<std::int64_t, std::string, Bytes>;
using UserInfo = std::map<std::string, NotificationValue>;

struct Notification
{
    std::string name;
    const void* sender = nullptr;
    UserInfo userInfo;

    // Typed look-ups; empty when the key is missing or holds another kind of value.
    std::optional<std::int64_t> integer(const std::string& key) const;
    std::optional<std::string> text(const std::string& key) const;
    std::optional<Bytes> bytes(const std::string& key) const;
};

class NotificationCenter
{
public:
    using Handler = std::function<void(const Notification&)>;
    using Token = std::uint64_t;

    static NotificationCenter& defaultCenter();

    // observer only tags the registration for removeObserver; it is never dereferenced.
    Token observe(const std::string& name, Handler handler, const void* observer = nullptr);

    // After a removal returns, the handler is neither called again nor still running on another
    // thread; a handler may remove itself (or others) while it runs.
    void remove(Token token);
    void removeObserver(const void* observer);

    void post(const std::string& name, const void* sender, UserInfo userInfo = {});

    std::size_t observerCount(const std::string& name) const;

private:
    struct Entry;
    void removeIf(const std::function<bool(const Entry&)>& matches);
    void retire(std::vector<std::shared_ptr<Entry>> retired, std::unique_lock<std::mutex>& lock);

    mutable std::mutex m_mutex;
    std::condition_variable m_idle;
    std::vector<std::shared_ptr<Entry>> m_entries;
    Token m_nextToken = 1;
};

} // namespace dravinel
