#include "cli/Arguments.h"

#include "cli/Echo.h"
#include "device/Settings.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
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

std::optional<std::uint32_t> parseCount(std::string_view text)
{
    std::uint32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value == 0)
        return std::nullopt;
    return value;
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

} // namespace

ParsedArguments parseArguments(const std::vector<std::string>& args)
{
    Options options;
    std::string port;
    std::string count;
    std::string monitorKind;

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

    const auto command = [&](const char* name, const char* description, Command id) {
        auto* sub = app.add_subcommand(name, description);
        sub->callback([&options, id] { options.command = id; });
        return sub;
    };
    command("ports", "the machine's serial ports, those carrying \"Dravinel\" marked *",
            Command::Ports);
    command("info", "firmware revision and battery (raw reading and volts)", Command::Info);
    command("get", "the six settings", Command::Get);
    command("set", "write settings, each confirmed by the device's echo", Command::Set)
        ->add_option("NAME=VALUE", options.assignments, "a setting and its new value")
        ->required();
    auto* monitor =
        command("monitor", "the motor test's current samples, or ir or position readings",
                Command::Monitor);
    monitor->add_option("WHAT", monitorKind, "motor (runs the test until done), ir or position")
        ->required()
        ->check(CLI::IsMember({"motor", "ir", "position"}));
    monitor->add_option("--count", count, "stop after N samples or readings")->type_name("N");
    command("backup", "save the revision and the six settings to a JSON file", Command::Backup)
        ->add_option("FILE", options.file,
                     "the backup file, replaced as a whole or not at all; - for standard output")
        ->required();
    auto* restore = command("restore", "write a backup's six settings: all, or none if one fails",
                            Command::Restore);
    restore->add_option("FILE", options.file, "a file written by backup; - for standard input")
        ->required();
    restore->add_flag("--force", options.force,
                      "restore a backup of another firmware revision, or of none");
    command("save-exit", "tell the device to store its settings and leave configuration mode",
            Command::SaveExit);
    auto* access =
        command("setup-access", "print the udev rule that lets the logged-in user open the device",
                Command::SetupAccess);
    auto* install = access->add_flag("--install", options.setupAccess.install,
                                     "install it in /etc/udev/rules.d and reload udev (with sudo)");
    access
        ->add_option("--rules-dir", options.setupAccess.rulesDir,
                     "install it in DIR instead, without reloading udev")
        ->type_name("DIR")
        ->needs(install);
    app.footer(footer());

    // CLI11 takes the arguments last first.
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    ParsedArguments result;
    try {
        app.parse(reversed);
    } catch (const CLI::ParseError& e) {
        std::ostringstream out;
        std::ostringstream ignored;
        if (app.exit(e, out, ignored) == 0) {
            result.text = out.str();
            return result;
        }
        result.error = shortened(e.what()) + " (see --help)";
        // CLI11 reports a word that names no command as a missing one.
        if (app.get_subcommands().empty()) {
            for (const auto& word : app.remaining()) {
                if (!word.starts_with('-')) {
                    result.error = "unknown command " + echo(word) + " (see --help)";
                    break;
                }
            }
        }
        return result;
    }
    if (!port.empty() || portOption->count() > 0) {
        if (port.empty()) {
            result.error = "--port needs a path";
            return result;
        }
        options.port = port;
    }
    if (options.command == Command::Monitor) {
        options.monitor = monitorKind == "motor" ? MonitorKind::Motor
                          : monitorKind == "ir"  ? MonitorKind::IR
                                                 : MonitorKind::Position;
        if (!count.empty() || monitor->count("--count") > 0) {
            options.count = parseCount(count);
            if (!options.count) {
                result.error = "--count needs a whole number above 0, not " + echo(count);
                return result;
            }
        }
    }
    result.options = std::move(options);
    return result;
}

} // namespace dravinel::cli
