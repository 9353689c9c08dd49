#include "serial/serial.h"

#include "support/ErrorText.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>

#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace dravinel {

namespace {

namespace fs = std::filesystem;

// The port's settings as found by the last open; close puts them back. Only one port is ever
// open at a time, so one record is enough.
termios gOriginalTTYAttrs{};
// Whether the last open turned the driver's low-latency flag on, so close turns it off again.
bool gLowLatencyAdded = false;

// 1 from the end of a successful open until the start of close. Clearing it is how a close on
// another thread ends a read that is waiting for its stop byte.
std::atomic<std::uint8_t> running{0};

// Reads in progress. Close waits for them to leave before it closes the descriptor, so that a
// reader never touches a closed descriptor, or worse, one the number was reused for.
std::mutex gReadersMutex;
std::condition_variable gReadersLeft;
int gActiveReads = 0;

// A USB serial adapter holds received bytes until its buffer fills or its latency timer runs
// out (16 ms by default on FTDI chips), which would dwarf a sub-millisecond exchange. Asking the
// driver for low latency sets that timer to 1 ms. A driver without the request (a pty) just keeps
// its behaviour. Returns whether the flag was off and is now on.
// The flags field is a signed int; the flag is one of its low bits.
constexpr int kLowLatency = ASYNC_LOW_LATENCY;

bool addLowLatency(int fd)
{
    serial_struct serial{};
    if (ioctl(fd, TIOCGSERIAL, &serial) == -1 || (serial.flags & kLowLatency) != 0)
        return false;
    serial.flags |= kLowLatency;
    return ioctl(fd, TIOCSSERIAL, &serial) == 0;
}

void removeLowLatency(int fd)
{
    serial_struct serial{};
    if (ioctl(fd, TIOCGSERIAL, &serial) == -1)
        return;
    serial.flags &= ~kLowLatency;
    ioctl(fd, TIOCSSERIAL, &serial);
}

class ActiveRead
{
public:
    ActiveRead()
    {
        std::lock_guard lock(gReadersMutex);
        ++gActiveReads;
    }
    ~ActiveRead()
    {
        {
            std::lock_guard lock(gReadersMutex);
            --gActiveReads;
        }
        gReadersLeft.notify_all();
    }
    ActiveRead(const ActiveRead&) = delete;
    ActiveRead& operator=(const ActiveRead&) = delete;
};

constexpr std::size_t kLogBufferSize = 2048;
char gLogBuffer[kLogBufferSize];

// A line longer than this is handed over in pieces, so a device that never sends the stop byte
// cannot grow the buffer without bound.
constexpr std::size_t kMaxReadBytes = 4096;

// A read given a keepReading flag but no wake descriptor has nothing that wakes it when the flag
// clears, so it looks at the flag this often. Every other read sleeps until something happens.
constexpr int kFlagCheckMs = 50;

// Readable from the moment close_serial_port clears the running flag until the next open: a
// waiting read wakes on it at once. Made once and kept for the process's life.
int closingFd()
{
    static const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    return fd;
}

void signalClosing()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(closingFd(), &one, sizeof one);
}

void clearClosing()
{
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t n = read(closingFd(), &count, sizeof count);
}

std::mutex gSinkMutex;
SerialMessageSink gSink;

// The module's messages go to standard error, except the enumeration's failure status, which
// has always gone to standard output; a front end's sink takes both.
void emit(const std::string& message, std::FILE* stream = stderr)
{
    std::lock_guard lock(gSinkMutex);
    if (gSink)
        gSink(message);
    else
        std::fputs(message.c_str(), stream);
}

// The messages are printf formats with the path, the error text and the number; a path or an
// error text longer than the buffer is cut, never overrun.
void printError(const char* format, const char* path, int err = errno)
{
    char line[1024];
    std::snprintf(line, sizeof line, format, path, errorText(err).c_str(), err);
    emit(line);
}

// Reports a failure that ends the open, and hands it back as a value.
void printOpenFailure(const char* call, const char* format, const char* path, PortError* error)
{
    const int err = errno;
    if (error)
        *error = PortError{call, err, std::nullopt};
    printError(format, path, err);
}

