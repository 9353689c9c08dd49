#pragma once

#include "protocol/ConnectionState.h"
#include "support/Bytes.h"

#include <cstdint>
#include <optional>
#include <string>

// What the transaction layer and its scan ask of the device model above it: the revision read
// that finds the device, the battery read that keeps the link alive, the monitor stream, and the
// connection state to report.

namespace dravinel {

class ScanDelegate
{
public:
    virtual void setConnectionState(ConnectionState state) = 0;
    // With answer, the first answer that came is handed back too, valid or not.
    virtual std::optional<std::string> readRevision(std::optional<std::string>* answer) = 0;
    // The keep-alive read: false only when no reply came at all (a malformed one keeps the link).
    virtual bool keepAliveAnswered() = 0;
    virtual void onMonitorFrameReceived(const Bytes& frame) = 0;

protected:
    ~ScanDelegate() = default;
};

} // namespace dravinel
