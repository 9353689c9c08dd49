#include "support/Converter.h"
#include "support/TextScan.h"

#include <gtest/gtest.h>

#include <numeric>
#include <tuple>

using namespace dravinel;

TEST(Converter, HexPrintableAndUrlText)
{
    const Converter& c = Converter::getInstance();
    Bytes all(256);
    std::iota(all.begin(), all.end(), 0);
    const std::string hex = c.bytesToByteString(all);
    EXPECT_EQ(hex.substr(0, 6) + hex.substr(506) + c.bytesToByteString({}), "000102fdfeff");
    EXPECT_EQ(c.byteStringToBytes(hex), all);
    // Hex pairs are read as strtol reads them (odd length: nothing); only a leading STX and a
    // final ETX are marked; URLs keep unreserved ASCII and the ASCII apostrophe.
    // clang-format off
    const std::pair<const char*, Bytes> toBytes[] = {
        {"abc", {}}, {"", {}}, {"0a0D", {0x0A, 0x0D}}, {"FF", {0xFF}}, {"zz", {0}}, {"1z", {1}},
        {"z1", {0}}, {"zz41", {0, 0x41}}, {"-1", {0xFF}}};
    const std::pair<Bytes, const char*> printable[] = {
        {{0x02, 0x41, 0x03}, "[STX]41[ETX]"}, {{0x03}, "[ETX]"}, {{0x02}, "[STX]"}, {{}, ""},
        {{0x03, 0x02}, "0302"}, {{0x41, 0x02, 0x03, 0x41}, "41020341"}, {{0xAB, 0x0c}, "ab0c"}};
    const std::pair<const char*, const char*> url[] = {
        {":/?#[]@", "%3A%2F%3F%23%5B%5D%40"}, {"!$&()*+,;=", "%21%24%26%28%29%2A%2B%2C%3B%3D"},
        {"\xE2\x80\x99", "%E2%80%99"}, {"it's", "it's"}, {"caf\xC3\xA9", "caf%C3%A9"},
        {"a b%", "a%20b%25"}, {"`{", "%60%7B"}, {"AZaz09-._~", "AZaz09-._~"}, {"", ""}};
    // clang-format on
    for (const auto& [text, bytes] : toBytes)
        EXPECT_EQ(c.byteStringToBytes(text), bytes) << text;
    for (const auto& [bytes, text] : printable)
        EXPECT_EQ(c.bytesToPrintableString(bytes), text) << c.bytesToByteString(bytes);
    EXPECT_FALSE(c.byteStringToPrintableString("024103").has_value()); // never gives a text
    for (const auto& [text, encoded] : url)
        EXPECT_EQ(c.urlEncodeValue(text), encoded) << text;
}

TEST(Converter, Base64DecodesLeniently)
{
    // Padding keeps the previous quad in unfilled slots ("Q=" alone is '@', after "QUJD" 'A');
    // only as many bytes are read as the text has UTF-16 units ("é" has 2 bytes, 1 unit).
    // clang-format off
    const std::pair<std::optional<std::string>, std::string> cases[] = {
        {"QUJD", "ABC"}, {"QUI=", "AB"}, {"QQ==", "A"}, {"AZaz09+/", "\x01\x96\xB3\xD3\xDF\xBF"},
        {"=", ""}, {"", ""}, {std::nullopt, ""}, {"QQ", ""}, {"QUJDQU", "ABC"},
        {"QU\r\nJ D", "ABC"}, {"Q!U*J\tD-", "ABC"}, {"QUJD=QUJD", "ABC"}, {"QUI=QUJD", "AB"},
        {"Q=", "@"}, {"QUJDQ=", "ABCA"}, {"\xC3\xA9QUJD", ""},
        {"\xF0\x9F\x98\x80\xF0\x9F\x98\x80QUJDQUJD", "ABC"}};
    // clang-format on
    for (const auto& [text, decoded] : cases)
        EXPECT_EQ(Converter::base64DataFromString(text), toBytes(decoded)) << text.value_or("-");
}

