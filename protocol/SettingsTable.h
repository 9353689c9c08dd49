#pragma once

#include "protocol/Globals.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The one table of the device's six settings, beside the request codes it names: how the device,
// the command line, the backup file and the app each name them, and the range a value may take.
// The engine, the simulator and every front end read it.

namespace dravinel {

enum class Setting : std::uint8_t {
    CurrentLimit,
    MinIRDetection,
    PositiveRotation,
    NegativeRotation,
    MotorSpeed,
    CycleTimeout,
};

// Every setting is a 16-bit word on the device; this is the one place its range is written.
inline constexpr std::uint16_t kSettingMin = 0;
inline constexpr std::uint16_t kSettingMax = 65535;

struct SettingInfo
{
    Setting id;
    std::string_view cliName;   // "current-limit"
    std::string_view jsonKey;   // "current_limit"
    std::string_view label;     // "Current limit", for a person
    char request;               // the write's request code
    char response;              // the answer code of the write and of the settings read
    const char* logPrefix;      // the write's log messages
    std::string_view unit = {}; // what a value counts, when not the device's own units
    std::uint16_t min = kSettingMin;
    std::uint16_t max = kSettingMax;
};

// In the device's order: that of the record's fields, of the answers to the settings read, of
// the settings read's mask bits (0x20 for the first) and of every listing.
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
     SAVE_CYCLE_TO_RESP, "DeviceManager SaveCycleTimeout", "minutes"},
}};

constexpr std::size_t settingIndex(Setting setting)
{
    return static_cast<std::size_t>(setting);
}

constexpr const SettingInfo& settingInfo(Setting setting)
{
    return kSettings[settingIndex(setting)];
}

// The row whose write has this request code, or nothing.
constexpr const SettingInfo* findSettingByRequest(char request)
{
    for (const auto& info : kSettings)
        if (info.request == request)
            return &info;
    return nullptr;
}

// The answer codes of the settings read, in the order the device sends them ("cirlst").
inline std::string settingsReadOrder()
{
    std::string codes;
    for (const auto& info : kSettings)
        codes.push_back(info.response);
    return codes;
}

} // namespace dravinel
