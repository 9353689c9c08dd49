#include "sim/DeviceSimulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The real program in its own process, its output gathered through pipes.
class Program
{
public:
    explicit Program(std::vector<std::string> args)
    {
        args.insert(args.begin(), DRAVINEL_CLI_EXE);
        int out[2];
        int err[2];
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
        std::vector<char*> argv;
        for (auto& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        if (posix_spawn(&m_pid, DRAVINEL_CLI_EXE, &actions, nullptr, argv.data(), environ) != 0)
            m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        m_out = out[0];
        m_err = err[0];
    }
    ~Program()
    {
        if (m_pid > 0 && !m_exited) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        close(m_out);
        close(m_err);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    bool started() const { return m_pid > 0; }
    pid_t pid() const { return m_pid; }

    // Reads until stdout holds at least lines lines or the time is up.
    bool waitForLines(std::size_t lines, std::chrono::milliseconds timeout)
    {
        const auto deadline = Clock::now() + timeout;
        while (std::count(stdout_.begin(), stdout_.end(), '\n') < static_cast<long>(lines)) {
            if (!pump(deadline))
                return false;
        }
        return true;
    }

    // Gathers the output until the program ends; returns its exit code, or -1 on a time-out or
    // a death by signal.
    int finish(std::chrono::milliseconds timeout)
    {
        const auto deadline = Clock::now() + timeout;
        while (pump(deadline)) {
        }
        int status = 0;
        while (Clock::now() < deadline) {
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_exited = true;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(10ms);
        }
        return -1;
    }

    std::string stdout_;
    std::string stderr_;

private:
    // One read from whichever pipe has data; false once both are closed or the time is up.
    bool pump(Clock::time_point deadline)
    {
        pollfd fds[2] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left <= 0ms || poll(fds, 2, static_cast<int>(left.count())) <= 0)
            return false;
        bool open = false;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].revents == 0) {
                open = open || fds[i].fd >= 0;
                continue;
            }
            char buffer[4096];
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                (i == 0 ? stdout_ : stderr_).append(buffer, static_cast<std::size_t>(n));
                open = true;
            } else {
                close(fds[i].fd);
                (i == 0 ? m_out : m_err) = -1;
            }
        }
        return open || m_out >= 0 || m_err >= 0;
    }

    pid_t m_pid = -1;
    bool m_exited = false;
    int m_out = -1;
    int m_err = -1;
};

TEST(CliProgramTest, ExitCodesSayWhatHappened)
{
    dravinel::sim::DeviceSimulator device;
    ASSERT_TRUE(device.start());

    Program get({"--port", device.portPath(), "--json", "get"});
    ASSERT_TRUE(get.started());
    EXPECT_EQ(get.finish(10s), 0) << get.stderr_;
    EXPECT_EQ(get.stdout_.front(), '{');
    EXPECT_EQ(get.stdout_.find("\"motor_speed\": 200"), get.stdout_.find("\"motor_speed\""));

    Program help({"--help"});
    EXPECT_EQ(help.finish(10s), 0);
    EXPECT_NE(help.stdout_.find("restore FILE"), std::string::npos);

    const auto before = device.requests().size();
    Program bad({"--port", device.portPath(), "set", "motor-speed=65536"});
    EXPECT_EQ(bad.finish(10s), 2);
    EXPECT_EQ(bad.stdout_, "");
    Program none({});
    EXPECT_EQ(none.finish(10s), 2);
    EXPECT_EQ(device.requests().size(), before);

    device.setAnswerOverride('T', "t,1");
    Program unconfirmed({"--port", device.portPath(), "set", "cycle-timeout=2"});
    EXPECT_EQ(unconfirmed.finish(10s), 1);
    EXPECT_NE(unconfirmed.stderr_.find("it answered \"t,1\""), std::string::npos);

    Program absent({"--port", "/nonexistent/dravinel-port", "info"});
    EXPECT_EQ(absent.finish(20s), 3);
    EXPECT_NE(absent.stderr_.find("/nonexistent/dravinel-port  not found"), std::string::npos)
        << absent.stderr_;
}

TEST(CliProgramTest, CtrlCEndsAMonitorAndTheProgramCleanly)
{
    dravinel::sim::DeviceSimulator device;
    ASSERT_TRUE(device.start());
    Program monitor({"--port", device.portPath(), "monitor", "position"});
    ASSERT_TRUE(monitor.started());
    ASSERT_TRUE(monitor.waitForLines(2, 10s)) << monitor.stderr_;
    const auto start = Clock::now();
    kill(monitor.pid(), SIGINT);
    EXPECT_EQ(monitor.finish(10s), 0) << monitor.stderr_;
    EXPECT_LT(Clock::now() - start, 2s);
    const auto count = device.requests().size();
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(device.requests().size(), count) << "the port is still being polled";
}

} // namespace
