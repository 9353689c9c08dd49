#include "sim/DeviceSimulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

std::string slurp(const std::string& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The real program in its own process, its stdout and stderr gathered in files.
class CliProgramTest : public ::testing::Test
{
protected:
    void TearDown() override
    {
        std::error_code ec;
        for (const auto& path : {m_out, m_err})
            fs::remove(path, ec);
    }

    pid_t start(std::vector<std::string> args) const
    {
        args.insert(args.begin(), DRAVINEL_CLI_EXE);
        std::vector<char*> argv;
        for (auto& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        const int flags = O_WRONLY | O_CREAT | O_TRUNC;
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, m_out.c_str(), flags, 0600);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_err.c_str(), flags, 0600);
        pid_t pid = -1;
        if (posix_spawn(&pid, DRAVINEL_CLI_EXE, &actions, nullptr, argv.data(), environ) != 0)
            pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        return pid;
    }

    // The exit code, or -1 on a death by signal or a time-out (which kills the program).
    static int finish(pid_t pid, std::chrono::milliseconds timeout)
    {
        if (pid <= 0)
            return -1;
        int status = 0;
        for (const auto deadline = Clock::now() + timeout; Clock::now() < deadline;
             std::this_thread::sleep_for(10ms))
            if (waitpid(pid, &status, WNOHANG) == pid)
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        return -1;
    }

    std::string out() const { return slurp(m_out); }
    std::string err() const { return slurp(m_err); }

    const std::string m_out = (fs::temp_directory_path() / "dravinel-cli-program-").string() +
                              std::to_string(getpid()) + ".out";
    const std::string m_err = m_out.substr(0, m_out.size() - 3) + "err";
};

TEST_F(CliProgramTest, ExitCodesSayWhatHappened)
{
    dravinel::sim::DeviceSimulator device;
    ASSERT_TRUE(device.start());
    device.setAnswerOverride('T', "t,1");
    const std::string port = device.portPath();
    // The arguments, the exit code, and a text expected on stdout after a success, on stderr
    // otherwise.
    const std::vector<std::tuple<std::vector<std::string>, int, std::string>> cases = {
        {{"--port", port, "--json", "get"}, 0, "{\"current_limit\": 120, "},
        {{"--help"}, 0, "restore FILE"},
        {{"--port", port, "set", "motor-speed=65536"}, 2, "'65536' is not a whole number"},
        {{}, 2, ""},
        {{"--port", port, "set", "cycle-timeout=2"}, 1, "it answered \"t,1\""},
        {{"--port", "/nonexistent/port", "info"}, 3, "/nonexistent/port  not found"},
    };
    for (const auto& [args, code, text] : cases) {
        const auto requests = device.requests().size();
        EXPECT_EQ(finish(start(args), 20s), code) << err();
        EXPECT_NE((code == 0 ? out() : err()).find(text), std::string::npos) << out() << err();
        if (code == 2) {
            EXPECT_EQ(out(), "");
            EXPECT_EQ(device.requests().size(), requests) << "a refused command reached the device";
        }
    }
}

TEST_F(CliProgramTest, CtrlCEndsAMonitorAndTheProgramCleanly)
{
    dravinel::sim::DeviceSimulator device;
    ASSERT_TRUE(device.start());
    const pid_t monitor = start({"--port", device.portPath(), "monitor", "position"});
    ASSERT_GT(monitor, 0);
    const auto deadline = Clock::now() + 10s;
    while (std::ranges::count(out(), '\n') < 2 && Clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    EXPECT_GE(std::ranges::count(out(), '\n'), 2) << err();
    const auto interrupted = Clock::now();
    kill(monitor, SIGINT);
    EXPECT_EQ(finish(monitor, 10s), 0) << err();
    EXPECT_LT(Clock::now() - interrupted, 2s);
    const auto count = device.requests().size();
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(device.requests().size(), count) << "the port is still being polled";
}

} // namespace
