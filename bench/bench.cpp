#include "SimProcess.h"

#include "device/DeviceManager.h"
#include "device/SettingsData.h"
#include "protocol/Globals.h"
#include "serial/SerialCommunication.h"
#include "serial/serial.h"
#include "sim/DeviceSimulator.h"
#include "support/Logger.h"
#include "support/NotificationCenter.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

// The engine against the wire: round trips and monitor latency compared with the time the bytes
// need on a 115200-baud line, CPU use connected and idle and while polling, and peak memory.
// The simulator paces its own output as the line would; the request direction is a plain pty
// write and costs next to nothing, so a ratio below 1 is possible.

namespace {

constexpr std::int64_t kConnected = static_cast<std::int64_t>(dravinel::ConnectionState::Connected);

using namespace dravinel;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Ten bit times a byte at 115200 baud.
constexpr double kByteMicros = 1e6 * 10.0 / 115200.0;

struct Config
{
    int runs = 200;
    int lossRuns = 20;
    double cpuSeconds = 30;
    double appSeconds = 5;
    std::string simExe;
    std::string appExe;
};

struct Row
{
    std::string name;
    std::vector<double> micros; // measured, one per run
    std::vector<double> limits; // wire limit of that run's bytes
};

double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const double rank = p * static_cast<double>(v.size() - 1);
    const auto lo = static_cast<std::size_t>(rank);
    const auto hi = std::min(lo + 1, v.size() - 1);
    return v[lo] + (v[hi] - v[lo]) * (rank - static_cast<double>(lo));
}

std::size_t digits(std::uint32_t n)
{
    return std::to_string(n).size();
}

double micros(Clock::time_point a, Clock::time_point b)
{
    return std::chrono::duration<double, std::micro>(b - a).count();
}

// The connection states from the notification centre, with the moment each came.
class StateWatch
{
public:
    StateWatch()
    {
        m_token = NotificationCenter::defaultCenter().observe(
            ConnStateChangedEvent, [this](const Notification& n) {
                std::lock_guard lock(m_mutex);
                m_states.emplace_back(n.integer("state").value_or(-1), Clock::now());
                m_changed.notify_all();
            });
    }
    ~StateWatch() { NotificationCenter::defaultCenter().remove(m_token); }
    bool waitFor(std::int64_t state, std::chrono::milliseconds timeout)
    {
        return waitAfter(state, 0, timeout).has_value();
    }
    // When state came, counting from the from-th state on.
    std::optional<Clock::time_point> waitAfter(std::int64_t state, std::size_t from,
                                               std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(m_mutex);
        std::optional<Clock::time_point> at;
        m_changed.wait_for(lock, timeout, [&] {
            for (std::size_t i = from; i < m_states.size(); ++i)
                if (m_states[i].first == state)
                    return (at = m_states[i].second).has_value();
            return false;
        });
        return at;
    }
    std::size_t count()
    {
        std::lock_guard lock(m_mutex);
        return m_states.size();
    }

private:
    NotificationCenter::Token m_token = 0;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::pair<std::int64_t, Clock::time_point>> m_states;
};

// How long the engine takes to notice an unplugged device, in three situations, and to take a
// device plugged in while it searches: the simulator in its own process, unplugged and plugged
// in by signal.
struct LossFigures
{
    std::vector<double> idle, polling, motor, appearance; // milliseconds
};

