#include "serial/PortWatcher.h"

#include <cstring>
#include <filesystem>
#include <set>

#include <sys/inotify.h>
#include <unistd.h>

namespace dravinel {

namespace {

std::filesystem::path nearestExisting(std::filesystem::path folder)
{
    std::error_code ec;
    while (!folder.empty() && !std::filesystem::is_directory(folder, ec)) {
        const auto parent = folder.parent_path();
        if (parent == folder)
            break;
        folder = parent;
    }
    return folder;
}

} // namespace

PortWatcher::PortWatcher(const std::vector<std::string>& folders)
{
    m_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_fd < 0)
        return;
    std::set<std::string> watched;
    for (const auto& folder : folders) {
        const auto target = nearestExisting(folder).string();
        if (target.empty() || !watched.insert(target).second)
            continue;
        // A port shows up as a new node or link, or a link renamed into place.
        inotify_add_watch(m_fd, target.c_str(), IN_CREATE | IN_MOVED_TO);
    }
}

PortWatcher::~PortWatcher()
{
    if (m_fd >= 0)
        close(m_fd);
}

bool PortWatcher::drain()
{
    if (m_fd < 0)
        return false;
    bool appeared = false;
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t n = read(m_fd, buffer, sizeof buffer);
        if (n <= 0)
            break;
        std::size_t offset = 0;
        while (offset + sizeof(inotify_event) <= static_cast<std::size_t>(n)) {
            inotify_event event{};
            std::memcpy(&event, buffer + offset, sizeof event);
            if ((event.mask & (IN_CREATE | IN_MOVED_TO)) != 0)
                appeared = true;
            offset += sizeof(inotify_event) + event.len;
        }
    }
    return appeared;
}

} // namespace dravinel
