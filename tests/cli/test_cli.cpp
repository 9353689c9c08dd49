#include "cli/Cli.h"
#include "device/Backup.h"
#include "protocol/Globals.h"
#include "sim/DeviceSimulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace dravinel::cli {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;
using Args = std::vector<std::string>;

const std::vector<int> kOriginal{120, 300, 40, 35, 200, 90};
const std::string kWrites = "CIRLST"; // the request codes of the six writes

std::string slurp(const fs::path& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// The requests of these codes the device received, as "S200".
Args received(const sim::DeviceSimulator& sim, const std::string& codes = kWrites)
{
    Args result;
    for (const auto& r : sim.requests())
        if (contains(codes, {r.code}))
            result.push_back(r.code + r.content);
    return result;
}

std::vector<int> held(const sim::DeviceSimulator& sim)
{
    const auto s = sim.settings();
    return {s.values.begin(), s.values.end()};
}

class CliTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_sim = std::make_unique<sim::DeviceSimulator>();
        ASSERT_TRUE(m_sim->start());
        m_sim->setBatteryRaw(1300);
        fs::create_directories(m_dir);
    }
    void TearDown() override { fs::remove_all(m_dir); }

    struct Run
    {
        int code = -1;
        std::string out, err;
    };
    // In-process, against the simulator, its port named after the command.
    Run onDevice(Args args)
    {
        args.push_back("--port=" + m_sim->portPath());
        std::ostringstream out;
        std::ostringstream err;
        const int code = runCli(args, out, err);
        return {code, out.str(), err.str()};
    }
    std::string file(const std::string& name, std::optional<std::string> text = {}) const
    {
        if (text)
            std::ofstream(m_dir / name) << *text;
        return m_dir / name;
    }

    // The real program in its own process; as an unprivileged user if asked, as the program's
    // users are, even when the tests run as root.
    pid_t start(Args args, bool unprivileged = false, std::string out = {}) const
    {
        std::vector<char*> argv{const_cast<char*>(DRAVINEL_CLI_EXE)};
        for (auto& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        out = out.empty() ? file("out") : out;
        const std::string err = file("err");
        const pid_t pid = fork();
        if (pid != 0)
            return pid;
        // The child: async-signal-safe calls only; the program opened before the user changes.
        const int exe = open(DRAVINEL_CLI_EXE, O_RDONLY | O_CLOEXEC);
        const int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int errFd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (exe < 0 || outFd < 0 || errFd < 0 || dup2(outFd, 1) < 0 || dup2(errFd, 2) < 0 ||
            (unprivileged && getuid() == 0 && // as nobody
             (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)))
            _exit(126);
        fexecve(exe, argv.data(), environ);
        _exit(127);
    }
    // The exit code, or -1 on a death by signal. A program that hangs meets the test's time-out.
    static int finish(pid_t pid)
    {
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::unique_ptr<sim::DeviceSimulator> m_sim;
    // Reachable by an unprivileged user, like the program's files.
    const fs::path m_dir = fs::temp_directory_path() / ("dravinel-cli-" + std::to_string(getpid()));
};

TEST_F(CliTest, CommandsPrintAlignedTextOrOneJsonObject)
{
    const std::string backup = file("a", formatBackup("2.1", {11, 12, 13, 14, 15, 16}));
    const std::vector<std::pair<Args, std::string>> cases = {
        {{"info"}, "revision  2.1\nbattery   11.71 V (raw 1300)\n"},
        {{"info", "--json"}, R"({"revision":"2.1","battery_raw":1300,"battery_volts":11.71})"},
        {{"get"}, "current-limit      120\nir-detection       300\npositive-rotation  40\n"},
        {{"--json", "get"}, R"({"current_limit":120,"ir_detection":300,"positive_rotation":40,)"},
        {{"set", "current-limit=0", "ir-detection=65535", "--json", "negative-rotation=0012"},
         R"({"current_limit":0,"ir_detection":65535,"negative_rotation":12})"},
        {{"set", "motor-speed=7"}, "motor-speed        7      confirmed\n"},
        {{"set", "motor_speed= 8 "}, "motor-speed        8      confirmed\n"},
        {{"save-exit", "--json"}, R"({"sent":"save-exit"})"},
        {{"ports"}, "* " + m_sim->portPath() + "  (--port)\n"},
        {{"--version"}, "dravinel-cli 0.1.0\n"},
        {{"--help"}, "Reads, writes, backs up and restores the settings of a Dravinel device"},
        {{"restore", backup},
         "setting            before  written  confirmed\ncurrent-limit"
         "           0       11  yes\nir-detection        65535       12"},
        {{"restore", backup, "--json"},
         R"({"file":")" + backup +
             R"(","current_limit":{)"
             R"("before":11,"written":11,"attempted":true,"confirmed")"},
    };
    for (const auto& [args, out] : cases) {
        const auto run = onDevice(args);
        EXPECT_EQ(run.code, 0) << run.err;
        EXPECT_TRUE(run.out.starts_with(out)) << run.out;
        EXPECT_EQ(run.err, "") << "the log is off unless asked for";
    }
    EXPECT_EQ(received(*m_sim, "L"), (Args{"L12", "L14", "L14"})); // sent as the device reads it
    EXPECT_TRUE(m_sim->savedAndExited());

    // -v: warnings and errors only; -vv: everything with the frames, one line an entry.
    m_sim->setAnswerOverride(READ_V_BATT_REQ, "garbage");
    auto run = onDevice({"-v", "info"});
    EXPECT_TRUE(contains(run.err, "ERROR: ") && !contains(run.err, "DEBUG: ")) << run.err;
    run = onDevice({"-vv", "get"});
    EXPECT_TRUE(contains(run.err, " <= RESPONSE : t,16\n") && contains(run.err, " => : "));
    EXPECT_FALSE(contains(run.err, "\n\n")) << run.err;
}

