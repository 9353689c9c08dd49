#include "device/Backup.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace dravinel {
namespace {

const std::string kSix = R"({"current_limit": 1, "ir_detection": 2, "positive_rotation": 3,
    "negative_rotation": 4, "motor_speed": 5, "cycle_timeout": 65535})";

std::string withCycleTimeout(const std::string& value)
{
    std::string text = kSix;
    return text.replace(text.find("65535"), 5, value);
}

TEST(BackupTest, WhatIsWrittenIsReadBack)
{
    const SettingsData data(120, 300, 40, 35, 200, 90);
    // A revision is the device's text: quotes, and bytes that are not UTF-8, must not break it.
    const std::string text = formatBackup("2.1 \"beta\"", data);
    EXPECT_EQ(text, "{\n  \"revision\": \"2.1 \\\"beta\\\"\",\n  \"current_limit\": 120,\n"
                    "  \"ir_detection\": 300,\n  \"positive_rotation\": 40,\n"
                    "  \"negative_rotation\": 35,\n  \"motor_speed\": 200,\n"
                    "  \"cycle_timeout\": 90\n}\n");
    std::string error;
    auto backup = parseBackup(text, error);
    ASSERT_TRUE(backup) << error;
    EXPECT_EQ(backup->revision, "2.1 \"beta\"");
    EXPECT_EQ(backup->settings, data);
    EXPECT_TRUE(parseBackup(formatBackup("\xff\xfe", data), error)) << error;

    backup = parseBackup(kSix, error);
    ASSERT_TRUE(backup) << error;
    EXPECT_FALSE(backup->revision);
    EXPECT_EQ(backup->settings, SettingsData(1, 2, 3, 4, 5, 65535));
}

TEST(BackupTest, AnythingButExactlyABackupIsRefusedWithItsPlace)
{
    const std::string range = "\"cycle_timeout\" must be a whole number from 0 to 65535";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"{\"current_limit\": 1,\n  \"ir_detection\" 2}",
         "line 2, column 18: syntax error while parsing object separator - unexpected number "
         "literal; expected ':'"},
        {"", "line 1, column 1: syntax error while parsing value - unexpected end of input; "
             "expected '[', '{', or a literal"},
        {kSix + " x", "line 2, column 71: syntax error while parsing value - invalid literal; "
                      "last read: '65535} x'; expected end of input"},
        {"[1, 2]", "expected a JSON object of settings"},
        {std::string(100000, '['), "expected a JSON object of settings"},
        {R"({"current_limit": 1})", "\"ir_detection\" is missing"},
        {R"({"current_limit": 1, "current_limit": 2})",
         "line 1, column 22: second \"current_limit\" (the first is at line 1, column 2)"},
        {R"({"motorspeed": 5})", "line 1, column 2: unknown key \"motorspeed\""},
        {"{\"ir_detection\": 1,\n \"x\\\"\\\\\": 1}",
         "line 2, column 2: unknown key \"x\\\"\\\\\""},
        {R"({"revision": 2.1})", "line 1, column 2: \"revision\" must be a string"},
        {R"({"current_limit": {"x": [1]}})",
         "line 1, column 2: \"current_limit\" holds an object or array"},
        {withCycleTimeout("65536"), "line 2, column 47: " + range},
        {withCycleTimeout("-1"), "line 2, column 47: " + range},
        {withCycleTimeout("1.5"), "line 2, column 47: " + range},
        {withCycleTimeout("1e3"), "line 2, column 47: " + range},
        {withCycleTimeout("\"90\""), "line 2, column 47: " + range},
        {withCycleTimeout("null"), "line 2, column 47: " + range},
        {withCycleTimeout("012"), "line 2, column 66: syntax error while parsing object - "
                                  "unexpected number literal; expected '}'"},
        // The place at the edges: the first character, the end of the input, and columns
        // counted in characters after a two-byte one.
        {"x", "line 1, column 1: syntax error while parsing value - invalid literal; last read: "
              "'x'"},
        {"{\"current_limit\": 1,", "line 1, column 21: syntax error while parsing object key - "
                                   "unexpected end of input; expected string literal"},
        {"{\"revision\": \"\xc3\xa9\" x", "line 1, column 18: syntax error while parsing "
                                          "object - invalid literal; last read: '\"\xc3\xa9\" x'; "
                                          "expected '}'"},
        {"{\"revision\": \"\xc3\xa9\", \"x\": 1}", "line 1, column 19: unknown key \"x\""},
    };
    for (const auto& [text, message] : cases) {
        std::string error;
        EXPECT_FALSE(parseBackup(text, error)) << text.substr(0, 80);
        EXPECT_EQ(error, message) << text.substr(0, 80);
    }
}

} // namespace
} // namespace dravinel
