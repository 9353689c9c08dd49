#include "cli/Cli.h"

#include "cli/Arguments.h"
#include "cli/Assignments.h"
#include "cli/DeviceSession.h"
#include "cli/Echo.h"
#include "cli/EventQueue.h"
#include "device/Backup.h"
#include "protocol/Globals.h"
#include "serial/serial.h"
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
// The device's raw battery reading in units per volt.
constexpr double kBatteryUnitsPerVolt = 111.0;
// The logger's levels for -v (warnings and errors) and -vv (everything).
constexpr std::int32_t kLogWarnings = 2;
constexpr std::int32_t kLogEverything = 4;
// The motor test sends a sample every few tens of milliseconds; this much silence means it ended
// or the device went away.
constexpr std::chrono::seconds kMotorSilence{5};
constexpr std::chrono::milliseconds kPollPeriod{DELAY_SCAN_CHECK};
// How long a failed read waits for the scan to report a lost line before it counts as unanswered.
constexpr std::chrono::milliseconds kLossReport{200};
constexpr std::size_t kNameWidth = 19;

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
        set_serial_message_sink([&err, verbosity](const std::string& message) {
            if (verbosity > 0)
                err.entry(message);
        });
    }
    ~LogRouting()
    {
        set_serial_message_sink({});
        Logger::getInstance().setSink({});
        Logger::getInstance().setLevel(m_previousLevel);
    }
    LogRouting(const LogRouting&) = delete;
    LogRouting& operator=(const LogRouting&) = delete;

private:
    std::int32_t m_previousLevel;
};

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

// Connects, or reports why not; returns the exit code of a failed connection.
std::optional<int> connect(Context& c, DeviceSession& session)
{
    switch (session.connect(c.options.port, c.options.demo)) {
    case DeviceSession::Result::Connected:
        return std::nullopt;
    case DeviceSession::Result::Interrupted:
        return c.interrupted("");
    case DeviceSession::Result::DemoFailed:
        c.err.line("could not start the built-in simulated device");
        return kExitFailed;
    case DeviceSession::Result::NoDevice:
        break;
    }
    c.err.line("no device found; ports tried:");
    for (const auto& line : session.noDeviceReport())
        c.err.raw("  " + line + "\n");
    return kExitNoDevice;
}

