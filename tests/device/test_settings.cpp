#include "EngineFixture.h"

#include "device/Settings.h"
#include "protocol/SerialManager.h"

namespace dravinel::testing {
namespace {

// Each row as the device's wire carries it, written out by hand: the engine and the simulator
// read the same table, so only literals catch a wrong row.
struct WireRow
{
    Setting setting;
    const char* name;
    const char* request; // the write of 120, as sent
    const char* echo;    // the device's answer to it
};
constexpr WireRow kWire[] = {
    {Setting::CurrentLimit, "current-limit", "C120\n\r", "c,120"},
    {Setting::MinIRDetection, "ir-detection", "I120\n\r", "i,120"},
    {Setting::PositiveRotation, "positive-rotation", "R120\n\r", "r,120"},
    {Setting::NegativeRotation, "negative-rotation", "L120\n\r", "l,120"},
    {Setting::MotorSpeed, "motor-speed", "S120\n\r", "s,120"},
    {Setting::CycleTimeout, "cycle-timeout", "T120\n\r", "t,120"},
};

TEST_F(EngineTest, EachSettingRowIsPinnedByItsLiteralFrames)
{
    connect();
    m_manager->enableKeepaliveCheck(false);
    std::vector<std::string> answers;
    ASSERT_TRUE(m_manager->readSettings(&answers));
    EXPECT_EQ(answers,
              (std::vector<std::string>{"c,120", "i,300", "r,40", "l,35", "s,200", "t,90"}));
    for (const auto& row : kWire) {
        const auto& info = settingInfo(row.setting);
        EXPECT_EQ(info.cliName, row.name);
        const std::string content = "120";
        EXPECT_EQ(toText(SerialManager::createFrame(
                      info.request, reinterpret_cast<const std::uint8_t*>(content.data()), 3)),
                  row.request);
        m_sim->clearRequests();
        const WriteResult written = m_manager->save(row.setting, 120);
        EXPECT_TRUE(written.confirmed) << row.name;
        EXPECT_EQ(written.answer, row.echo);
        ASSERT_EQ(m_sim->requests().size(), 1u);
        EXPECT_EQ(std::string(1, m_sim->requests().front().code) +
                      m_sim->requests().front().content + "\n\r",
                  row.request);
    }
    // The read's answers go to their rows by code, whatever order they come in.
    m_sim->setAnswerOverride('G', "t,6\n\rs,5\n\rl,4\n\rr,3\n\ri,2\n\rc,1");
    EXPECT_EQ(m_manager->readSettings(), SettingsData(1, 2, 3, 4, 5, 6));
}

TEST(SettingsTableTest, NamesTakeEitherSeparatorAndValuesOneRuleAboutBlanks)
{
    EXPECT_EQ(findSettingByCliName("motor_speed"), &settingInfo(Setting::MotorSpeed));
    EXPECT_EQ(findSettingByCliName("motor-speed"), &settingInfo(Setting::MotorSpeed));
    for (const char* unknown : {"motor speed", "motor-speed ", "Motor-speed", "motor", ""})
        EXPECT_EQ(findSettingByCliName(unknown), nullptr) << unknown;
    EXPECT_EQ(settingsReadOrder(), "cirlst");

    const std::pair<const char*, std::optional<std::uint16_t>> values[] = {
        {"0", 0},
        {"65535", 65535},
        {"65536", std::nullopt},
        {" 42\t", 42},
        {"4 2", std::nullopt},
        {"", std::nullopt},
        {"  ", std::nullopt},
        {"-1", std::nullopt},
        {"+1", std::nullopt},
        {"1.0", std::nullopt},
        {"007", 7},
        {"99999999999", std::nullopt}};
    for (const auto& [text, expected] : values)
        EXPECT_EQ(parseSettingValue(text), expected) << "'" << text << "'";
    EXPECT_EQ(settingRangeText(), "a whole number from 0 to 65535");
}

} // namespace
} // namespace dravinel::testing
