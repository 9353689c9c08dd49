#include "EngineFixture.h"

#include "protocol/Globals.h"
#include "protocol/SerialManager.h"

namespace dravinel::testing {
namespace {

double secondsBetween(Clock::time_point a, Clock::time_point b)
{
    return std::chrono::duration<double>(b - a).count();
}

TEST_F(EngineTest, TransactionsWaitForTheirAnswersWithinTheBudget)
{
    connect();
    m_manager->enableKeepaliveCheck(false);
    auto serial = m_manager->getSerialManager();

    auto answer = serial->sendWithResponses(READ_REV_REQ, nullptr, 0, 1, DELAY_RESPONSE);
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer->size(), 1u);
    EXPECT_EQ(toText(answer->front()), "b,2.1\n\r");

    // A mute device: nothing after numResponses x timeout.
    m_sim->setMute(true);
    const auto start = Clock::now();
    EXPECT_FALSE(serial->sendWithResponses(READ_REV_REQ, nullptr, 0, 2, 200));
    const double waited = secondsBetween(start, Clock::now());
    EXPECT_GE(waited, 0.39);
    EXPECT_LT(waited, 1.5);
    EXPECT_TRUE(m_log.contains("SerialManager sendWithResponses : Did not get enough responses"));

    // A frame starting "MX" is a monitor frame, never a response.
    Recorder done(MonitorMotorDoneEvent, "value");
    m_log.clear();
    std::thread late([&] {
        std::this_thread::sleep_for(50ms);
        m_sim->sendLine("MX:5");
    });
    EXPECT_FALSE(serial->sendWithResponses(READ_REV_REQ, nullptr, 0, 1, 400));
    late.join();
    EXPECT_EQ(done.values(), std::vector<std::int64_t>{5});
    EXPECT_TRUE(m_log.contains(" <= MONITOR : MX:5"));

    // Zero awaited: an empty list at once.
    auto none = serial->sendWithResponses(READ_V_BATT_REQ, nullptr, 0, 0, DELAY_RESPONSE);
    ASSERT_TRUE(none);
    EXPECT_TRUE(none->empty());
}

TEST_F(EngineTest, SurplusAnswersGoTheUnsolicitedWay)
{
    connect();
    m_manager->enableKeepaliveCheck(false);
    auto serial = m_manager->getSerialManager();

    // Three answers to a request of two: the transaction takes two, never the third.
    m_sim->setSettingsOrder("cir");
    auto answers = serial->sendWithResponses(READ_SETTINGS_REQ, nullptr, 0, 2, 500);
    ASSERT_TRUE(answers);
    ASSERT_EQ(answers->size(), 2u);
    EXPECT_EQ(answers->at(0).front(), 'c');
    EXPECT_EQ(answers->at(1).front(), 'i');

    // Nothing awaited: the answer that still comes is unsolicited.
    m_log.clear();
    ASSERT_TRUE(serial->sendWithResponses(READ_V_BATT_REQ, nullptr, 0, 0, DELAY_RESPONSE));
    EXPECT_TRUE(m_log.waitFor(" <= UNSOLICITED : v,", 1s));
    EXPECT_FALSE(m_log.contains(" <= RESPONSE : v,"));

    // The IR form is a valid response but a misformed unsolicited frame.
    m_log.clear();
    m_sim->sendLine("IR: 7");
    EXPECT_TRUE(m_log.waitFor("Unsolicited incoming frame : Misformed frame received", 1s));
    m_sim->setAnswerOverride('N', "IR: 7");
    auto ir = serial->sendWithResponses(READ_IR_REQ, nullptr, 0, 1, 500);
    ASSERT_TRUE(ir);
    EXPECT_EQ(toText(ir->front()), "IR: 7\n\r");

    // A buffered answer with a bad shape fails the transaction.
    m_sim->setAnswerOverride('V', "v;12");
    EXPECT_FALSE(serial->sendWithResponses(READ_V_BATT_REQ, nullptr, 0, 1, 500));
    EXPECT_TRUE(m_log.contains("SerialManager sendWithResponses : Invalid frame received"));
}

TEST_F(EngineTest, ScanWithoutDeviceGivesUpAfterTwoEmptyCycles)
{
    m_manager = DeviceManager::create();
    ASSERT_TRUE(m_manager->waitUntilStopped(5s));
    const auto entries = m_states.entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].value, Scanning);
    EXPECT_EQ(entries[1].value, Disconnected);
    // Two cycles, each ending with a one-second pause.
    const double gap = secondsBetween(entries[0].at, entries[1].at);
    EXPECT_GE(gap, 1.9);
    EXPECT_LT(gap, 3.0);
}

TEST_F(EngineTest, ConnectionIsKeptAliveAndStopIsPrompt)
{
    connect();
    const auto connectedAt = m_states.entries().back().at;
    ASSERT_TRUE(m_sim->waitForRequests('V', 1, 5s));
    Clock::time_point keepAlive;
    for (const auto& request : m_sim->requests())
        if (request.code == 'V')
            keepAlive = request.at;
    const double period = secondsBetween(connectedAt, keepAlive);
    EXPECT_GT(period, 2.9);
    EXPECT_LT(period, 3.5);
    EXPECT_TRUE(m_manager->isConnected());

    const auto stopAt = Clock::now();
    m_manager->stop();
    auto disconnecting = m_states.waitFor(Disconnecting, 1s);
    auto disconnected = m_states.waitFor(Disconnected, 1s);
    ASSERT_TRUE(disconnecting && disconnected);
    EXPECT_LT(*disconnecting, *disconnected);
    EXPECT_LT(secondsBetween(stopAt, m_states.entries()[*disconnected].at), 0.5);
    EXPECT_TRUE(m_manager->waitUntilStopped(1s));
    EXPECT_FALSE(m_manager->isConnected());
}

TEST_F(EngineTest, UnpluggedDeviceIsNoticedAndFoundAgain)
{
    connect();
    const auto connectedCount = m_states.entries().size();
    const auto unpluggedAt = Clock::now();
    m_sim->unplug();
    auto scanning = m_states.waitFor(Scanning, 5s, connectedCount);
    ASSERT_TRUE(scanning);
    EXPECT_LT(secondsBetween(unpluggedAt, m_states.entries()[*scanning].at), 4.5);

    ASSERT_TRUE(m_sim->plugIn());
    EXPECT_TRUE(m_states.waitFor(Connected, 6s, *scanning));
}

TEST_F(EngineTest, PortsOfferExplicitOnesFirst)
{
    register_port_path("/tmp/no-such-port-for-test");
    startSimulator();
    auto manager = DeviceManager::create();
    const auto ports = manager->getSerialManager()->getPorts();
    manager->stop();
    EXPECT_TRUE(manager->waitUntilStopped(5s));
    unregister_port_path("/tmp/no-such-port-for-test");
    ASSERT_GE(ports.size(), 2u);
    EXPECT_EQ(ports[0], "/tmp/no-such-port-for-test");
    EXPECT_EQ(ports[1], m_sim->portPath());
    for (std::size_t i = 2; i < ports.size(); ++i)
        EXPECT_NE(ports[i].find("Dravinel"), std::string::npos);
}

} // namespace
} // namespace dravinel::testing