// Linux has no TIOCSDTR / TIOCCDTR; the modem-line bit operations do the same.
int assertDtr(int fd)
{
    int bits = TIOCM_DTR;
    return ioctl(fd, TIOCMBIS, &bits);
}

int clearDtr(int fd)
{
    int bits = TIOCM_DTR;
    return ioctl(fd, TIOCMBIC, &bits);
}

bool reportNotOpened(int fd)
{
    if (fd >= 0)
        return false;
    emit("serial -> Device not opened\n");
    return true;
}

// Orders ttyUSB2 before ttyUSB10, as a reader of the list expects.
bool naturalLess(const std::string& a, const std::string& b)
{
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        const bool da = std::isdigit(static_cast<unsigned char>(a[i])) != 0;
        const bool db = std::isdigit(static_cast<unsigned char>(b[j])) != 0;
        if (da && db) {
            std::size_t ei = i;
            std::size_t ej = j;
            while (ei < a.size() && std::isdigit(static_cast<unsigned char>(a[ei])))
                ++ei;
            while (ej < b.size() && std::isdigit(static_cast<unsigned char>(b[ej])))
                ++ej;
            std::string na = a.substr(i, ei - i);
            std::string nb = b.substr(j, ej - j);
            na.erase(0, std::min(na.find_first_not_of('0'), na.size()));
            nb.erase(0, std::min(nb.find_first_not_of('0'), nb.size()));
            if (na.size() != nb.size())
                return na.size() < nb.size();
            if (na != nb)
                return na < nb;
            i = ei;
            j = ej;
            continue;
        }
        if (a[i] != b[j])
            return a[i] < b[j];
        ++i;
        ++j;
    }
    return a.size() - i < b.size() - j;
}

std::vector<std::string> sortedEntryNames(const fs::path& dir, std::error_code& ec)
{
    std::vector<std::string> names;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
        names.push_back(it->path().filename().string());
    std::sort(names.begin(), names.end(), naturalLess);
    return names;
}

// The kernel registers the legacy 8250 ports whether or not a UART sits behind them; such a
// placeholder reports port type 0 (PORT_UNKNOWN) and cannot be opened usefully. Older kernels
// hang these ports off the serial8250 driver; current ones off serial-base (driver "port"), so
// any port of the serial core, whose tty carries a type attribute, is judged by that type.
bool isPlaceholderUart(const fs::path& ttyDir)
{
    std::error_code ec;
    const fs::path driver = fs::read_symlink(ttyDir / "device" / "driver", ec);
    const bool legacy8250 = !ec && driver.filename() == "serial8250";
    std::ifstream typeFile(ttyDir / "type");
    int type = 0;
    if (!(typeFile >> type))
        return legacy8250;
    return type == 0;
}

} // namespace

int find_ports(std::vector<SerialService>& services, const SerialRoots& roots)
{
    // The by-id links carry the adapter's maker and product strings, which is what the scan
    // filters on; a machine without any USB serial adapter has no such directory at all.
    std::error_code byIdEc;
    for (const auto& name : sortedEntryNames(roots.byIdDir, byIdEc))
        services.push_back({name, (fs::path(roots.byIdDir) / name).string()});

    // Only entries with a device link stand for hardware; virtual consoles and ptys have none.
    std::error_code ec;
    const auto ttyNames = sortedEntryNames(roots.sysClassTty, ec);
    if (ec) {
        emit("IOServiceGetMatchingServices returned " + std::to_string(ec.value()) + "\n", stdout);
        return ec.value();
    }
    for (const auto& name : ttyNames) {
        const fs::path ttyDir = fs::path(roots.sysClassTty) / name;
        std::error_code linkEc;
        if (!fs::exists(ttyDir / "device", linkEc) || isPlaceholderUart(ttyDir))
            continue;
        SerialService service{name, std::nullopt};
        const fs::path node = fs::path(roots.devDir) / name;
        if (fs::exists(node, linkEc))
            service.calloutDevice = node.string();
        services.push_back(std::move(service));
    }
    return 0;
}

