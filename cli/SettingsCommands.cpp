#include "cli/SettingsCommands.h"

#include "cli/Assignments.h"
#include "cli/Context.h"
#include "cli/Interrupt.h"

#include <CLI/CLI.hpp>

#include <cmath>

namespace dravinel::cli {

namespace {

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

int info(Context& c, DeviceSession& device)
{
    std::optional<std::string> answer;
    // An empty revision names no firmware: a backup could not be matched to it.
    const auto revision = device.readRevision(&answer);
    if (!revision || revision->empty()) {
        c.err.line(readFailure("revision request", answer ? std::vector<std::string>{*answer}
                                                          : std::vector<std::string>{}));
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

int get(Context& c, DeviceSession& device)
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
int set(Context& c, DeviceSession& device, const std::vector<Assignment>& assignments)
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

int runInfo(Context& c)
{
    return withDevice(c, [&c](DeviceSession& device) { return info(c, device); });
}

int runGet(Context& c)
{
    return withDevice(c, [&c](DeviceSession& device) { return get(c, device); });
}

// Every pair is checked before the connection: bad input sends nothing at all.
int runSet(Context& c)
{
    std::string error;
    const auto assignments = parseAssignments(c.options.assignments, error);
    if (!assignments) {
        c.err.line(error);
        return kExitBadInput;
    }
    return withDevice(c, [&](DeviceSession& device) { return set(c, device, *assignments); });
}

int runSaveExit(Context& c)
{
    return withDevice(c, [&c](DeviceSession& device) {
        if (interruptRequested())
            return c.interrupted("save-and-exit was not sent");
        device.saveAndExit();
        if (c.options.json)
            c.out << dump({{"sent", "save-exit"}}) << '\n';
        else
            c.out << "save-and-exit sent; the device stores its settings and leaves configuration "
                     "mode\n";
        return kExitOk;
    });
}

} // namespace

void addSettingsCommands(CLI::App& app, Options& options)
{
    addCommand(app, options, "ports",
               "the machine's serial ports, those carrying \"Dravinel\" marked *", runPorts);
    addCommand(app, options, "info", "firmware revision and battery (raw reading and volts)",
               runInfo);
    addCommand(app, options, "get", "the six settings", runGet);
    addCommand(app, options, "set", "write settings, each confirmed by the device's echo", runSet)
        ->add_option("NAME=VALUE", options.assignments, "a setting and its new value")
        ->required();
}

void addSaveExitCommand(CLI::App& app, Options& options)
{
    addCommand(app, options, "save-exit",
               "tell the device to store its settings and leave configuration mode", runSaveExit);
}

} // namespace dravinel::cli
