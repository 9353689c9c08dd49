#include "protocol/DeviceProtocol.h"

#include "protocol/Globals.h"

#include <string>
#include <string_view>

namespace dravinel {

bool DeviceProtocol::isResponseStart(char c)
{
    static constexpr std::string_view starts = "bciIrlstovnmz";
    return starts.find(c) != std::string_view::npos;
}

std::optional<Bytes> DeviceProtocol::extractContent(const Bytes& frame)
{
    if (frame.size() <= 4)
        return std::nullopt;
    return Bytes(frame.begin() + 2, frame.end() - 2);
}

std::optional<Bytes> frameFromPiece(Bytes piece)
{
    if (piece.size() <= 2)
        return std::nullopt;
    if (piece.front() == END_2)
        piece.erase(piece.begin());
    piece.push_back(END_1);
    piece.push_back(END_2);
    return piece;
}

Bytes buildRequestFrame(char code, const std::uint8_t* content, std::uint64_t contentLength)
{
    Bytes frame;
    const bool hasContent = content != nullptr && contentLength != 0;
    frame.reserve(3 + (hasContent ? contentLength : 0));
    frame.push_back(static_cast<std::uint8_t>(code));
    if (hasContent)
        frame.insert(frame.end(), content, content + contentLength);
    frame.push_back(END_1);
    frame.push_back(END_2);
    return frame;
}

namespace {

bool endsWithTerminators(const Bytes& frame)
{
    const auto n = frame.size();
    return frame[n - 2] == END_1 && frame[n - 1] == END_2;
}

} // namespace

bool isValidResponseFrame(const Bytes& frame)
{
    // Index 2 and the two terminators are looked at, so anything shorter cannot be a response.
    if (frame.size() < 4)
        return false;
    const bool separatorOk =
        frame[1] == SEPARATOR || frame[1] == SEPARATOR_IR || frame[2] == SEPARATOR_IR;
    return separatorOk && DeviceProtocol::isResponseStart(static_cast<char>(frame[0])) &&
           endsWithTerminators(frame);
}

bool isWellFormedUnsolicitedFrame(const Bytes& frame)
{
    // The rule reads the frame as text; a non-ASCII frame has none and so is misformed.
    if (frame.size() < 4 || asciiText(frame).empty())
        return false;
    return frame[1] == SEPARATOR && DeviceProtocol::isResponseStart(static_cast<char>(frame[0])) &&
           endsWithTerminators(frame);
}

bool isMonitorFrame(const Bytes& frame)
{
    const std::string text = asciiText(frame);
    return text.starts_with(MONITOR_CURRENT_PREFIX) || text.starts_with(MONITOR_DONE_PREFIX);
}

} // namespace dravinel
