#pragma once

#include <string>
#include <sys/types.h>

// The simulator as a child process: started with its arguments, its port path read from the
// first line it prints, ended with SIGTERM.

namespace dravinel::bench {

class SimProcess
{
public:
    SimProcess() = default;
    ~SimProcess();
    SimProcess(const SimProcess&) = delete;
    SimProcess& operator=(const SimProcess&) = delete;

    // Starts exe with "--wire-time"; false (with a message on standard error) on failure.
    bool start(const std::string& exe);
    void stop();
    // The device's cable, pulled and put back (SIGUSR1, SIGUSR2).
    void unplug() const;
    void plugIn() const;
    const std::string& portPath() const { return m_portPath; }
    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
    std::string m_portPath;
};

// The default simulator path: next to this program's build, else the compiled-in one.
std::string defaultSimulatorPath();

// Fields of /proc/<pid>/status in kB ("VmRSS", "VmHWM"); -1 when missing.
long procStatusKb(pid_t pid, const char* key);
long selfStatusKb(const char* key);
// Threads of this process (entries of /proc/self/task).
int selfThreadCount();

} // namespace dravinel::bench
