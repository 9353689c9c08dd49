#pragma once

#include "serial/PortError.h"

#include <optional>
#include <string>

// The outcome of the scan's last attempt on one port, so that a front end can say why no device
// was found.

namespace dravinel {

struct PortAttempt
{
    enum class Outcome {
        Answered,     // opened, and the device answered the revision request
        CouldNotOpen, // error holds the failing call and its errno
        NoAnswer,     // opened, but no valid answer within the budget; answer holds what came
    };

    std::string path;
    Outcome outcome = Outcome::NoAnswer;
    std::optional<PortError> error;
    std::optional<std::string> answer; // without LF CR
};

// Why the port could not be used, in a technician's words; without the path.
std::string describePortAttempt(const PortAttempt& attempt);

} // namespace dravinel