std::optional<LossFigures> measureLoss(const std::string& simExe, int runs)
{
    constexpr std::int64_t kScanning = static_cast<std::int64_t>(ConnectionState::Scanning);
    bench::SimProcess sim;
    if (!sim.start(simExe))
        return std::nullopt;
    StateWatch states;
    auto manager = DeviceManager::create({{sim.portPath()}, false});
    if (!states.waitFor(kConnected, 10s))
        return std::nullopt;
    LossFigures figures;
    std::atomic<bool> polling{false};
    std::jthread poller([&](std::stop_token stop) {
        while (!stop.stop_requested()) {
            if (polling)
                manager->readReedSensor();
            std::this_thread::sleep_for(100ms);
        }
    });
    std::mutex mutex;
    std::condition_variable sampled;
    int samples = 0;
    struct Observation
    {
        NotificationCenter::Token token;
        ~Observation() { NotificationCenter::defaultCenter().remove(token); }
    } observation{
        NotificationCenter::defaultCenter().observe(MonitorMotorEvent, [&](const Notification&) {
            std::lock_guard lock(mutex);
            ++samples;
            sampled.notify_all();
        })};
    const auto ms = [](Clock::time_point a, Clock::time_point b) { return micros(a, b) / 1000.0; };
    for (int i = 0; i < 3 * runs; ++i) {
        const int kind = i % 3; // idle, polling, motor test
        manager->enableKeepaliveCheck(kind == 0);
        polling = kind == 1;
        if (kind == 1)
            std::this_thread::sleep_for(std::chrono::milliseconds(150 + 37 * (i % 7)));
        if (kind == 2) {
            std::unique_lock lock(mutex);
            samples = 0;
            manager->startMotorMonitoring();
            if (!sampled.wait_for(lock, 3s, [&] { return samples > 0; }))
                return std::nullopt;
        }
        const std::size_t from = states.count();
        const auto unpluggedAt = Clock::now();
        sim.unplug();
        const auto scanning = states.waitAfter(kScanning, from, 5s);
        polling = false;
        if (!scanning)
            return std::nullopt;
        (kind == 0   ? figures.idle
         : kind == 1 ? figures.polling
                     : figures.motor)
            .push_back(ms(unpluggedAt, *scanning));
        // Plugged in again in the middle of the search's pause.
        std::this_thread::sleep_for(400ms);
        const std::size_t before = states.count();
        const auto pluggedAt = Clock::now();
        sim.plugIn();
        const auto connected = states.waitAfter(kConnected, before, 5s);
        if (!connected)
            return std::nullopt;
        figures.appearance.push_back(ms(pluggedAt, *connected));
    }
    return figures;
}

std::optional<Row> roundTrip(const char* name, int runs,
                             const std::function<std::optional<double>()>& once)
{
    Row row{name, {}, {}};
    // A few runs to warm the caches, not counted.
    for (int i = 0; i < 5; ++i)
        once();
    for (int i = 0; i < runs; ++i) {
        const auto start = Clock::now();
        const auto limit = once();
        const auto end = Clock::now();
        if (!limit) {
            std::cerr << name << ": run " << i << " failed\n";
            return std::nullopt;
        }
        row.micros.push_back(micros(start, end));
        row.limits.push_back(*limit);
    }
    return row;
}

struct CpuFigure
{
    double percent = 0;
    double seconds = 0;
    double switchesPerSecond = 0; // context switches of all this process's threads
};

// CPU of this process (user + system) over a window, as % of one core.
CpuFigure measureCpu(double seconds, const std::function<void(Clock::time_point)>& during)
{
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    const auto start = Clock::now();
    const auto end =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    during(end);
    std::this_thread::sleep_until(end);
    const auto wall = std::chrono::duration<double>(Clock::now() - start).count();
    getrusage(RUSAGE_SELF, &after);
    const auto cpu = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    const double used =
        cpu(after.ru_utime) - cpu(before.ru_utime) + cpu(after.ru_stime) - cpu(before.ru_stime);
    const auto switches = [](const rusage& r) { return r.ru_nvcsw + r.ru_nivcsw; };
    return {100.0 * used / wall, wall,
            static_cast<double>(switches(after) - switches(before)) / wall};
}