int runPorts(Context& c)
{
    std::vector<std::string> paths;
    if (c.options.port)
        paths.push_back(*c.options.port);
    for (auto& path : get_port_paths())
        if (path != c.options.port)
            paths.push_back(std::move(path));

    Json entries = Json::array();
    for (const auto& path : paths) {
        const bool marked = path.find(PRODUCT_WORD) != std::string::npos;
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

int runInfo(Context& c, DeviceManager& device)
{
    std::optional<std::string> answer;
    // An empty revision names no firmware: a backup could not be matched to it.
    const auto revision = device.readRevision(&answer);
    if (!revision || revision->empty()) {
        c.err.line(readFailure("revision request", asList(answer)));
        return kExitFailed;
    }
    // 65535 is the engine's "no value", whatever the device meant by it.
    const std::uint16_t raw = device.readVBatt(&answer);
    if (raw == VAL_UNDEF) {
        c.err.line(readFailure("battery read", asList(answer)));
        return kExitFailed;
    }
    if (interruptRequested())
        return c.interrupted("");
    const double volts = raw / kBatteryUnitsPerVolt;
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

int runGet(Context& c, DeviceManager& device)
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
int runSet(Context& c, DeviceManager& device, const std::vector<Assignment>& assignments)
{
    device.enableKeepaliveCheck(false);
    Json json = Json::object();
    int result = kExitOk;
    std::size_t done = 0;
    // Checked between writes only: a write in flight is never cut short.
    for (; done < assignments.size() && !interruptRequested(); ++done) {
        const auto& [setting, value] = assignments[done];
        const WriteResult written = device.save(setting->id, value);
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

int runBackup(Context& c, DeviceManager& device, const std::string& target)
{
    std::vector<std::string> answers;
    const auto data = device.readSettings(&answers);
    if (!data) {
        c.err.line(readFailure("settings read", answers) + "; nothing was saved");
        return kExitFailed;
    }
    if (interruptRequested())
        return c.interrupted("nothing was saved");
    const std::string revision = device.getRevision();
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

// A restore writes all six settings or, if one is not confirmed, puts back every value it wrote,
// so the device is never left holding half a backup. Only an interruption leaves it half written,
// as asked: nothing more is sent after Ctrl-C.
int runRestore(Context& c, DeviceManager& device, const Backup& backup)
{
    const std::string revision = device.getRevision();
    if (!c.options.force && backup.revision != revision) {
        c.err.line(c.options.file +
                   (backup.revision ? " is a backup of firmware revision " + echo(*backup.revision)
                                    : " does not say which firmware revision it is from") +
                   ", the device has revision " + echo(revision) +
                   "; nothing was written (--force restores it anyway)");
        return kExitBadInput;
    }
    device.enableKeepaliveCheck(false);
    // Read first: the values to put back if a write fails.
    std::vector<std::string> answers;
    const auto before = device.readSettings(&answers);
    if (!before) {
        c.err.line(readFailure("settings read", answers) + "; nothing was written");
        return kExitFailed;
    }

    enum class Step { NotAttempted, Confirmed, Failed };
    struct Row
    {
        Step step = Step::NotAttempted;
        std::string failure;
        std::optional<bool> putBack;
    };
    std::array<Row, kSettings.size()> rows;
    std::optional<std::size_t> failedAt;
    std::optional<std::size_t> interruptedAt;
    for (std::size_t i = 0; i < kSettings.size(); ++i) {
        if (interruptRequested()) {
            interruptedAt = i;
            break;
        }
        const auto& info = kSettings[i];
        const WriteResult written = device.save(info.id, backup.settings.get(info.id));
        if (written.confirmed) {
            rows[i].step = Step::Confirmed;
            continue;
        }
        rows[i].step = Step::Failed;
        rows[i].failure = cameBack(written.answer);
        failedAt = i;
        break;
    }
    // The setting that failed is put back too: the device may hold a value it did not confirm.
    // This runs to its end even after Ctrl-C, which would otherwise leave exactly the mix that
    // it repairs.
    if (failedAt) {
        for (std::size_t i = 0; i <= *failedAt; ++i) {
            const auto& info = kSettings[i];
            rows[i].putBack = device.save(info.id, before->get(info.id)).confirmed;
        }
    }

    if (c.options.json) {
        Json json = {{"file", c.options.file}};
        for (std::size_t i = 0; i < kSettings.size(); ++i) {
            const auto& info = kSettings[i];
            json[std::string(info.jsonKey)] = {
                {"before", before->get(info.id)},
                {"written", backup.settings.get(info.id)},
                {"attempted", rows[i].step != Step::NotAttempted},
                {"confirmed", rows[i].step == Step::Confirmed},
                {"put_back", rows[i].putBack ? Json(*rows[i].putBack) : Json(nullptr)}};
        }
        c.out << dump(json) << '\n';
    } else {
        c.out << padded("setting", kNameWidth) << "before  written  confirmed\n";
        for (std::size_t i = 0; i < kSettings.size(); ++i) {
            const auto& info = kSettings[i];
            const Row& row = rows[i];
            std::string verdict = row.step == Step::Confirmed ? "yes"
                                  : row.step == Step::Failed  ? "NO (" + row.failure + ")"
                                                              : "not attempted";
            if (row.putBack)
                verdict += *row.putBack ? ", put back" : ", NOT put back";
            c.out << padded(info.cliName, kNameWidth)
                  << rightAligned(std::to_string(before->get(info.id)), 6)
                  << rightAligned(std::to_string(backup.settings.get(info.id)), 9) << "  "
                  << verdict << '\n';
        }
    }

    if (!failedAt && interruptRequested())
        return c.interrupted(
            writtenSoFar(interruptedAt.value_or(kSettings.size()), kSettings.size()));
    if (!failedAt)
        return kExitOk;
    const std::string failed(kSettings[*failedAt].cliName);
    const std::size_t earlier = *failedAt;
    std::string message = "restore failed at " + failed + "; ";
    std::string earlierNotPutBack;
    for (std::size_t i = 0; i < earlier; ++i)
        if (!*rows[i].putBack)
            earlierNotPutBack +=
                (earlierNotPutBack.empty() ? "" : ", ") + std::string(kSettings[i].cliName);
    if (earlier == 0)
        message += "nothing was written before it";
    else if (earlierNotPutBack.empty())
        message += "the " + std::to_string(earlier) + " setting" + (earlier == 1 ? "" : "s") +
                   " written before it " + (earlier == 1 ? "was" : "were") + " put back";
    else
        message += "of the " + std::to_string(earlier) + " settings written before it, " +
                   earlierNotPutBack + " could not be put back";
    if (!*rows[earlier].putBack)
        message += "; " + failed + " itself could not be put back";
    c.err.line(failed + "=" + std::to_string(backup.settings.get(kSettings[earlier].id)) +
               " was not confirmed: " + rows[earlier].failure);
    c.err.line(message);
    return kExitFailed;
}

int runMonitorMotor(Context& c, DeviceManager& device)
{
    EventQueue events(EventQueue::Subscriptions{{MonitorMotorEvent, "value"},
                                                {MonitorMotorDoneEvent, "value"},
                                                {ConnStateChangedEvent, "state"}});
    // The keep-alive read would interleave with the test's stream; the app pauses it alike.
    device.enableKeepaliveCheck(false);
    const auto start = Clock::now();
    device.startMotorMonitoring();
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
    device.enableKeepaliveCheck(true);
    return result;
}

int runMonitorPoll(Context& c, DeviceManager& device, bool infraRed)
{
    const char* label = infraRed ? "ir" : "position";
    // Only the connection's end is posted to this queue; otherwise it waits for the tick or Ctrl-C.
    EventQueue ticks(EventQueue::Subscriptions{{ConnStateChangedEvent, "state"}});
    const auto lost = [&] {
        c.err.line("device lost");
        return kExitFailed;
    };
    device.enableKeepaliveCheck(false);
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
        const std::uint16_t value = infraRed ? device.readIR() : device.readReedSensor();
        EventQueue::Event ended;
        // A read cut by a hang-up fails at once; the scan reports the loss a moment later.
        if (value == VAL_UNDEF &&
            (device.getConnectionState() != ConnectionState::Connected ||
             ticks.next(Clock::now() + kLossReport, ended) == EventQueue::Wait::Event)) {
            result = lost();
            break;
        }
        if (value == VAL_UNDEF) {
            // The engine keeps no answer of these reads: the words claim no more than it knows.
            c.err.line(std::string("no ") + label + " reading came from the device");
            result = kExitFailed;
            break;
        }
        const auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
        if (c.options.json)
            c.out << dump({{"ms", ms}, {label, value}});
        else
            c.out << rightAligned(std::to_string(ms), 6) << " ms  " << padded(label, 9) << value;
        c.out << '\n' << std::flush;
    }
    device.enableKeepaliveCheck(true);
    return result;
}

int runSaveExit(Context& c, DeviceManager& device)
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
        if (const auto failure = resolveReplaceTarget(options.file, target))
            return bad("cannot save a backup there: " + describeFileError(*failure));
        break;
    case Command::Restore: {
        std::string text;
        if (const auto failure = readSmallFile(options.file, kLargestBackupFile, text))
            return bad("cannot restore: " + describeFileError(*failure));
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

    DeviceSession session;
    if (auto failed = connect(c, session))
        return *failed;
    DeviceManager& device = session.device();
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
