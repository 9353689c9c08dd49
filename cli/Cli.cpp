#include "cli/Cli.h"

#include "cli/DeviceSession.h"
#include "cli/EventQueue.h"
#include "cli/Json.h"
#include "cli/Settings.h"
#include "protocol/Globals.h"
#include "serial/SerialCommunication.h"
#include "serial/serial.h"
#include "support/Logger.h"
#include "support/NotificationCenter.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

namespace dravinel::cli {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr const char* kProgram = "dravinel-cli";
// The device's raw battery reading in units per volt.
constexpr double kBatteryUnitsPerVolt = 111.0;
// The logger's levels for -v and -vv.
constexpr std::int32_t kLogInfo = 3;
constexpr std::int32_t kLogDebug = 4;
// The motor test sends a sample every few tens of milliseconds; this much silence means it ended
// or the device went away.
constexpr std::chrono::seconds kMotorSilence{5};
constexpr std::chrono::milliseconds kPollPeriod{DELAY_SCAN_CHECK};
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
    void raw(const std::string& text)
    {
        std::lock_guard lock(m_mutex);
        m_err << text << std::flush;
    }

private:
    std::mutex m_mutex;
    std::ostream& m_err;
};

// Routes the engine's log to the error stream for as long as the command runs, and silences it
// unless asked for; puts the logger back as it was afterwards.
class LogRouting
{
public:
    LogRouting(ErrorStream& err, int verbosity) : m_previousLevel(Logger::getInstance().getLevel())
    {
        Logger::getInstance().setLevel(verbosity == 0 ? 0 : verbosity == 1 ? kLogInfo : kLogDebug);
        Logger::getInstance().setSink([&err](const std::string& entry) { err.raw(entry); });
    }
    ~LogRouting()
    {
        Logger::getInstance().setSink({});
        Logger::getInstance().setLevel(m_previousLevel);
    }
    LogRouting(const LogRouting&) = delete;
    LogRouting& operator=(const LogRouting&) = delete;

private:
    std::int32_t m_previousLevel;
};

// Keeps the first frame the device sends after arm(), so that a write the device did not confirm
// can be reported with what came back instead. Made before the device manager, so it is the first
// observer and sees every frame before the transaction that waits for it can return: the answer
// to one write never shows up as the answer to the next.
class AnswerTap
{
public:
    AnswerTap()
    {
        m_token = NotificationCenter::defaultCenter().observe(ComOnIncomingFrame,
                                                              [this](const Notification& n) {
                                                                  auto data = n.bytes("data");
                                                                  std::lock_guard lock(m_mutex);
                                                                  if (m_armed && !m_first && data)
                                                                      m_first = std::move(*data);
                                                              });
    }
    ~AnswerTap() { NotificationCenter::defaultCenter().remove(m_token); }
    AnswerTap(const AnswerTap&) = delete;
    AnswerTap& operator=(const AnswerTap&) = delete;

    void arm()
    {
        std::lock_guard lock(m_mutex);
        m_armed = true;
        m_first.reset();
    }
    // The answer as printable text without its line ends, or nothing if none came.
    std::optional<std::string> answer() const
    {
        std::lock_guard lock(m_mutex);
        if (!m_first)
            return std::nullopt;
        std::string text;
        for (const auto byte : *m_first) {
            if (byte == END_1 || byte == END_2)
                continue;
            if (byte >= 0x20 && byte < 0x7F) {
                text += static_cast<char>(byte);
            } else {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(byte));
                text += escaped;
            }
        }
        return text;
    }

private:
    mutable std::mutex m_mutex;
    bool m_armed = false;
    std::optional<Bytes> m_first;
    NotificationCenter::Token m_token = 0;
};

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

std::optional<std::uint32_t> parseCount(std::string_view text)
{
    std::uint32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value == 0)
        return std::nullopt;
    return value;
}

std::string unconfirmedMessage(const Setting& setting, std::uint16_t value, const AnswerTap& tap)
{
    const auto answer = tap.answer();
    return "the device did not confirm " + std::string(setting.name) + "=" + std::to_string(value) +
           ": " + (answer ? "it answered \"" + *answer + "\"" : std::string("no answer"));
}

