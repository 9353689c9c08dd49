#include "cli/MonitorCommands.h"

#include "cli/Context.h"
#include "cli/Echo.h"
#include "cli/EventQueue.h"
#include "cli/Interrupt.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <memory>

namespace dravinel::cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kMotorSilence = DeviceSession::kMotorSilence;
constexpr std::chrono::milliseconds kPollPeriod{1000};
// How long a failed read waits for the scan to report a lost line before it counts as unanswered.
constexpr std::chrono::milliseconds kLossReport{200};

std::int64_t msSince(Clock::time_point start, Clock::time_point at)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(at - start).count();
}

// One sample or reading on its own line, flushed at once for whoever watches.
void printSample(Context& c, std::int64_t ms, const std::string& label, std::int64_t value)
{
    if (c.options.json)
        c.out << dump({{"ms", ms}, {label, value}});
    else
        c.out << rightAligned(std::to_string(ms), 6) << " ms  " << padded(label, 9) << value;
    c.out << '\n' << std::flush;
}

int monitorMotor(Context& c, DeviceSession& device)
{
    EventQueue events(EventQueue::Subscriptions{{MonitorMotorEvent, "value"},
                                                {MonitorMotorDoneEvent, "value"},
                                                {ConnStateChangedEvent, "state"}});
    // The session pauses the keep-alive for the test and, when this stops listening early, lets
    // the test run out before the command ends.
    const auto start = Clock::now();
    device.startMotorTest();
    std::uint32_t samples = 0;
    int done = 0;
    // Ends too when the output cannot be written: nobody would see the rest.
    while (done < 2 && (!c.options.count || samples < *c.options.count) && c.out) {
        EventQueue::Event event;
        const auto wait = events.next(Clock::now() + kMotorSilence, event);
        if (wait == EventQueue::Wait::Interrupted)
            break;
        if (wait == EventQueue::Wait::Timeout) {
            c.err.line("the motor test sent nothing for " + std::to_string(kMotorSilence.count()) +
                       " s");
            return kExitFailed;
        }
        if (event.name == ConnStateChangedEvent) {
            // The engine ends the connection as soon as the line hangs up.
            c.err.line("device lost");
            return kExitFailed;
        }
        const bool isDone = event.name == MonitorMotorDoneEvent;
        if (isDone)
            ++done;
        else
            ++samples;
        printSample(c, msSince(start, event.at), isDone ? "done" : "current", event.value);
    }
    return kExitOk;
}

// The exit code of a poll whose reading gave no value, or nothing when it gave one.
std::optional<int> readingFailure(Context& c, DeviceSession& device, const Reading& reading,
                                  const std::string& label)
{
    switch (reading.kind) {
    case Reading::Kind::Value:
        return std::nullopt;
    case Reading::Kind::WrongReply:
        c.err.line(readFailure(label + " read", {reading.answer}));
        return kExitFailed;
    case Reading::Kind::NoReply:
        break;
    }
    // A read cut by a hang-up fails at once; the scan reports the loss a moment later.
    c.err.line(device.waitForLoss(kLossReport) ? "device lost"
                                               : "no " + label + " reading came from the device");
    return kExitFailed;
}

int monitorPoll(Context& c, DeviceSession& device, bool infraRed)
{
    const char* label = infraRed ? "ir" : "position";
    // Only the connection's end is posted to this queue; otherwise it waits for the tick or Ctrl-C.
    EventQueue ticks(EventQueue::Subscriptions{{ConnStateChangedEvent, "state"}});
    device.enableKeepalive(false);
    const auto start = Clock::now();
    int result = kExitOk;
    for (std::uint32_t n = 0; (!c.options.count || n < *c.options.count) && c.out; ++n) {
        // Paced from the start, so the readings keep their one-second rhythm.
        if (n > 0) {
            EventQueue::Event ended;
            const auto wait = ticks.next(start + n * kPollPeriod, ended);
            if (wait == EventQueue::Wait::Interrupted)
                break;
            if (wait == EventQueue::Wait::Event) {
                c.err.line("device lost");
                result = kExitFailed;
                break;
            }
        }
        if (interruptRequested())
            break;
        const Reading reading = device.readSensor(infraRed ? Sensor::InfraRed : Sensor::Position);
        if (const auto failed = readingFailure(c, device, reading, label)) {
            result = *failed;
            break;
        }
        printSample(c, msSince(start, Clock::now()), label, reading.value);
    }
    device.enableKeepalive(true);
    return result;
}

int runMonitor(Context& c)
{
    return withDevice(c, [&c](DeviceSession& device) {
        if (c.options.monitor == MonitorKind::Motor)
            return monitorMotor(c, device);
        return monitorPoll(c, device, c.options.monitor == MonitorKind::IR);
    });
}

std::optional<std::uint32_t> parseCount(std::string_view text)
{
    std::uint32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value == 0)
        return std::nullopt;
    return value;
}

} // namespace

void addMonitorCommand(CLI::App& app, Options& options)
{
    // The words as given, turned into options once the command is parsed; they live as long as
    // the parse, which holds the callback.
    auto kind = std::make_shared<std::string>();
    auto count = std::make_shared<std::string>();
    auto* monitor = app.add_subcommand(
        "monitor", "the motor test's current samples, or ir or position readings");
    monitor->add_option("WHAT", *kind, "motor (runs the test until done), ir or position")
        ->required()
        ->check(CLI::IsMember({"motor", "ir", "position"}));
    auto* countOption =
        monitor->add_option("--count", *count, "stop after N samples or readings")->type_name("N");
    monitor->callback([&options, kind, count, countOption] {
        options.run = runMonitor;
        options.monitor = *kind == "motor" ? MonitorKind::Motor
                          : *kind == "ir"  ? MonitorKind::IR
                                           : MonitorKind::Position;
        if (count->empty() && countOption->count() == 0)
            return;
        options.count = parseCount(*count);
        if (!options.count)
            throw ArgumentError("--count needs a whole number above 0, not " + echo(*count));
    });
}

} // namespace dravinel::cli
