#pragma once

#include "cli/Arguments.h"

// The commands about the device and its settings: ports, info, get, set and save-exit.

namespace dravinel::cli {

// ports, info, get and set.
void addSettingsCommands(CLI::App& app, Options& options);
void addSaveExitCommand(CLI::App& app, Options& options);

} // namespace dravinel::cli
