#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The little JSON the command line needs: one-line or indented objects of scalars for output, and
// a strict parser for the backup files it reads back.

namespace dravinel::cli {

// Builds one JSON object, keys in the order added. Numbers are written as numbers.
class JsonObject
{
public:
    JsonObject& add(std::string_view key, std::int64_t value);
    JsonObject& add(std::string_view key, std::string_view value);
    JsonObject& add(std::string_view key, const char* value)
    {
        return add(key, std::string_view(value));
    }
    JsonObject& add(std::string_view key, bool value);
    // A fixed-point number with the given number of decimals (12.00, not 1.2e1).
    JsonObject& addFixed(std::string_view key, double value, int decimals);
    JsonObject& add(std::string_view key, const JsonObject& value);
    JsonObject& addNull(std::string_view key);
    JsonObject& add(std::string_view key, const std::vector<JsonObject>& array);

    // One line, or one member a line indented by two blanks (nested objects stay on one line).
    std::string str() const;
    std::string indented() const;

private:
    std::vector<std::pair<std::string, std::string>> m_members; // key, encoded value
};

// A string as a JSON string literal, quotes included.
std::string jsonQuote(std::string_view text);

// A parsed JSON value. Numbers keep their literal text, so the reader decides what it accepts.
struct JsonValue
{
    enum class Kind { Null, Boolean, Number, String, Array, Object };

    Kind kind = Kind::Null;
    bool boolean = false;
    std::string text; // the string's characters, or the number's literal
    std::vector<JsonValue> elements;
    std::vector<std::pair<std::string, JsonValue>> members; // in file order; keys unique
};

// Parses exactly one JSON value (surrounding white space allowed). On failure returns nothing and
// sets error to "line L, column C: what was expected".
std::optional<JsonValue> parseJson(std::string_view text, std::string& error);

} // namespace dravinel::cli
