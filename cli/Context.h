#pragma once

#include "cli/Arguments.h"
#include "cli/Cli.h"
#include "cli/Output.h"
#include "device/DeviceSession.h"

#include <functional>
#include <ostream>
#include <string>

// Everything one command needs: its options, its two streams, and the connection, made only when
// the command asks for it, after its own checks of the input, so that bad input sends nothing.

namespace dravinel::cli {

struct Context
{
    const Options& options;
    std::ostream& out;
    ErrorStream& err;
    // The connected device; or nothing, the reason said, and the exit code in failure.
    std::function<DeviceSession*(int& failure)> connect;

    int interrupted(const std::string& what)
    {
        err.line("interrupted" + (what.empty() ? std::string() : "; " + what));
        return kExitInterrupted;
    }
};

// Runs command on the connected device, or gives the exit code of the failed connection.
template <typename Command> int withDevice(Context& c, Command&& command)
{
    int failure = kExitFailed;
    DeviceSession* device = c.connect(failure);
    return device != nullptr ? std::forward<Command>(command)(*device) : failure;
}

} // namespace dravinel::cli
