#include "SimProcess.h"

#include "support/ErrorText.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace dravinel::bench {

SimProcess::~SimProcess()
{
    stop();
}

bool SimProcess::start(const std::string& exe)
{
    int out[2];
    if (pipe(out) != 0) {
        std::cerr << "pipe failed: " << errorText(errno) << "\n";
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    posix_spawn_file_actions_addclose(&actions, out[1]);
    std::string arg0 = exe;
    std::string arg1 = "--wire-time";
    std::vector<char*> argv = {arg0.data(), arg1.data(), nullptr};
    const int err = posix_spawn(&m_pid, exe.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    if (err != 0) {
        std::cerr << "could not start " << exe << ": " << errorText(err) << "\n";
        close(out[0]);
        m_pid = -1;
        return false;
    }
    // The first line is the port path.
    std::string line;
    char c = 0;
    while (read(out[0], &c, 1) == 1 && c != '\n')
        line.push_back(c);
    close(out[0]);
    if (line.empty()) {
        std::cerr << exe << " printed no port path\n";
        stop();
        return false;
    }
    m_portPath = line;
    return true;
}

void SimProcess::stop()
{
    if (m_pid <= 0)
        return;
    kill(m_pid, SIGTERM);
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
}

std::string defaultSimulatorPath()
{
    std::error_code ec;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        const auto sibling = self.parent_path().parent_path() / "sim" / "dravinel-sim";
        if (std::filesystem::exists(sibling, ec))
            return sibling.string();
    }
#ifdef DRAVINEL_SIM_EXE
    return DRAVINEL_SIM_EXE;
#else
    return "dravinel-sim";
#endif
}

long procStatusKb(pid_t pid, const char* key)
{
    std::ifstream in("/proc/" + (pid > 0 ? std::to_string(pid) : std::string("self")) + "/status");
    const std::string prefix = std::string(key) + ":";
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(prefix, 0) == 0)
            return std::stol(line.substr(prefix.size()));
    return -1;
}

long selfStatusKb(const char* key)
{
    return procStatusKb(0, key);
}

int selfThreadCount()
{
    int n = 0;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator("/proc/self/task", ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
        ++n;
    return n;
}

} // namespace dravinel::bench

namespace dravinel::bench {

void SimProcess::unplug() const
{
    if (m_pid > 0)
        kill(m_pid, SIGUSR1);
}

void SimProcess::plugIn() const
{
    if (m_pid > 0)
        kill(m_pid, SIGUSR2);
}

} // namespace dravinel::bench