TEST_F(CliTest, BadInputIsRefusedWithOneLineAndNothingSent)
{
    const std::string fifo = file("fifo"), folder = file("folder");
    ASSERT_TRUE(mkfifo(fifo.c_str(), 0600) == 0 && fs::create_directory(folder));
    const std::string digits(100000, '7');
    const std::vector<std::pair<Args, std::string>> cases = {
        {{"set", "motor-speed=1", "speed=2"}, "unknown setting 'speed' (known: current-limit, "},
        {{"set", "cycle-timeout=65536"}, "'65536' is not a whole number from 0 to 65535"},
        {{"set", "motor-speed=" + digits}, "'" + digits.substr(0, 40) + "'... (100000 characters)"},
        {{"set", "--", "-v=1"}, "unknown setting '-v'"},
        {{"set", "motor-speed=1", "motor-speed=2"}, "motor-speed is given twice"},
        {{"monitor", "ir", "--count", "0"}, "--count needs a whole number above 0, not '0'"},
        {{"get", "--count", "3"}, "not expected"},
        {{"fly"}, "unknown command 'fly'"},
        {{"--demo", "get"}, "--port excludes --demo"},
        {{"backup", ""}, "cannot save a backup there: no file name given"},
        {{"backup", folder}, folder + " is a folder"},
        {{"backup", fifo}, fifo + " is not a regular file but a FIFO"},
        {{"backup", "/dev/null"}, "/dev/null is not a regular file but a character device"},
        {{"backup", file("absent/x.json")}, "absent: stat: No such file or directory (2)"},
        {{"restore", file("absent")}, "absent: stat: No such file or directory (2)"},
        {{"restore", folder}, "cannot restore: " + folder + " is a folder"},
        {{"restore", fifo}, fifo + " is not a regular file but a FIFO"},
        {{"restore", "/dev/zero"}, "/dev/zero is not a regular file but a character device"},
        {{"restore", file("big", std::string(kLargestBackupFile + 1, ' '))}, "than 1048576 bytes"},
        {{"restore", file("broken", "{\"current_limit\": 1,")}, "line 1, column 21: syntax"},
        {{"restore", file("twice", R"({"motor_speed": 1, "motor_speed": 1})")},
         "line 1, column 20: second \"motor_speed\""},
    };
    for (const auto& [args, message] : cases) {
        const auto run = onDevice(args);
        EXPECT_EQ(run.code, 2) << message;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(std::ranges::count(run.err, '\n'), 1) << run.err;
        EXPECT_TRUE(contains(run.err, message)) << run.err;
    }
    EXPECT_EQ(m_sim->requests().size(), 0u) << "refused before any connection";
}

