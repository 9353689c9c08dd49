#pragma once

#include "serial/PortError.h"
#include "support/Bytes.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// Everything the program does with the operating system's serial devices: finding them, opening
// one raw at 115200 baud 8N1, restoring it on close, writing a frame, reading up to a stop byte
// and the modem lines. Failures are reported by the return value and by one message (naming the
// call, the path, the error text and number) to the module's message sink, standard error unless
// a front end puts its own; nothing throws.

namespace dravinel {

// One serial device found by the enumeration. A device node that cannot be called out (no
// device path) contributes no path.
struct SerialService
{
    std::string name;
    std::optional<std::string> calloutDevice;
};

// Where the enumeration looks; tests point these at a fake tree.
struct SerialRoots
{
    std::string byIdDir = "/dev/serial/by-id";
    std::string sysClassTty = "/sys/class/tty";
    std::string devDir = "/dev";
};

// Fills services with the machine's serial devices: every entry of by-id first, then the nodes
// of real serial hardware under /sys/class/tty. Returns 0 on success.
int find_ports(std::vector<SerialService>& services, const SerialRoots& roots = {});

// The callout device paths, no path twice; empty (not an error) when there is none.
std::vector<std::string> get_port_paths(const SerialRoots& roots = {});

// Where the module's messages go. Each message is one whole line, newline included. An empty
// function restores the default, standard error.
using SerialMessageSink = std::function<void(const std::string& message)>;
void set_serial_message_sink(SerialMessageSink sink);

// Opens the port for this process alone (TIOCEXCL against other users, an flock against other
// programs of any user, root included) and sets it up raw at 115200 8N1 with stale input
// flushed. Returns the descriptor, or -1 with the failure in *error when given.
int open_serial_port(const char* path, PortError* error = nullptr);
// Ends the reads in progress (a waiting read wakes at once), puts back the settings found at
// open and gives up exclusive use, then closes the descriptor.
int close_serial_port(int fd);
bool send_frame(int fd, const Bytes& frame);
Bytes read_byte(int fd);

// Why read_bytes_until_byte returned.
enum class ReadEnd {
    StopByte, // the stop byte arrived
    Full,     // 4096 bytes without the stop byte
    Stopped,  // the module's running flag or keepReading cleared, or wakeFd readable
    HungUp,   // the line is gone: end of file, EIO, POLLHUP or a closed descriptor
};

// Reads up to (not including) stopByte. Besides the module's own running flag, the read also
// ends when keepReading (if given) turns false, so an owner can end it without closing the port.
// It gathers at most 4096 bytes and sleeps in poll(2) until a byte, a hang-up, a close or a
// readable wakeFd (if given), which ends the read at once. A keepReading flag without a wakeFd
// cannot wake the poll, so such a read looks at the flag every 50 ms.
Bytes read_bytes_until_byte(int fd, std::uint8_t stopByte,
                            const std::atomic<bool>* keepReading = nullptr, int wakeFd = -1,
                            ReadEnd* end = nullptr);

int get_rts(int fd);
bool set_rts(int fd, bool on);
int get_cts(int fd);
int get_dtr(int fd);
bool set_dtr(int fd, bool on);

bool is_device_open(const char* path);

// Escapes a text for a log line into a static 2048-byte buffer (overwritten on every call).
const char* log_string(const char* text);

} // namespace dravinel
