#include "cli/Arguments.h"

#include "cli/BackupCommands.h"
#include "cli/Context.h"
#include "cli/Echo.h"
#include "cli/MonitorCommands.h"
#include "cli/SettingsCommands.h"
#include "device/Settings.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <sstream>

namespace dravinel::cli {

namespace {

constexpr std::size_t kFooterWidth = 84;

constexpr const char* kExitCodes =
    R"(Exit codes: 0 done; 1 the device did not answer or confirm, or the output (or the
udev rule) could not be written; 2 bad input, nothing written to the device; 3 no device found;
130 interrupted by Ctrl-C or SIGTERM (a monitor ends with 0).)";

// The settings paragraph, from the table: its names, units and range.
std::string footer()
{
    std::string text = "Settings:";
    for (const auto& info : kSettings) {
        text += " " + std::string(info.cliName);
        if (!info.unit.empty())
            text += " (" + std::string(info.unit) + ")";
        text += &info == &kSettings.back() ? ";" : ",";
    }
    text += " values are whole numbers " + std::to_string(kSettingMin) + " to " +
            std::to_string(kSettingMax) +
            ". In JSON and backup files the same names are written with underscores.";
    std::string wrapped;
    std::size_t lineStart = 0;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const bool first = wrapped.size() == lineStart;
        if (!first && wrapped.size() - lineStart + 1 + word.size() > kFooterWidth) {
            wrapped += '\n';
            lineStart = wrapped.size();
        } else if (!first) {
            wrapped += ' ';
        }
        wrapped += word;
    }
    return wrapped + "\n\n" + kExitCodes;
}

// CLI11 quotes what it did not expect in full; a word longer than an echo is cut like one.
std::string shortened(const std::string& message)
{
    std::string result;
    std::istringstream words(message);
    for (std::string word; words >> word;) {
        if (!result.empty())
            result += ' ';
        result += word.size() > kEchoLength ? echo(word) : word;
    }
    return result;
}

// The line for exit code 2; or, for --help and --version, nothing and their text in text.
std::string parseFailure(CLI::App& app, const CLI::ParseError& e, std::string& text)
{
    std::ostringstream out;
    std::ostringstream ignored;
    if (app.exit(e, out, ignored) == 0) {
        text = out.str();
        return {};
    }
    // CLI11 reports a word that names no command as a missing one.
    if (app.get_subcommands().empty()) {
        for (const auto& word : app.remaining()) {
            if (!word.starts_with('-'))
                return "unknown command " + echo(word) + " (see --help)";
        }
    }
    return shortened(e.what()) + " (see --help)";
}

void addSetupAccessCommand(CLI::App& app, Options& options)
{
    auto* access = addCommand(
        app, options, "setup-access",
        "print the udev rule that lets the logged-in user open the device",
        [](Context& c) { return runSetupAccess(c.options.setupAccess, c.out, c.err.stream()); });
    auto* install = access->add_flag("--install", options.setupAccess.install,
                                     "install it in /etc/udev/rules.d and reload udev (with sudo)");
    access
        ->add_option("--rules-dir", options.setupAccess.rulesDir,
                     "install it in DIR instead, without reloading udev")
        ->type_name("DIR")
        ->needs(install);
}

} // namespace

CLI::App* addCommand(CLI::App& app, Options& options, const char* name, const char* description,
                     Runner run)
{
    auto* sub = app.add_subcommand(name, description);
    sub->callback([&options, run] { options.run = run; });
    return sub;
}

ParsedArguments parseArguments(const std::vector<std::string>& args)
{
    Options options;
    std::string port;

    CLI::App app{"Reads, writes, backs up and restores the settings of a Dravinel device, and\n"
                 "monitors its motor test and sensors.",
                 "dravinel-cli"};
    // Options of the program may follow the command too: "dravinel-cli get --json".
    app.fallthrough();
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("dravinel-cli ") + DRAVINEL_VERSION,
                         "show the program's version");
    app.set_help_flag("-h,--help", "show this text (after a command: the command's)");
    auto* portOption =
        app.add_option("--port", port, "the device's serial port; no other port is tried")
            ->type_name("PATH");
    app.add_flag("--demo", options.demo, "talk to a simulated device inside this program")
        ->excludes(portOption);
    app.add_flag("--json", options.json, "print one JSON object (monitor: one a line)");
    app.add_flag("-v", options.verbosity,
                 "warnings and errors on standard error; -vv: everything, frames too");

    // In the order the usage lists them.
    addSettingsCommands(app, options);
    addMonitorCommand(app, options);
    addBackupCommands(app, options);
    addSaveExitCommand(app, options);
    addSetupAccessCommand(app, options);
    app.footer(footer());

    // CLI11 takes the arguments last first.
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    ParsedArguments result;
    try {
        app.parse(reversed);
    } catch (const CLI::ParseError& e) {
        result.error = parseFailure(app, e, result.text);
        return result;
    } catch (const ArgumentError& e) {
        // Said after an empty --port, as a command's arguments come after the program's.
        result.error = e.what();
    }
    if (port.empty() && portOption->count() > 0)
        result.error = "--port needs a path";
    else if (!port.empty())
        options.port = port;
    if (result.error.empty())
        result.options = std::move(options);
    return result;
}

} // namespace dravinel::cli
