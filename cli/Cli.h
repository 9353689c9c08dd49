#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

// The command line front end as a library: the program's main() and the tests both call runCli.

namespace dravinel::cli {

// Exit codes.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;   // the device did not answer or confirm, or no output
inline constexpr int kExitBadInput = 2; // nothing was written to the device
inline constexpr int kExitNoDevice = 3; // the scan found no device
inline constexpr int kExitInterrupted = 130;

// Backups are a few hundred bytes; a file much larger is not one and is not read whole.
inline constexpr std::size_t kLargestBackupFile = std::size_t{1024} * 1024;

// Runs one command line (without the program name); returns the exit code. out gets only the
// result, err the error lines and, with -v, the log. A failed write to out is exit code 1.
int runCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace dravinel::cli
