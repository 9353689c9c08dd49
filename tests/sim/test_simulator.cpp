#include "protocol/Globals.h"
#include "sim/DeviceSimulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <poll.h>
#include <regex>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

using namespace std::chrono_literals;
using dravinel::sim::DeviceSimulator;
using Clock = std::chrono::steady_clock;

namespace {

// Reads fd until done(text) holds or the time-out passes; end of file or a hang-up ends it early.
std::string readUntil(int fd, const std::function<bool(const std::string&)>& done,
                      std::chrono::milliseconds timeout)
{
    std::string got;
    const auto until = Clock::now() + timeout;
    while (!done(got) && Clock::now() < until) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(std::max<long long>(0, left.count()))) <= 0)
            continue;
        char buf[256];
        const ssize_t n = (p.revents & POLLIN) ? ::read(fd, buf, sizeof buf) : -1;
        if (n <= 0)
            break;
        got.append(buf, static_cast<std::size_t>(n));
    }
    return got;
}

// The host's end, opened the way a serial port is: by path, raw, no controlling terminal.
struct HostPort
{
    const int fd;
    explicit HostPort(const std::string& path)
        : fd(::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        termios tio{};
        if (fd >= 0 && ::tcgetattr(fd, &tio) == 0) {
            cfmakeraw(&tio);
            ::tcsetattr(fd, TCSANOW, &tio);
        }
    }
    ~HostPort()
    {
        if (fd >= 0)
            ::close(fd);
    }
    HostPort(const HostPort&) = delete;
    HostPort& operator=(const HostPort&) = delete;

    void writeRaw(const std::string& bytes)
    {
        ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void request(const std::string& codeAndContent) { writeRaw(codeAndContent + "\n\r"); }
    // Until `frames` frames are in; 0 reads all that arrives within the time-out.
    std::string read(std::size_t frames, std::chrono::milliseconds timeout = 1000ms)
    {
        const auto enough = [frames](const std::string& s) {
            std::size_t n = 0;
            for (auto pos = s.find("\n\r"); pos != std::string::npos; pos = s.find("\n\r", pos + 2))
                ++n;
            return frames > 0 && n >= frames;
        };
        return readUntil(fd, enough, timeout);
    }
};

class SimulatorTest : public testing::Test
{
protected:
    void start(DeviceSimulator::Options options = {})
    {
        m_sim = std::make_unique<DeviceSimulator>(std::move(options));
        ASSERT_TRUE(m_sim->start());
        m_host = std::make_unique<HostPort>(m_sim->portPath());
        ASSERT_TRUE(m_host->fd >= 0);
    }

    std::unique_ptr<DeviceSimulator> m_sim;
    std::unique_ptr<HostPort> m_host;
};

} // namespace

TEST_F(SimulatorTest, SettingsAreStoredIn16BitsAndSaveOrUnknownCodesGetNoAnswer)
{
    ASSERT_NO_FATAL_FAILURE(start());
    EXPECT_NE(m_sim->portPath().find(dravinel::PRODUCT_WORD), std::string::npos);

    // Out-of-range numbers wrap into 16 bits; a number ends at its first non-digit.
    const std::pair<const char*, const char*> saves[] = {{"C70000", "c,4464"},  {"I-1", "i,65535"},
                                                         {"R 42xyz", "r,42"},   {"Labc", "l,0"},
                                                         {"S65535", "s,65535"}, {"T+15", "t,15"}};
    for (const auto& [request, echo] : saves) {
        m_host->request(request);
        EXPECT_EQ(m_host->read(1), std::string(echo) + "\n\r") << request;
    }
    m_host->request("G");
    EXPECT_EQ(m_host->read(6), "c,4464\n\ri,65535\n\rr,42\n\rl,0\n\rs,65535\n\rt,15\n\r");

    EXPECT_FALSE(m_sim->savedAndExited());
    m_host->request("Z");
    m_host->request("Q1");
    ASSERT_TRUE(m_sim->waitForRequests('Q', 1, 1000ms));
    EXPECT_EQ(m_host->read(0, 100ms), "");
    EXPECT_TRUE(m_sim->savedAndExited());
}

TEST_F(SimulatorTest, RequestsAreSplitAtLfAndRecordedInOrderWithTheirTimes)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const auto before = Clock::now();
    // Two requests in one write: the second one's leading CR belongs to the first.
    m_host->writeRaw("C120\n\rB\n\r");
    ASSERT_TRUE(m_sim->waitForRequests('B', 1, 1000ms));
    EXPECT_EQ(m_host->read(2), "c,120\n\rb,2.1\n\r");
    const auto recorded = m_sim->requests();
    std::string seen;
    for (const auto& r : recorded)
        seen += r.code + r.content + ';';
    ASSERT_EQ(seen, "C120;B;");
    EXPECT_GE(recorded[0].at, before);
    EXPECT_LE(recorded[0].at, recorded[1].at);
    EXPECT_FALSE(m_sim->waitForRequests('B', 2, 50ms));

    m_sim->clearRequests();
    EXPECT_EQ(m_sim->requestCount('B'), 0u);
    // Line noise longer than any request is dropped up to its LF; the next request still counts.
    m_host->writeRaw(std::string(3000, 'V') + "\n\rB\n\r");
    EXPECT_TRUE(m_sim->waitForRequests('B', 1, 1000ms));
    EXPECT_EQ(m_host->read(1), "b,2.1\n\r");
    EXPECT_EQ(m_sim->requests().size(), 1u);
}

