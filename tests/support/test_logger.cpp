#include "support/Logger.h"

#include <gtest/gtest.h>

#include <regex.h>

#include <string>
#include <vector>

using namespace dravinel;

namespace {

// POSIX extended regular expressions: <regex> trips GCC's uninitialised-use warning inside
// libstdc++ in the sanitizer builds.
bool matches(const std::string& text, const char* pattern)
{
    regex_t re;
    if (regcomp(&re, pattern, REG_EXTENDED | REG_NOSUB) != 0)
        return false;
    const bool matched = regexec(&re, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&re);
    return matched;
}

// Each test works on the shared logger through a capturing sink, and puts the level and the
// standard-error sink back afterwards.
class LoggerTest : public testing::Test
{
protected:
    void SetUp() override
    {
        // The shared logger must exist before any other Logger, or that one would be the working
        // one.
        Logger::initialize();
        m_savedLevel = Logger::getInstance().getLevel();
        Logger::getInstance().setSink(
            [this](const std::string& entry) { m_entries.push_back(entry); });
    }

    void TearDown() override
    {
        Logger::getInstance().setSink({});
        Logger::getInstance().setLevel(m_savedLevel);
    }

    void logAllFour(Logger& logger)
    {
        logger.logError("e %d", 1);
        logger.logWarning("w %s", "two");
        logger.logInfo("i %c", '3');
        logger.logDebug("d %u", 4u);
    }

    std::vector<std::string> m_entries;
    std::int32_t m_savedLevel = 0;
};

} // namespace

TEST_F(LoggerTest, SharedLoggerStartsAtLevelFour)
{
    EXPECT_EQ(m_savedLevel, 4);
}

TEST_F(LoggerTest, LineIsPrefixTimeSeparatorMessageAndNewline)
{
    Logger::getInstance().setLevel(1);
    Logger::getInstance().logError("DeviceManager %s: %d", "ReadRevision", 42);
    Logger::getInstance().logWarning("not at level 1");

    ASSERT_EQ(m_entries.size(), 1u);
    EXPECT_TRUE(matches(m_entries[0],
                        "^ERROR: [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} "
                        ": DeviceManager ReadRevision: 42\n$"))
        << m_entries[0];
}

TEST_F(LoggerTest, LevelDecidesWhichSeveritiesAreWritten)
{
    Logger& logger = Logger::getInstance();

    logger.setLevel(0);
    logAllFour(logger);
    EXPECT_TRUE(m_entries.empty());

    logger.setLevel(3);
    logAllFour(logger);
    ASSERT_EQ(m_entries.size(), 3u);
    EXPECT_TRUE(m_entries[2].starts_with("INFO: "));
    m_entries.clear();

    logger.setLevel(4);
    logAllFour(logger);
    ASSERT_EQ(m_entries.size(), 4u);
    const char* prefixes[] = {"ERROR: ", "WARNING: ", "INFO: ", "DEBUG: "};
    const char* messages[] = {" : e 1\n", " : w two\n", " : i 3\n", " : d 4\n"};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_TRUE(m_entries[i].starts_with(prefixes[i])) << m_entries[i];
        EXPECT_TRUE(m_entries[i].ends_with(messages[i])) << m_entries[i];
    }
}

TEST_F(LoggerTest, LaterLoggerIsSilentAndLeavesTheSharedOneAlone)
{
    Logger second;
    std::vector<std::string> secondEntries;
    second.setSink([&](const std::string& entry) { secondEntries.push_back(entry); });

    EXPECT_EQ(second.getLevel(), 0);
    logAllFour(second);
    EXPECT_TRUE(secondEntries.empty());
    EXPECT_TRUE(m_entries.empty());

    EXPECT_EQ(Logger::getInstance().getLevel(), m_savedLevel);
    Logger::getInstance().setLevel(4);
    Logger::getInstance().logError("still working");
    EXPECT_EQ(m_entries.size(), 1u);
    EXPECT_TRUE(secondEntries.empty());
}

TEST_F(LoggerTest, DefaultSinkFollowsEachEntryWithAnEmptyLine)
{
    Logger& logger = Logger::getInstance();
    logger.setSink({});
    logger.setLevel(4);

    testing::internal::CaptureStderr();
    logger.logError("first");
    logger.logDebug("second");
    const std::string output = testing::internal::GetCapturedStderr();

    EXPECT_TRUE(matches(output, "^ERROR: [-0-9]{10} [:0-9]{8} : first\n\n"
                                "DEBUG: [-0-9]{10} [:0-9]{8} : second\n\n$"))
        << output;
}