// Everything one command needs.
struct Context
{
    const Options& options;
    std::ostream& out;
    ErrorStream& err;
};

// Connects, or reports why not; returns the exit code of a failed connection.
std::optional<int> connect(Context& c, DeviceSession& session)
{
    switch (session.connect(c.options.port, c.options.demo)) {
    case DeviceSession::Result::Connected:
        return std::nullopt;
    case DeviceSession::Result::Interrupted:
        return kExitInterrupted;
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

    std::vector<JsonObject> entries;
    for (const auto& path : paths) {
        const bool marked = path.find(PRODUCT_WORD) != std::string::npos;
        const bool given = path == c.options.port;
        if (c.options.json) {
            entries.push_back(
                JsonObject().add("path", path).add("dravinel", marked).add("given", given));
        } else {
            c.out << (marked ? "* " : "  ") << path << (given ? "  (--port)" : "") << '\n';
        }
    }
    if (c.options.json)
        c.out << JsonObject().add("ports", entries).str() << '\n';
    return kExitOk;
}

int runInfo(Context& c, DeviceManager& device)
{
    const auto revision = device.readRevision();
    if (!revision) {
        c.err.line("the device did not answer the revision request");
        return kExitFailed;
    }
    const std::uint16_t raw = device.readVBatt();
    if (raw == VAL_UNDEF) {
        c.err.line("the device did not answer the battery read");
        return kExitFailed;
    }
    const double volts = raw / kBatteryUnitsPerVolt;
    if (c.options.json) {
        c.out << JsonObject()
                     .add("revision", *revision)
                     .add("battery_raw", static_cast<std::int64_t>(raw))
                     .addFixed("battery_volts", volts, 2)
                     .str()
              << '\n';
    } else {
        c.out << padded("revision", 10) << *revision << '\n'
              << padded("battery", 10) << formatFixed(volts, 2) << " V (raw " << raw << ")\n";
    }
    return kExitOk;
}

int runGet(Context& c, DeviceManager& device)
{
    const auto data = device.readSettings();
    if (!data) {
        c.err.line("the device did not answer the settings read");
        return kExitFailed;
    }
    JsonObject json;
    for (const auto& setting : settings()) {
        const std::uint16_t value = ((*data).*setting.get)();
        json.add(setting.key, static_cast<std::int64_t>(value));
        if (!c.options.json)
            c.out << padded(setting.name, kNameWidth) << value << '\n';
    }
    if (c.options.json)
        c.out << json.str() << '\n';
    return kExitOk;
}

// The keep-alive read is off while writing, so that its answer cannot be mistaken for an echo;
// the first one would come 3 s after the connection, long after this is turned off.
int runSet(Context& c, DeviceManager& device, AnswerTap& tap,
           const std::vector<Assignment>& assignments)
{
    device.enableKeepaliveCheck(false);
    JsonObject json;
    int result = kExitOk;
    for (std::size_t i = 0; i < assignments.size(); ++i) {
        const auto& [setting, value] = assignments[i];
        tap.arm();
        if (!(device.*setting->save)(value).confirmed) {
            std::string message = unconfirmedMessage(*setting, value, tap);
            if (i + 1 < assignments.size())
                message += "; the remaining writes were not attempted";
            c.err.line(message);
            result = kExitFailed;
            break;
        }
        json.add(setting->key, static_cast<std::int64_t>(value));
        if (!c.options.json)
            c.out << padded(setting->name, kNameWidth) << padded(std::to_string(value), 7)
                  << "confirmed\n";
    }
    if (c.options.json)
        c.out << json.str() << '\n';
    return result;
}

int runBackup(Context& c, DeviceManager& device, const std::string& file)
{
    const auto data = device.readSettings();
    if (!data) {
        c.err.line("the device did not answer the settings read");
        return kExitFailed;
    }
    const std::string revision = device.getRevision();
    // Written beside the target and renamed over it, so an earlier backup is never left half
    // overwritten.
    const std::string temporary = file + ".tmp";
    {
        std::ofstream stream(temporary, std::ios::trunc);
        stream << formatBackup(revision, *data);
        stream.close();
        if (!stream) {
            const int error = errno;
            c.err.line("cannot write " + temporary + ": " + std::strerror(error));
            std::remove(temporary.c_str());
            return kExitFailed;
        }
    }
    if (std::rename(temporary.c_str(), file.c_str()) != 0) {
        const int error = errno;
        c.err.line("cannot rename " + temporary + " to " + file + ": " + std::strerror(error));
        std::remove(temporary.c_str());
        return kExitFailed;
    }
    if (c.options.json) {
        JsonObject json;
        json.add("file", file).add("revision", revision);
        for (const auto& setting : settings())
            json.add(setting.key, static_cast<std::int64_t>(((*data).*setting.get)()));
        c.out << json.str() << '\n';
    } else {
        c.out << "revision " << revision << " and 6 settings saved to " << file << '\n';
    }
    return kExitOk;
}

int runRestore(Context& c, DeviceManager& device, AnswerTap& tap, const std::string& file,
               const Backup& backup)
{
    device.enableKeepaliveCheck(false);
    // The values before the restore are for the record; a failed read does not stop the restore.
    const auto before = device.readSettings();
    enum class Outcome { Confirmed, NotConfirmed, NotAttempted };
    std::array<Outcome, 6> outcomes;
    outcomes.fill(Outcome::NotAttempted);
    int result = kExitOk;
    std::string failure;
    for (std::size_t i = 0; i < settings().size() && result == kExitOk; ++i) {
        const auto& setting = settings()[i];
        tap.arm();
        if ((device.*setting.save)(backup.values[i]).confirmed) {
            outcomes[i] = Outcome::Confirmed;
        } else {
            outcomes[i] = Outcome::NotConfirmed;
            failure = tap.answer() ? "answered \"" + *tap.answer() + "\"" : "no answer";
            std::string message = unconfirmedMessage(setting, backup.values[i], tap);
            if (i + 1 < settings().size())
                message += "; the remaining writes were not attempted";
            c.err.line(message);
            result = kExitFailed;
        }
    }

    if (c.options.json) {
        JsonObject json;
        json.add("file", file);
        for (std::size_t i = 0; i < settings().size(); ++i) {
            const auto& setting = settings()[i];
            JsonObject entry;
            if (before)
                entry.add("before", static_cast<std::int64_t>(((*before).*setting.get)()));
            else
                entry.addNull("before");
            entry.add("written", static_cast<std::int64_t>(backup.values[i]))
                .add("attempted", outcomes[i] != Outcome::NotAttempted)
                .add("confirmed", outcomes[i] == Outcome::Confirmed);
            json.add(setting.key, entry);
        }
        c.out << json.str() << '\n';
        return result;
    }
    c.out << padded("setting", kNameWidth) << "before  written  confirmed\n";
    for (std::size_t i = 0; i < settings().size(); ++i) {
        const auto& setting = settings()[i];
        const std::string was = before ? std::to_string(((*before).*setting.get)()) : "?";
        std::string verdict = "not attempted";
        if (outcomes[i] == Outcome::Confirmed)
            verdict = "yes";
        else if (outcomes[i] == Outcome::NotConfirmed)
            verdict = "NO (" + failure + ")";
        c.out << padded(setting.name, kNameWidth) << rightAligned(was, 6)
              << rightAligned(std::to_string(backup.values[i]), 9) << "  " << verdict << '\n';
    }
    return result;
}

int runMonitorMotor(Context& c, DeviceManager& device)
{
    EventQueue events(
        EventQueue::Subscriptions{{MonitorMotorEvent, "value"}, {MonitorMotorDoneEvent, "value"}});
    // The keep-alive read would interleave with the test's stream; the app pauses it alike.
    device.enableKeepaliveCheck(false);
    const auto start = Clock::now();
    device.startMotorMonitoring();
    std::uint32_t samples = 0;
    int done = 0;
    int result = kExitOk;
    while (done < 2 && (!c.options.count || samples < *c.options.count)) {
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
        const bool isDone = event.name == MonitorMotorDoneEvent;
        const auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(event.at - start).count();
        if (isDone)
            ++done;
        else
            ++samples;
        if (c.options.json)
            c.out << JsonObject().add("ms", ms).add(isDone ? "done" : "current", event.value).str();
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
    EventQueue ticks(EventQueue::Subscriptions{});
    device.enableKeepaliveCheck(false);
    const auto start = Clock::now();
    int result = kExitOk;
    for (std::uint32_t n = 0; !c.options.count || n < *c.options.count; ++n) {
        // Paced from the start, so the readings keep their one-second rhythm.
        if (n > 0) {
            // Nothing is posted to this queue: it only waits for the tick or for Ctrl-C.
            EventQueue::Event none;
            if (ticks.next(start + n * kPollPeriod, none) == EventQueue::Wait::Interrupted)
                break;
        }
        if (interruptRequested())
            break;
        const std::uint16_t value = infraRed ? device.readIR() : device.readReedSensor();
        if (value == VAL_UNDEF) {
            c.err.line(std::string("the device did not answer the ") + label + " read");
            result = kExitFailed;
            break;
        }
        const auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
        if (c.options.json)
            c.out << JsonObject().add("ms", ms).add(label, static_cast<std::int64_t>(value)).str();
        else
            c.out << rightAligned(std::to_string(ms), 6) << " ms  " << padded(label, 9) << value;
        c.out << '\n' << std::flush;
    }
    device.enableKeepaliveCheck(true);
    return result;
}

int runSaveExit(Context& c, DeviceManager& device)
{
    device.saveAndExit();
    if (c.options.json)
        c.out << JsonObject().add("sent", "save-exit").str() << '\n';
    else
        c.out << "save-and-exit sent; the device stores its settings and leaves configuration "
                 "mode\n";
    return kExitOk;
}

bool readFile(const std::string& path, std::string& text, std::string& error)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        const int code = errno;
        error = "cannot read " + path + ": " + std::strerror(code);
        return false;
    }
    std::ostringstream buffer;
    buffer << stream.rdbuf();
    text = buffer.str();
    return true;
}

