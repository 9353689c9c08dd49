#include "EngineFixture.h"
#include "serial/SerialCommunication.h"

#include <thread>

namespace dravinel::testing {
namespace {

constexpr auto kScanning = state(ConnectionState::Scanning);
constexpr auto kDisconnecting = state(ConnectionState::Disconnecting);
constexpr auto kDisconnected = state(ConnectionState::Disconnected);

double secondsBetween(Clock::time_point a, Clock::time_point b)
{
    return std::chrono::duration<double>(b - a).count();
}

TEST_F(EngineTest, TransactionsTakeTheirAnswersWithinTheBudgetAndLeaveTheRestUnsolicited)
{
    connect();
    m_manager->enableKeepaliveCheck(false);
    SerialManager& serial = m_manager->getSerialManager();
    auto answer = serial.sendWithResponses(READ_REV_REQ, nullptr, 0, 1, RESPONSE_TIMEOUT);
    ASSERT_TRUE(answer);
    EXPECT_EQ(*answer, std::vector<Bytes>{toBytes("b,2.1\n\r")});

    // Three answers to a request of two: the two awaited, and the third returned with them when
    // it came while they were being taken, else sorted as it came (unsolicited before, a late
    // answer after); the next request starts clean either way.
    m_sim->setSettingsOrder("cir");
    answer = serial.sendWithResponses(READ_SETTINGS_REQ, nullptr, 0, 2, 500ms);
    ASSERT_TRUE(answer && (answer->size() == 2u || answer->size() == 3u));
    EXPECT_EQ(answer->at(1), toBytes("i,300\n\r"));
    if (answer->size() == 3u)
        EXPECT_EQ(answer->at(2), toBytes("r,40\n\r"));
    else
        EXPECT_TRUE(m_log.waitFor(" : r,40", 2s));
    // Nothing awaited: an empty list at once, and the answer that still comes is unsolicited.
    answer = serial.sendWithResponses(READ_V_BATT_REQ, nullptr, 0, 0, RESPONSE_TIMEOUT);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->empty());
    EXPECT_TRUE(m_log.waitFor(" <= UNSOLICITED : v,", 3s));
    EXPECT_FALSE(m_log.contains(" <= RESPONSE : v,"));

    // A bad shape fails the transaction, but what came is handed back.
    m_sim->setAnswerOverride('V', "v;12");
    std::vector<Bytes> received;
    EXPECT_FALSE(serial.sendWithResponses(READ_V_BATT_REQ, nullptr, 0, 1, 500ms, &received));
    EXPECT_TRUE(m_log.contains("SerialManager sendWithResponses : Invalid frame received"));
    EXPECT_EQ(received, std::vector<Bytes>{toBytes("v;12\n\r")}) << "what came is handed back";

    // A mute device: nothing after numResponses x timeout, and an "MX" frame is never an answer.
    Recorder done(MonitorMotorDoneEvent, "value");
    m_sim->setMute(true);
    std::thread late([&] {
        std::this_thread::sleep_for(50ms);
        m_sim->sendLine("MX:5");
    });
    const auto start = Clock::now();
    EXPECT_FALSE(serial.sendWithResponses(READ_REV_REQ, nullptr, 0, 2, 200ms));
    const double waited = secondsBetween(start, Clock::now());
    late.join();
    EXPECT_GE(waited, 0.39);
    EXPECT_LT(waited, 1.5);
    EXPECT_TRUE(m_log.contains("SerialManager sendWithResponses : Did not get enough responses"));
    EXPECT_EQ(done.values(), std::vector<std::int64_t>{5});

    // A request the line takes only in part fails at once, not at its budget, and is posted.
    Recorder sent(ComOnOutcomingFrame, "data");
    const Bytes huge(256 * 1024, 'x');
    const auto writeAt = Clock::now();
    EXPECT_FALSE(serial.sendWithResponses(READ_V_BATT_REQ, huge.data(), huge.size(), 1,
                                          RESPONSE_TIMEOUT, &received));
    EXPECT_LT(secondsBetween(writeAt, Clock::now()), 0.5);
    EXPECT_TRUE(received.empty());
    EXPECT_TRUE(m_log.contains("SerialManager sendWithResponses : Request not sent"));
    EXPECT_EQ(sent.size(), 1u);
}

TEST_F(EngineTest, ScanWithoutDeviceGivesUpAfterTwoEmptyCyclesHavingOpenedOnlyTheNamedPort)
{
    startSimulator(); // a product port that was not named
    const std::string missing = ::testing::TempDir() + "usb-Dravinel-gone";
    m_manager = DeviceManager::create({{missing}, false});
    EXPECT_EQ(m_manager->getSerialManager().getPorts(), std::vector<std::string>{missing});
    ASSERT_TRUE(m_manager->waitUntilStopped(5s));
    const auto entries = m_states.items();
    ASSERT_EQ(m_states.values(), (std::vector<std::int64_t>{kScanning, kDisconnected}));
    // Two cycles, each a failed port, its one-second pause and the cycle's.
    const double gap = secondsBetween(entries[0].at, entries[1].at);
    EXPECT_GE(gap, 3.9);
    EXPECT_LT(gap, 5.0);
    const auto attempts = m_manager->getPortAttempts();
    ASSERT_EQ(attempts.size(), 1u);
    EXPECT_EQ(attempts[0].outcome, PortAttempt::Outcome::CouldNotOpen);
    EXPECT_EQ(attempts[0].error->error, ENOENT);
    EXPECT_EQ(describePortAttempt(attempts[0]),
              "not found: the device is unplugged, or the path is wrong");
    EXPECT_TRUE(m_sim->requests().empty()) << "the other product port was opened";
}

TEST_F(EngineTest, AStopRightAfterCreatePostsTheSearchAndItsEndWhenTheScanHadNotBegun)
{
    const std::string missing = ::testing::TempDir() + "usb-Dravinel-gone";
    // Whether the scan thread got going before the stop or not, the same states come.
    for (int i = 0; i < 20; ++i) {
        m_states.clear();
        auto manager = DeviceManager::create({{missing}, false});
        manager->stop();
        ASSERT_TRUE(manager->waitUntilStopped(3s));
        EXPECT_EQ(m_states.values(), (std::vector<std::int64_t>{kScanning, kDisconnected}));
    }
}

TEST_F(EngineTest, ConnectionIsKeptAliveAndStopIsPrompt)
{
    connect();
    const auto connectedAt = m_states.items().back().at;
    ASSERT_TRUE(m_sim->waitForRequests('V', 1, 5s));
    Clock::time_point keepAlive;
    for (const auto& request : m_sim->requests())
        if (request.code == 'V')
            keepAlive = request.at;
    EXPECT_GT(secondsBetween(connectedAt, keepAlive), 2.9);
    EXPECT_LT(secondsBetween(connectedAt, keepAlive), 3.5);
    EXPECT_TRUE(m_manager->isConnected());

    const auto stopAt = Clock::now();
    m_manager->stop();
    auto disconnecting = m_states.waitFor(kDisconnecting, 3s);
    auto disconnected = m_states.waitFor(kDisconnected, 3s);
    ASSERT_TRUE(disconnecting && disconnected);
    EXPECT_LT(*disconnecting, *disconnected);
    EXPECT_LT(secondsBetween(stopAt, m_states.items()[*disconnected].at), 0.5);
    EXPECT_TRUE(m_manager->waitUntilStopped(3s));
    EXPECT_FALSE(m_manager->isConnected());
}

} // namespace
} // namespace dravinel::testing