TEST(Converter, ReadersStopAtZeroAndGiveNothingOutsideTheBuffer)
{
    // getString spoils only when it runs off the end before a zero; getLatin1String needs the
    // whole range inside the buffer.
    const Bytes ab{'A', 'B', 0, 'C', 'D'}, high{0x80, 'a', 'f', 0xE9, 0, 'x'}, none;
    const auto get = Converter::getString, latin1 = Converter::getLatin1String;
    // clang-format off
    const std::tuple<decltype(get), const Bytes&, int, int, const char*> cases[] = {
        {get, ab, 0, 4, "AB"}, {get, ab, 0, 1, "AB"}, {get, ab, 1, 1, "B"}, {get, ab, 3, 4, "CD"},
        {get, ab, 4, 3, ""}, {get, ab, 0, 100, "AB"}, {get, ab, 3, 5, ""}, {get, ab, -1, 1, ""},
        {get, none, 0, 0, ""}, {get, ab, INT32_MAX - 1, INT32_MAX, ""},
        {get, high, 0, 3, "\xC2\x80" "af\xC3\xA9"}, {latin1, high, 0, 5, "\xC2\x80" "af\xC3\xA9"},
        {latin1, high, 1, 2, "af"}, {latin1, high, 5, 5, "x"}, {latin1, high, 5, 6, ""},
        {latin1, high, -1, 2, ""}, {latin1, high, 3, 2, ""}};
    // clang-format on
    for (const auto& [read, bytes, min, max, text] : cases)
        EXPECT_EQ(read(bytes, min, max), text)
            << (read == latin1 ? "latin1 " : "") << min << ".." << max;

    const Bytes number{0x78, 0x56, 0x34, 0x12, 0xAB};
    EXPECT_EQ(Converter::getUInt32(number, 0), 0x12345678u);
    EXPECT_EQ(Converter::getUInt32(number, 1), 0xAB123456u);
    EXPECT_EQ(Converter::getUInt32(Bytes(4, 0xFF), 0), 0xFFFFFFFFu);
    for (const std::int32_t index : {2, -1, INT32_MAX})
        EXPECT_FALSE(Converter::getUInt32(number, index).has_value()) << index;
    EXPECT_FALSE(Converter::getUInt32(none, 0).has_value());
    EXPECT_EQ(Converter::getUInt8(number, 4), 0xAB);
    EXPECT_FALSE(Converter::getUInt8(number, 5) || Converter::getUInt8(number, -1));
}

TEST(TextScan, LeadingIntSaturatesAndRemoveAllDropsEveryMatch)
{
    // clang-format off
    const std::pair<const char*, std::optional<std::int32_t>> ints[] = {
        {"42", 42}, {" \t\n-17x", -17}, {"+5", 5}, {"007", 7}, {"12 34", 12}, {"", {}}, {"-", {}},
        {"x1", {}}, {"+ 1", {}}, {"--1", {}}, {"\n\r", {}}, {"2147483647", INT32_MAX},
        {"2147483648", INT32_MAX}, {"-2147483648", INT32_MIN}, {"-2147483649", INT32_MIN},
        {"18446744073709551616", INT32_MAX}, {"-18446744073709551616", INT32_MIN}};
    const std::tuple<const char*, const char*, const char*> removals[] = {
        {"IR: 12\n\r", "IR: ", "12\n\r"}, {"IR: IR: 5", "IR: ", "5"}, {"abcabc", "bc", "aa"},
        {"aaa", "aa", "a"}, {"abab", "ab", ""}, {"x", "", "x"}, {"", "a", ""}, {"no", "yes", "no"}};
    // clang-format on
    for (const auto& [text, value] : ints)
        EXPECT_EQ(scanLeadingInt(text), value) << text;
    for (const auto& [text, needle, rest] : removals)
        EXPECT_EQ(removeAll(text, needle), rest) << text << " - " << needle;
}