std::vector<std::string> get_port_paths(const SerialRoots& roots)
{
    std::vector<std::string> paths;
    std::vector<SerialService> services;
    int status = 5;
    status = find_ports(services, roots);
    if (status != 0) {
        emit("Couldn't find ports\n");
        return paths;
    }

    // A by-id link and the node it points to are the same device; the by-id name comes first
    // and is the one kept, as it tells the device apart.
    std::set<std::string> seen;
    for (const auto& service : services) {
        if (!service.calloutDevice || service.calloutDevice->empty())
            continue;
        const std::string& path = *service.calloutDevice;
        std::error_code ec;
        fs::path canonical = fs::canonical(path, ec);
        const std::string key = ec ? path : canonical.string();
        if (seen.insert(key).second)
            paths.push_back(path);
    }
    return paths;
}

void set_serial_message_sink(SerialMessageSink sink)
{
    std::lock_guard lock(gSinkMutex);
    gSink = std::move(sink);
}

int open_serial_port(const char* path, PortError* error)
{
    // O_NONBLOCK keeps the open from waiting for carrier; it is deliberately never cleared, so
    // every read returns at once and the reader decides itself how to wait. O_CLOEXEC keeps a
    // started program from inheriting the port and with it our lock.
    int fd = open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1) {
        printOpenFailure("open", "Error opening serial port %s - %s(%d).\n", path, error);
        if (error && error->error == EBUSY)
            error->holder = find_port_holder(path);
        return -1;
    }

    // The lock keeps every other program off the port, root's too; it comes first, so that a
    // refused open leaves the holder's exclusive flag alone.
    if (flock(fd, LOCK_EX | LOCK_NB) == -1) {
        printOpenFailure("flock", "Error locking serial port %s - %s(%d).\n", path, error);
        if (error)
            error->holder = find_port_holder(path);
        close(fd);
        return -1;
    }
    // No other user may even open the port while we talk to the device (root ignores this).
    if (ioctl(fd, TIOCEXCL) == -1) {
        printOpenFailure("ioctl(TIOCEXCL)", "Error setting TIOCEXCL on %s - %s(%d).\n", path,
                         error);
        close(fd);
        return -1;
    }

    if (tcgetattr(fd, &gOriginalTTYAttrs) == -1) {
        printOpenFailure("tcgetattr", "Error getting tty attributes %s - %s(%d).\n", path, error);
        ioctl(fd, TIOCNXCL);
        close(fd);
        return -1;
    }

    // Turn off all line discipline processing: the frames are bytes, not text lines.
    termios options = gOriginalTTYAttrs;
    cfmakeraw(&options);
    options.c_cc[VMIN] = 0;
    options.c_cc[VTIME] = 1;
    cfsetspeed(&options, B115200);
    options.c_cflag |= CS8;
    options.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
    options.c_cflag &= ~static_cast<tcflag_t>(PARENB);
    if (tcsetattr(fd, TCSANOW, &options) == -1) {
        printOpenFailure("tcsetattr", "Error setting tty attributes %s - %s(%d).\n", path, error);
        ioctl(fd, TIOCNXCL);
        close(fd);
        return -1;
    }

    gLowLatencyAdded = addLowLatency(fd);

    // Pulse DTR, then raise DTR and RTS: the device resets its link on the edge. A port without
    // modem lines (a pseudo-terminal) refuses all of this, which does not stop the open.
    if (assertDtr(fd) == -1)
        printError("Error asserting DTR %s - %s(%d).\n", path);
    if (clearDtr(fd) == -1)
        printError("Error clearing DTR %s - %s(%d).\n", path);
    int handshake = TIOCM_DTR | TIOCM_RTS | TIOCM_CTS | TIOCM_DSR;
    if (ioctl(fd, TIOCMSET, &handshake) == -1)
        printError("Error setting handshake lines %s - %s(%d).\n", path);
    if (ioctl(fd, TIOCMGET, &handshake) == -1)
        printError("Error getting handshake lines %s - %s(%d).\n", path);

    // Bytes that waited before the open (an earlier session's late answer, line noise) would be
    // taken for the answer to the first request and shift every later answer by one.
    tcflush(fd, TCIFLUSH);

    clearClosing();
    running = 1;
    return fd;
}

