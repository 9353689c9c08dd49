#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

// The command line front end as a library: the program's main() and the tests both call runCli.

namespace dravinel::cli {

// Exit codes.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;   // the device did not answer or did not confirm
inline constexpr int kExitBadInput = 2; // nothing was sent to the device
inline constexpr int kExitNoDevice = 3; // the scan found no device
inline constexpr int kExitInterrupted = 130;

struct Options
{
    std::optional<std::string> port;
    bool demo = false;
    bool json = false;
    int verbosity = 0; // -v 1, -vv 2
    bool help = false;
    std::string command;
    std::vector<std::string> arguments; // the command's own, in order
    std::optional<std::uint32_t> count; // monitor --count N
};

// Global options may stand before or after the command. On failure returns nothing and sets
// error to one line.
std::optional<Options> parseArguments(const std::vector<std::string>& args, std::string& error);

std::string usageText();

// Runs one command line (without the program name); returns the exit code. stdout gets only the
// result, err the error lines and, with -v, the log.
int runCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace dravinel::cli
