#pragma once

#include "cli/SetupAccess.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// The command line's arguments, declared once with CLI11, which also writes the usage from the
// declarations. Global options may stand before or after the command. Each group of commands
// declares its own (SettingsCommands.h, BackupCommands.h, MonitorCommands.h); the command's CLI11
// callback hands it its group's function to run.

namespace CLI {
class App;
}

namespace dravinel::cli {

struct Context;
// A command's function: its exit code.
using Runner = int (*)(Context&);

enum class MonitorKind { Motor, IR, Position };

struct Options
{
    std::optional<std::string> port;
    bool demo = false;
    bool json = false;
    int verbosity = 0;                    // the number of -v
    Runner run = nullptr;                 // set by the chosen command's callback
    std::vector<std::string> assignments; // set: NAME=VALUE, in order
    std::string file;                     // backup, restore
    bool force = false;                   // restore: even from another firmware revision
    MonitorKind monitor = MonitorKind::Motor;
    std::optional<std::uint32_t> count; // monitor --count N
    SetupAccessOptions setupAccess;
};

struct ParsedArguments
{
    std::optional<Options> options; // a command to run
    std::string text;               // else the usage or version to print, and exit 0
    std::string error;              // else one line saying what is wrong, for exit 2
};

// A command's own check of its arguments failed; what() is the one line for exit code 2.
struct ArgumentError : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

ParsedArguments parseArguments(const std::vector<std::string>& args);

// Declares a command whose callback, once it is parsed, makes run the function to run.
CLI::App* addCommand(CLI::App& app, Options& options, const char* name, const char* description,
                     Runner run);

} // namespace dravinel::cli
