#pragma once

#include "cli/Arguments.h"

// monitor: the motor test's current samples, or the ir or position sensor read once a second.

namespace dravinel::cli {

void addMonitorCommand(CLI::App& app, Options& options);

} // namespace dravinel::cli
