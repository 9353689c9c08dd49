#pragma once

#include "cli/Arguments.h"

// backup and restore: the six settings to a file and back, all or nothing.

namespace dravinel::cli {

void addBackupCommands(CLI::App& app, Options& options);

} // namespace dravinel::cli
