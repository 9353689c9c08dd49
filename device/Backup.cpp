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

bool isContinuationByte(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0u) == 0x80u;
}

// The place of the byte at offset (or of the end, past it) as an editor shows it: lines from 1,
// columns from 1 counted in characters, so a UTF-8 character before it counts once.
std::string position(std::string_view text, std::size_t offset)
{
    offset = std::min(offset, text.size());
    std::size_t line = 1;
    std::size_t column = 1;
    for (std::size_t i = 0; i < offset; ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else if (!isContinuationByte(text[i])) {
            ++column;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
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

// Looks at each key of the object as the parser meets it, and refuses a nested object or array
// as it opens, so that however deep a text nests, it is never built.
class KeyCheck
{
public:
    KeyCheck(std::string_view text, std::istringstream& stream) : m_text(text), m_stream(stream) {}

    bool operator()(int depth, Json::parse_event_t event, const Json& parsed)
    {
        if (depth == 0 && event == Json::parse_event_t::object_start)
            m_topIsObject = true;
        const bool opening =
            event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start;
        if (opening && depth >= 1)
            refuseNesting();
        if (event == Json::parse_event_t::key && depth == 1)
            addKey(parsed.get<std::string>());
        return true;
    }

    // Each key of the object with the offset where it starts, in the text's order.
    const std::vector<std::pair<std::string, std::size_t>>& keys() const { return m_keys; }

private:
    [[noreturn]] void refuseNesting() const
    {
        if (!m_topIsObject || m_keys.empty())
            throw KeyFault{std::nullopt, "expected a JSON object of settings"};
        throw KeyFault{m_keys.back().second,
                       jsonString(m_keys.back().first) + " holds an object or array"};
    }

    void addKey(const std::string& key)
    {
        const auto end =
            static_cast<std::size_t>(m_stream.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in));
        const std::size_t start = keyStart(m_text, end);
        if (key != kRevisionKey && !keyIndex(key))
            throw KeyFault{start, "unknown key " + jsonString(key)};
        for (const auto& [earlier, offset] : m_keys)
            if (earlier == key)
                throw KeyFault{start, "second " + jsonString(key) + " (the first is at " +
                                          position(m_text, offset) + ")"};
        m_keys.emplace_back(key, start);
    }

    std::string_view m_text;
    std::istringstream& m_stream;
    bool m_topIsObject = false;
    std::vector<std::pair<std::string, std::size_t>> m_keys;
};

// The parser's message with the place taken from the error's byte offset, the count of bytes
// read up to and including the one at fault. what() reads "[json.exception.parse_error.101]
// parse error at line 2, column 7: <message>"; only the message is kept from it.
std::string parseErrorText(std::string_view text, const Json::parse_error& e)
{
    const std::string_view what = e.what();
    const auto colon = what.find(": ");
    const std::string_view message =
        colon == std::string_view::npos ? what : what.substr(colon + 2);
    const std::size_t offset = e.byte > 0 ? e.byte - 1 : 0;
    return position(text, offset) + ": " + std::string(message);
}

// One member's value into backup, or the fault with the place of its key.
bool readMember(std::string_view text, const std::string& key, std::size_t offset,
                const Json& value, Backup& backup, std::string& error)
{
    const std::string place = position(text, offset) + ": ";
    if (key == kRevisionKey) {
        if (!value.is_string()) {
            error = place + jsonString(key) + " must be a string";
            return false;
        }
        backup.revision = value.get<std::string>();
        return true;
    }
    // Only an unsigned integer literal: no sign, fraction or exponent, nothing cut to 16 bits.
    if (!value.is_number_unsigned() || value.get<std::uint64_t>() > kLargestValue) {
        error = place + jsonString(key) + " must be a whole number from 0 to 65535";
        return false;
    }
    backup.settings.set(kSettings[*keyIndex(key)].id, value.get<std::uint16_t>());
    return true;
}

std::optional<Backup> readMembers(std::string_view text, const Json& document,
                                  const std::vector<std::pair<std::string, std::size_t>>& keys,
                                  std::string& error)
{
    Backup backup;
    std::array<bool, kSettings.size()> seen{};
    for (const auto& [key, offset] : keys) {
        if (!readMember(text, key, offset, document.at(key), backup, error))
            return std::nullopt;
        if (auto index = keyIndex(key))
            seen[*index] = true;
    }
    for (std::size_t i = 0; i < seen.size(); ++i) {
        if (!seen[i]) {
            error = jsonString(kSettings[i].jsonKey) + " is missing";
            return std::nullopt;
        }
    }
    return backup;
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
    KeyCheck check(text, stream);
    Json document;
    try {
        document =
            Json::parse(stream, [&check](int depth, Json::parse_event_t event, Json& parsed) {
                return check(depth, event, parsed);
            });
    } catch (const KeyFault& fault) {
        error = fault.offset ? position(text, *fault.offset) + ": " + fault.message : fault.message;
        return std::nullopt;
    } catch (const Json::parse_error& e) {
        error = parseErrorText(text, e);
        return std::nullopt;
    }
    if (!document.is_object()) {
        error = "expected a JSON object of settings";
        return std::nullopt;
    }
    return readMembers(text, document, check.keys(), error);
}

} // namespace dravinel
