#include "EngineFixture.h"

#include <future>
#include <thread>

namespace dravinel::testing {
namespace {

constexpr auto kScanning = state(ConnectionState::Scanning);
constexpr auto kConnected = state(ConnectionState::Connected);

std::vector<Bytes> frames(std::initializer_list<const char*> lines)
{
    std::vector<Bytes> out;
    for (const char* line : lines)
        out.push_back(toBytes(std::string(line) + "\n\r"));
    return out;
}

SettingsData asRecord(const sim::SimSettings& s)
{
    const auto& v = s.values;
    return SettingsData(v[0], v[1], v[2], v[3], v[4], v[5]);
}

TEST(SettingsDataTest, BuildsFromAnswersInAnyOrderAndRejectsIncompleteSets)
{
    auto answers = frames({"t,90", "s,200", "c,120", "l,35", "i,300", "r,40"});
    EXPECT_EQ(SettingsData::createFromResults(answers), SettingsData(120, 300, 40, 35, 200, 90));
    EXPECT_TRUE(answers.empty());
    // A leading blank with trailing text, the low 16 bits, minus one, a later answer winning.
    answers = frames({"c,1", "c, 42abc", "i,70000", "r,-1", "l,0", "s,7", "x,999", "t,65535"});
    EXPECT_EQ(SettingsData::createFromResults(answers), SettingsData(42, 4464, 65535, 0, 7, 65535));
    for (const char* last : {"s,6", "t,abc", "t,"}) {
        answers = frames({"c,1", "i,2", "r,3", "l,4", "s,5", last});
        EXPECT_FALSE(SettingsData::createFromResults(answers)) << last;
    }
}

TEST_F(EngineTest, ConnectsReadsRevisionAndSettingsAndWritesEachSettingWithItsEcho)
{
    startSimulator();
    m_sim->setSettings({111, 222, 333, 444, 555, 666});
    connect();
    m_manager->enableKeepaliveCheck(false);
    EXPECT_EQ(m_manager->getRevision(), "2.1");
    EXPECT_EQ(m_states.values(), (std::vector<std::int64_t>{kScanning, kConnected}));
    m_sim->setSettingsOrder("tslric");
    EXPECT_EQ(m_manager->readSettings(), SettingsData(111, 222, 333, 444, 555, 666));
    // One setting twice and another missing: no settings, and what came is handed back.
    m_sim->setSettingsOrder("cirlss");
    std::vector<std::string> answers;
    EXPECT_FALSE(m_manager->readSettings(&answers));
    EXPECT_TRUE(m_log.contains("DeviceManager readSettings: Invalid results received"));
    EXPECT_EQ(answers.size(), 6u);
    EXPECT_EQ(answers.back(), "s,555");

    const std::uint16_t values[] = {120, 0, 65535, 7, 250, 135};
    for (const auto& info : kSettings) {
        const auto value = values[settingIndex(info.id)];
        const WriteResult result = m_manager->save(info.id, value);
        EXPECT_TRUE(result.confirmed) << info.cliName;
        EXPECT_EQ(result.answer, std::string(1, info.response) + "," + std::to_string(value));
        const auto requests = m_sim->requests();
        EXPECT_EQ(std::string(1, requests.back().code) + requests.back().content,
                  std::string(1, info.request) + std::to_string(value));
        EXPECT_TRUE(m_log.contains(std::string(info.logPrefix) + ": Success"));
    }
    EXPECT_EQ(asRecord(m_sim->settings()), SettingsData(120, 0, 65535, 7, 250, 135));

    // Echoes that pass (a leading zero, trailing letters, 65536 more) and that fail.
    const std::tuple<char, const char*, bool, const char*> echoes[] = {
        {'C', "c,0120", true, nullptr},
        {'C', "c,120xyz", true, nullptr},
        {'C', "c,65656", true, nullptr},
        {'C', "c,121", false, "DeviceManager SaveCurrentLimit: Did not return saved value"},
        {'C', "c,abc", false, "DeviceManager SaveCurrentLimit: Non numeric response content"},
        {'C', "i,120", false, "DeviceManager SaveCurrentLimit: Invalid response"},
        {'C', "c,", false, "DeviceManager SaveCurrentLimit: No response content"},
        {'C', "x,120", false, "SerialManager sendWithResponses : Invalid frame received"}};
    for (const auto& [code, line, confirmed, message] : echoes) {
        m_sim->setAnswerOverride(code, line);
        m_log.clear();
        const WriteResult result = m_manager->saveCurrentLimit(120);
        EXPECT_EQ(result.confirmed, confirmed) << line;
        EXPECT_EQ(result.answer, line) << "the answer is handed back as it came";
        if (message) {
            EXPECT_TRUE(m_log.contains(message)) << message;
        }
    }
    m_sim->setMute(true);
    EXPECT_EQ(m_manager->saveIR(5).answer, std::nullopt);
    m_sim->setMute(false);
    EXPECT_TRUE(m_manager->saveAndExit());
    ASSERT_TRUE(m_sim->waitForRequests('Z', 1, 3s));
    EXPECT_TRUE(m_sim->savedAndExited());
}

TEST_F(EngineTest, SensorReadsAndTheMotorTestPostTheirValuesAndReportBadAnswers)
{
    Recorder battery(ReadVBattEvent, "vbatt"), reed(MonitorReedSensorEvent, "value"),
        ir(MonitorIREvent, "value"), current(MonitorMotorEvent, "value"),
        done(MonitorMotorDoneEvent, "value");
    connect();
    m_manager->enableKeepaliveCheck(false);
    m_sim->setBatteryRaw(1332);
    battery.clear();
    EXPECT_EQ(m_manager->readVBatt(), 1332);
    EXPECT_EQ(battery.values(), std::vector<std::int64_t>{1332});
    const auto position = m_manager->readReedSensor();
    EXPECT_NE(position, VAL_UNDEF);
    EXPECT_EQ(reed.values(), std::vector<std::int64_t>{position});
    m_sim->setAnswerOverride('N', "IR: 250");
    EXPECT_EQ(m_manager->readIR(), 250);
    EXPECT_EQ(ir.values(), std::vector<std::int64_t>{250});

    const std::tuple<char, const char*, const char*> bad[] = {
        {'V', "b,5", "DeviceManager ReadVBatt: Invalid response"},
        {'O', "o,high", "DeviceManager readReedSensor: Non numeric response content"},
        {'N', "ir: 250", "DeviceManager readReedSensor: Invalid response"},
        {'N', "IR: ", "DeviceManager onMonitorFrameReceived: Non numeric response content"}};
    for (const auto& [code, line, message] : bad) {
        m_sim->setAnswerOverride(code, line);
        const auto value = code == 'V'   ? m_manager->readVBatt()
                           : code == 'O' ? m_manager->readReedSensor()
                                         : m_manager->readIR();
        EXPECT_EQ(value, VAL_UNDEF) << line;
        EXPECT_TRUE(m_log.contains(message)) << message;
    }
    EXPECT_EQ(battery.size() + reed.size() + ir.size(), 3u) << "a failed read posts nothing";

    m_sim->clearAnswerOverrides();
    m_manager->startMotorMonitoring();
    ASSERT_TRUE(done.waitForCount(2, 5s));
    EXPECT_GE(current.size(), 4u);
    EXPECT_LT(current.items().front().at, done.items().front().at);
    // The monitor frame parser: the prefix tested is shorter than the text removed.
    current.clear();
    done.clear();
    for (const char* frame : {"IMEAS: 412", "IMEAS: -1", "MX: 37", "IMEAS:412", "MXa", "QQ: 1"})
        m_manager->onMonitorFrameReceived(toBytes(std::string(frame) + "\n\r"));
    EXPECT_EQ(current.values(), (std::vector<std::int64_t>{412, 65535}));
    EXPECT_EQ(done.values(), std::vector<std::int64_t>{37});
    EXPECT_EQ(m_log.count("DeviceManager onMonitorFrameReceived: Non numeric response content"),
              3u);
}

// An unplug is noticed at once whatever the engine is doing, and the device is found again.
TEST_F(EngineTest, UnplugIsNoticedAtOnceWhateverTheEngineDoesAndReplugConnectsAtOnce)
{
    auto options = fastOptions();
    options.motorPass = 3000ms; // still running when the plug is pulled
    startSimulator(options);
    connect();
    const auto before = m_sim->settings();
    Recorder current(MonitorMotorEvent, "value");
    Clock::time_point unpluggedAt;
    const auto pull = [&] {
        unpluggedAt = Clock::now();
        m_sim->unplug();
    };
    const std::function<void()> situations[] = {
        [&] { pull(); }, // idle, the keep-alive on
        [&] {            // a transaction waiting for its answer
            m_sim->setResponseDelay(500ms);
            auto read = std::async(std::launch::async, [&] { return m_manager->readSettings(); });
            ASSERT_TRUE(m_sim->waitForRequests('G', 1, 3s));
            pull();
            EXPECT_FALSE(read.get());
            m_sim->setResponseDelay(0ms);
        },
        [&] { // polling the position sensor, keep-alive off
            m_manager->enableKeepaliveCheck(false);
            EXPECT_NE(m_manager->readReedSensor(), VAL_UNDEF);
            pull();
        },
        [&] { // a motor test, keep-alive off
            m_manager->enableKeepaliveCheck(false);
            m_manager->startMotorMonitoring();
            ASSERT_TRUE(current.waitForCount(3, 2s));
            pull();
        }};
    for (const auto& situation : situations) {
        m_sim->clearRequests();
        const auto from = m_states.size();
        situation();
        auto scanning = m_states.waitFor(kScanning, 2s, from);
        ASSERT_TRUE(scanning);
        EXPECT_LT(m_states.items()[*scanning].at - unpluggedAt, 100ms); // the keep-alive: 4 s
        const auto streamed = current.size();
        // Plugged in again well inside a pause of the search: taken at once, not after it.
        std::this_thread::sleep_for(400ms);
        EXPECT_EQ(current.size(), streamed) << "samples after the unplug";
        const auto pluggedAt = Clock::now();
        ASSERT_TRUE(m_sim->plugIn());
        auto connected = m_states.waitFor(kConnected, 5s, *scanning);
        ASSERT_TRUE(connected);
        EXPECT_LT(m_states.items()[*connected].at - pluggedAt, 300ms);
        m_manager->enableKeepaliveCheck(true);
        EXPECT_EQ(m_manager->readSettings(), asRecord(before));
        for (const auto& request : m_sim->requests())
            EXPECT_NE(std::string("BVGOM").find(request.code), std::string::npos) << request.code;
    }
}

// The device or its line misbehaves; the engine comes out of it working, with nothing written
// to the device.
TEST_F(EngineTest, LateMisplacedAndDuplicatedAnswersNeverGiveWrongValues)
{
    Recorder current(MonitorMotorEvent, "value");
    connect();
    m_manager->enableKeepaliveCheck(false);
    const auto before = asRecord(m_sim->settings());
    m_sim->setResponseDelay(std::chrono::milliseconds(DELAY_RESPONSE - 150));
    EXPECT_EQ(m_manager->readRevision(), "2.1");
    m_sim->setResponseDelay(std::chrono::milliseconds(DELAY_RESPONSE + 150));
    m_log.clear();
    EXPECT_FALSE(m_manager->readRevision());
    EXPECT_TRUE(m_log.waitFor("b,2.1", 3s)); // the late answer is not taken by the next one
    m_sim->setResponseDelay(0ms);
    m_sim->setBatteryRaw(1300);
    EXPECT_EQ(m_manager->readVBatt(), 1300);

    // Monitor frames amid the six answers go their own way; a coded frame in their midst gives
    // no settings rather than wrong ones; a duplicated answer is taken once.
    m_sim->setAnswerOverride('G', "c,120\n\ri,300\n\rIMEAS: 77\n\rr,40\n\rl,35\n\rs,200\n\rt,90");
    EXPECT_EQ(m_manager->readSettings(), before);
    EXPECT_EQ(current.values(), std::vector<std::int64_t>{77});
    m_sim->setAnswerOverride('G', "c,120\n\rv,999\n\ri,300\n\rr,40\n\rl,35\n\rs,200\n\rt,90");
    m_log.clear();
    EXPECT_FALSE(m_manager->readSettings());
    EXPECT_TRUE(m_log.waitFor("t,90", 3s));
    m_sim->setAnswerOverride('V', "v,1234\n\rv,1234");
    m_log.clear();
    EXPECT_EQ(m_manager->readVBatt(), 1234);
    EXPECT_TRUE(m_log.waitFor("v,1234", 3s, 2)); // the copy is taken by nothing
    m_sim->clearAnswerOverrides();
    EXPECT_EQ(m_manager->readRevision(), "2.1");
    EXPECT_EQ(m_manager->readSettings(), before);
    EXPECT_EQ(asRecord(m_sim->settings()), before);
    EXPECT_EQ(m_sim->requestCount('C') + m_sim->requestCount('Z'), 0u);
}

} // namespace
} // namespace dravinel::testing
