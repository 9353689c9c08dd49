#include "SimProcess.h"

#include "device/DeviceManager.h"
#include "protocol/Globals.h"
#include "serial/serial.h"
#include "support/Logger.h"
#include "support/NotificationCenter.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

// A long run against the simulator process: the position polled every second, a setting written
// every ten seconds, the keep-alive left on. Samples memory and threads, and reports any missed
// keep-alive, failed operation or lost connection.

namespace {

constexpr std::int64_t kConnected = static_cast<std::int64_t>(dravinel::ConnectionState::Connected);

using namespace dravinel;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// The keep-alive runs every 3 s; a gap beyond this means one was missed.
constexpr double kMissedGapSeconds = 4.5;

struct Sample
{
    double at = 0;
    long rssKb = 0;
    int threads = 0;
};

void printUsage()
{
    std::cout << "Usage: dravinel-soak [--minutes N] [--seconds N] [--sim PATH]\n"
                 "Runs against dravinel-sim --wire-time and prints a summary; the exit status is "
                 "0 when nothing was missed, lost or grew.\n";
}

} // namespace

int main(int argc, char** argv)
{
    double seconds = 600;
    std::string simExe = bench::defaultSimulatorPath();
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--minutes" && i + 1 < argc)
            seconds = 60.0 * std::atof(argv[++i]);
        else if (arg == "--seconds" && i + 1 < argc)
            seconds = std::atof(argv[++i]);
        else if (arg == "--sim" && i + 1 < argc)
            simExe = argv[++i];
        else {
            printUsage();
            return arg == "--help" ? 0 : 2;
        }
    }

    // The engine logs every frame; the text is formatted as usual and counted, not printed.
    std::atomic<long> errorLines{0};
    Logger::getInstance().setSink([&](const std::string& line) {
        if (line.rfind("ERROR", 0) == 0)
            ++errorLines;
    });

    bench::SimProcess sim;
    if (!sim.start(simExe))
        return 1;

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<double> keepAlives; // seconds since start of each battery reading
    std::vector<std::int64_t> states;
    const auto start = Clock::now();
    const auto since = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    auto& center = NotificationCenter::defaultCenter();
    const auto batteryToken = center.observe(ReadVBattEvent, [&](const Notification&) {
        std::lock_guard lock(mutex);
        keepAlives.push_back(since());
    });
    const auto stateToken = center.observe(ConnStateChangedEvent, [&](const Notification& n) {
        std::lock_guard lock(mutex);
        states.push_back(n.integer("state").value_or(-1));
        changed.notify_all();
    });

    auto manager = DeviceManager::create({{sim.portPath()}, false});
    {
        std::unique_lock lock(mutex);
        if (!changed.wait_for(lock, 10s, [&] {
                return std::find(states.begin(), states.end(), kConnected) != states.end();
            })) {
            std::cerr << "dravinel-soak: no connection to " << sim.portPath() << "\n";
            return 1;
        }
    }
    const std::size_t statesAtConnect = states.size();
    const double connectedAt = since();
    std::cout << "soak: connected to " << sim.portPath() << ", running " << seconds << " s"
              << std::endl;

    long polls = 0, pollFailures = 0, writes = 0, writeFailures = 0;
    std::vector<Sample> samples;
    const int threadsAtStart = bench::selfThreadCount();
    samples.push_back({since(), bench::selfStatusKb("VmRSS"), threadsAtStart});
    auto nextPoll = Clock::now() + 1s;
    auto nextWrite = Clock::now() + 10s;
    auto nextSample = Clock::now() + 10s;
    const auto end =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::uint16_t speed = 100;
    while (Clock::now() < end) {
        std::this_thread::sleep_until(std::min({nextPoll, nextWrite, nextSample}));
        const auto now = Clock::now();
        if (now >= nextPoll) {
            ++polls;
            if (manager->readReedSensor() == VAL_UNDEF)
                ++pollFailures;
            nextPoll += 1s;
        }
        if (now >= nextWrite) {
            ++writes;
            speed = static_cast<std::uint16_t>(100 + (speed + 37) % 400);
            if (!manager->saveMotorSpeed(speed))
                ++writeFailures;
            nextWrite += 10s;
        }
        if (now >= nextSample) {
            samples.push_back({since(), bench::selfStatusKb("VmRSS"), bench::selfThreadCount()});
            const auto& s = samples.back();
            std::cout << "soak: t=" << static_cast<int>(s.at) << " s  RSS " << s.rssKb
                      << " kB  threads " << s.threads << std::endl;
            nextSample += 10s;
        }
    }
    const double endedAt = since();
    std::size_t stateChanges = 0;
    {
        std::lock_guard lock(mutex);
        stateChanges = states.size() - statesAtConnect;
    }

    manager->stop();
    const bool stopped = manager->waitUntilStopped(5s);
    center.remove(batteryToken);
    center.remove(stateToken);
    sim.stop();

    std::vector<double> alive;
    {
        std::lock_guard lock(mutex);
        alive = keepAlives;
    }
    // Gaps between keep-alives over the whole connected time, its two ends included.
    std::vector<double> marks = {connectedAt};
    for (double t : alive)
        if (t <= endedAt)
            marks.push_back(t);
    marks.push_back(endedAt);
    double maxGap = 0;
    int missed = 0;
    for (std::size_t i = 1; i < marks.size(); ++i) {
        const double gap = marks[i] - marks[i - 1];
        maxGap = std::max(maxGap, gap);
        if (gap > kMissedGapSeconds)
            ++missed;
    }
    // Memory growth: from the first sample after a minute (caches warm) to the last.
    const auto warm =
        std::find_if(samples.begin(), samples.end(), [](const Sample& s) { return s.at >= 60; });
    const long rssFirst = warm != samples.end() ? warm->rssKb : samples.front().rssKb;
    const long rssLast = samples.back().rssKb;
    long rssMax = 0;
    for (const auto& s : samples)
        rssMax = std::max(rssMax, s.rssKb);
    int threadsMin = threadsAtStart, threadsMax = threadsAtStart;
    for (const auto& s : samples) {
        threadsMin = std::min(threadsMin, s.threads);
        threadsMax = std::max(threadsMax, s.threads);
    }

    std::printf("\nSoak summary (%.0f s connected to dravinel-sim --wire-time)\n",
                endedAt - connectedAt);
    std::printf("  position polls          %ld, failed %ld\n", polls, pollFailures);
    std::printf("  setting writes          %ld, failed %ld\n", writes, writeFailures);
    std::printf("  keep-alive readings     %zu, largest gap %.2f s, missed (gap > %.1f s) %d\n",
                alive.size(), maxGap, kMissedGapSeconds, missed);
    std::printf("  connection changes      %zu while running\n", stateChanges);
    std::printf("  error log lines         %ld\n", errorLines.load());
    std::printf("  RSS                     start %ld kB, at 1 min %ld kB, end %ld kB, max %ld kB\n",
                samples.front().rssKb, rssFirst, rssLast, rssMax);
    std::printf("  threads                 start %d, min %d, max %d, end %d\n", threadsAtStart,
                threadsMin, threadsMax, samples.back().threads);
    std::printf("  stopped cleanly         %s\n", stopped ? "yes" : "no");

    // More than 256 kB over the run, after the first minute, counts as growth.
    const bool grew = rssLast - rssFirst > 256 || threadsMax != threadsMin;
    const bool ok = missed == 0 && pollFailures == 0 && writeFailures == 0 && stateChanges == 0 &&
                    stopped && !grew;
    std::printf("  verdict                 %s\n", ok ? "PASS" : "FAIL");
    return ok ? 0 : 1;
}
