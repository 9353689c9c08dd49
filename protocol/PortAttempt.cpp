#include "protocol/PortAttempt.h"

namespace dravinel {

namespace {

constexpr std::size_t kShownLength = 40;

// A device's answer as a technician reads it: quoted, no control bytes, never a flood.
std::string shown(const std::string& answer)
{
    std::string text = "'";
    for (const char c : answer.substr(0, kShownLength))
        text += static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c;
    text += "'";
    if (answer.size() > kShownLength)
        text += "... (" + std::to_string(answer.size()) + " characters)";
    return text;
}

} // namespace

std::string describePortAttempt(const PortAttempt& attempt)
{
    switch (attempt.outcome) {
    case PortAttempt::Outcome::Answered:
        return "answered, but the connection was lost again";
    case PortAttempt::Outcome::NoAnswer:
        if (attempt.answer)
            return "opened, but the device answered the revision request wrongly: " +
                   shown(*attempt.answer);
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
