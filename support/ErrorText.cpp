#include "support/ErrorText.h"

#include <array>
#include <cstring>

namespace dravinel {

namespace {

// strerror_r comes in two forms: the GNU one returns the text (which may not be in the buffer),
// the XSI one returns 0 and fills the buffer. Whichever the C library declares is picked here.
[[maybe_unused]] const char* pickText(const char* text, const char*)
{
    return text;
}

[[maybe_unused]] const char* pickText(int result, const char* buffer)
{
    return result == 0 ? buffer : nullptr;
}

} // namespace

std::string errorText(int error)
{
    std::array<char, 256> buffer{};
    const char* text = pickText(strerror_r(error, buffer.data(), buffer.size()), buffer.data());
    return text ? std::string(text) : "Unknown error " + std::to_string(error);
}

} // namespace dravinel
