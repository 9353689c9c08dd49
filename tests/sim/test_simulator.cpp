#include "sim/DeviceSimulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <regex>
#include <unistd.h>

using namespace std::chrono_literals;
using dravinel::sim::DeviceSimulator;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

namespace {

// Reads fd until `count` marks are in (0: all that comes before the time-out) or it ends.
std::string readUntil(int fd, char mark, long count, std::chrono::milliseconds timeout = 1000ms)
{
    std::string got;
    char buf[256];
    const auto until = Clock::now() + timeout;
    while ((count == 0 || std::ranges::count(got, mark) < count) && Clock::now() < until) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 10) < 1)
            continue;
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0)
            break;
        got.append(buf, static_cast<std::size_t>(n));
    }
    return got;
}

// The host's end of the port, opened by its path as a serial port is.
struct Host
{
    const int fd;
    explicit Host(const std::string& path) : fd(::open(path.c_str(), O_RDWR | O_NOCTTY)) {}
    explicit Host(DeviceSimulator& sim) : Host(sim.start() ? sim.portPath() : "") {}
    ~Host() { ::close(fd); }
    // Writes bytes and reads until `frames` frames are in; 0 reads all that comes in 100 ms.
    std::string ask(const std::string& bytes, long frames)
    {
        EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        return readUntil(fd, '\r', frames, frames ? 1000ms : 100ms);
    }
};

} // namespace

TEST(Simulator, AnswersRecordsAndUnplugs)
{
    DeviceSimulator sim;
    Host host(sim);
    ASSERT_GE(host.fd, 0);
    // Out-of-range numbers wrap into 16 bits; a number ends at its first non-digit.
    const std::string echoes = "c,4464\n\ri,65535\n\rr,42\n\rl,0\n\rs,65535\n\rt,15\n\r";
    EXPECT_EQ(host.ask("C70000\n\rI-1\n\rR 42xyz\n\rLabc\n\rS65535\n\rT+15\n\r", 6), echoes);
    EXPECT_EQ(host.ask("G\n\r", 6), echoes);
    // The number after prefix in the answer to code; the pattern admits no sign.
    const auto reading = [&host](const char* code, const std::string& prefix) {
        const auto text = host.ask(code + std::string("\n\r"), 1);
        EXPECT_TRUE(std::regex_match(text, std::regex(prefix + "[0-9]+\n\r"))) << code << text;
        return std::atoi(text.c_str() + std::min(prefix.size(), text.size()));
    };
    EXPECT_NEAR(reading("V", "v,"), 1332, 8);
    EXPECT_LE(reading("O", "o,"), 1023);
    EXPECT_LE(reading("N", "IR: "), 1023);
    EXPECT_FALSE(sim.savedAndExited());
    EXPECT_EQ(host.ask("Z\n\rQ1\n\r", 0), ""); // saving and unknown codes get no answer
    EXPECT_TRUE(sim.savedAndExited());
    // One write: a request, line noise longer than any request (dropped up to its LF), and a
    // request whose leading CR belongs to the one before.
    sim.clearRequests();
    const auto before = Clock::now();
    EXPECT_EQ(host.ask("C1\n\r" + std::string(3000, 'V') + "\n\rB\n\r", 2), "c,1\n\rb,2.1\n\r");
    EXPECT_TRUE(sim.waitForRequests('B', 1, 1000ms) && !sim.waitForRequests('C', 2, 50ms));
    const auto got = sim.requests();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].code + got[0].content + got[1].code, "C1B");
    EXPECT_TRUE(before <= got[0].at && got[0].at <= got[1].at);
    // Unplugged, the host sees a hang-up; plugged in again, the same path leads to a new pty.
    const std::string path = sim.portPath();
    sim.unplug();
    EXPECT_FALSE(fs::exists(fs::symlink_status(path)));
    pollfd p{host.fd, POLLIN, 0};
    EXPECT_TRUE(::poll(&p, 1, 1000) == 1 && (p.revents & (POLLHUP | POLLERR))) << p.revents;
    sim.unplug(); // twice is harmless
    ASSERT_TRUE(sim.plugIn());
    EXPECT_EQ(fs::read_symlink(path).string(), sim.slavePath());
    EXPECT_EQ(Host(sim.portPath()).ask("B\n\r", 1), "b,2.1\n\r");
    sim.stop(); // removes the symlink and the folder made for it
    EXPECT_FALSE(fs::exists(fs::path(path).parent_path()));
}
