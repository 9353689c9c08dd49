#include "device/DeviceManager.h"
#include "device/SettingsData.h"
#include "protocol/DeviceProtocol.h"
#include "protocol/Globals.h"
#include "support/Logger.h"
#include "support/NotificationCenter.h"
#include "support/TextScan.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The device model's reading of answers: the six settings results, numeric answers with their
// low-16-bit reduction, the IR text and the monitor frames. The input is cut at LF into frames,
// as the channel cuts the stream.

using namespace dravinel;

namespace {

std::shared_ptr<DeviceManager> gManager;
std::int64_t gLastPosted = -1;

// The number as strtoll reads it, clamped to 32 bits: the reference for scanLeadingInt.
std::optional<std::int32_t> referenceInt(const std::string& text)
{
    const std::string cut = text.substr(0, text.find('\0'));
    const char* begin = cut.c_str();
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(begin, &end, 10);
    if (end == begin)
        return std::nullopt;
    if (v > INT32_MAX)
        return INT32_MAX;
    if (v < INT32_MIN)
        return INT32_MIN;
    return static_cast<std::int32_t>(v);
}

void checkNumber(const std::string& text)
{
    const auto got = scanLeadingInt(text);
    const auto want = referenceInt(text);
    // strtoll also stops at a NUL byte, which scanLeadingInt reads as a non-digit: same result.
    if (got != want)
        std::abort();
    if (got && low16(*got) != static_cast<std::uint16_t>(static_cast<std::uint32_t>(*got)))
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Logger::getInstance().setSink([](const std::string&) {});
    // A manager whose scan is stopped at once: only its frame parsing is used.
    gManager = DeviceManager::create({{}, false});
    gManager->stop();
    if (!gManager->waitUntilStopped(std::chrono::seconds(10)))
        std::abort();
    for (const char* event : {MonitorMotorEvent, MonitorMotorDoneEvent})
        NotificationCenter::defaultCenter().observe(
            event, [](const Notification& n) { gLastPosted = n.integer("value").value_or(-2); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::vector<Bytes> frames;
    Bytes piece;
    for (std::size_t i = 0; i <= size; ++i) {
        if (i == size || data[i] == END_1) {
            if (auto frame = frameFromPiece(piece))
                frames.push_back(std::move(*frame));
            piece.clear();
        } else {
            piece.push_back(data[i]);
        }
    }

    for (const Bytes& frame : frames) {
        const std::string text = asciiText(frame);
        checkNumber(text);
        if (auto content = DeviceProtocol::extractContent(frame))
            checkNumber(asciiText(*content));

        // The IR answer's reading: a value only behind the "IR: " prefix, and then the 16-bit
        // reduction of the number that follows once the prefixes and line ends are gone.
        checkNumber(removeAll(removeAll(text, "IR: "), "\n\r"));
        const auto ir = DeviceManager::parseIRReply(text);
        const bool prefixed = std::string_view(text).starts_with("IR: ");
        if (prefixed != (ir.status != DeviceManager::IRReply::Status::Invalid))
            std::abort();
        if (ir.status != DeviceManager::IRReply::Status::Ok && ir.value != VAL_UNDEF)
            std::abort();

        // Monitor frames: whatever is posted is the 16-bit reduction of the number read.
        if (isMonitorFrame(frame)) {
            gLastPosted = -1;
            gManager->onMonitorFrameReceived(frame);
            if (gLastPosted < -1 || gLastPosted > 0xFFFF)
                std::abort();
        }
    }

    std::vector<Bytes> results = frames;
    const auto settings = SettingsData::createFromResults(results);
    if (!results.empty())
        std::abort();
    // Reference: for each code, the last answer with a number wins; all six must have one.
    const std::string codes = "cirlst";
    std::optional<std::uint16_t> expected[6];
    for (const Bytes& frame : frames) {
        const auto at = frame.empty() ? std::string::npos : codes.find(static_cast<char>(frame[0]));
        if (at == std::string::npos)
            continue;
        if (auto content = DeviceProtocol::extractContent(frame))
            if (auto n = scanLeadingInt(asciiText(*content)))
                expected[at] = low16(*n);
    }
    bool complete = true;
    for (const auto& e : expected)
        complete = complete && e.has_value();
    if (complete != settings.has_value())
        std::abort();
    if (settings && SettingsData(*expected[0], *expected[1], *expected[2], *expected[3],
                                 *expected[4], *expected[5]) != *settings)
        std::abort();
    return 0;
}
