#include "support/Converter.h"

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>

// The Converter's decoders on any input: hex text, base64 text, and the bounded readers with
// indices taken from the input's first bytes.

using namespace dravinel;

namespace {

std::int32_t indexFrom(const std::uint8_t* p)
{
    // Small and negative indices are the interesting ones; keep most near the buffer.
    return static_cast<std::int32_t>(static_cast<std::int16_t>(p[0] | (p[1] << 8)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Converter::initialize();
    const Converter& converter = Converter::getInstance();
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Bytes bytes(data, data + size);

    // Hex: valid hex text survives the round trip (in lowercase).
    const Bytes decoded = converter.byteStringToBytes(text);
    bool allHex = size % 2 == 0;
    for (char c : text)
        allHex = allHex && std::isxdigit(static_cast<unsigned char>(c));
    if (allHex) {
        std::string lower = text;
        for (char& c : lower)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (converter.bytesToByteString(decoded) != lower)
            std::abort();
    }
    if (converter.byteStringToBytes(converter.bytesToByteString(bytes)) != bytes)
        std::abort();

    (void)Converter::base64DataFromString(text);
    (void)converter.bytesToPrintableString(bytes);
    (void)converter.byteStringToPrintableString(text);
    (void)converter.urlEncodeValue(text);

    if (size >= 4) {
        const std::int32_t a = indexFrom(data);
        const std::int32_t b = indexFrom(data + 2);
        const Bytes rest(data + 4, data + size);
        const std::string s = Converter::getString(rest, a, b);
        const std::string latin = Converter::getLatin1String(rest, a, b);
        // Both read Latin-1 into UTF-8: at most two bytes a byte, and the same text wherever the
        // whole range lies in the buffer.
        if (s.size() > 2 * rest.size() || latin.size() > 2 * rest.size())
            std::abort();
        const auto inside = [&](std::int32_t i) {
            return i >= 0 && static_cast<std::size_t>(i) < rest.size();
        };
        if (a <= b && inside(a) && inside(b) && s != latin)
            std::abort();
        const auto u32 = Converter::getUInt32(rest, a);
        if (u32 && (a < 0 || static_cast<std::size_t>(a) + 4 > rest.size()))
            std::abort();
        const auto u8 = Converter::getUInt8(rest, b);
        if (u8 && (b < 0 || static_cast<std::size_t>(b) >= rest.size()))
            std::abort();
    }
    return 0;
}
