#include "protocol/Globals.h"
#include "sim/DeviceSimulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
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

// The host's end, opened the way a serial port is: by path, raw, no controlling terminal.
class HostPort
{
public:
    explicit HostPort(const std::string& path)
    {
        m_fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (m_fd < 0)
            return;
        termios tio{};
        ::tcgetattr(m_fd, &tio);
        cfmakeraw(&tio);
        ::tcsetattr(m_fd, TCSANOW, &tio);
    }
    ~HostPort()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    HostPort(const HostPort&) = delete;
    HostPort& operator=(const HostPort&) = delete;

    bool isOpen() const { return m_fd >= 0; }
    int fd() const { return m_fd; }

    void request(std::string_view codeAndContent)
    {
        std::string frame(codeAndContent);
        frame += "\n\r";
        writeRaw(frame);
    }

    void writeRaw(std::string_view bytes)
    {
        ASSERT_EQ(::write(m_fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    // Reads until `frames` frames (each ending LF CR) are in, or the time-out passes.
    std::string readFrames(std::size_t frames, std::chrono::milliseconds timeout = 1000ms)
    {
        std::string got;
        const auto until = Clock::now() + timeout;
        while (countFrames(got) < frames && Clock::now() < until) {
            if (!readSome(got, until))
                break;
        }
        return got;
    }

    // Everything that arrives within the window.
    std::string readFor(std::chrono::milliseconds window)
    {
        std::string got;
        const auto until = Clock::now() + window;
        while (Clock::now() < until) {
            if (!readSome(got, until))
                break;
        }
        return got;
    }

    static std::size_t countFrames(const std::string& text)
    {
        std::size_t n = 0;
        for (std::size_t pos = text.find("\n\r"); pos != std::string::npos;
             pos = text.find("\n\r", pos + 2))
            ++n;
        return n;
    }

private:
    bool readSome(std::string& into, Clock::time_point until)
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
        pollfd p{m_fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(std::max<long long>(0, left.count()))) <= 0)
            return true;
        if (!(p.revents & POLLIN))
            return false;
        char buf[256];
        const ssize_t n = ::read(m_fd, buf, sizeof buf);
        if (n <= 0)
            return false;
        into.append(buf, static_cast<std::size_t>(n));
        return true;
    }

    int m_fd = -1;
};

std::vector<std::string> splitFrames(const std::string& text)
{
    std::vector<std::string> frames;
    std::size_t start = 0;
    for (std::size_t pos = text.find("\n\r"); pos != std::string::npos;
         pos = text.find("\n\r", start)) {
        frames.push_back(text.substr(start, pos - start));
        start = pos + 2;
    }
    return frames;
}

DeviceSimulator::Options quickOptions()
{
    DeviceSimulator::Options o;
    o.motorPass = 200ms;
    o.motorSampleInterval = 20ms;
    return o;
}

} // namespace

TEST(DeviceSimulator, AnswersRevisionAndEchoesStoredSettingsByteForByte)
{
    auto options = quickOptions();
    options.revision = "3.7b";
    DeviceSimulator sim(options);
    ASSERT_TRUE(sim.start());
    EXPECT_NE(sim.portPath().find(dravinel::PRODUCT_WORD), std::string::npos);
    EXPECT_EQ(std::filesystem::read_symlink(sim.portPath()).string(), sim.slavePath());
    HostPort host(sim.portPath());
    ASSERT_TRUE(host.isOpen());

    host.request("B");
    EXPECT_EQ(host.readFrames(1), "b,3.7b\n\r");

    host.request("C120");
    EXPECT_EQ(host.readFrames(1), "c,120\n\r");
    EXPECT_EQ(sim.settings().currentLimit, 120);

    host.request("C70000"); // kept in 16 bits
    EXPECT_EQ(host.readFrames(1), "c,4464\n\r");
    EXPECT_EQ(sim.settings().currentLimit, 4464);

    host.request("I-1");
    EXPECT_EQ(host.readFrames(1), "i,65535\n\r");
    host.request("R 42xyz");
    EXPECT_EQ(host.readFrames(1), "r,42\n\r");
    host.request("Labc");
    EXPECT_EQ(host.readFrames(1), "l,0\n\r");
    host.request("S65535");
    EXPECT_EQ(host.readFrames(1), "s,65535\n\r");
    host.request("T+15");
    EXPECT_EQ(host.readFrames(1), "t,15\n\r");

    const auto s = sim.settings();
    EXPECT_EQ(s.minIRDetection, 65535);
    EXPECT_EQ(s.positiveRotation, 42);
    EXPECT_EQ(s.negativeRotation, 0);
    EXPECT_EQ(s.motorSpeed, 65535);
    EXPECT_EQ(s.cycleTimeoutMins, 15);

    // Save & exit and unknown codes are silent.
    EXPECT_FALSE(sim.savedAndExited());
    host.request("Z");
    host.request("Q1");
    EXPECT_TRUE(sim.waitForRequests('Q', 1, 1000ms));
    EXPECT_EQ(host.readFor(100ms), "");
    EXPECT_TRUE(sim.savedAndExited());
}

