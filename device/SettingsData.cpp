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

std::uint16_t SettingsData::get(Setting setting) const
{
    switch (setting) {
    case Setting::CurrentLimit:
        return m_currThreshold;
    case Setting::MinIRDetection:
        return m_minIRDetection;
    case Setting::PositiveRotation:
        return m_posRotation;
    case Setting::NegativeRotation:
        return m_negRotation;
    case Setting::MotorSpeed:
        return m_motorSpeed;
    case Setting::CycleTimeout:
        return m_cycleTimeoutMins;
    }
    return VAL_UNDEF;
}

void SettingsData::set(Setting setting, std::uint16_t value)
{
    switch (setting) {
    case Setting::CurrentLimit:
        m_currThreshold = value;
        return;
    case Setting::MinIRDetection:
        m_minIRDetection = value;
        return;
    case Setting::PositiveRotation:
        m_posRotation = value;
        return;
    case Setting::NegativeRotation:
        m_negRotation = value;
        return;
    case Setting::MotorSpeed:
        m_motorSpeed = value;
        return;
    case Setting::CycleTimeout:
        m_cycleTimeoutMins = value;
        return;
    }
}

std::optional<SettingsData> SettingsData::createFromResults(std::vector<Bytes>& results)
{
    // Bit 0x20 is the table's first setting, 0x01 its last.
    unsigned missing = 0x3F;
    std::array<std::uint16_t, 6> values;
    values.fill(VAL_UNDEF);

    for (const Bytes& response : results) {
        if (response.empty())
            continue;
        for (std::size_t i = 0; i < kSettings.size(); ++i) {
            if (static_cast<char>(response[0]) != kSettings[i].response)
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
    SettingsData data;
    for (const auto& info : kSettings)
        data.set(info.id, values[settingIndex(info.id)]);
    return data;
}

} // namespace dravinel
