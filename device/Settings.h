#pragma once

#include "protocol/Globals.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

// The one table of the device's six settings: how the command line, the backup file, the app and
// the device each name them. The record, the settings read, the six writes and every front end
// read it.

namespace dravinel {

enum class Setting : std::uint8_t {
    CurrentLimit,
    MinIRDetection,
    PositiveRotation,
    NegativeRotation,
    MotorSpeed,
    CycleTimeout,
};

struct SettingInfo
{
    Setting id;
    std::string_view cliName; // "current-limit"
    std::string_view jsonKey; // "current_limit"
    std::string_view label;   // "Current limit", for a person
    char request;             // the write's request code
    char response;            // the answer code of the write and of the settings read
    const char* logPrefix;    // the write's log messages
};

// In the device's order: that of the record's fields, of the settings read's mask bits (0x20 for
// the first) and of every listing.
inline constexpr std::array<SettingInfo, 6> kSettings = {{
    {Setting::CurrentLimit, "current-limit", "current_limit", "Current limit", SAVE_CURR_LIMIT_REQ,
     SAVE_CURR_LIMIT_RESP, "DeviceManager SaveCurrentLimit"},
    {Setting::MinIRDetection, "ir-detection", "ir_detection", "IR detection", SAVE_IR_REQ,
     SAVE_IR_RESP, "DeviceManager SaveIR"},
    {Setting::PositiveRotation, "positive-rotation", "positive_rotation", "Positive rotation",
     SAVE_POS_ROT_REQ, SAVE_POS_ROT_RESP, "DeviceManager SavePositiveRotation"},
    {Setting::NegativeRotation, "negative-rotation", "negative_rotation", "Negative rotation",
     SAVE_NEG_ROT_REQ, SAVE_NEG_ROT_RESP, "DeviceManager SaveNegativeRotation"},
    {Setting::MotorSpeed, "motor-speed", "motor_speed", "Motor speed", SAVE_MOTOR_SPEED_REQ,
     SAVE_MOTOR_SPEED_RESP, "DeviceManager SaveMotorSpeed"},
    {Setting::CycleTimeout, "cycle-timeout", "cycle_timeout", "Cycle time-out", SAVE_CYCLE_TO_REQ,
     SAVE_CYCLE_TO_RESP, "DeviceManager SaveCycleTimeout"},
}};

constexpr std::size_t settingIndex(Setting setting)
{
    return static_cast<std::size_t>(setting);
}

constexpr const SettingInfo& settingInfo(Setting setting)
{
    return kSettings[settingIndex(setting)];
}

constexpr const SettingInfo* findSettingByCliName(std::string_view name)
{
    for (const auto& info : kSettings)
        if (info.cliName == name)
            return &info;
    return nullptr;
}

} // namespace dravinel