TEST(DeviceSimulator, SettingsReadFollowsConfiguredOrderWithRepeatsAndOmissions)
{
    DeviceSimulator sim(quickOptions());
    ASSERT_TRUE(sim.start());
    sim.setSettings({1, 2, 3, 4, 5, 6});
    HostPort host(sim.portPath());
    ASSERT_TRUE(host.isOpen());

    host.request("G");
    EXPECT_EQ(host.readFrames(6), "c,1\n\ri,2\n\rr,3\n\rl,4\n\rs,5\n\rt,6\n\r");

    sim.setSettingsOrder("tslric");
    host.request("G");
    EXPECT_EQ(host.readFrames(6), "t,6\n\rs,5\n\rl,4\n\rr,3\n\ri,2\n\rc,1\n\r");

    // 'c' twice, 'l' and 's' left out.
    sim.setSettingsOrder("ccirt");
    host.request("G");
    EXPECT_EQ(host.readFrames(5), "c,1\n\rc,1\n\ri,2\n\rr,3\n\rt,6\n\r");
    EXPECT_EQ(host.readFor(80ms), "");
}

TEST(DeviceSimulator, RecordsEveryRequestWhileMutedOverriddenOrDelayed)
{
    DeviceSimulator sim(quickOptions());
    ASSERT_TRUE(sim.start());
    HostPort host(sim.portPath());
    ASSERT_TRUE(host.isOpen());

    const auto before = Clock::now();
    // Two requests in one write: the second one's leading CR belongs to the first.
    host.writeRaw("C120\n\rB\n\r");
    ASSERT_TRUE(sim.waitForRequests('B', 1, 1000ms));
    EXPECT_EQ(host.readFrames(2), "c,120\n\rb,2.1\n\r");
    auto recorded = sim.requests();
    ASSERT_EQ(recorded.size(), 2u);
    EXPECT_EQ(recorded[0].code, 'C');
    EXPECT_EQ(recorded[0].content, "120");
    EXPECT_EQ(recorded[1].code, 'B');
    EXPECT_EQ(recorded[1].content, "");
    EXPECT_GE(recorded[0].at, before);
    EXPECT_LE(recorded[0].at, recorded[1].at);
    EXPECT_FALSE(sim.waitForRequests('B', 2, 50ms));

    sim.setMute(true);
    host.request("B");
    host.request("G");
    EXPECT_TRUE(sim.waitForRequests('G', 1, 1000ms));
    EXPECT_EQ(host.readFor(100ms), "");
    EXPECT_EQ(sim.requestCount('B'), 2u);
    sim.setMute(false);

    sim.setAnswerOverride('B', "x,junk");
    sim.setAnswerOverride('G', "c,7");
    host.request("B");
    EXPECT_EQ(host.readFrames(1), "x,junk\n\r");
    host.request("G");
    EXPECT_EQ(host.readFrames(2, 150ms), "c,7\n\r");
    sim.clearAnswerOverrides();
    host.request("B");
    EXPECT_EQ(host.readFrames(1), "b,2.1\n\r");

    sim.setResponseDelay(120ms);
    const auto sent = Clock::now();
    host.request("B");
    EXPECT_TRUE(sim.waitForRequests('B', 5, 1000ms));
    EXPECT_EQ(host.readFrames(1), "b,2.1\n\r");
    EXPECT_GE(Clock::now() - sent, 120ms);
    sim.setResponseDelay(0ms);

    sim.clearRequests();
    EXPECT_TRUE(sim.requests().empty());
    EXPECT_EQ(sim.requestCount('B'), 0u);

    // Line noise longer than any request is dropped up to its LF; the next request still counts.
    host.writeRaw(std::string(3000, 'V') + "\n\rB\n\r");
    EXPECT_TRUE(sim.waitForRequests('B', 1, 1000ms));
    EXPECT_EQ(host.readFrames(1), "b,2.1\n\r");
    EXPECT_EQ(sim.requests().size(), 1u);
}