int close_serial_port(int fd)
{
    // First, so that a reader waiting on another thread gives up.
    running = 0;
    signalClosing();
    char line[256];
    if (tcdrain(fd) == -1) {
        const int err = errno;
        std::snprintf(line, sizeof line, "Error waiting for drain - %s(%d).\n",
                      errorText(err).c_str(), err);
        emit(line);
    }
    if (tcsetattr(fd, TCSANOW, &gOriginalTTYAttrs) == -1) {
        const int err = errno;
        std::snprintf(line, sizeof line, "Error resetting tty attributes - %s(%d).\n",
                      errorText(err).c_str(), err);
        emit(line);
    }
    if (gLowLatencyAdded) {
        removeLowLatency(fd);
        gLowLatencyAdded = false;
    }
    // The exclusive flag outlives the descriptor on a tty that stays open at its other end (a
    // pty, or a port another program holds): left set, it would refuse our own next open.
    ioctl(fd, TIOCNXCL);
    {
        // The cleared flag and the closing signal end every read at once.
        std::unique_lock lock(gReadersMutex);
        gReadersLeft.wait(lock, [] { return gActiveReads == 0; });
    }
    return close(fd);
}

bool send_frame(int fd, const Bytes& frame)
{
    const ssize_t written = write(fd, frame.data(), frame.size());
    return written >= 0 && static_cast<std::size_t>(written) == frame.size();
}

Bytes read_byte(int fd)
{
    Bytes bytes;
    if (fd < 0)
        return bytes;
    const ActiveRead active;
    std::uint8_t scratch = 0;
    if (read(fd, &scratch, 1) == 1)
        bytes.push_back(scratch);
    return bytes;
}

