#include "device/Backup.h"

#include <nlohmann/json.hpp>

#include <array>
#include <sstream>

namespace dravinel {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view kRevisionKey = "revision";
constexpr std::uint64_t kLargestValue = 65535;

// A fault found while the text is parsed, with the offset of the key it concerns. Thrown from the
// parser's callback, the only way to stop it there, and caught in parseBackup.
struct KeyFault
{
    std::optional<std::size_t> offset;
    std::string message;
};

std::string position(std::string_view text, std::size_t offset)
{
    offset = std::min(offset, text.size());
    std::size_t line = 1;
    std::size_t lineStart = 0;
    for (std::size_t i = 0; i < offset; ++i) {
        if (text[i] == '\n') {
            ++line;
            lineStart = i + 1;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(offset - lineStart + 1);
}

// The offset of a key's opening quote, given the offset just past its closing one. Inside a JSON
// string a quote is the delimiter only when an even number of backslashes precedes it.
std::size_t keyStart(std::string_view text, std::size_t end)
{
    for (std::size_t i = end >= 2 ? end - 2 : 0; i > 0; --i) {
        if (text[i] != '"')
            continue;
        std::size_t backslashes = 0;
        while (backslashes < i && text[i - 1 - backslashes] == '\\')
            ++backslashes;
        if (backslashes % 2 == 0)
            return i;
    }
    return 0;
}

std::string jsonString(std::string_view key)
{
    return Json(std::string(key)).dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::optional<std::size_t> keyIndex(std::string_view key)
{
    for (std::size_t i = 0; i < kSettings.size(); ++i)
        if (kSettings[i].jsonKey == key)
            return i;
    return std::nullopt;
}

} // namespace

std::string formatBackup(const std::string& revision, const SettingsData& settings)
{
    Json object;
    object[std::string(kRevisionKey)] = revision;
    for (const auto& info : kSettings)
        object[std::string(info.jsonKey)] = settings.get(info.id);
    // A revision is the device's text and may hold bytes that are not UTF-8.
    return object.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::optional<Backup> parseBackup(std::string_view text, std::string& error)
{
    std::istringstream stream{std::string(text)};
    // Where each key of the object starts, to place the faults found in its value.
    std::vector<std::pair<std::string, std::size_t>> keys;
    bool topIsObject = false;
    const auto check = [&](int depth, Json::parse_event_t event, Json& parsed) {
        const bool opening =
            event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start;
        if (depth == 0 && event == Json::parse_event_t::object_start)
            topIsObject = true;
        // A backup holds nothing but numbers and a string, so any nested object or array is
        // refused as it opens; however deep the text nests, it is never built.
        if (opening && depth >= 1) {
            if (!topIsObject || keys.empty())
                throw KeyFault{std::nullopt, "expected a JSON object of settings"};
            throw KeyFault{keys.back().second,
                           jsonString(keys.back().first) + " holds an object or array"};
        }
        if (event != Json::parse_event_t::key || depth != 1)
            return true;
        const auto end =
            static_cast<std::size_t>(stream.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in));
        const std::size_t start = keyStart(text, end);
        const std::string key = parsed.get<std::string>();
        if (key != kRevisionKey && !keyIndex(key))
            throw KeyFault{start, "unknown key " + jsonString(key)};
        for (const auto& [earlier, offset] : keys)
            if (earlier == key)
                throw KeyFault{start, "second " + jsonString(key) + " (the first is at " +
                                          position(text, offset) + ")"};
        keys.emplace_back(key, start);
        return true;
    };

    Json document;
    try {
        document = Json::parse(stream, check);
    } catch (const KeyFault& fault) {
        error = fault.offset ? position(text, *fault.offset) + ": " + fault.message : fault.message;
        return std::nullopt;
    } catch (const Json::parse_error& e) {
        // "[json.exception.parse_error.101] parse error at line 2, column 7: syntax error ..."
        const std::string_view what = e.what();
        const auto at = what.find("line ");
        error = std::string(at == std::string_view::npos ? what : what.substr(at));
        return std::nullopt;
    }
    if (!document.is_object()) {
        error = "expected a JSON object of settings";
        return std::nullopt;
    }

    Backup backup;
    std::array<bool, kSettings.size()> seen{};
    for (const auto& [key, offset] : keys) {
        const Json& value = document.at(key);
        const std::string place = position(text, offset) + ": ";
        if (key == kRevisionKey) {
            if (!value.is_string()) {
                error = place + jsonString(key) + " must be a string";
                return std::nullopt;
            }
            backup.revision = value.get<std::string>();
            continue;
        }
        const std::size_t index = *keyIndex(key);
        // Only an unsigned integer literal: no sign, fraction or exponent, nothing cut to 16 bits.
        if (!value.is_number_unsigned() || value.get<std::uint64_t>() > kLargestValue) {
            error = place + jsonString(key) + " must be a whole number from 0 to 65535";
            return std::nullopt;
        }
        backup.settings.set(kSettings[index].id, value.get<std::uint16_t>());
        seen[index] = true;
    }
    for (std::size_t i = 0; i < seen.size(); ++i) {
        if (!seen[i]) {
            error = jsonString(kSettings[i].jsonKey) + " is missing";
            return std::nullopt;
        }
    }
    return backup;
}

} // namespace dravinel