TEST(DeviceSimulator, SensorReadsGivePlausibleValuesAndBatteryCanBeFixed)
{
    DeviceSimulator sim(quickOptions());
    ASSERT_TRUE(sim.start());
    HostPort host(sim.portPath());
    ASSERT_TRUE(host.isOpen());

    const auto startRaw = sim.batteryRaw();
    for (int i = 0; i < 12; ++i) {
        host.request("V");
        const auto frames = splitFrames(host.readFrames(1));
        ASSERT_EQ(frames.size(), 1u);
        ASSERT_EQ(frames[0].rfind("v,", 0), 0u) << frames[0];
        const int value = std::stoi(frames[0].substr(2));
        EXPECT_NEAR(value, 1332, 8);
    }
    EXPECT_LT(sim.batteryRaw(), startRaw);

    sim.setBatteryRaw(1332);
    for (int i = 0; i < 5; ++i) {
        host.request("V");
        EXPECT_EQ(host.readFrames(1), "v,1332\n\r");
    }
    EXPECT_EQ(sim.batteryRaw(), 1332);

    host.request("O");
    auto frames = splitFrames(host.readFrames(1));
    ASSERT_EQ(frames.size(), 1u);
    ASSERT_EQ(frames[0].rfind("o,", 0), 0u) << frames[0];
    const int reed = std::stoi(frames[0].substr(2));
    EXPECT_GE(reed, 0);
    EXPECT_LE(reed, 1023);

    host.request("N");
    frames = splitFrames(host.readFrames(1));
    ASSERT_EQ(frames.size(), 1u);
    ASSERT_EQ(frames[0].rfind("IR: ", 0), 0u) << frames[0];
    const int ir = std::stoi(frames[0].substr(4));
    EXPECT_GE(ir, 0);
    EXPECT_LE(ir, 1023);
}

TEST(DeviceSimulator, MotorTestStreamsTwoPassesEachClosedByItsPeak)
{
    DeviceSimulator sim(quickOptions());
    ASSERT_TRUE(sim.start());
    HostPort host(sim.portPath());
    ASSERT_TRUE(host.isOpen());

    host.request("M");
    std::string got;
    const auto until = Clock::now() + 1500ms;
    while (Clock::now() < until) {
        got += host.readFor(50ms);
        std::size_t mx = 0;
        for (const auto& f : splitFrames(got))
            mx += f.rfind("MX:", 0) == 0 ? 1 : 0;
        if (mx >= 2)
            break;
    }
    // Nothing follows the second pass.
    got += host.readFor(100ms);

    const auto frames = splitFrames(got);
    std::string rejoined;
    for (const auto& f : frames)
        rejoined += f + "\n\r";
    ASSERT_EQ(rejoined, got) << "stray bytes between frames";

    std::vector<std::vector<int>> passes(1);
    std::vector<int> peaks;
    for (const auto& f : frames) {
        if (f.rfind("IMEAS: ", 0) == 0) {
            ASSERT_LT(peaks.size(), 2u) << "sample after the second MX";
            passes.back().push_back(std::stoi(f.substr(7)));
        } else {
            ASSERT_EQ(f.rfind("MX:", 0), 0u) << f;
            peaks.push_back(std::stoi(f.substr(3)));
            passes.emplace_back();
        }
    }
    ASSERT_EQ(peaks.size(), 2u);
    for (int p = 0; p < 2; ++p) {
        const auto& samples = passes[static_cast<std::size_t>(p)];
        ASSERT_EQ(samples.size(), 10u); // 200 ms of 20 ms samples
        EXPECT_EQ(*std::max_element(samples.begin(), samples.end()),
                  peaks[static_cast<std::size_t>(p)]);
        // Inrush first, settling into a plateau well below it.
        EXPECT_GT(samples.front(), samples[samples.size() / 2]);
        for (int v : samples)
            EXPECT_GT(v, 0);
    }

    // The device answers requests while the motor runs; a new test can follow the first.
    host.request("M");
    host.request("B");
    const auto mixed = splitFrames(host.readFrames(3));
    EXPECT_NE(std::find(mixed.begin(), mixed.end(), "b,2.1"), mixed.end());
}

