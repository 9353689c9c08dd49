#pragma once

#include <string>
#include <string_view>

// Text from outside (an argument, a file name, a device's answer) as a message shows it: quoted,
// control bytes escaped, and cut short with its length said, so that neither a terminal nor a log
// is flooded or driven by what it echoes.

namespace dravinel::cli {

inline constexpr std::size_t kEchoLength = 40;

std::string echo(std::string_view text);

} // namespace dravinel::cli
