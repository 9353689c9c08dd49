#pragma once

#include "device/Settings.h"
#include "support/Bytes.h"

#include <cstdint>
#include <optional>
#include <vector>

// The device's six settings, as passed between the device model and the settings panels.

namespace dravinel {

class SettingsData
{
public:
    SettingsData() = default;
    SettingsData(std::uint16_t currThreshold, std::uint16_t minIRDetection,
                 std::uint16_t posRotation, std::uint16_t negRotation, std::uint16_t motorSpeed,
                 std::uint16_t cycleTimeoutMins);

    // Builds the record from the answers to a settings read, in any order; a later answer for
    // the same setting wins. Empty unless all six came with a number. Empties results.
    static std::optional<SettingsData> createFromResults(std::vector<Bytes>& results);

    std::uint16_t getCurrThreshold() const { return m_currThreshold; }
    void setCurrThreshold(std::uint16_t v) { m_currThreshold = v; }
    std::uint16_t getMinIRDetection() const { return m_minIRDetection; }
    void setMinIRDetection(std::uint16_t v) { m_minIRDetection = v; }
    std::uint16_t getPosRotation() const { return m_posRotation; }
    void setPosRotation(std::uint16_t v) { m_posRotation = v; }
    std::uint16_t getNegRotation() const { return m_negRotation; }
    void setNegRotation(std::uint16_t v) { m_negRotation = v; }
    std::uint16_t getMotorSpeed() const { return m_motorSpeed; }
    void setMotorSpeed(std::uint16_t v) { m_motorSpeed = v; }
    std::uint16_t getCycleTimeoutMins() const { return m_cycleTimeoutMins; }
    void setCycleTimeoutMins(std::uint16_t v) { m_cycleTimeoutMins = v; }

    // A setting by its entry in the table of the six.
    std::uint16_t get(Setting setting) const;
    void set(Setting setting, std::uint16_t value);

    bool operator==(const SettingsData&) const = default;

private:
    std::uint16_t m_currThreshold = 0;
    std::uint16_t m_minIRDetection = 0;
    std::uint16_t m_posRotation = 0;
    std::uint16_t m_negRotation = 0;
    std::uint16_t m_motorSpeed = 0;
    std::uint16_t m_cycleTimeoutMins = 0;
};

} // namespace dravinel