// The app on its demo device, offscreen: its peak RSS after a few seconds, or nothing.
std::optional<long> appPeakRssKb(const std::string& exe, double seconds)
{
    if (exe.empty() || access(exe.c_str(), X_OK) != 0)
        return std::nullopt;
    std::string arg0 = exe, arg1 = "--demo";
    std::vector<char*> argv = {arg0.data(), arg1.data(), nullptr};
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "QT_QPA_PLATFORM=", 16) != 0)
            env.emplace_back(*e);
    env.emplace_back("QT_QPA_PLATFORM=offscreen");
    std::vector<char*> envp;
    for (auto& e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int err = posix_spawn(&pid, exe.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (err != 0)
        return std::nullopt;
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const long hwm = bench::procStatusKb(pid, "VmHWM");
    kill(pid, SIGTERM);
    int status = 0;
    const auto deadline = Clock::now() + 5s;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (Clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(20ms);
    }
    if (hwm <= 0)
        return std::nullopt;
    return hwm;
}

void printUsage()
{
    std::cout << "Usage: dravinel-bench [--quick] [--runs N] [--cpu-seconds S] [--sim PATH] "
                 "[--app PATH]\n"
                 "  --quick   50 runs and 5 s CPU windows (a smoke run)\n";
}

} // namespace

