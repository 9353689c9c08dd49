#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A growable byte buffer: one protocol frame, or any raw bytes read from or written to a port.

namespace dravinel {

using Bytes = std::vector<std::uint8_t>;

inline Bytes toBytes(std::string_view text)
{
    return Bytes(text.begin(), text.end());
}

inline std::string toText(const Bytes& bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

// Decodes bytes as ASCII: a buffer holding any byte above 0x7F gives the empty text, as the
// device model treats such a frame as carrying no text at all.
inline std::string asciiText(const Bytes& bytes)
{
    for (auto b : bytes)
        if (b > 0x7F)
            return {};
    return toText(bytes);
}

} // namespace dravinel
