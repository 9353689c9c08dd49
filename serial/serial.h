#pragma once

#include "support/Bytes.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Everything the program does with the operating system's serial devices: finding them, opening
// one raw at 115200 baud 8N1, restoring it on close, writing a frame, reading up to a stop byte
// and the modem lines. Failures are reported on standard error (naming the call, the path, the
// error text and number) and by the return value; nothing throws.

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

// Explicit ports (chosen by the user, or a simulated device), kept apart from the enumeration.
void register_port_path(const std::string& path);
void unregister_port_path(const std::string& path);
std::vector<std::string> registered_port_paths();

int open_serial_port(const char* path);
// Why the calling thread's last open_serial_port failed, as "call: error text (number)", e.g.
// "open: Permission denied (13)"; empty after a successful open. Kept per thread, so a scan
// thread reads its own failure and not one of another thread.
std::string last_open_error();
// Ends the reads in progress (they stop within one wait of at most 50 ms) before the descriptor
// is closed, with the settings found at open put back.
int close_serial_port(int fd);
bool send_frame(int fd, const Bytes& frame);
Bytes read_byte(int fd);

// Reads up to (not including) stopByte. Besides the module's own running flag, the read also
// ends when keepReading (if given) turns false, so an owner can end it without closing the port.
// It waits with poll(2), never spins, gathers at most 4096 bytes and ends on hang-up or EIO.
// A readable wakeFd (if given) ends the read at once, so that an owner need not wait out a poll.
Bytes read_bytes_until_byte(int fd, std::uint8_t stopByte,
                            const std::atomic<bool>* keepReading = nullptr, int wakeFd = -1);

int get_rts(int fd);
bool set_rts(int fd, bool on);
int get_cts(int fd);
int get_dtr(int fd);
bool set_dtr(int fd, bool on);

bool is_device_open(const char* path);

// Escapes a text for a log line into a static 2048-byte buffer (overwritten on every call).
const char* log_string(const char* text);

} // namespace dravinel