TEST_F(CliTest, BackupReplacesTheFileWholeAndNeverWritesThroughAStrayLink)
{
    const std::string backup = file("dev.json");
    const std::string victim = file("victim.txt", "precious");
    fs::create_symlink(victim, backup + ".tmp");
    auto run = onDevice({"backup", backup});
    EXPECT_EQ(run.out, "revision 2.1 and 6 settings saved to " + backup + "\n") << run.err;
    EXPECT_EQ(slurp(victim), "precious");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(backup)));
    EXPECT_EQ(slurp(backup), formatBackup("2.1", SettingsData(120, 300, 40, 35, 200, 90)));

    // A link as the target: the file it points to is replaced, keeping its mode.
    const std::string real = file("real.json", "old");
    fs::permissions(real, fs::perms(0640));
    const std::string link = file("link.json");
    fs::create_symlink("real.json", link);
    run = onDevice({"--json", "backup", link});
    EXPECT_TRUE(run.out.starts_with(R"({"file":")" + link + R"(","revision":"2.1","current)"));
    EXPECT_TRUE(fs::is_symlink(link) && slurp(real) == slurp(backup));
    EXPECT_EQ(fs::status(real).permissions(), fs::perms(0640));
    EXPECT_EQ(std::distance(fs::directory_iterator(m_dir), {}), 5); // no temporary file left
}

TEST_F(CliTest, ADashIsStandardOutputForBackupAndStandardInputForRestore)
{
    const auto saved = onDevice({"backup", "-"});
    EXPECT_EQ(saved.code, 0) << saved.err;
    EXPECT_EQ(saved.out, formatBackup("2.1", {120, 300, 40, 35, 200, 90}));
    std::istringstream in(formatBackup("2.1", {1, 2, 3, 4, 5, 6}));
    auto* const previous = std::cin.rdbuf(in.rdbuf());
    const auto restored = onDevice({"restore", "-"});
    std::cin.rdbuf(previous);
    std::cin.clear();
    EXPECT_EQ(restored.code, 0) << restored.err;
    EXPECT_EQ(held(*m_sim), (std::vector<int>{1, 2, 3, 4, 5, 6}));
}

TEST_F(CliTest, DeviceFaultsAreNamedAndLeaveTheDeviceAsReported)
{
    const std::string values = file("values", formatBackup("2.1", {11, 12, 13, 14, 15, 16}));
    const std::string older = file("older", formatBackup("1.9", {1, 2, 3, 4, 5, 6}));
    const Args set = {"set", "current-limit=10", "motor-speed=5", "cycle-timeout=1"};
    // The fault: a request code, then '=' and the answer it gets instead, or '>' and the answer
    // it gets once the scan has found the device. Then the command, its exit code, its message
    // and what the device holds afterwards.
    using Fault = std::tuple<std::string, Args, int, std::vector<int>>;
    const std::vector<std::pair<Fault, std::string>> cases = {
        {{"", {"restore", older}, 2, kOriginal},
         older + " is a backup of firmware revision '1.9', the device has revision '2.1'; "
                 "nothing was written (--force restores it anyway)\n"},
        {{"", {"restore", older, "--force"}, 0, {1, 2, 3, 4, 5, 6}}, ""},
        {{"S=s,7", set, 1, {10, 300, 40, 35, 5, 90}},
         "motor-speed=5 was not confirmed: the device answered wrongly: 's,7'; the remaining "
         "writes were not attempted\n"},
        // A device that keeps its motor speed: the value put back is the one it echoes.
        {{"S=s,200", {"restore", values}, 1, kOriginal},
         "motor-speed=15 was not confirmed: the device answered wrongly: 's,200'\ndravinel-cli: "
         "restore failed at motor-speed; the 4 settings written before it were put back\n"},
        {{"C=c,,", {"restore", values}, 1, kOriginal},
         "current-limit=11 was not confirmed: the device answered wrongly: 'c,,'\ndravinel-cli: "
         "restore failed at current-limit; nothing was written before it; current-limit itself "
         "could not be put back\n"},
        {{"B>b,", {"info"}, 1, kOriginal},
         "the device answered the revision request wrongly: 'b,'\n"},
        {{"V=v,high", {"info"}, 1, kOriginal},
         "the device answered the battery read wrongly: 'v,high'\n"},
        {{"G=c,120\n\rc,120\n\ri,300\n\rr,40\n\rl,35\n\rs,200", {"get"}, 1, kOriginal},
         "the device answered the settings read wrongly: 'c,120' 'c,120' 'i,300' 'r,40' 'l,35' "
         "'s,200'\n"},
        {{"B=xyz", {"get"}, 3, kOriginal},
         "no device found; ports tried:\n  " + m_sim->portPath() +
             "  opened, but the device answered the revision request wrongly: 'xyz'\n"},
    };
    for (const auto& [fault, message] : cases) {
        const auto& [how, args, code, heldAfter] = fault;
        m_sim->setSettings({});
        m_sim->clearAnswerOverrides();
        m_sim->clearRequests();
        if (how.size() > 2)
            m_sim->setAnswerOverride(how[0], how.substr(2), how[1] == '=' ? 0 : 1);
        const auto run = onDevice(args);
        EXPECT_EQ(run.code, code) << run.err;
        EXPECT_EQ(run.err, message.empty() ? "" : "dravinel-cli: " + message);
        EXPECT_EQ(held(*m_sim), heldAfter) << message;
    }
}

