#include "cli/Json.h"

#include <charconv>
#include <cstdio>

namespace dravinel::cli {

namespace {

// Deeper nesting than any backup file has; it keeps a hostile file from exhausting the stack.
constexpr int kMaxDepth = 32;

class Parser
{
public:
    explicit Parser(std::string_view text) : m_text(text) {}

    std::optional<JsonValue> parseDocument(std::string& error)
    {
        JsonValue value;
        skipSpace();
        bool ok = parseValue(value, 0);
        if (ok) {
            skipSpace();
            ok = m_pos == m_text.size() || fail("the end of the file");
        }
        if (!ok) {
            error = m_error;
            return std::nullopt;
        }
        return value;
    }

private:
    bool fail(const char* expected)
    {
        if (!m_error.empty())
            return false;
        std::size_t line = 1;
        std::size_t column = 1;
        for (std::size_t i = 0; i < m_pos && i < m_text.size(); ++i) {
            if (m_text[i] == '\n') {
                ++line;
                column = 1;
            } else {
                ++column;
            }
        }
        m_error = "line " + std::to_string(line) + ", column " + std::to_string(column) +
                  ": expected " + expected;
        return false;
    }

    void skipSpace()
    {
        while (m_pos < m_text.size() && (m_text[m_pos] == ' ' || m_text[m_pos] == '\t' ||
                                         m_text[m_pos] == '\n' || m_text[m_pos] == '\r'))
            ++m_pos;
    }

    bool peek(char c) const { return m_pos < m_text.size() && m_text[m_pos] == c; }

    bool consume(char c)
    {
        if (!peek(c))
            return false;
        ++m_pos;
        return true;
    }

    bool literal(std::string_view word)
    {
        if (m_text.substr(m_pos, word.size()) != word)
            return false;
        m_pos += word.size();
        return true;
    }

    bool parseValue(JsonValue& value, int depth)
    {
        if (depth > kMaxDepth)
            return fail("less deeply nested data");
        if (m_pos >= m_text.size())
            return fail("a value");
        const char c = m_text[m_pos];
        if (c == '{')
            return parseObject(value, depth);
        if (c == '[')
            return parseArray(value, depth);
        if (c == '"') {
            value.kind = JsonValue::Kind::String;
            return parseString(value.text);
        }
        if (c == '-' || (c >= '0' && c <= '9'))
            return parseNumber(value);
        if (literal("true")) {
            value.kind = JsonValue::Kind::Boolean;
            value.boolean = true;
            return true;
        }
        if (literal("false")) {
            value.kind = JsonValue::Kind::Boolean;
            return true;
        }
        if (literal("null")) {
            value.kind = JsonValue::Kind::Null;
            return true;
        }
        return fail("a value");
    }

    bool parseObject(JsonValue& value, int depth)
    {
        value.kind = JsonValue::Kind::Object;
        ++m_pos; // '{'
        skipSpace();
        if (consume('}'))
            return true;
        for (;;) {
            skipSpace();
            if (!peek('"'))
                return fail("a key in double quotes");
            std::string key;
            if (!parseString(key))
                return false;
            for (const auto& member : value.members)
                if (member.first == key)
                    return fail(("no second \"" + key + "\"").c_str());
            skipSpace();
            if (!consume(':'))
                return fail("':'");
            skipSpace();
            JsonValue member;
            if (!parseValue(member, depth + 1))
                return false;
            value.members.emplace_back(std::move(key), std::move(member));
            skipSpace();
            if (consume('}'))
                return true;
            if (!consume(','))
                return fail("',' or '}'");
        }
    }

    bool parseArray(JsonValue& value, int depth)
    {
        value.kind = JsonValue::Kind::Array;
        ++m_pos; // '['
        skipSpace();
        if (consume(']'))
            return true;
        for (;;) {
            skipSpace();
            JsonValue element;
            if (!parseValue(element, depth + 1))
                return false;
            value.elements.push_back(std::move(element));
            skipSpace();
            if (consume(']'))
                return true;
            if (!consume(','))
                return fail("',' or ']'");
        }
    }

    bool parseNumber(JsonValue& value)
    {
        const std::size_t start = m_pos;
        const auto digits = [this] {
            const std::size_t from = m_pos;
            while (m_pos < m_text.size() && m_text[m_pos] >= '0' && m_text[m_pos] <= '9')
                ++m_pos;
            return m_pos - from;
        };
        consume('-');
        if (peek('0'))
            ++m_pos;
        else if (digits() == 0)
            return fail("a digit");
        if (consume('.') && digits() == 0)
            return fail("a digit after '.'");
        if (consume('e') || consume('E')) {
            if (!consume('+'))
                consume('-');
            if (digits() == 0)
                return fail("a digit in the exponent");
        }
        value.kind = JsonValue::Kind::Number;
        value.text = std::string(m_text.substr(start, m_pos - start));
        return true;
    }

