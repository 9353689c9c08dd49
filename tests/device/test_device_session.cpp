#include "EngineFixture.h"

#include "device/DeviceSession.h"

#include <cmath>
#include <thread>

namespace dravinel::testing {
namespace {

// What the session told its listener, each call as one line.
class Calls : public DeviceSession::Listener, public Collector<std::string>
{
public:
    void stateChanged(ConnectionState state) override
    {
        add("state " + std::to_string(static_cast<int>(state)));
    }
    void batteryRead(const Reading& reading, double volts) override
    {
        add("battery " + describe(reading) + " " + std::to_string(std::lround(volts * 100)));
    }
    void sensorRead(Sensor sensor, const Reading& reading) override
    {
        add(std::string(sensor == Sensor::Position ? "position " : "ir ") + describe(reading));
    }
    void motorSample(std::uint16_t current) override { add("sample " + std::to_string(current)); }
    void motorPassDone(int pass, std::uint16_t value) override
    {
        add("pass " + std::to_string(pass) + " " + std::to_string(value));
    }
    void motorTestEnded(MotorTestEnd end) override
    {
        add(end == MotorTestEnd::Finished ? "ended finished"
            : end == MotorTestEnd::Silent ? "ended silent"
                                          : "ended lost");
    }
    void deviceLost() override { add("lost"); }
    void portAppeared() override { add("port appeared"); }

    static std::string describe(const Reading& r)
    {
        switch (r.kind) {
        case Reading::Kind::Value:
            return std::to_string(r.value);
        case Reading::Kind::WrongReply:
            return "wrong '" + r.answer + "'";
        case Reading::Kind::NoReply:
            break;
        }
        return "none";
    }
    bool waitFor(const std::string& line, std::chrono::milliseconds timeout,
                 std::size_t from = 0) const
    {
        return Collector::waitFor([&](const std::string& l) { return l == line; }, timeout, from)
            .has_value();
    }
    bool waitForPrefix(const std::string& prefix, std::chrono::milliseconds timeout) const
    {
        return Collector::waitFor([&](const std::string& l) { return l.starts_with(prefix); },
                                  timeout)
            .has_value();
    }
    std::size_t count(const std::string& prefix) const
    {
        return static_cast<std::size_t>(std::ranges::count_if(
            items(), [&](const std::string& l) { return l.starts_with(prefix); }));
    }
};

class SessionTest : public EngineTest
{
protected:
    void TearDown() override
    {
        m_session.reset();
        EngineTest::TearDown();
    }
    void openSession(sim::DeviceSimulator::Options options = fastOptions())
    {
        startSimulator(options);
        m_session = std::make_unique<DeviceSession>(&m_calls);
        m_session->open(PortChoice::only(m_sim->portPath()));
        ASSERT_TRUE(m_session->waitForConnection(8s));
    }