int run(const Options& options, std::ostream& out, ErrorStream& err)
{
    Context c{options, out, err};
    const auto bad = [&](const std::string& message) {
        err.line(message);
        return kExitBadInput;
    };
    const auto needArguments = [&](std::size_t count, const char* what) {
        return options.arguments.size() == count
                   ? std::optional<int>()
                   : std::optional<int>(bad(options.command + " takes " + what));
    };
    if (options.count && options.command != "monitor")
        return bad("--count belongs to monitor");

    // Every check of the input comes before the connection: bad input sends nothing at all.
    const std::string& command = options.command;
    std::vector<Assignment> assignments;
    std::optional<Backup> backup;
    if (command == "ports") {
        if (auto e = needArguments(0, "no arguments"))
            return *e;
        return runPorts(c);
    } else if (command == "info" || command == "get" || command == "save-exit") {
        if (auto e = needArguments(0, "no arguments"))
            return *e;
    } else if (command == "set") {
        std::string error;
        auto parsed = parseAssignments(options.arguments, error);
        if (!parsed)
            return bad(error);
        assignments = std::move(*parsed);
    } else if (command == "backup") {
        if (auto e = needArguments(1, "one FILE"))
            return *e;
    } else if (command == "restore") {
        if (auto e = needArguments(1, "one FILE"))
            return *e;
        std::string text;
        std::string error;
        if (!readFile(options.arguments[0], text, error))
            return bad(error);
        backup = parseBackup(text, error);
        if (!backup)
            return bad(options.arguments[0] + ": " + error);
    } else if (command == "monitor") {
        if (auto e = needArguments(1, "one of motor, ir, position"))
            return *e;
        const auto& kind = options.arguments[0];
        if (kind != "motor" && kind != "ir" && kind != "position")
            return bad("monitor takes motor, ir or position, not '" + kind + "'");
    } else {
        return bad("unknown command '" + command + "' (see --help)");
    }

    AnswerTap tap;
    DeviceSession session;
    if (auto failed = connect(c, session))
        return *failed;
    DeviceManager& device = session.device();
    if (command == "info")
        return runInfo(c, device);
    if (command == "get")
        return runGet(c, device);
    if (command == "set")
        return runSet(c, device, tap, assignments);
    if (command == "backup")
        return runBackup(c, device, options.arguments[0]);
    if (command == "restore")
        return runRestore(c, device, tap, options.arguments[0], *backup);
    if (command == "save-exit")
        return runSaveExit(c, device);
    if (options.arguments[0] == "motor")
        return runMonitorMotor(c, device);
    return runMonitorPoll(c, device, options.arguments[0] == "ir");
}

} // namespace

