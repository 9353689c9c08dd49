#include "cli/Echo.h"

#include <cstdio>

namespace dravinel::cli {

std::string echo(std::string_view text)
{
    std::string shown = "'";
    for (const char c : text.substr(0, kEchoLength)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7F) {
            shown += c;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            shown += escaped;
        }
    }
    shown += "'";
    if (text.size() > kEchoLength)
        shown += "... (" + std::to_string(text.size()) + " characters)";
    return shown;
}

} // namespace dravinel::cli
