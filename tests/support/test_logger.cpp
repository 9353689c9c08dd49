#include "support/Logger.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

using namespace dravinel;

// Whether entry reads "<prefix><the local time now, as 2024-01-31 23:59:59> : <message>\n".
static bool isEntry(const std::string& entry, const std::string& prefix, const std::string& message)
{
    const std::string time = entry.starts_with(prefix) ? entry.substr(prefix.size(), 19) : "";
    std::tm local{};
    local.tm_isdst = -1;
    const char* end = strptime(time.c_str(), "%Y-%m-%d %H:%M:%S", &local);
    return entry == prefix + time + " : " + message + "\n" && end && !*end &&
           std::abs(std::mktime(&local) - std::time(nullptr)) <= 2;
}

TEST(Logger, LevelSelectsSeveritiesAndALaterLoggerIsSilent)
{
    Logger& shared = Logger::getInstance(); // made first, so it is the working one
    EXPECT_EQ(shared.getLevel(), 4);
    std::vector<std::string> entries;
    shared.setSink([&](const std::string& entry) { entries.push_back(entry); });
    const std::shared_ptr<void> restore(nullptr, [&](void*) { shared.setSink({}); });
    const auto logAllFour = [](Logger& logger) {
        logger.logError("e %d", 1);
        logger.logWarning("w %s", "two");
        logger.logInfo("i %c", '3');
        logger.logDebug("d %u", 4u);
    };

    const char* lines[][2] = {
        {"ERROR: ", "e 1"}, {"WARNING: ", "w two"}, {"INFO: ", "i 3"}, {"DEBUG: ", "d 4"}};
    for (std::size_t level = 0; level <= 4; ++level) {
        entries.clear();
        shared.setLevel(static_cast<std::int32_t>(level));
        logAllFour(shared);
        ASSERT_EQ(entries.size(), level);
        for (std::size_t i = 0; i < level; ++i)
            EXPECT_TRUE(isEntry(entries[i], lines[i][0], lines[i][1])) << entries[i];
    }
    // A second logger has level 0 and is silent; the shared one keeps working.
    entries.clear();
    Logger second;
    second.setSink([&](const std::string& entry) { entries.push_back("second: " + entry); });
    EXPECT_EQ(second.getLevel(), 0);
    logAllFour(second);
    EXPECT_TRUE(entries.empty());
    shared.logError("still working");
    EXPECT_EQ(entries.size(), 1u);
    // The default sink, standard error, ends each entry with a newline of its own.
    shared.setSink({});
    testing::internal::CaptureStderr();
    shared.logDebug("x");
    const std::string out = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(isEntry(out, "DEBUG: ", "x\n")) << out;
}