std::string usageText()
{
    return "Usage: dravinel-cli [--port PATH] [--demo] [--json] [-v|-vv] COMMAND [ARGS]\n"
           "\n"
           "Commands:\n"
           "  ports                      every serial port of the machine; those that carry "
           "\"Dravinel\" marked\n"
           "  info                       firmware revision and battery (raw reading and volts, "
           "raw / 111.0)\n"
           "  get                        the six settings\n"
           "  set NAME=VALUE [...]       write settings, each confirmed by the device's echo\n"
           "  monitor motor|ir|position [--count N]\n"
           "                             motor: runs the motor test and prints each current "
           "sample until the\n"
           "                             second done value (or N samples); ir/position: one "
           "reading per second\n"
           "  backup FILE                the six settings (and the revision) into a JSON file\n"
           "  restore FILE               write the six settings of a JSON file, each confirmed "
           "by its echo\n"
           "  save-exit                  tell the device to save and leave configuration mode\n"
           "\n"
           "Options:\n"
           "  --port PATH   try this port first, before the ports that carry \"Dravinel\"\n"
           "  --demo        talk to a simulated device inside this process\n"
           "  --json        print one JSON object (monitor: one object per line)\n"
           "  -v, -vv       log to standard error: information, or everything with the frames\n"
           "  -h, --help    show this text\n"
           "\n"
           "Settings: current-limit, ir-detection, positive-rotation, negative-rotation,\n"
           "motor-speed, cycle-timeout (minutes); values are whole numbers 0 to 65535.\n"
           "JSON keys are the same names with underscores.\n"
           "\n"
           "Exit codes: 0 done; 1 the device did not answer or confirm; 2 bad input, nothing\n"
           "sent; 3 no device found; 130 interrupted (Ctrl-C ends a monitor with 0).\n";
}

