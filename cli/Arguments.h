#pragma once

#include "cli/SetupAccess.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The command line's arguments, declared once with CLI11, which also writes the usage from the
// declarations. Global options may stand before or after the command.

namespace dravinel::cli {

enum class Command { Ports, Info, Get, Set, Monitor, Backup, Restore, SaveExit, SetupAccess };
enum class MonitorKind { Motor, IR, Position };

struct Options
{
    std::optional<std::string> port;
    bool demo = false;
    bool json = false;
    int verbosity = 0; // the number of -v
    Command command = Command::Ports;
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

ParsedArguments parseArguments(const std::vector<std::string>& args);

} // namespace dravinel::cli
