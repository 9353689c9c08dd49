#include "cli/Cli.h"

#include "cli/Arguments.h"
#include "cli/Assignments.h"
#include "cli/Echo.h"
#include "cli/EventQueue.h"
#include "device/Backup.h"
#include "device/DeviceSession.h"
#include "device/Restore.h"
#include "sim/DeviceSimulator.h"
#include "support/Files.h"
#include "support/Logger.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <iostream>
#include <mutex>

namespace dravinel::cli {

namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

constexpr const char* kProgram = "dravinel-cli";
// The logger's levels for -v (warnings and errors) and -vv (everything).
constexpr std::int32_t kLogWarnings = 2;
constexpr std::int32_t kLogEverything = 4;
constexpr std::chrono::seconds kMotorSilence = DeviceSession::kMotorSilence;
constexpr std::chrono::milliseconds kPollPeriod{1000};
// How long a failed read waits for the scan to report a lost line before it counts as unanswered.
constexpr std::chrono::milliseconds kLossReport{200};
constexpr std::size_t kNameWidth = 19;
// The file name of backup and restore that means standard output and input.
constexpr std::string_view kStandardStream = "-";

// Error lines and, with -v, the log share the error stream; the log comes from the engine's
// threads, so every write takes the lock.
class ErrorStream
{
public:
    explicit ErrorStream(std::ostream& err) : m_err(err) {}

