#pragma once

#include <string>

// The system's words for an errno value, safe to call from any thread (strerror shares one
// buffer between all of them).

namespace dravinel {

std::string errorText(int error);

} // namespace dravinel
