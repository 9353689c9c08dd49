#include "protocol/PortAttempt.h"

namespace dravinel {

std::string describePortAttempt(const PortAttempt& attempt)
{
    switch (attempt.outcome) {
    case PortAttempt::Outcome::Answered:
        return "answered, but the connection was lost again";
    case PortAttempt::Outcome::NoAnswer:
        return "opened, but the device did not answer: check that it is switched on and that "
               "the cable is plugged in at both ends";
    case PortAttempt::Outcome::CouldNotOpen:
        break;
    }
    if (!attempt.error)
        return "could not be opened";
    return describePortError(attempt.path, *attempt.error);
}

} // namespace dravinel
