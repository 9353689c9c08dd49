#include "protocol/DeviceProtocol.h"
#include "protocol/Globals.h"
#include "serial/serial.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

// The cutting of the incoming byte stream into frames: the real reader (one byte per read, up
// to LF, at most 4096 bytes a piece) over a pipe holding the input, then the piece-to-frame
// step, then the sorting rules on each frame.

using namespace dravinel;

namespace {

constexpr std::size_t kPipeBytes = 60000; // within a pipe's default 64 KiB
constexpr std::size_t kMaxPiece = 4096;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The reader only goes on past one byte while a port is open; open a pseudo-terminal once.
    int master = -1, slave = -1;
    char name[256] = {};
    if (openpty(&master, &slave, name, nullptr, nullptr) != 0 || open_serial_port(name) < 0)
        std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    size = std::min(size, kPipeBytes);
    int fds[2];
    if (pipe(fds) != 0)
        std::abort();
    for (std::size_t done = 0; done < size;) {
        const ssize_t n = write(fds[1], data + done, size - done);
        if (n <= 0)
            std::abort();
        done += static_cast<std::size_t>(n);
    }
    close(fds[1]); // the reader then meets end of file instead of waiting
    fcntl(fds[0], F_SETFL, O_NONBLOCK);

    std::size_t consumed = 0;
    for (;;) {
        int pending = 0;
        if (ioctl(fds[0], FIONREAD, &pending) != 0 || pending == 0)
            break;
        const Bytes piece = read_bytes_until_byte(fds[0], END_1);
        if (piece.size() > kMaxPiece || std::find(piece.begin(), piece.end(), END_1) != piece.end())
            std::abort();
        // The piece is the stream's next bytes; the LF it ended on (if any) was taken too.
        if (!std::equal(piece.begin(), piece.end(), data + consumed))
            std::abort();
        consumed += piece.size();
        if (consumed < size && data[consumed] == END_1 && piece.size() < kMaxPiece)
            ++consumed;

        const auto frame = frameFromPiece(piece);
        if (!frame)
            continue;
        const std::size_t lead = (!piece.empty() && piece.front() == END_2) ? 1 : 0;
        if (frame->size() != piece.size() - lead + 2 || (*frame)[frame->size() - 2] != END_1 ||
            frame->back() != END_2)
            std::abort();
        (void)isMonitorFrame(*frame);
        (void)isValidResponseFrame(*frame);
        (void)isWellFormedUnsolicitedFrame(*frame);
        (void)DeviceProtocol::extractContent(*frame);
    }
    close(fds[0]);
    // Nothing lost, nothing twice.
    if (consumed != size)
        std::abort();
    return 0;
}