    Calls m_calls;
    std::unique_ptr<DeviceSession> m_session;
};

TEST_F(SessionTest, OnlyThreeSensorReadsInARowWithNoReplyAtAllLoseTheDeviceWhichIsFoundAgain)
{
    openSession();
    m_session->enableKeepalive(false);
    const auto read = [&](Sensor sensor) { return Calls::describe(m_session->readSensor(sensor)); };
    m_sim->setMute(true);
    EXPECT_EQ(read(Sensor::Position), "none");
    EXPECT_EQ(read(Sensor::InfraRed), "none");
    m_sim->setMute(false);
    // A reply that came, wrong or a genuine 65535, is no loss and ends the run of silences.
    m_sim->setAnswerOverride('N', "IR: lots");
    EXPECT_EQ(read(Sensor::InfraRed), "wrong 'IR: lots'");
    m_sim->setAnswerOverride('O', "o,65535");
    EXPECT_EQ(read(Sensor::Position), "65535");
    m_sim->setMute(true);
    EXPECT_EQ(read(Sensor::Position), "none");
    EXPECT_EQ(read(Sensor::Position), "none");
    EXPECT_EQ(m_calls.count("lost"), 0u);
    EXPECT_EQ(m_session->state(), ConnectionState::Connected);
    const auto from = m_calls.size();
    EXPECT_EQ(read(Sensor::InfraRed), "none");
    ASSERT_TRUE(m_calls.waitFor("lost", 3s, from));
    m_sim->setMute(false);
    m_sim->clearAnswerOverrides();
    ASSERT_TRUE(m_calls.waitFor("state 2", 8s, from)) << "searched again";
    EXPECT_TRUE(m_session->waitForConnection(1s));
    m_sim->setAnswerOverride('O', "o,17");
    EXPECT_EQ(read(Sensor::Position), "17");
    EXPECT_TRUE(m_calls.waitFor("position 17", 1s));
    EXPECT_EQ(m_calls.count("position wrong") + m_calls.count("ir wrong"), 1u);
}

TEST_F(SessionTest, AMotorTestFinishesGoesSilentOrIsLostAndEachEndIsReportedOnce)
{
    auto options = fastOptions();
    options.motorPass = 1000ms; // still running when the plug is pulled
    openSession(options);
    ASSERT_TRUE(m_session->startMotorTest());
    EXPECT_TRUE(m_session->motorTestRunning());
    ASSERT_TRUE(m_calls.waitFor("ended finished", 4s));
    EXPECT_FALSE(m_session->motorTestRunning());
    const auto calls = m_calls.items();
    const auto at = [&](const std::string& prefix) {
        return std::ranges::find_if(calls, [&](const auto& l) { return l.starts_with(prefix); }) -
               calls.begin();
    };
    EXPECT_LT(at("sample"), at("pass 1"));
    EXPECT_LT(at("pass 1"), at("pass 2"));
    EXPECT_EQ(m_calls.count("pass"), 2u);
    EXPECT_EQ(m_sim->requestCount('M'), 1u);

    // Silent: the request is taken but nothing streams; the keep-alive then comes back.
    m_sim->setMute(true);
    m_calls.clear();
    const auto started = Clock::now();
    ASSERT_TRUE(m_session->startMotorTest());
    ASSERT_TRUE(m_calls.waitFor("ended silent", 7s));
    EXPECT_GE(Clock::now() - started, DeviceSession::kMotorSilence);
    m_sim->setMute(false);
    m_sim->clearRequests();
    EXPECT_TRUE(m_sim->waitForRequests('V', 1, 4s)) << "the keep-alive is on again";
    EXPECT_EQ(m_session->state(), ConnectionState::Connected);

    // Lost: the plug is pulled mid-test.
    m_calls.clear();
    ASSERT_TRUE(m_session->startMotorTest());
    ASSERT_TRUE(m_calls.waitForPrefix("sample", 2s));
    m_sim->unplug();
    ASSERT_TRUE(m_calls.waitFor("ended lost", 2s));
    EXPECT_TRUE(m_calls.waitFor("state 1", 1s));
    EXPECT_EQ(m_calls.count("ended"), 1u);
    EXPECT_FALSE(m_session->motorTestRunning());
}

TEST_F(SessionTest, ATestLeftEarlyIsDrainedQuietlyBeforeTheNextRequest)
{
    auto options = fastOptions();
    options.motorPass = 500ms;
    openSession(options);
    const auto before = m_sim->settings();
    for (int round = 0; round < 2; ++round) {
        m_calls.clear();
        ASSERT_TRUE(m_session->startMotorTest());
        ASSERT_TRUE(m_calls.waitForPrefix("sample", 2s));
        // The front end stops listening here: the next request waits for the test's end.
        const auto settings = round == 0 ? m_session->readSettings() : std::nullopt;
        if (round == 1)
            m_session->drainMotorTest();
        const auto heard = m_calls.size();
        EXPECT_FALSE(m_session->motorTestRunning());
        if (round == 0) {
            ASSERT_TRUE(settings);
            EXPECT_EQ(settings->get(Setting::CurrentLimit), before.get(Setting::CurrentLimit));
            EXPECT_EQ(settings->get(Setting::CycleTimeout), before.get(Setting::CycleTimeout));
        }
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(m_calls.size(), heard) << "nothing more of the drained test";
        EXPECT_EQ(m_calls.count("ended"), 0u) << ::testing::PrintToString(m_calls.items());
        EXPECT_LE(m_calls.count("pass"), 1u);
    }
    // The next test is whole again: both passes, numbered from 1.
    m_calls.clear();
    ASSERT_TRUE(m_session->startMotorTest());
    ASSERT_TRUE(m_calls.waitFor("ended finished", 3s));
    EXPECT_EQ(m_calls.count("pass 1"), 1u);
    EXPECT_EQ(m_calls.count("pass 2"), 1u);
}

TEST_F(SessionTest, AMalformedKeepAliveReplyKeepsTheConnectionButSilenceEndsIt)
{
    openSession();
    m_sim->setBatteryRaw(1332);
    EXPECT_EQ(Calls::describe(m_session->readBattery()), "1332");
    EXPECT_TRUE(m_calls.waitFor("battery 1332 1200", 1s)) << "12.00 V";
    m_sim->setAnswerOverride('V', "v,abc");
    const auto from = m_calls.size();
    ASSERT_TRUE(m_calls.waitFor("battery wrong 'v,abc' 0", 4s, from));
    ASSERT_TRUE(m_calls.waitFor("battery wrong 'v,abc' 0", 4s, from + 1)) << "a second round";
    EXPECT_EQ(m_calls.count("state"), 2u) << "searching, connected, and nothing after";
    m_sim->setMute(true);
    EXPECT_TRUE(m_calls.waitFor("state 1", 5s));
}

TEST_F(SessionTest, AnEndedSearchIsDroppedAndReportedAndTheSessionOpensAgain)
{
    m_session = std::make_unique<DeviceSession>(&m_calls);
    const std::string missing = "/tmp/dravinel-no-such-port";
    EXPECT_EQ(DeviceSession::candidatePorts(PortChoice::only(missing)),
              std::vector<std::string>{missing});
    EXPECT_FALSE(m_session->readRevision()) << "not connected: no answer";
    m_session->open(PortChoice::only(missing));
    EXPECT_FALSE(m_session->waitForConnection(10s));
    EXPECT_EQ(m_session->state(), ConnectionState::Disconnected);
    ASSERT_EQ(m_session->searchReport().size(), 1u);
    EXPECT_EQ(m_session->searchReport().front().path, missing);
    EXPECT_FALSE(m_session->searchReport().front().reason.empty());

    startSimulator();
    for (int round = 0; round < 2; ++round) {
        m_calls.clear();
        m_session->open(PortChoice::only(m_sim->portPath()));
        ASSERT_TRUE(m_session->waitForConnection(8s));
        EXPECT_EQ(m_session->readRevision(), "2.1");
        EXPECT_EQ(m_session->revision(), "2.1");
        m_session->close();
        EXPECT_TRUE(m_calls.waitFor("state 0", 3s));
        EXPECT_EQ(m_session->state(), ConnectionState::Disconnected);
        EXPECT_FALSE(m_session->write(Setting::CurrentLimit, 5).answer);
    }
    EXPECT_EQ(m_sim->requestCount('C'), 0u);
}

TEST_F(SessionTest, APortThatAppearsIsToldWithoutPolling)
{
    openSession();
    m_session->watchPorts(true);
    m_sim->unplug();
    ASSERT_TRUE(m_calls.waitFor("state 1", 2s));
    EXPECT_EQ(m_calls.count("port appeared"), 0u);
    ASSERT_TRUE(m_sim->plugIn());
    EXPECT_TRUE(m_calls.waitFor("port appeared", 2s)) << ::testing::PrintToString(m_calls.items());
    m_session->watchPorts(false);
    m_session->watchPorts(true); // a watch stopped and started again is whole
    m_session->watchPorts(false);
}

} // namespace
} // namespace dravinel::testing