TEST_F(SimulatorTest, SensorsGivePlausibleReadingsAndTheBatteryDrains)
{
    ASSERT_NO_FATAL_FAILURE(start());
    // The number after prefix in the single answer to code; the pattern admits no sign.
    const auto value = [this](const char* code, const std::string& prefix) {
        m_host->request(code);
        const auto text = m_host->read(1);
        EXPECT_TRUE(std::regex_match(text, std::regex(prefix + "[0-9]+\n\r"))) << code << text;
        return std::atoi(text.c_str() + std::min(prefix.size(), text.size()));
    };
    const auto startRaw = m_sim->batteryRaw();
    for (int i = 0; i < 12; ++i)
        EXPECT_NEAR(value("V", "v,"), 1332, 8);
    EXPECT_LT(m_sim->batteryRaw(), startRaw);
    EXPECT_LE(value("O", "o,"), 1023);
    EXPECT_LE(value("N", "IR: "), 1023);
}

TEST_F(SimulatorTest, UnplugHangsUpTheHostAndPlugInRestoresTheSamePath)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const std::string path = m_sim->portPath();
    m_sim->unplug();
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(path)));
    pollfd p{m_host->fd, POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 1000), 1);
    EXPECT_NE(p.revents & (POLLHUP | POLLERR), 0);
    m_sim->unplug(); // twice is harmless

    ASSERT_TRUE(m_sim->plugIn());
    EXPECT_EQ(m_sim->portPath(), path);
    EXPECT_EQ(std::filesystem::read_symlink(path).string(), m_sim->slavePath());
    HostPort host(path);
    ASSERT_TRUE(host.fd >= 0);
    host.request("B");
    EXPECT_EQ(host.read(1), "b,2.1\n\r");

    // Stop removes the symlink and the folder made for it.
    m_sim->stop();
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(path).parent_path()));
}

TEST_F(SimulatorTest, WireTimeHoldsOutputToTheLineRate)
{
    DeviceSimulator::Options options;
    options.wireTime = true;
    ASSERT_NO_FATAL_FAILURE(start(options));
    // 1152 bytes take 100 ms at 10 bits a byte, well above scheduling noise.
    const dravinel::Bytes burst(1152, 'x');
    const auto sent = Clock::now();
    std::thread writer([&] { m_sim->sendBytes(burst); });
    const auto got = readUntil(
        m_host->fd, [&](const std::string& s) { return s.size() >= burst.size(); }, 2000ms);
    const auto elapsed = Clock::now() - sent;
    writer.join();
    EXPECT_EQ(got, std::string(burst.size(), 'x'));
    EXPECT_GE(elapsed, 100ms);
}

TEST(DeviceSimulatorExecutable, PrintsItsPortAndStopsCleanlyOnInterrupt)
{
#ifndef DRAVINEL_SIM_EXE
    GTEST_SKIP() << "the simulator executable is not built";
#else
    char dirTemplate[] = "/tmp/dravinel-sim-test-XXXXXX";
    ASSERT_NE(::mkdtemp(dirTemplate), nullptr);
    const std::string linkDir = dirTemplate;
    int out[2];
    ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    const std::vector<const char*> args{DRAVINEL_SIM_EXE, "--revision",    "9.9",
                                        "--link-dir",     linkDir.c_str(), nullptr};
    pid_t pid = -1;
    // posix_spawn does not change its arguments.
    ASSERT_EQ(posix_spawn(&pid, args[0], &actions, nullptr, const_cast<char* const*>(args.data()),
                          environ),
              0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    // A failed assertion below must not leave the simulator running.
    std::shared_ptr<void> reaper(nullptr, [&pid](void*) {
        if (pid > 0 && ::kill(pid, SIGKILL) == 0)
            ::waitpid(pid, nullptr, 0);
    });

    const std::string line = readUntil(
        out[0], [](const std::string& s) { return s.find('\n') != std::string::npos; }, 3000ms);
    ::close(out[0]);
    ASSERT_NE(line.find('\n'), std::string::npos);
    const std::string path = line.substr(0, line.find('\n'));
    EXPECT_EQ(path, linkDir + "/usb-Dravinel_Simulator-if00-port0");
    {
        HostPort host(path);
        ASSERT_TRUE(host.fd >= 0);
        host.request("B");
        EXPECT_EQ(host.read(1), "b,9.9\n\r");
    }

    ASSERT_EQ(::kill(pid, SIGINT), 0);
    int status = 0;
    pid_t done = 0;
    const auto deadline = Clock::now() + 3000ms;
    while ((done = ::waitpid(pid, &status, WNOHANG)) == 0 && Clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    ASSERT_EQ(done, pid) << "the simulator did not stop on SIGINT";
    pid = -1; // reaped
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(path)));
    std::filesystem::remove_all(linkDir);
#endif
}