int main(int argc, char** argv)
{
    Config config;
    config.simExe = bench::defaultSimulatorPath();
#ifdef DRAVINEL_APP_EXE
    config.appExe = DRAVINEL_APP_EXE;
#endif
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--quick") {
            config.runs = 50;
            config.cpuSeconds = 5;
            config.lossRuns = 5;
        } else if (arg == "--runs" && i + 1 < argc) {
            config.runs = std::max(1, std::atoi(argv[++i]));
        } else if (arg == "--cpu-seconds" && i + 1 < argc) {
            config.cpuSeconds = std::atof(argv[++i]);
        } else if (arg == "--sim" && i + 1 < argc) {
            config.simExe = argv[++i];
        } else if (arg == "--app" && i + 1 < argc) {
            config.appExe = argv[++i];
        } else {
            printUsage();
            return arg == "--help" ? 0 : 2;
        }
    }

    // Every line is still formatted, as in the app; it is only not printed.
    Logger::getInstance().setSink([](const std::string&) {});

    // Part one: the engine alone in this process, the simulator in its own.
    bench::SimProcess sim;
    if (!sim.start(config.simExe))
        return 1;
    StateWatch states;
    auto manager = DeviceManager::create({{sim.portPath()}, false});
    if (!states.waitFor(kConnected, 10s)) {
        std::cerr << "dravinel-bench: no connection to " << sim.portPath() << "\n";
        return 1;
    }
    std::cerr << "connected; idle CPU window " << config.cpuSeconds << " s\n";

    const CpuFigure idle = measureCpu(config.cpuSeconds, [](Clock::time_point) {});
    std::cerr << "polling CPU window " << config.cpuSeconds << " s\n";
    long polls = 0;
    const CpuFigure polling = measureCpu(config.cpuSeconds, [&](Clock::time_point end) {
        // The position poll of the motor panel, once per poll period.
        for (auto next = Clock::now(); next < end;
             next += std::chrono::milliseconds(DELAY_SCAN_CHECK)) {
            std::this_thread::sleep_until(next);
            if (manager->readReedSensor() != VAL_UNDEF)
                ++polls;
        }
    });

    std::cerr << "round trips, " << config.runs << " runs each\n";
    manager->enableKeepaliveCheck(false);
    std::vector<Row> rows;
    const int runs = config.runs;
    auto add = [&](std::optional<Row> row) {
        if (row)
            rows.push_back(std::move(*row));
    };
    // Limits: request bytes + answer bytes, each answer as the device sends it (code, ',',
    // digits, LF, CR).
    add(roundTrip("readRevision", runs, [&]() -> std::optional<double> {
        auto rev = manager->readRevision();
        if (!rev)
            return std::nullopt;
        return static_cast<double>(3 + 4 + rev->size()) * kByteMicros;
    }));
    add(roundTrip("readVBatt", runs, [&]() -> std::optional<double> {
        const auto v = manager->readVBatt();
        if (v == VAL_UNDEF)
            return std::nullopt;
        return static_cast<double>(3 + 4 + digits(v)) * kByteMicros;
    }));
    add(roundTrip("saveCurrentLimit", runs, [&]() -> std::optional<double> {
        if (!manager->saveCurrentLimit(120))
            return std::nullopt;
        return (3 + 3 + 4 + 3) * kByteMicros;
    }));
    add(roundTrip("readSettings (6 answers)", runs, [&]() -> std::optional<double> {
        auto s = manager->readSettings();
        if (!s)
            return std::nullopt;
        std::size_t answers = 0;
        for (std::uint32_t v : {s->getCurrThreshold(), s->getMinIRDetection(), s->getPosRotation(),
                                s->getNegRotation(), s->getMotorSpeed(), s->getCycleTimeoutMins()})
            answers += 4 + digits(v);
        return static_cast<double>(3 + answers) * kByteMicros;
    }));
    const long engineHwm = bench::selfStatusKb("VmHWM");
    const long engineRss = bench::selfStatusKb("VmRSS");
    manager->stop();
    manager->waitUntilStopped(5s);
    manager.reset();
    sim.stop();

    // Part two: the monitor latency needs the moment the device starts its frame, so the
    // simulator runs in this process for it (after the memory figure was taken).
    long lineGrowthKb = -1;
    {
        sim::DeviceSimulator::Options options;
        options.wireTime = true;
        sim::DeviceSimulator local(options);
        if (!local.start())
            return 1;
        StateWatch localStates;
        auto monitor = DeviceManager::create({{local.portPath()}, false});
        if (!localStates.waitFor(kConnected, 10s)) {
            std::cerr << "dravinel-bench: no connection to the in-process simulator\n";
            return 1;
        }
        monitor->enableKeepaliveCheck(false);
        std::mutex mutex;
        std::condition_variable arrived;
        std::optional<Clock::time_point> seen;
        const auto token = NotificationCenter::defaultCenter().observe(
            MonitorMotorEvent, [&](const Notification&) {
                std::lock_guard lock(mutex);
                seen = Clock::now();
                arrived.notify_all();
            });
        // From just before the simulator starts writing the frame to the observer's moment.
        const std::string line = "IMEAS: 123";
        Row row{"monitor frame -> MonitorMotorEvent", {}, {}};
        for (int i = 0; i < runs + 5; ++i) {
            {
                std::lock_guard lock(mutex);
                seen.reset();
            }
            const auto sent = Clock::now();
            local.sendLine(line);
            std::unique_lock lock(mutex);
            if (!arrived.wait_for(lock, 1s, [&] { return seen.has_value(); })) {
                std::cerr << "monitor frame " << i << " never reached the observer\n";
                break;
            }
            if (i >= 5) { // the first few warm the caches
                row.micros.push_back(micros(sent, *seen));
                row.limits.push_back(static_cast<double>(line.size() + 2) * kByteMicros);
            }
        }
        if (static_cast<int>(row.micros.size()) == runs)
            rows.push_back(std::move(row));
        NotificationCenter::defaultCenter().remove(token);

        monitor->stop();
        monitor->waitUntilStopped(5s);
    }

    // Part three: a mebibyte without a line feed, from an unpaced simulator in this process.
    {
        sim::DeviceSimulator unpaced;
        StateWatch lineStates;
        if (!unpaced.start())
            return 1;
        auto reader = DeviceManager::create({{unpaced.portPath()}, false});
        if (!lineStates.waitFor(kConnected, 10s))
            return 1;
        reader->enableKeepaliveCheck(false);
        // A mebibyte without a line feed: the reader hands it on in bounded pieces. This
        // process holds the line once itself (the simulator's copy); the engine may not again.
        const long rssBefore = bench::selfStatusKb("VmRSS");
        std::atomic<int> pieces{0};
        const auto counter = NotificationCenter::defaultCenter().observe(
            ComOnIncomingFrame, [&](const Notification&) { ++pieces; });
        unpaced.sendBytes(Bytes(std::size_t{1} << 20, 'A'));
        long peak = rssBefore;
        for (const auto end = Clock::now() + 30s; pieces < 255 && Clock::now() < end;) {
            std::this_thread::sleep_for(20ms);
            peak = std::max(peak, bench::selfStatusKb("VmRSS"));
        }
        NotificationCenter::defaultCenter().remove(counter);
        if (pieces >= 255)
            lineGrowthKb = peak - rssBefore;
    }

    std::cerr << "unplug and plug-in, " << config.lossRuns << " runs each\n";
    const auto loss = measureLoss(config.simExe, config.lossRuns);
    const auto appHwm = appPeakRssKb(config.appExe, config.appSeconds);

    std::printf("\nDravinel engine against dravinel-sim --wire-time (115200 baud, 86.8 us a "
                "byte), %d runs a row\n\n",
                runs);
    std::printf("%-36s %10s %10s %10s %7s %12s %s\n", "operation", "median us", "p99 us",
                "limit us", "ratio", "target us", "within");
    bool allWithin = true;
    for (const auto& row : rows) {
        const double median = percentile(row.micros, 0.5);
        const double p99 = percentile(row.micros, 0.99);
        const double limit = percentile(row.limits, 0.5);
        const double target = 1.5 * limit + 1000.0;
        const bool within = p99 <= target;
        allWithin = allWithin && within;
        std::printf("%-36s %10.0f %10.0f %10.0f %7.2f %12.0f %s\n", row.name.c_str(), median, p99,
                    limit, median / limit, target, within ? "yes" : "NO");
    }
    std::printf("\n(ratio = median / limit; target = 1.5 x limit + 1 ms, checked on the p99)\n\n");
    std::printf("%-44s %8.3f %% of one core over %.0f s (target < 0.5 %%)\n",
                "CPU, connected and idle (keep-alive on)", idle.percent, idle.seconds);
    std::printf("%-44s %8.1f a second (context switches of every thread)\n",
                "Wake-ups, connected and idle", idle.switchesPerSecond);
    std::printf("%-44s %8.3f %% of one core over %.0f s (%ld polls)\n",
                "CPU, position polling every 1 s", polling.percent, polling.seconds, polls);
    std::printf("%-44s %8.1f MiB (VmHWM; VmRSS %.1f MiB) (target < 10 MiB)\n",
                "Peak RSS, engine process", static_cast<double>(engineHwm) / 1024.0,
                static_cast<double>(engineRss) / 1024.0);
    if (appHwm)
        std::printf("%-44s %8.1f MiB (VmHWM after %.0f s, offscreen) (target < 100 MiB)\n",
                    "Peak RSS, app on the demo device", static_cast<double>(*appHwm) / 1024.0,
                    config.appSeconds);
    else
        std::printf("%-44s %8s (app not built or did not start)\n",
                    "Peak RSS, app on the demo device", "n/a");

    std::printf("%-44s %8.1f MiB over VmRSS before (target < 7 MiB)\n",
                "Peak RSS growth, a 1 MiB line without LF",
                static_cast<double>(lineGrowthKb) / 1024.0);

    bool lossOk = loss.has_value();
    if (loss) {
        std::printf("\n%-44s %10s %10s %10s %s\n", "lost or found device", "median ms", "max ms",
                    "target ms", "within");
        const auto lossRow = [&](const char* name, const std::vector<double>& v, double target) {
            const double worst = *std::max_element(v.begin(), v.end());
            lossOk = lossOk && worst <= target;
            std::printf("%-44s %10.1f %10.1f %10.0f %s\n", name, percentile(v, 0.5), worst, target,
                        worst <= target ? "yes" : "NO");
        };
        lossRow("unplug -> state 1, idle (keep-alive on)", loss->idle, 50);
        lossRow("unplug -> state 1, polling the position", loss->polling, 50);
        lossRow("unplug -> state 1, during a motor test", loss->motor, 50);
        lossRow("port appears while searching -> state 2", loss->appearance, 300);
    } else {
        std::printf("\nunplug and plug-in: the run failed\n");
    }

    const bool ok = rows.size() == 5 && allWithin && idle.percent < 0.5 && engineHwm < 10L * 1024 &&
                    (!appHwm || *appHwm < 100L * 1024) && lossOk && lineGrowthKb >= 0 &&
                    lineGrowthKb < 7L * 1024;
    std::printf("\nall targets met: %s\n", ok ? "yes" : "NO");
    return ok ? 0 : 1;
}