    void line(const std::string& text)
    {
        std::lock_guard lock(m_mutex);
        m_err << kProgram << ": " << text << '\n' << std::flush;
    }
    // A log entry as one line: the frame trace carries the frame's own LF CR.
    void entry(std::string_view text)
    {
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
            text.remove_suffix(1);
        std::lock_guard lock(m_mutex);
        m_err << text << '\n' << std::flush;
    }
    void raw(const std::string& text)
    {
        std::lock_guard lock(m_mutex);
        m_err << text << std::flush;
    }

private:
    std::mutex m_mutex;
    std::ostream& m_err;
};

// Routes the engine's log and the serial module's messages to the error stream for as long as
// the command runs, and silences both unless asked for; puts them back as they were afterwards.
class LogRouting
{
public:
    LogRouting(ErrorStream& err, int verbosity) : m_previousLevel(Logger::getInstance().getLevel())
    {
        Logger::getInstance().setLevel(verbosity == 0   ? 0
                                       : verbosity == 1 ? kLogWarnings
                                                        : kLogEverything);
        Logger::getInstance().setSink([&err](const std::string& entry) { err.entry(entry); });
        DeviceSession::setSerialMessageSink([&err, verbosity](const std::string& message) {
            if (verbosity > 0)
                err.entry(message);
        });
    }
    ~LogRouting()
    {
        DeviceSession::setSerialMessageSink({});
        Logger::getInstance().setSink({});
        Logger::getInstance().setLevel(m_previousLevel);
    }
    LogRouting(const LogRouting&) = delete;
    LogRouting& operator=(const LogRouting&) = delete;

private:
    std::int32_t m_previousLevel;
};

// Standard input, whole, unless it holds more than a backup file may; false then.
bool readStandardInput(std::string& text)
{
    text.clear();
    char buffer[4096];
    while (std::cin.read(buffer, sizeof buffer) || std::cin.gcount() > 0) {
        text.append(buffer, static_cast<std::size_t>(std::cin.gcount()));
        if (text.size() > kLargestBackupFile)
            return false;
    }
    return true;
}

// Why a write was not confirmed: the device said something else, or nothing.
std::string cameBack(const std::optional<std::string>& answer)
{
    return answer ? "the device answered wrongly: " + echo(*answer) : "the device did not answer";
}

// Why a read gave no value, with every answer that came.
std::string readFailure(const std::string& read, const std::vector<std::string>& answers)
{
    if (answers.empty())
        return "the device did not answer the " + read;
    std::string shown;
    for (const auto& answer : answers)
        shown += (shown.empty() ? "" : " ") + echo(answer);
    return "the device answered the " + read + " wrongly: " + shown;
}

std::vector<std::string> asList(const std::optional<std::string>& answer)
{
    return answer ? std::vector<std::string>{*answer} : std::vector<std::string>{};
}

std::string padded(std::string_view text, std::size_t width)
{
    std::string out(text);
    if (out.size() < width)
        out.append(width - out.size(), ' ');
    return out;
}

std::string rightAligned(const std::string& text, std::size_t width)
{
    return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

std::string formatFixed(double value, int decimals)
{
    char buffer[64];
    const auto [end, ec] =
        std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, decimals);
    return ec == std::errc() ? std::string(buffer, end) : std::string("?");
}

// The device's texts may hold bytes that are not UTF-8; they are replaced, never thrown over.
std::string dump(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string writtenSoFar(std::size_t done, std::size_t total)
{
    if (done == total)
        return "all " + std::to_string(total) + " settings were written";
    return std::to_string(done) + " of " + std::to_string(total) +
           " settings written; the others were not";
}

// Everything one command needs.
struct Context
{
    const Options& options;
    std::ostream& out;
    ErrorStream& err;

    int interrupted(const std::string& what)
    {
        err.line("interrupted" + (what.empty() ? std::string() : "; " + what));
        return kExitInterrupted;
    }
};

// Connects, or reports why not; returns the exit code of a failed connection. The built-in
// simulated device, for --demo, lives as long as the command.
std::optional<int> connect(Context& c, DeviceSession& session,
                           std::unique_ptr<sim::DeviceSimulator>& simulator)
{
    PortChoice ports;
    if (c.options.demo) {
        simulator = std::make_unique<sim::DeviceSimulator>();
        if (!simulator->start()) {
            c.err.line("could not start the built-in simulated device");
            return kExitFailed;
        }
        ports = PortChoice::only(simulator->portPath());
    } else if (c.options.port) {
        ports = PortChoice::only(*c.options.port);
    }
    const InterruptHook wake([&session] { session.interruptWait(); });
    session.open(ports);
    if (interruptRequested())
        session.interruptWait();
    // The search ends by itself when it finds nothing, so the wait needs no limit of its own.
    while (!session.waitForConnection(std::chrono::hours(1))) {
        if (interruptRequested())
            return c.interrupted("");
        if (session.state() == ConnectionState::Disconnected)
            break;
    }
    if (session.state() == ConnectionState::Connected)
        return std::nullopt;
    c.err.line("no device found; ports tried:");
    const auto report = session.searchReport();
    if (report.empty()) {
        c.err.raw("  no serial port carries \"" + std::string(DeviceSession::productWord()) +
                  "\" (" + std::to_string(DeviceSession::machinePortCount()) +
                  " serial ports on this machine); name one with --port PATH\n");
    }
    std::size_t width = 0;
    for (const auto& row : report)
        width = std::max(width, row.path.size());
    for (const auto& row : report)
        c.err.raw("  " + row.path + std::string(width - row.path.size() + 2, ' ') + row.reason +
                  "\n");
    return kExitNoDevice;
}

int runPorts(Context& c)
{
    std::vector<std::string> paths;
    if (c.options.port)
        paths.push_back(*c.options.port);
    for (auto& path : DeviceSession::machinePorts())
        if (path != c.options.port)
            paths.push_back(std::move(path));

    Json entries = Json::array();
    for (const auto& path : paths) {
        const bool marked = path.find(DeviceSession::productWord()) != std::string::npos;
        const bool given = path == c.options.port;
        if (c.options.json)
            entries.push_back({{"path", path}, {"dravinel", marked}, {"given", given}});
        else
            c.out << (marked ? "* " : "  ") << path << (given ? "  (--port)" : "") << '\n';
    }
    if (c.options.json)
        c.out << dump({{"ports", entries}}) << '\n';
    return kExitOk;
}

int runInfo(Context& c, DeviceSession& device)
{
    std::optional<std::string> answer;
    // An empty revision names no firmware: a backup could not be matched to it.
    const auto revision = device.readRevision(&answer);
    if (!revision || revision->empty()) {
        c.err.line(readFailure("revision request", asList(answer)));
        return kExitFailed;
    }
    const Reading battery = device.readBattery();
    if (!battery.ok()) {
        c.err.line(readFailure("battery read", battery.kind == Reading::Kind::WrongReply
                                                   ? std::vector<std::string>{battery.answer}
                                                   : std::vector<std::string>{}));
        return kExitFailed;
    }
    if (interruptRequested())
        return c.interrupted("");
    const std::uint16_t raw = battery.value;
    const double volts = DeviceSession::batteryVolts(raw);
    if (c.options.json) {
        c.out << dump({{"revision", *revision},
                       {"battery_raw", raw},
                       {"battery_volts", std::round(volts * 100) / 100}})
              << '\n';
    } else {
        c.out << padded("revision", 10) << *revision << '\n'
              << padded("battery", 10) << formatFixed(volts, 2) << " V (raw " << raw << ")\n";
    }
    return kExitOk;
}

int runGet(Context& c, DeviceSession& device)
{
    std::vector<std::string> answers;
    const auto data = device.readSettings(&answers);
    if (!data) {
        c.err.line(readFailure("settings read", answers));
        return kExitFailed;
    }
    if (interruptRequested())
        return c.interrupted("");
    Json json = Json::object();
    for (const auto& info : kSettings) {
        json[std::string(info.jsonKey)] = data->get(info.id);
        if (!c.options.json)
            c.out << padded(info.cliName, kNameWidth) << data->get(info.id) << '\n';
    }
    if (c.options.json)
        c.out << dump(json) << '\n';
    return kExitOk;
}

// The keep-alive read is off while writing, so that its answer cannot be mistaken for an echo;
// the first one would come 3 s after the connection, long after this is turned off.
int runSet(Context& c, DeviceSession& device, const std::vector<Assignment>& assignments)
{
    device.enableKeepalive(false);
    Json json = Json::object();
    int result = kExitOk;
    std::size_t done = 0;
    // Checked between writes only: a write in flight is never cut short.
    for (; done < assignments.size() && !interruptRequested(); ++done) {
        const auto& [setting, value] = assignments[done];
        const WriteResult written = device.write(setting->id, value);
        if (!written.confirmed) {
            std::string message = std::string(setting->cliName) + "=" + std::to_string(value) +
                                  " was not confirmed: " + cameBack(written.answer);
            if (done + 1 < assignments.size())
                message += "; the remaining writes were not attempted";
            c.err.line(message);
            result = kExitFailed;
            break;
        }
        json[std::string(setting->jsonKey)] = value;
        if (!c.options.json)
            c.out << padded(setting->cliName, kNameWidth) << padded(std::to_string(value), 7)
                  << "confirmed\n";
    }
    if (c.options.json)
        c.out << dump(json) << '\n';
    // A signal during the last write still ends the command as interrupted, as a script expects.
    if (result == kExitOk && interruptRequested())
        result = c.interrupted(writtenSoFar(done, assignments.size()));
    return result;
}

int runBackup(Context& c, DeviceSession& device, const std::string& target)
{
    std::vector<std::string> answers;
    const auto data = device.readSettings(&answers);
    if (!data) {
        c.err.line(readFailure("settings read", answers) + "; nothing was saved");
        return kExitFailed;
    }
    if (interruptRequested())
        return c.interrupted("nothing was saved");
    const std::string revision = device.revision().value_or("???");
    if (c.options.file == kStandardStream) {
        // The backup itself is the output: nothing else may go with it.
        c.out << formatBackup(revision, *data);
        return kExitOk;
    }
    if (const auto failure = replaceFile(target, formatBackup(revision, *data))) {
        c.err.line("cannot save the backup: " + describeFileError(*failure));
        return kExitFailed;
    }
    if (c.options.json) {
        Json json = {{"file", c.options.file}, {"revision", revision}};
        for (const auto& info : kSettings)
            json[std::string(info.jsonKey)] = data->get(info.id);
        c.out << dump(json) << '\n';
    } else {
        c.out << "revision " << revision << " and 6 settings saved to " << c.options.file << '\n';
    }
    return kExitOk;
}

std::string restoreVerdict(const RestoreRow& row)
{
    std::string verdict = row.write == RestoreRow::Write::Confirmed ? "yes"
                          : row.write == RestoreRow::Write::NotConfirmed
                              ? "NO (" + cameBack(row.answer) + ")"
                              : "not sent";
    if (row.putBack == RestoreRow::PutBack::PutBack)
        verdict += ", put back";
    else if (row.putBack == RestoreRow::PutBack::NotPutBack)
        verdict += ", NOT put back";
    return verdict;
}

void printRestore(Context& c, const RestoreReport& report)
{
    if (c.options.json) {
        Json json = {{"file", c.options.file}};
        for (const auto& row : report.rows) {
            const bool sent = row.write != RestoreRow::Write::NotSent;
            const bool changed = row.putBack != RestoreRow::PutBack::NotNeeded;
            json[std::string(settingInfo(row.setting).jsonKey)] = {
                {"before", row.before},
                {"written", sent ? Json(row.wanted) : Json(nullptr)},
                {"attempted", sent},
                {"confirmed", row.write == RestoreRow::Write::Confirmed},
                {"put_back",
                 changed ? Json(row.putBack == RestoreRow::PutBack::PutBack) : Json(nullptr)}};
        }
        c.out << dump(json) << '\n';
        return;
    }
    c.out << padded("setting", kNameWidth) << "before  written  confirmed\n";
    for (const auto& row : report.rows) {
        // A value never sent was not written: its column stays empty.
        const bool sent = row.write != RestoreRow::Write::NotSent;
        c.out << padded(settingInfo(row.setting).cliName, kNameWidth)
              << rightAligned(std::to_string(row.before), 6)
              << rightAligned(sent ? std::to_string(row.wanted) : "-", 9) << "  "
              << restoreVerdict(row) << '\n';
    }
}

// Why a restore failed at a write, and what became of the ones written before it.
std::string restoreFailure(const RestoreReport& report)
{
    const std::size_t earlier = *report.failedAt;
    const RestoreRow& failedRow = report.rows[earlier];
    const std::string failed(settingInfo(failedRow.setting).cliName);
    std::string message = "restore failed at " + failed + "; ";
    std::string notPutBack;
    for (std::size_t i = 0; i < earlier; ++i)
        if (report.rows[i].putBack == RestoreRow::PutBack::NotPutBack)
            notPutBack += (notPutBack.empty() ? "" : ", ") +
                          std::string(settingInfo(report.rows[i].setting).cliName);
    if (earlier == 0)
        message += "nothing was written before it";
    else if (notPutBack.empty())
        message += "the " + std::to_string(earlier) + " setting" + (earlier == 1 ? "" : "s") +
                   " written before it " + (earlier == 1 ? "was" : "were") + " put back";
    else
        message += "of the " + std::to_string(earlier) + " settings written before it, " +
                   notPutBack + " could not be put back";
    if (failedRow.putBack == RestoreRow::PutBack::NotPutBack)
        message += "; " + failed + " itself could not be put back";
    return message;
}

// A restore writes all six settings or, if one is not confirmed, puts back every value it wrote,
// so the device is never left holding half a backup. Only an interruption leaves it half written,
// as asked: nothing more is sent after Ctrl-C.
int runRestore(Context& c, DeviceSession& device, const Backup& backup)
{
    const std::string revision = device.revision().value_or("???");
    if (!c.options.force && backup.revision != revision) {
        c.err.line(c.options.file +
                   (backup.revision ? " is a backup of firmware revision " + echo(*backup.revision)
                                    : " does not say which firmware revision it is from") +
                   ", the device has revision " + echo(revision) +
                   "; nothing was written (--force restores it anyway)");
        return kExitBadInput;
    }
    device.enableKeepalive(false);
    RestoreValues values;
    for (const auto& info : kSettings)
        values[settingIndex(info.id)] = backup.settings.get(info.id);
    const RestoreReport report =
        restoreSettings(device, values, [] { return interruptRequested(); });
    switch (report.end) {
    case RestoreReport::End::ReadFailed:
        c.err.line(readFailure("settings read", report.readAnswers) + "; nothing was written");
        return kExitFailed;
    case RestoreReport::End::Done:
    case RestoreReport::End::Interrupted:
    case RestoreReport::End::WriteFailed:
    case RestoreReport::End::DeviceLost:
        break;
    }
    if (!report.rows.empty())
        printRestore(c, report);
    if (report.end == RestoreReport::End::DeviceLost) {
        c.err.line("device lost");
        return kExitFailed;
    }
    const auto sent = static_cast<std::size_t>(std::ranges::count_if(
        report.rows, [](const auto& row) { return row.write != RestoreRow::Write::NotSent; }));
    if (report.end != RestoreReport::End::WriteFailed && interruptRequested())
        return c.interrupted(writtenSoFar(sent, kSettings.size()));
    if (report.end != RestoreReport::End::WriteFailed)
        return kExitOk;
    const RestoreRow& failedRow = report.rows[*report.failedAt];
    c.err.line(std::string(settingInfo(failedRow.setting).cliName) + "=" +
               std::to_string(failedRow.wanted) +
               " was not confirmed: " + cameBack(failedRow.answer));
    c.err.line(restoreFailure(report));
    return kExitFailed;
}

int runMonitorMotor(Context& c, DeviceSession& device)
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
    int result = kExitOk;
    // Ends too when the output cannot be written: nobody would see the rest.
    while (done < 2 && (!c.options.count || samples < *c.options.count) && c.out) {
        EventQueue::Event event;
        const auto wait = events.next(Clock::now() + kMotorSilence, event);
        if (wait == EventQueue::Wait::Interrupted)
            break;
        if (wait == EventQueue::Wait::Timeout) {
            c.err.line("the motor test sent nothing for " + std::to_string(kMotorSilence.count()) +
                       " s");
            result = kExitFailed;
            break;
        }
        if (event.name == ConnStateChangedEvent) {
            // The engine ends the connection as soon as the line hangs up.
            c.err.line("device lost");
            result = kExitFailed;
            break;
        }
        const bool isDone = event.name == MonitorMotorDoneEvent;
        const auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(event.at - start).count();
        if (isDone)
            ++done;
        else
            ++samples;
        if (c.options.json)
            c.out << dump({{"ms", ms}, {isDone ? "done" : "current", event.value}});
        else
            c.out << rightAligned(std::to_string(ms), 6) << " ms  "
                  << padded(isDone ? "done" : "current", 9) << event.value;
        c.out << '\n' << std::flush;
    }
    return result;
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

int runMonitorPoll(Context& c, DeviceSession& device, bool infraRed)
{
    const char* label = infraRed ? "ir" : "position";
    // Only the connection's end is posted to this queue; otherwise it waits for the tick or Ctrl-C.
    EventQueue ticks(EventQueue::Subscriptions{{ConnStateChangedEvent, "state"}});
    const auto lost = [&] {
        c.err.line("device lost");
        return kExitFailed;
    };
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
                result = lost();
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
        const std::uint16_t value = reading.value;
        const auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
        if (c.options.json)
            c.out << dump({{"ms", ms}, {label, value}});
        else
            c.out << rightAligned(std::to_string(ms), 6) << " ms  " << padded(label, 9) << value;
        c.out << '\n' << std::flush;
    }
    device.enableKeepalive(true);
    return result;
}

int runSaveExit(Context& c, DeviceSession& device)
{
    if (interruptRequested())
        return c.interrupted("save-and-exit was not sent");
    device.saveAndExit();
    if (c.options.json)
        c.out << dump({{"sent", "save-exit"}}) << '\n';
    else
        c.out << "save-and-exit sent; the device stores its settings and leaves configuration "
                 "mode\n";
    return kExitOk;
}

int run(const Options& options, std::ostream& out, ErrorStream& err)
{
    Context c{options, out, err};
    const auto bad = [&](const std::string& message) {
        err.line(message);
        return kExitBadInput;
    };

    // Every check of the input comes before the connection: bad input sends nothing at all.
    std::vector<Assignment> assignments;
    Backup backup;
    std::string target;
    switch (options.command) {
    case Command::Ports:
        return runPorts(c);
    case Command::Set: {
        std::string error;
        auto parsed = parseAssignments(options.assignments, error);
        if (!parsed)
            return bad(error);
        assignments = std::move(*parsed);
        break;
    }
    case Command::Backup:
        if (options.file == kStandardStream)
            break;
        if (const auto failure = resolveReplaceTarget(options.file, target))
            return bad("cannot save a backup there: " + describeFileError(*failure));
        break;
    case Command::Restore: {
        std::string text;
        if (options.file == kStandardStream) {
            if (!readStandardInput(text))
                return bad("cannot restore: standard input is larger than " +
                           std::to_string(kLargestBackupFile) + " bytes");
        } else if (const auto failure = readSmallFile(options.file, kLargestBackupFile, text)) {
            return bad("cannot restore: " + describeFileError(*failure));
        }
        std::string error;
        auto parsed = parseBackup(text, error);
        if (!parsed)
            return bad(options.file + ": " + error);
        backup = std::move(*parsed);
        break;
    }
    case Command::Info:
    case Command::Get:
    case Command::Monitor:
    case Command::SaveExit:
    case Command::SetupAccess:
        break;
    }

    std::unique_ptr<sim::DeviceSimulator> simulator;
    DeviceSession device;
    if (auto failed = connect(c, device, simulator))
        return *failed;
    switch (options.command) {
    case Command::Ports:
    case Command::SetupAccess: // runCli's
        break;
    case Command::Info:
        return runInfo(c, device);
    case Command::Get:
        return runGet(c, device);
    case Command::Set:
        return runSet(c, device, assignments);
    case Command::Backup:
        return runBackup(c, device, target);
    case Command::Restore:
        return runRestore(c, device, backup);
    case Command::SaveExit:
        return runSaveExit(c, device);
    case Command::Monitor:
        if (options.monitor == MonitorKind::Motor)
            return runMonitorMotor(c, device);
        return runMonitorPoll(c, device, options.monitor == MonitorKind::IR);
    }
    return kExitOk;
}

} // namespace

int runCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    ErrorStream errors(err);
    const ParsedArguments parsed = parseArguments(args);
    int code = kExitOk;
    if (!parsed.options && !parsed.error.empty()) {
        errors.line(parsed.error);
        return kExitBadInput;
    }
    if (!parsed.options) {
        out << parsed.text;
    } else if (parsed.options->command == Command::SetupAccess) {
        code = runSetupAccess(parsed.options->setupAccess, out, err);
    } else {
        clearInterrupt();
        const LogRouting logging(errors, parsed.options->verbosity);
        code = run(*parsed.options, out, errors);
    }
    // The result is what a script runs the command for: losing it is a failure.
    errno = 0;
    out.flush();
    if (!out) {
        const int error = errno;
        errors.line("could not write the output" +
                    (error != 0 ? ": " + std::string(std::strerror(error)) : std::string()));
        return code == kExitOk ? kExitFailed : code;
    }
    return code;
}

} // namespace dravinel::cli