    bool parseHex4(unsigned& code)
    {
        if (m_text.size() - m_pos < 4)
            return fail("four hex digits");
        const char* first = m_text.data() + m_pos;
        const auto [end, ec] = std::from_chars(first, first + 4, code, 16);
        if (ec != std::errc() || end != first + 4)
            return fail("four hex digits");
        m_pos += 4;
        return true;
    }

    static void appendUtf8(std::string& out, unsigned code)
    {
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (code >> 18));
            out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }

    bool parseString(std::string& out)
    {
        ++m_pos; // opening quote
        for (;;) {
            if (m_pos >= m_text.size())
                return fail("a closing '\"'");
            const char c = m_text[m_pos++];
            if (c == '"')
                return true;
            if (static_cast<unsigned char>(c) < 0x20) {
                --m_pos;
                return fail("no control character inside a string");
            }
            if (c != '\\') {
                out += c;
                continue;
            }
            if (m_pos >= m_text.size())
                return fail("an escape character");
            const char e = m_text[m_pos++];
            switch (e) {
            case '"':
            case '\\':
            case '/':
                out += e;
                break;
            case 'b':
                out += '\b';
                break;
            case 'f':
                out += '\f';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 't':
                out += '\t';
                break;
            case 'u': {
                unsigned code = 0;
                if (!parseHex4(code))
                    return false;
                if (code >= 0xD800 && code < 0xDC00) {
                    unsigned low = 0;
                    if (!literal("\\u") || !parseHex4(low) || low < 0xDC00 || low > 0xDFFF)
                        return fail("the second half of a surrogate pair");
                    code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                } else if (code >= 0xDC00 && code < 0xE000) {
                    return fail("a surrogate pair in the right order");
                }
                appendUtf8(out, code);
                break;
            }
            default:
                --m_pos;
                return fail("a valid escape");
            }
        }
    }

    std::string_view m_text;
    std::size_t m_pos = 0;
    std::string m_error;
};

} // namespace

std::string jsonQuote(std::string_view text)
{
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x",
                              static_cast<unsigned>(static_cast<unsigned char>(c)));
                out += escaped;
            } else {
                out += c;
            }
        }
    }
    out += '"';
    return out;
}

JsonObject& JsonObject::add(std::string_view key, std::int64_t value)
{
    m_members.emplace_back(std::string(key), std::to_string(value));
    return *this;
}

JsonObject& JsonObject::add(std::string_view key, std::string_view value)
{
    m_members.emplace_back(std::string(key), jsonQuote(value));
    return *this;
}

JsonObject& JsonObject::add(std::string_view key, bool value)
{
    m_members.emplace_back(std::string(key), value ? "true" : "false");
    return *this;
}

JsonObject& JsonObject::addFixed(std::string_view key, double value, int decimals)
{
    char buffer[64];
    const auto [end, ec] =
        std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, decimals);
    m_members.emplace_back(std::string(key),
                           ec == std::errc() ? std::string(buffer, end) : std::string("null"));
    return *this;
}

JsonObject& JsonObject::add(std::string_view key, const JsonObject& value)
{
    m_members.emplace_back(std::string(key), value.str());
    return *this;
}

JsonObject& JsonObject::add(std::string_view key, const std::vector<JsonObject>& array)
{
    std::string text = "[";
    for (std::size_t i = 0; i < array.size(); ++i)
        text += (i > 0 ? ", " : "") + array[i].str();
    m_members.emplace_back(std::string(key), text + "]");
    return *this;
}

JsonObject& JsonObject::addNull(std::string_view key)
{
    m_members.emplace_back(std::string(key), "null");
    return *this;
}

std::string JsonObject::str() const
{
    std::string out = "{";
    for (std::size_t i = 0; i < m_members.size(); ++i) {
        if (i > 0)
            out += ", ";
        out += jsonQuote(m_members[i].first) + ": " + m_members[i].second;
    }
    return out + "}";
}

std::string JsonObject::indented() const
{
    if (m_members.empty())
        return "{}";
    std::string out = "{\n";
    for (std::size_t i = 0; i < m_members.size(); ++i) {
        out += "  " + jsonQuote(m_members[i].first) + ": " + m_members[i].second;
        out += i + 1 < m_members.size() ? ",\n" : "\n";
    }
    return out + "}";
}

std::optional<JsonValue> parseJson(std::string_view text, std::string& error)
{
    return Parser(text).parseDocument(error);
}

} // namespace dravinel::cli
