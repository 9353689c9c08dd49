#include "cli/Cli.h"

#include "cli/Arguments.h"
#include "cli/Context.h"
#include "cli/Interrupt.h"
#include "sim/DeviceSimulator.h"
#include "support/ErrorText.h"
#include "support/Logger.h"

#include <cerrno>
#include <memory>

namespace dravinel::cli {

namespace {

// The logger's levels for -v (warnings and errors) and -vv (everything).
constexpr std::int32_t kLogWarnings = 2;
constexpr std::int32_t kLogEverything = 4;

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

// Why the search found no device: each port tried and its reason.
void reportNoDevice(ErrorStream& err, const DeviceSession& session)
{
    err.line("no device found; ports tried:");
    const auto report = session.searchReport();
    if (report.empty()) {
        err.raw("  no serial port carries \"" + std::string(DeviceSession::productWord()) + "\" (" +
                std::to_string(DeviceSession::machinePortCount()) +
                " serial ports on this machine); name one with --port PATH\n");
    }
    std::size_t width = 0;
    for (const auto& row : report)
        width = std::max(width, row.path.size());
    for (const auto& row : report)
        err.raw("  " + row.path + std::string(width - row.path.size() + 2, ' ') + row.reason +
                "\n");
}

// The connection a command asks for, and the built-in simulated device of --demo, which lives
// as long as the command; the session goes first.
class Connection
{
public:
    explicit Connection(Context& c) : m_c(c) {}

    DeviceSession* open(int& failure)
    {
        PortChoice ports;
        if (m_c.options.demo) {
            m_simulator = std::make_unique<sim::DeviceSimulator>();
            if (!m_simulator->start()) {
                m_c.err.line("could not start the built-in simulated device");
                failure = kExitFailed;
                return nullptr;
            }
            ports = PortChoice::only(m_simulator->portPath());
        } else if (m_c.options.port) {
            ports = PortChoice::only(*m_c.options.port);
        }
        m_session = std::make_unique<DeviceSession>();
        DeviceSession& session = *m_session;
        const InterruptHook wake([&session] { session.interruptWait(); });
        session.open(ports);
        if (interruptRequested())
            session.interruptWait();
        // The search ends by itself when it finds nothing, so the wait needs no limit of its own.
        while (!session.waitForConnection(std::chrono::hours(1))) {
            if (interruptRequested()) {
                failure = m_c.interrupted("");
                return nullptr;
            }
            if (session.state() == ConnectionState::Disconnected)
                break;
        }
        if (session.state() == ConnectionState::Connected)
            return &session;
        reportNoDevice(m_c.err, session);
        failure = kExitNoDevice;
        return nullptr;
    }

private:
    Context& m_c;
    std::unique_ptr<sim::DeviceSimulator> m_simulator;
    std::unique_ptr<DeviceSession> m_session;
};

int run(const Options& options, std::ostream& out, ErrorStream& err)
{
    Context c{options, out, err, {}};
    Connection connection(c);
    c.connect = [&connection](int& failure) { return connection.open(failure); };
    return options.run(c);
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
                    (error != 0 ? ": " + errorText(error) : std::string()));
        return code == kExitOk ? kExitFailed : code;
    }
    return code;
}

} // namespace dravinel::cli