std::optional<Options> parseArguments(const std::vector<std::string>& args, std::string& error)
{
    Options options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--port" || arg == "--count") {
            if (i + 1 >= args.size()) {
                error = arg + " needs a value";
                return std::nullopt;
            }
            const std::string& value = args[++i];
            if (arg == "--port") {
                if (value.empty()) {
                    error = "--port needs a path";
                    return std::nullopt;
                }
                options.port = value;
            } else {
                options.count = parseCount(value);
                if (!options.count) {
                    error = "--count needs a whole number above 0, not '" + value + "'";
                    return std::nullopt;
                }
            }
        } else if (arg == "--demo") {
            options.demo = true;
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "-v") {
            options.verbosity = std::max(options.verbosity, 1);
        } else if (arg == "-vv") {
            options.verbosity = 2;
        } else if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            error = "unknown option '" + arg + "' (see --help)";
            return std::nullopt;
        } else if (options.command.empty()) {
            options.command = arg;
        } else {
            options.arguments.push_back(arg);
        }
    }
    if (options.demo && options.port) {
        error = "--demo and --port exclude each other";
        return std::nullopt;
    }
    if (options.command.empty() && !options.help) {
        error = "no command given (see --help)";
        return std::nullopt;
    }
    return options;
}

int runCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    ErrorStream errors(err);
    std::string error;
    const auto options = parseArguments(args, error);
    if (!options) {
        errors.line(error);
        return kExitBadInput;
    }
    if (options->help) {
        out << usageText();
        return kExitOk;
    }
    clearInterrupt();
    const LogRouting logging(errors, options->verbosity);
    return run(*options, out, errors);
}

} // namespace dravinel::cli
