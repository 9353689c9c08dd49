#pragma once

#include <string>
#include <vector>

// Tells when something appears in the folders where serial ports appear (inotify; no polling),
// so that a scan waiting between attempts can look again at once.

namespace dravinel {

class PortWatcher
{
public:
    // Watches each folder, or, for one that does not exist yet, its nearest existing ancestor
    // (so that /dev/serial/by-id, made by udev with the first USB serial device, is seen too).
    explicit PortWatcher(const std::vector<std::string>& folders);
    ~PortWatcher();
    PortWatcher(const PortWatcher&) = delete;
    PortWatcher& operator=(const PortWatcher&) = delete;

    // Readable when something appeared; -1 when nothing could be watched.
    int fd() const { return m_fd; }
    // Reads the pending events; true when one of them was an entry created or moved in.
    bool drain();

private:
    int m_fd = -1;
};

} // namespace dravinel
