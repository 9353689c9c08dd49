#include "protocol/DeviceProtocol.h"
#include "protocol/Globals.h"

#include <gtest/gtest.h>

using namespace dravinel;

namespace {

// A buffer of exactly the given bytes, so that a read past its end leaves the allocation.
Bytes exact(std::string_view text)
{
    Bytes bytes = toBytes(text);
    bytes.shrink_to_fit();
    return bytes;
}

} // namespace

TEST(DeviceProtocol, PiecesBecomeFramesEndingLfCrAndContentIsWhatLiesBetween)
{
    // Piece as read up to LF -> frame; empty: noise. Length counts before the CR is dropped.
    const std::pair<std::string_view, std::string_view> pieces[] = {{"", ""},
                                                                    {"ab", ""},
                                                                    {"\rb", ""},
                                                                    {"\rb,", "b,\n\r"},
                                                                    {"b,1", "b,1\n\r"},
                                                                    {"\rc,5", "c,5\n\r"},
                                                                    {"\r\rb,1", "\rb,1\n\r"}};
    for (const auto& [piece, frame] : pieces)
        EXPECT_EQ(frameFromPiece(toBytes(piece)).value_or(Bytes{}), toBytes(frame)) << piece;

    const std::pair<std::string_view, std::string_view> contents[] = {
        {"b,1\n\r", "1"}, {"b,2.1\n\r", "2.1"}, {"IR: 5\n\r", ": 5"},
        {"b,\n\r", ""},   {"b,", ""},           {"", ""}};
    for (const auto& [frame, content] : contents)
        EXPECT_EQ(DeviceProtocol::extractContent(exact(frame)).value_or(Bytes{}), toBytes(content))
            << frame;
    EXPECT_FALSE(DeviceProtocol::extractContent(exact("b,\n\r")));

    const std::string value = "120";
    const auto* content = reinterpret_cast<const std::uint8_t*>(value.data());
    EXPECT_EQ(buildRequestFrame(SAVE_CURR_LIMIT_REQ, content, 3),
              (Bytes{'C', '1', '2', '0', 0x0A, 0x0D}));
    EXPECT_EQ(buildRequestFrame(SAVE_CURR_LIMIT_REQ, nullptr, 5), (Bytes{'C', 0x0A, 0x0D}));
    EXPECT_EQ(buildRequestFrame(SAVE_CURR_LIMIT_REQ, content, 0), (Bytes{'C', 0x0A, 0x0D}));
}

TEST(DeviceProtocol, AwaitedUnsolicitedAndMonitorRulesEachJudgeTheirFrames)
{
    std::string accepted;
    for (int c = -128; c < 128; ++c)
        if (DeviceProtocol::isResponseStart(static_cast<char>(c)))
            accepted.push_back(static_cast<char>(c));
    std::sort(accepted.begin(), accepted.end());
    EXPECT_EQ(accepted, "Ibcilmnorstvz");

    struct Case
    {
        Bytes frame;
        bool awaited, unsolicited, monitor;
    };
    const Case cases[] = {
        {exact("b,1\n\r"), true, true, false},
        {exact("z,\n\r"), true, true, false},
        {exact("n:5\n\r"), true, false, false},
        {exact("IR: 5\n\r"), true, false, false}, // the IR reply: awaited only
        {Bytes{'b', ',', 0xC3, 0xA9, 0x0A, 0x0D}, true, false, false},
        {exact("b;1\n\r"), false, false, false},
        {exact("b1,\n\r"), false, false, false},
        {exact("b,1\r\n"), false, false, false},
        {exact("b,1\n\n"), false, false, false},
        {exact("B,1\n\r"), false, false, false},
        {exact("g,1\n\r"), false, false, false},
        {exact("IMEAS: 4\n\r"), false, false, true},
        {exact("MX:3\n\r"), false, false, true},
        {exact("IMEA\n\r"), false, false, false},
        {Bytes{'M', 'X', ':', 0xB0, 0x0A, 0x0D}, false, false, false}, // not ASCII: no text
    };
    for (const auto& c : cases) {
        const std::string name = toText(c.frame);
        EXPECT_EQ(isValidResponseFrame(c.frame), c.awaited) << name;
        EXPECT_EQ(isWellFormedUnsolicitedFrame(c.frame), c.unsolicited) << name;
        EXPECT_EQ(isMonitorFrame(c.frame), c.monitor) << name;
    }
    for (const std::string_view shortFrame : {"", "b", "b,", "b,\n", ":\n\r", "M"}) {
        EXPECT_FALSE(isValidResponseFrame(exact(shortFrame))) << shortFrame;
        EXPECT_FALSE(isWellFormedUnsolicitedFrame(exact(shortFrame))) << shortFrame;
        EXPECT_FALSE(isMonitorFrame(exact(shortFrame))) << shortFrame;
    }
}
