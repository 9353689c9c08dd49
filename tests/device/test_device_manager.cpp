#include "EngineFixture.h"

#include "device/SettingsData.h"
#include "protocol/Globals.h"
#include "protocol/SerialManager.h"

#include <thread>

namespace dravinel::testing {
namespace {

Bytes frame(const std::string& text)
{
    return toBytes(text + "\n\r");
}

std::string lastRequest(const sim::DeviceSimulator& sim, char code)
{
    auto requests = sim.requests();
    for (auto it = requests.rbegin(); it != requests.rend(); ++it)
        if (it->code == code)
            return std::string(1, code) + it->content;
    return {};
}

TEST(SettingsDataTest, BuildsFromAnswersInAnyOrderAndRejectsIncompleteSets)
{
    std::vector<Bytes> answers = {frame("t,90"), frame("s,200"), frame("c,120"),
                                  frame("l,35"), frame("i,300"), frame("r,40")};
    auto settings = SettingsData::createFromResults(answers);
    ASSERT_TRUE(settings);
    EXPECT_EQ(*settings, SettingsData(120, 300, 40, 35, 200, 90));
    EXPECT_TRUE(answers.empty());

    // Leading blank with trailing text, the low 16 bits, minus one, and a later answer winning.
    std::vector<Bytes> quirks = {frame("c,1"),   frame("c, 42abc"), frame("i,70000"),
                                 frame("r,-1"),  frame("l,0"),      frame("s,7"),
                                 frame("x,999"), frame("t,65535")};
    settings = SettingsData::createFromResults(quirks);
    ASSERT_TRUE(settings);
    EXPECT_EQ(*settings, SettingsData(42, 4464, 65535, 0, 7, 65535));

    std::vector<Bytes> fiveOnly = {frame("c,1"), frame("i,2"), frame("r,3"), frame("l,4"),
                                   frame("s,5")};
    EXPECT_FALSE(SettingsData::createFromResults(fiveOnly));
    std::vector<Bytes> lettersOnly = {frame("c,1"), frame("i,2"), frame("r,3"),
                                      frame("l,4"), frame("s,5"), frame("t,abc")};
    EXPECT_FALSE(SettingsData::createFromResults(lettersOnly));
    std::vector<Bytes> noContent = {frame("c,1"), frame("i,2"), frame("r,3"),
                                    frame("l,4"), frame("s,5"), frame("t,")};
    EXPECT_FALSE(SettingsData::createFromResults(noContent));
}

TEST_F(EngineTest, ConnectsReadsRevisionAndSettings)
{
    Recorder revisions(ReadRevisionEvent, "rev");
    startSimulator();
    m_sim->setSettings({111, 222, 333, 444, 555, 666});
    connect();

    ASSERT_TRUE(revisions.waitForCount(1, 1s));
    EXPECT_EQ(revisions.entries().front().text, "2.1");
    EXPECT_EQ(m_manager->getRevision(), "2.1");
    EXPECT_EQ(m_states.values(), (std::vector<std::int64_t>{Scanning, Connected}));

    auto settings = m_manager->readSettings();
    ASSERT_TRUE(settings);
    EXPECT_EQ(*settings, SettingsData(111, 222, 333, 444, 555, 666));

    m_sim->setSettingsOrder("tslric");
    settings = m_manager->readSettings();
    ASSERT_TRUE(settings);
    EXPECT_EQ(*settings, SettingsData(111, 222, 333, 444, 555, 666));

    // Six answers, one setting twice and another missing: the read fails with its message.
    m_sim->setSettingsOrder("cirlss");
    EXPECT_FALSE(m_manager->readSettings());
    EXPECT_TRUE(m_log.contains("DeviceManager readSettings: Invalid results received"));
}

TEST_F(EngineTest, WritesEachSettingAndChecksTheEcho)
{
    connect();
    m_manager->enableKeepaliveCheck(false);

    EXPECT_TRUE(m_manager->saveCurrentLimit(120));
    EXPECT_EQ(lastRequest(*m_sim, 'C'), "C120");
    EXPECT_TRUE(m_manager->saveIR(0));
    EXPECT_EQ(lastRequest(*m_sim, 'I'), "I0");
    EXPECT_TRUE(m_manager->savePositiveRotation(65535));
    EXPECT_EQ(lastRequest(*m_sim, 'R'), "R65535");
    EXPECT_TRUE(m_manager->saveNegativeRotation(7));
    EXPECT_EQ(lastRequest(*m_sim, 'L'), "L7");
    EXPECT_TRUE(m_manager->saveMotorSpeed(250));
    EXPECT_EQ(lastRequest(*m_sim, 'S'), "S250");
    EXPECT_TRUE(m_manager->saveCycleTimeout(135));
    EXPECT_EQ(lastRequest(*m_sim, 'T'), "T135");
    EXPECT_TRUE(m_log.contains("DeviceManager SaveCycleTimeout: Success"));

    const auto stored = m_sim->settings();
    EXPECT_EQ(stored.currentLimit, 120);
    EXPECT_EQ(stored.minIRDetection, 0);
    EXPECT_EQ(stored.positiveRotation, 65535);
    EXPECT_EQ(stored.negativeRotation, 7);
    EXPECT_EQ(stored.motorSpeed, 250);
    EXPECT_EQ(stored.cycleTimeoutMins, 135);

    // Echoes that pass: a leading zero, trailing letters, 65536 more than the value.
    m_sim->setAnswerOverride('C', "c,0120");
    EXPECT_TRUE(m_manager->saveCurrentLimit(120));
    m_sim->setAnswerOverride('C', "c,120xyz");
    EXPECT_TRUE(m_manager->saveCurrentLimit(120));
    m_sim->setAnswerOverride('C', "c,65656");
    EXPECT_TRUE(m_manager->saveCurrentLimit(120));

    // Echoes that fail, each with its message.
    m_sim->setAnswerOverride('S', "s,121");
    EXPECT_FALSE(m_manager->saveMotorSpeed(120));
    EXPECT_TRUE(m_log.contains("DeviceManager SaveMotorSpeed: Did not return saved value"));
    m_sim->setAnswerOverride('L', "l,abc");
    EXPECT_FALSE(m_manager->saveNegativeRotation(1));
    EXPECT_TRUE(m_log.contains("DeviceManager SaveNegativeRotation: Non numeric response content"));
    // Another answer code: the transaction accepts it, the command does not. A byte that opens
    // no response at all never gets past the transaction.
    m_sim->setAnswerOverride('I', "c,5");
    EXPECT_FALSE(m_manager->saveIR(5));
    EXPECT_TRUE(m_log.contains("DeviceManager SaveIR: Invalid response"));
    m_log.clear();
    m_sim->setAnswerOverride('I', "x,5");
    EXPECT_FALSE(m_manager->saveIR(5));
    EXPECT_TRUE(m_log.contains("SerialManager sendWithResponses : Invalid frame received"));
    EXPECT_FALSE(m_log.contains("DeviceManager SaveIR"));
    m_sim->setAnswerOverride('R', "r,");
    EXPECT_FALSE(m_manager->savePositiveRotation(5));
    EXPECT_TRUE(m_log.contains("DeviceManager SavePositiveRotation: No response content"));

    m_sim->clearAnswerOverrides();
    EXPECT_TRUE(m_manager->saveAndExit());
    ASSERT_TRUE(m_sim->waitForRequests('Z', 1, 1s));
    EXPECT_TRUE(m_sim->savedAndExited());
}

TEST_F(EngineTest, SensorReadsPostTheirValuesAndReportBadAnswers)
{
    Recorder battery(ReadVBattEvent, "vbatt");
    Recorder reed(MonitorReedSensorEvent, "value");
    Recorder ir(MonitorIREvent, "value");
    connect();
    m_manager->enableKeepaliveCheck(false);
    m_sim->setBatteryRaw(1332);
    battery.clear();

    EXPECT_EQ(m_manager->readVBatt(), 1332);
    EXPECT_EQ(battery.values(), std::vector<std::int64_t>{1332});
    EXPECT_TRUE(m_log.contains("DeviceManager ReadVBatt: Success"));

    const auto position = m_manager->readReedSensor();
    EXPECT_NE(position, VAL_UNDEF);
    EXPECT_EQ(reed.values(), std::vector<std::int64_t>{position});

    m_sim->setAnswerOverride('N', "IR: 250");
    EXPECT_EQ(m_manager->readIR(), 250);
    EXPECT_EQ(ir.values(), std::vector<std::int64_t>{250});

    m_sim->setAnswerOverride('V', "b,5");
    EXPECT_EQ(m_manager->readVBatt(), VAL_UNDEF);
    EXPECT_TRUE(m_log.contains("DeviceManager ReadVBatt: Invalid response"));
    m_sim->setAnswerOverride('O', "o,high");
    EXPECT_EQ(m_manager->readReedSensor(), VAL_UNDEF);
    EXPECT_TRUE(m_log.contains("DeviceManager readReedSensor: Non numeric response content"));
    m_sim->setAnswerOverride('N', "ir: 250");
    EXPECT_EQ(m_manager->readIR(), VAL_UNDEF);
    EXPECT_TRUE(m_log.contains("DeviceManager readReedSensor: Invalid response"));
    m_sim->setAnswerOverride('N', "IR: ");
    EXPECT_EQ(m_manager->readIR(), VAL_UNDEF);
    EXPECT_TRUE(
        m_log.contains("DeviceManager onMonitorFrameReceived: Non numeric response content"));
    EXPECT_EQ(battery.values().size(), 1u);
    EXPECT_EQ(ir.values().size(), 1u);

    // A mute device: the read fails after its budget without a device-model message.
    m_sim->clearAnswerOverrides();
    m_sim->setMute(true);
    m_log.clear();
    EXPECT_EQ(m_manager->readVBatt(), VAL_UNDEF);
    EXPECT_FALSE(m_log.contains("DeviceManager"));
    EXPECT_TRUE(m_log.contains("SerialManager sendWithResponses : Did not get enough responses"));
}

TEST_F(EngineTest, MotorTestStreamsCurrentAndEndsWithTwoDoneEvents)
{
    Recorder current(MonitorMotorEvent, "value");
    Recorder done(MonitorMotorDoneEvent, "value");
    connect();
    m_manager->enableKeepaliveCheck(false);

    m_manager->startMotorMonitoring();
    ASSERT_TRUE(done.waitForCount(2, 5s));
    EXPECT_GE(current.entries().size(), 4u);
    EXPECT_LT(current.entries().front().at, done.entries().front().at);
    EXPECT_EQ(m_sim->requestCount('M'), 1u);

    // The monitor frame parser, fed directly: prefix tested shorter than the text removed.
    current.clear();
    done.clear();
    m_manager->onMonitorFrameReceived(toBytes("IMEAS: 412\n\r"));
    m_manager->onMonitorFrameReceived(toBytes("IMEAS: -1\n\r"));
    m_manager->onMonitorFrameReceived(toBytes("MX: 37\n\r"));
    m_manager->onMonitorFrameReceived(toBytes("IMEAS:412\n\r"));
    m_manager->onMonitorFrameReceived(toBytes("MXa\n\r"));
    m_manager->onMonitorFrameReceived(toBytes("QQ: 1\n\r"));
    EXPECT_EQ(current.values(), (std::vector<std::int64_t>{412, 65535}));
    EXPECT_EQ(done.values(), std::vector<std::int64_t>{37});
    EXPECT_EQ(m_log.count("DeviceManager onMonitorFrameReceived: Non numeric response content"),
              2u);
}

TEST_F(EngineTest, DroppingTheManagerOnTheScanThreadIsSafe)
{
    startSimulator();
    m_manager = DeviceManager::create();
    ASSERT_TRUE(m_states.waitFor(Connected, 5s));
    auto manager = std::move(m_manager);
    std::weak_ptr<DeviceManager> watch = manager;
    std::mutex mutex;
    // The observer of state 0 lets go of the last handle on the scan thread, as the app does.
    auto token = NotificationCenter::defaultCenter().observe(
        ConnStateChangedEvent, [&](const Notification& n) {
            if (n.integer("state") == Disconnected) {
                std::lock_guard lock(mutex);
                manager.reset();
            }
        });
    {
        std::lock_guard lock(mutex);
        manager->stop();
    }
    ASSERT_TRUE(m_states.waitFor(Disconnected, 2s));
    const auto deadline = Clock::now() + 2s;
    while (!watch.expired() && Clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    EXPECT_TRUE(watch.expired());
    NotificationCenter::defaultCenter().remove(token);
}

} // namespace
} // namespace dravinel::testing
