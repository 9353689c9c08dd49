#pragma once

#include <cstdint>

// The connection's state as the scan reports it; the numbers are those carried by
// "ConnStateChangedEvent" under "state".

namespace dravinel {

enum class ConnectionState : std::int32_t {
    Disconnected = 0, // the scan ended
    Scanning = 1,     // a scan cycle runs
    Connected = 2,    // the device answered
    Disconnecting = 3 // the scan is being stopped
};

} // namespace dravinel
