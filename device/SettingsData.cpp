#include "device/SettingsData.h"

#include "protocol/DeviceProtocol.h"
#include "protocol/Globals.h"
#include "support/TextScan.h"

#include <array>

namespace dravinel {

SettingsData::SettingsData(std::uint16_t currThreshold, std::uint16_t minIRDetection,
                           std::uint16_t posRotation, std::uint16_t negRotation,
                           std::uint16_t motorSpeed, std::uint16_t cycleTimeoutMins)
    : m_currThreshold(currThreshold), m_minIRDetection(minIRDetection), m_posRotation(posRotation),
      m_negRotation(negRotation), m_motorSpeed(motorSpeed), m_cycleTimeoutMins(cycleTimeoutMins)
{}

std::optional<SettingsData> SettingsData::createFromResults(std::vector<Bytes>& results)
{
    // In field order; bit 0x20 is the first setting, 0x01 the last.
    static constexpr std::array<char, 6> codes = {SAVE_CURR_LIMIT_RESP,  SAVE_IR_RESP,
                                                  SAVE_POS_ROT_RESP,     SAVE_NEG_ROT_RESP,
                                                  SAVE_MOTOR_SPEED_RESP, SAVE_CYCLE_TO_RESP};
    unsigned missing = 0x3F;
    std::array<std::uint16_t, 6> values;
    values.fill(VAL_UNDEF);

    for (const Bytes& response : results) {
        if (response.empty())
            continue;
        for (std::size_t i = 0; i < codes.size(); ++i) {
            if (static_cast<char>(response[0]) != codes[i])
                continue;
            if (auto content = DeviceProtocol::extractContent(response)) {
                if (auto number = scanLeadingInt(asciiText(*content))) {
                    values[i] = low16(*number);
                    missing &= ~(0x20u >> i);
                }
            }
            break;
        }
    }
    results.clear();

    if (missing != 0)
        return std::nullopt;
    return SettingsData(values[0], values[1], values[2], values[3], values[4], values[5]);
}

} // namespace dravinel
