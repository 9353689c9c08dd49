#include "cli/Cli.h"
#include "cli/Json.h"
#include "cli/Settings.h"
#include "device/SettingsData.h"

#include <gtest/gtest.h>

namespace dravinel::cli {
namespace {

std::string backupError(const std::string& text)
{
    std::string error;
    EXPECT_FALSE(parseBackup(text, error)) << text;
    return error;
}

const std::string kComplete = R"({"current_limit": 1, "ir_detection": 2, "positive_rotation": 3,
    "negative_rotation": 4, "motor_speed": 5, "cycle_timeout": 65535})";

TEST(CliInputTest, BackupFilesAreReadStrictly)
{
    std::string error;
    auto backup = parseBackup(kComplete, error);
    ASSERT_TRUE(backup) << error;
    EXPECT_FALSE(backup->revision);
    EXPECT_EQ(backup->values, (std::array<std::uint16_t, 6>{1, 2, 3, 4, 5, 65535}));

    // What the tool writes, it reads back unchanged.
    const SettingsData data(120, 300, 40, 35, 200, 90);
    const std::string text = formatBackup("2.1 \"beta\"", data);
    backup = parseBackup(text, error);
    ASSERT_TRUE(backup) << error << "\n" << text;
    EXPECT_EQ(backup->revision, "2.1 \"beta\"");
    EXPECT_EQ(backup->values, (std::array<std::uint16_t, 6>{120, 300, 40, 35, 200, 90}));

    EXPECT_EQ(backupError("{\"current_limit\": 1,\n  \"ir_detection\" 2}"),
              "line 2, column 18: expected ':'");
    EXPECT_EQ(backupError(kComplete + " x"), "line 2, column 71: expected the end of the file");
    EXPECT_EQ(backupError(""), "line 1, column 1: expected a value");
    EXPECT_EQ(backupError("[1, 2]"), "expected a JSON object");
    EXPECT_EQ(backupError(R"({"current_limit": 1})"), "\"ir_detection\" is missing");
    EXPECT_EQ(backupError(R"({"current_limit": 1, "current_limit": 2})"),
              "line 1, column 37: expected no second \"current_limit\"");

    const auto withValue = [](const std::string& value) {
        std::string text = kComplete;
        text.replace(text.find("65535"), 5, value);
        return text;
    };
    const std::string range = "\"cycle_timeout\" must be a whole number from 0 to 65535";
    EXPECT_EQ(backupError(withValue("65536")), range);
    EXPECT_EQ(backupError(withValue("-1")), range);
    EXPECT_EQ(backupError(withValue("1.5")), range);
    EXPECT_EQ(backupError(withValue("1e3")), range);
    EXPECT_EQ(backupError(withValue("\"90\"")), range);
    EXPECT_EQ(backupError(withValue("null")), range);
    EXPECT_FALSE(parseBackup(withValue("012"), error)); // not JSON
    EXPECT_EQ(backupError(R"({"revision": 2.1})"), "\"revision\" must be a string");
    std::string unknown = kComplete;
    unknown.insert(1, "\"motorspeed\": 5, ");
    EXPECT_EQ(backupError(unknown), "unknown key \"motorspeed\"");

    // Nesting is bounded, whatever the file holds.
    EXPECT_FALSE(parseJson(std::string(100000, '['), error));
    EXPECT_NE(error.find("less deeply nested"), std::string::npos);
}

TEST(CliInputTest, JsonStringsAreEscapedAndUnescaped)
{
    EXPECT_EQ(jsonQuote("a\"b\\c\n\x01"), R"("a\"b\\c\n\u0001")");
    std::string error;
    const auto value = parseJson(R"(["\u00e9\ud83d\ude00\t", true, null, -0.5e+2])", error);
    ASSERT_TRUE(value) << error;
    ASSERT_EQ(value->elements.size(), 4u);
    EXPECT_EQ(value->elements[0].text, "\xc3\xa9\xf0\x9f\x98\x80\t");
    EXPECT_EQ(value->elements[3].text, "-0.5e+2");
    EXPECT_FALSE(parseJson(R"("\ude00")", error));
    EXPECT_FALSE(parseJson("\"tab\there\"", error));
    EXPECT_EQ(JsonObject().add("a", std::int64_t{-3}).addFixed("v", 1300 / 111.0, 2).str(),
              R"({"a": -3, "v": 11.71})");
}

TEST(CliInputTest, SettingValuesAndAssignmentsAreCheckedWhole)
{
    EXPECT_EQ(parseSettingValue("0"), 0);
    EXPECT_EQ(parseSettingValue("65535"), 65535);
    EXPECT_EQ(parseSettingValue("007"), 7);
    for (const char* bad :
         {"", "65536", "-1", "+1", " 1", "1 ", "1.0", "0x10", "12a", "99999999999"})
        EXPECT_FALSE(parseSettingValue(bad)) << bad;

    std::string error;
    auto parsed = parseAssignments({"motor-speed=200", "cycle-timeout=5"}, error);
    ASSERT_TRUE(parsed) << error;
    ASSERT_EQ(parsed->size(), 2u);
    EXPECT_EQ((*parsed)[0].setting->key, "motor_speed");
    EXPECT_EQ((*parsed)[1].value, 5);

    const auto fails = [](std::vector<std::string> pairs) {
        std::string message;
        EXPECT_FALSE(parseAssignments(pairs, message));
        return message;
    };
    EXPECT_EQ(fails({"speed=1"}).substr(0, 24), "unknown setting 'speed' ");
    EXPECT_EQ(fails({"motor-speed=1", "motor-speed=2"}), "motor-speed is given twice");
    EXPECT_EQ(fails({"motor-speed"}), "'motor-speed' is not NAME=VALUE");
    EXPECT_EQ(fails({"current-limit=1", "motor-speed=65536"}),
              "motor-speed: '65536' is not a whole number from 0 to 65535");
    EXPECT_EQ(fails({}), "set needs at least one NAME=VALUE");
}

TEST(CliInputTest, ArgumentsTakeGlobalOptionsAnywhere)
{
    std::string error;
    auto options = parseArguments(
        {"--json", "monitor", "ir", "--count", "3", "-vv", "--port", "/dev/x"}, error);
    ASSERT_TRUE(options) << error;
    EXPECT_TRUE(options->json);
    EXPECT_EQ(options->verbosity, 2);
    EXPECT_EQ(options->port, "/dev/x");
    EXPECT_EQ(options->command, "monitor");
    EXPECT_EQ(options->arguments, std::vector<std::string>{"ir"});
    EXPECT_EQ(options->count, 3u);

    EXPECT_FALSE(parseArguments({"--demo", "--port", "/dev/x", "get"}, error));
    EXPECT_FALSE(parseArguments({"get", "--count", "0"}, error));
    EXPECT_FALSE(parseArguments({"get", "--port"}, error));
    EXPECT_FALSE(parseArguments({"--verbose", "get"}, error));
    EXPECT_EQ(error, "unknown option '--verbose' (see --help)");
    EXPECT_FALSE(parseArguments({}, error));
    EXPECT_TRUE(parseArguments({"--help"}, error));
}

} // namespace
} // namespace dravinel::cli