TEST_F(CliTest, MonitorPrintsTheMotorTestAndSensorReadings)
{
    const std::regex pass(R"(((\{"ms":\d+,"current":\d+\}\n)+\{"ms":\d+,"done":\d+\}\n){2})");
    EXPECT_TRUE(std::regex_match(onDevice({"--json", "monitor", "motor"}).out, pass));
    const std::regex paced(R"( +\d{1,2} ms  ir +\d+\n +1\d{3} ms  ir +\d+\n)"); // a second apart
    EXPECT_TRUE(std::regex_match(onDevice({"monitor", "ir", "--count", "2"}).out, paced));
}

TEST_F(CliTest, TheProgramsExitCodesSayWhatHappened)
{
    const std::string locked = file("locked", "x");
    fs::permissions(locked, fs::perms::none);
    const Args get = {"--port", m_sim->portPath(), "get"};
    // The arguments, the exit code, its words, whether run unprivileged, and where stdout goes.
    using Case = std::tuple<Args, int, std::string, bool, std::string>;
    const std::vector<Case> cases = {
        {{"--port", file("absent"), "info"}, 3, "absent  not found", false, ""},
        {{"--port", locked, "info"}, 3, "locked  permission denied", true, ""},
        {get, 1, "could not write the output: No space left on device\n", false, "/dev/full"},
    };
    for (const auto& [args, code, text, unprivileged, out] : cases) {
        EXPECT_EQ(finish(start(args, unprivileged, out)), code);
        EXPECT_TRUE(contains(slurp(file("err")), text)) << slurp(file("err"));
    }
}

TEST_F(CliTest, SigintAndSigtermStopAfterTheWriteInFlight)
{
    // Slow enough that the signal surely comes while a request waits for its answer.
    m_sim->setResponseDelay(300ms);
    const std::string port = m_sim->portPath();
    const Args set = {"--port", port, "set", "current-limit=7", "ir-detection=8", "motor-speed=9"};
    const Args restore = {"--port", port, "restore",
                          file("b", formatBackup("2.1", {1, 2, 3, 4, 5, 6}))};
    // The signal; the command; the requests counted and how many were sent when the signal comes,
    // the last in flight; the exit code (a monitor ends with 0); and a row of its output.
    using Case = std::tuple<int, Args, std::string, std::size_t, int, std::string>;
    const std::vector<Case> cases = {
        {SIGINT, set, kWrites, 2, 130, "ir-detection       8      confirmed\n"},
        {SIGTERM, restore, kWrites, 3, 130, "negative-rotation      35        -  not sent"},
        {SIGINT, {"--port", port, "set", "current-limit=5"}, kWrites, 1, 130, "limit      5  "},
        {SIGINT, {"--port", port, "monitor", "position"}, "O", 2, 0, " ms  position "},
    };
    for (const auto& [signal, args, codes, before, code, row] : cases) {
        const auto sent = [&, codes = codes] { return received(*m_sim, codes).size(); };
        const auto from = sent();
        const pid_t pid = start(args);
        for (auto end = Clock::now() + 10s; sent() < from + before && Clock::now() < end;)
            std::this_thread::sleep_for(2ms);
        const auto signalled = Clock::now();
        kill(pid, signal);
        EXPECT_EQ(finish(pid), code) << slurp(file("err"));
        EXPECT_LT(Clock::now() - signalled, 1s);
        EXPECT_EQ(sent(), from + before) << "a request was sent after the signal";
        EXPECT_TRUE(contains(slurp(file("out")), row)) << slurp(file("out"));
        EXPECT_EQ(contains(slurp(file("err")), "interrupted; "), code > 0) << slurp(file("err"));
    }
}

} // namespace
} // namespace dravinel::cli