TEST(DeviceSimulator, UnplugHangsUpTheHostAndPlugInRestoresTheSamePath)
{
    DeviceSimulator sim(quickOptions());
    ASSERT_TRUE(sim.start());
    const std::string path = sim.portPath();
    {
        HostPort host(path);
        ASSERT_TRUE(host.isOpen());
        host.request("B");
        EXPECT_EQ(host.readFrames(1), "b,2.1\n\r");

        sim.unplug();
        struct stat st
        {};
        EXPECT_NE(::lstat(path.c_str(), &st), 0);
        EXPECT_EQ(::open(path.c_str(), O_RDWR | O_NOCTTY), -1);

        pollfd p{host.fd(), POLLIN, 0};
        ASSERT_EQ(::poll(&p, 1, 1000), 1);
        EXPECT_NE(p.revents & (POLLHUP | POLLERR), 0);
        char c = 0;
        EXPECT_LE(::read(host.fd(), &c, 1), 0);
        sim.unplug(); // twice is harmless
    }

    ASSERT_TRUE(sim.plugIn());
    EXPECT_EQ(sim.portPath(), path);
    EXPECT_EQ(std::filesystem::read_symlink(path).string(), sim.slavePath());
    HostPort host(path);
    ASSERT_TRUE(host.isOpen());
    host.request("B");
    EXPECT_EQ(host.readFrames(1), "b,2.1\n\r");

    // Stop removes the symlink and the folder made for it.
    const auto dir = std::filesystem::path(path).parent_path();
    sim.stop();
    EXPECT_FALSE(std::filesystem::exists(dir));
}

TEST(DeviceSimulator, WireTimeHoldsAnswersToTheLineRate)
{
    auto options = quickOptions();
    options.wireTime = true;
    DeviceSimulator sim(options);
    ASSERT_TRUE(sim.start());
    sim.setSettings({65535, 65535, 65535, 65535, 65535, 65535});
    HostPort host(sim.portPath());
    ASSERT_TRUE(host.isOpen());

    auto sent = Clock::now();
    host.request("G");
    const auto answer = host.readFrames(6);
    auto elapsed = Clock::now() - sent;
    ASSERT_EQ(answer.size(), 54u);
    EXPECT_GE(elapsed, std::chrono::nanoseconds(54ULL * 10 * 1'000'000'000 / 115200));

    // A longer burst makes the bound measurable well above scheduling noise: 1152 bytes take
    // 100 ms on the wire.
    const dravinel::Bytes burst(1152, 'x');
    sent = Clock::now();
    std::thread writer([&] { sim.sendBytes(burst); });
    std::string got;
    const auto until = Clock::now() + 2000ms;
    while (got.size() < burst.size() && Clock::now() < until)
        got += host.readFor(20ms);
    elapsed = Clock::now() - sent;
    writer.join();
    EXPECT_EQ(got.size(), burst.size());
    EXPECT_GE(elapsed, 100ms);
}

TEST(DeviceSimulator, ExecutablePrintsItsPortAndStopsCleanlyOnInterrupt)
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
    std::string exe = DRAVINEL_SIM_EXE;
    std::string a1 = "--revision", a2 = "9.9", a3 = "--link-dir";
    std::vector<char*> argv{
        exe.data(), a1.data(), a2.data(), a3.data(), const_cast<char*>(linkDir.c_str()), nullptr};
    pid_t pid = -1;
    ASSERT_EQ(posix_spawn(&pid, exe.c_str(), &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    // A failed assertion below must not leave the simulator running.
    struct Reaper
    {
        pid_t pid;
        ~Reaper()
        {
            if (pid > 0) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, nullptr, 0);
            }
        }
    } reaper{pid};

    std::string line;
    const auto until = Clock::now() + 3000ms;
    while (line.find('\n') == std::string::npos && Clock::now() < until) {
        pollfd p{out[0], POLLIN, 0};
        if (::poll(&p, 1, 100) == 1) {
            char buf[128];
            const ssize_t n = ::read(out[0], buf, sizeof buf);
            if (n <= 0)
                break;
            line.append(buf, static_cast<std::size_t>(n));
        }
    }
    ::close(out[0]);
    ASSERT_NE(line.find('\n'), std::string::npos);
    const std::string path = line.substr(0, line.find('\n'));
    EXPECT_EQ(path, linkDir + "/usb-Dravinel_Simulator-if00-port0");

    {
        HostPort host(path);
        EXPECT_TRUE(host.isOpen());
        if (host.isOpen()) {
            host.request("B");
            EXPECT_EQ(host.readFrames(1), "b,9.9\n\r");
        }
    }

    ASSERT_EQ(::kill(pid, SIGINT), 0);
    int status = 0;
    pid_t done = 0;
    const auto deadline = Clock::now() + 3000ms;
    while ((done = ::waitpid(pid, &status, WNOHANG)) == 0 && Clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    ASSERT_EQ(done, pid) << "the simulator did not stop on SIGINT";
    reaper.pid = -1;
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(path)));
    std::filesystem::remove_all(linkDir);
#endif
}