namespace {

// Why the read stops here, or nothing when a byte may still come: one read of one byte, so that
// nothing past the stop byte is taken from the port and the next call starts with the next frame.
std::optional<ReadEnd> readOne(int fd, std::uint8_t stopByte, Bytes& bytes, bool& wait)
{
    std::uint8_t scratch = 0;
    const ssize_t n = read(fd, &scratch, 1);
    wait = false;
    if (n == 1) {
        if (scratch == stopByte)
            return ReadEnd::StopByte;
        bytes.push_back(scratch);
        if (bytes.size() >= kMaxReadBytes)
            return ReadEnd::Full;
        return std::nullopt;
    }
    if (n == 0)
        return ReadEnd::HungUp; // the other end hung up
    if (errno == EINTR)
        return std::nullopt;
    if (errno != EAGAIN && errno != EWOULDBLOCK)
        return ReadEnd::HungUp; // EIO from a pulled adapter or a closed pty master; EBADF
    wait = true;
    return std::nullopt;
}

// Sleeps until the port has a byte or hangs up, the owner's wake descriptor or the closing
// signal is readable, or (for a flag without a descriptor) the flag's check is due. An unplugged
// adapter or a closed pty master hangs the line up, which wakes the poll: the node's vanishing
// needs no watch of its own.
std::optional<ReadEnd> waitForByte(int fd, int wakeFd, bool flagOnly)
{
    pollfd fds[3] = {{fd, POLLIN, 0}, {closingFd(), POLLIN, 0}, {wakeFd, POLLIN, 0}};
    const int ready = poll(fds, wakeFd >= 0 ? 3 : 2, flagOnly ? kFlagCheckMs : -1);
    if (ready < 0)
        return errno == EINTR ? std::nullopt : std::optional(ReadEnd::HungUp);
    if ((fds[0].revents & POLLIN) == 0 && (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0)
        return ReadEnd::HungUp;
    if ((fds[1].revents & POLLIN) != 0 || (fds[2].revents & POLLIN) != 0)
        return ReadEnd::Stopped; // closed, or the owner wants the read to end now
    return std::nullopt;
}

} // namespace

Bytes read_bytes_until_byte(int fd, std::uint8_t stopByte, const std::atomic<bool>* keepReading,
                            int wakeFd, ReadEnd* end)
{
    Bytes bytes;
    ReadEnd ignored = ReadEnd::Stopped;
    ReadEnd& why = end ? *end : ignored;
    why = ReadEnd::Stopped;
    if (fd < 0)
        return bytes;
    const ActiveRead active;

    const auto mayGoOn = [keepReading] {
        return running == 1 && (keepReading == nullptr || keepReading->load());
    };
    const bool flagOnly = keepReading != nullptr && wakeFd < 0;
    do {
        bool wait = false;
        std::optional<ReadEnd> ended = readOne(fd, stopByte, bytes, wait);
        // The flags are looked at before sleeping, so a close that came first is not slept through.
        if (!ended && wait && mayGoOn())
            ended = waitForByte(fd, wakeFd, flagOnly);
        if (ended) {
            why = *ended;
            break;
        }
    } while (mayGoOn());
    return bytes;
}

int get_rts(int fd)
{
    if (reportNotOpened(fd))
        return -1;
    int status = 0;
    ioctl(fd, TIOCMGET, &status);
    return (status & TIOCM_RTS) != 0 ? 1 : 0;
}

bool set_rts(int fd, bool on)
{
    if (reportNotOpened(fd))
        return false;
    int status = 0;
    ioctl(fd, TIOCMGET, &status);
    if (on)
        status |= TIOCM_RTS;
    else
        status &= ~TIOCM_RTS;
    ioctl(fd, TIOCMSET, &status);
    ioctl(fd, TIOCMGET, &status);
    return true;
}

int get_cts(int fd)
{
    if (reportNotOpened(fd))
        return -1;
    int status = 0;
    if (ioctl(fd, TIOCMGET, &status) < 0)
        return -1;
    return (status & TIOCM_CTS) != 0 ? 1 : 0;
}

int get_dtr(int fd)
{
    if (reportNotOpened(fd))
        return -1;
    int status = 0;
    if (ioctl(fd, TIOCMGET, &status) < 0)
        return -1;
    return (status & TIOCM_DTR) != 0 ? 1 : 0;
}

bool set_dtr(int fd, bool on)
{
    if (reportNotOpened(fd))
        return false;
    int status = 0;
    char line[64];
    ioctl(fd, TIOCMGET, &status);
    std::snprintf(line, sizeof line, "set_dtr -> Before: flags are %03x.\n",
                  static_cast<unsigned>(status));
    emit(line);
    if ((on ? assertDtr(fd) : clearDtr(fd)) == -1)
        emit("set_dtr -> Setting the dtr failed somehow\n");
    ioctl(fd, TIOCMGET, &status);
    std::snprintf(line, sizeof line, "set_dtr -> After: flags are %03x.\n",
                  static_cast<unsigned>(status));
    emit(line);
    return true;
}

bool is_device_open(const char* path)
{
    if (path == nullptr || path[0] == '\0')
        return false;
    struct stat info
    {};
    return stat(path, &info) == 0;
}

const char* log_string(const char* text)
{
    std::size_t pos = 0;
    gLogBuffer[0] = '\0';
    for (const char* p = text; *p != '\0'; ++p) {
        const auto byte = static_cast<unsigned char>(*p);
        char piece[16];
        std::size_t length = 0;
        if (byte < 0x80 && std::isprint(byte)) {
            piece[0] = static_cast<char>(byte);
            length = 1;
        } else if (byte == '\t' || byte == '\n' || byte == '\r' || byte == 27) {
            piece[0] = '\\';
            piece[1] = byte == '\t' ? 't' : byte == '\n' ? 'n' : byte == '\r' ? 'r' : 'e';
            length = 2;
        } else {
            // The byte is taken as signed, so 0x80..0xFF print as eleven octal digits of which
            // only the first three are kept: every such byte shows as \377. Log readers know
            // that form, so it stays.
            const auto value =
                static_cast<unsigned>(static_cast<int>(static_cast<signed char>(byte)));
            std::snprintf(piece, sizeof piece, "\\%03o", value);
            length = 4;
        }
        if (pos + length >= kLogBufferSize)
            break;
        std::memcpy(gLogBuffer + pos, piece, length);
        pos += length;
        gLogBuffer[pos] = '\0';
    }
    return gLogBuffer;
}

} // namespace dravinel
