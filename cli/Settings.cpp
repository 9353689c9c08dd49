#include "cli/Settings.h"

#include "cli/Json.h"
#include "device/DeviceManager.h"
#include "protocol/Globals.h"

#include <charconv>

namespace dravinel::cli {

namespace {

constexpr std::uint32_t kLargestValue = 65535;

std::string knownNames()
{
    std::string names;
    for (const auto& setting : settings()) {
        if (!names.empty())
            names += ", ";
        names += setting.name;
    }
    return names;
}

} // namespace

const std::array<Setting, 6>& settings()
{
    static const std::array<Setting, 6> table = {{
        {"current-limit", "current_limit", &SettingsData::getCurrThreshold,
         &DeviceManager::saveCurrentLimit, SAVE_CURR_LIMIT_REQ},
        {"ir-detection", "ir_detection", &SettingsData::getMinIRDetection, &DeviceManager::saveIR,
         SAVE_IR_REQ},
        {"positive-rotation", "positive_rotation", &SettingsData::getPosRotation,
         &DeviceManager::savePositiveRotation, SAVE_POS_ROT_REQ},
        {"negative-rotation", "negative_rotation", &SettingsData::getNegRotation,
         &DeviceManager::saveNegativeRotation, SAVE_NEG_ROT_REQ},
        {"motor-speed", "motor_speed", &SettingsData::getMotorSpeed, &DeviceManager::saveMotorSpeed,
         SAVE_MOTOR_SPEED_REQ},
        {"cycle-timeout", "cycle_timeout", &SettingsData::getCycleTimeoutMins,
         &DeviceManager::saveCycleTimeout, SAVE_CYCLE_TO_REQ},
    }};
    return table;
}

const Setting* findSettingByName(std::string_view name)
{
    for (const auto& setting : settings())
        if (setting.name == name)
            return &setting;
    return nullptr;
}

std::optional<std::uint16_t> parseSettingValue(std::string_view text)
{
    if (text.empty())
        return std::nullopt;
    std::uint32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value > kLargestValue)
        return std::nullopt;
    return static_cast<std::uint16_t>(value);
}

std::optional<std::vector<Assignment>> parseAssignments(const std::vector<std::string>& pairs,
                                                        std::string& error)
{
    std::vector<Assignment> result;
    if (pairs.empty()) {
        error = "set needs at least one NAME=VALUE";
        return std::nullopt;
    }
    for (const auto& pair : pairs) {
        const auto equals = pair.find('=');
        if (equals == std::string::npos) {
            error = "'" + pair + "' is not NAME=VALUE";
            return std::nullopt;
        }
        const std::string_view name = std::string_view(pair).substr(0, equals);
        const std::string_view text = std::string_view(pair).substr(equals + 1);
        const Setting* setting = findSettingByName(name);
        if (setting == nullptr) {
            error = "unknown setting '" + std::string(name) + "' (known: " + knownNames() + ")";
            return std::nullopt;
        }
        const auto value = parseSettingValue(text);
        if (!value) {
            error = std::string(setting->name) + ": '" + std::string(text) +
                    "' is not a whole number from 0 to 65535";
            return std::nullopt;
        }
        for (const auto& earlier : result) {
            if (earlier.setting == setting) {
                error = std::string(setting->name) + " is given twice";
                return std::nullopt;
            }
        }
        result.push_back({setting, *value});
    }
    return result;
}

std::string formatBackup(const std::string& revision, const SettingsData& data)
{
    JsonObject object;
    object.add("revision", revision);
    for (const auto& setting : settings())
        object.add(setting.key, static_cast<std::int64_t>((data.*setting.get)()));
    return object.indented() + "\n";
}

std::optional<Backup> parseBackup(std::string_view text, std::string& error)
{
    const auto document = parseJson(text, error);
    if (!document)
        return std::nullopt;
    if (document->kind != JsonValue::Kind::Object) {
        error = "expected a JSON object";
        return std::nullopt;
    }
    Backup backup;
    std::array<bool, 6> seen{};
    for (const auto& [key, value] : document->members) {
        if (key == "revision") {
            if (value.kind != JsonValue::Kind::String) {
                error = "\"revision\" must be a string";
                return std::nullopt;
            }
            backup.revision = value.text;
            continue;
        }
        std::size_t index = 0;
        while (index < settings().size() && settings()[index].key != key)
            ++index;
        if (index == settings().size()) {
            error = "unknown key \"" + key + "\"";
            return std::nullopt;
        }
        const auto number =
            value.kind == JsonValue::Kind::Number ? parseSettingValue(value.text) : std::nullopt;
        if (!number) {
            error = "\"" + key + "\" must be a whole number from 0 to 65535";
            return std::nullopt;
        }
        backup.values[index] = *number;
        seen[index] = true;
    }
    for (std::size_t index = 0; index < seen.size(); ++index) {
        if (!seen[index]) {
            error = "\"" + std::string(settings()[index].key) + "\" is missing";
            return std::nullopt;
        }
    }
    return backup;
}

} // namespace dravinel::cli
