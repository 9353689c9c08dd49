#include "EngineFixture.h"

#include "device/Restore.h"

#include <future>

namespace dravinel::testing {
namespace {

using Write = RestoreRow::Write;
using PutBack = RestoreRow::PutBack;
using End = RestoreReport::End;

class RestoreTest : public EngineTest
{
protected:
    void SetUp() override
    {
        EngineTest::SetUp();
        startSimulator();
        m_session = std::make_unique<DeviceSession>();
        m_session->open(PortChoice::only(m_sim->portPath()));
        ASSERT_TRUE(m_session->waitForConnection(8s));
        m_session->enableKeepalive(false);
    }
    void TearDown() override
    {
        m_session.reset();
        EngineTest::TearDown();
    }
    // One letter a row: '-' not sent, 'y' confirmed, 'n' not confirmed; then ' ' nothing to put
    // back, 'p' put back, 'x' not put back.
    static std::string shape(const RestoreReport& report)
    {
        std::string out;
        for (const auto& row : report.rows) {
            out += row.write == Write::NotSent ? '-' : row.write == Write::Confirmed ? 'y' : 'n';
            out += row.putBack == PutBack::NotNeeded ? ' '
                   : row.putBack == PutBack::PutBack ? 'p'
                                                     : 'x';
        }
        return out;
    }

    std::unique_ptr<DeviceSession> m_session;
};

// The simulator holds 120, 300, 40, 35, 200, 90 at the start of each case.
TEST_F(RestoreTest, AFailedWriteAtFirstMiddleOrLastPutsBackOnlyWhatChanged)
{
    const RestoreValues all = {11, 300, 13, 14, 15, 16}; // ir-detection unchanged
    const std::array<std::uint16_t, 6> original = {120, 300, 40, 35, 200, 90};
    // The code whose write is answered wrongly (its put-back too, though the simulator takes the
    // value), the rows' shape, and what the device holds after.
    const std::tuple<char, const char*, std::array<std::uint16_t, 6>> cases[] = {
        {0, "y y y y y y ", {11, 300, 13, 14, 15, 16}},
        {'C', "nx- - - - - ", original},
        {'L', "ypy ypnx- - ", original},
        {'T', "ypy ypypypnx", original},
    };
    for (const auto& [code, expected, held] : cases) {
        m_sim->setSettings({});
        m_sim->clearAnswerOverrides();
        const std::string wrong = std::string(1, static_cast<char>(code + 32)) + ",1";
        if (code != 0)
            m_sim->setAnswerOverride(code, wrong);
        const RestoreReport report = restoreSettings(*m_session, all);
        EXPECT_EQ(shape(report), expected) << code;
        EXPECT_EQ(report.end, code == 0 ? End::Done : End::WriteFailed) << code;
        EXPECT_EQ(report.failedAt.has_value(), code != 0);
        if (report.failedAt) {
            EXPECT_EQ(report.rows[*report.failedAt].answer, wrong);
        }
        EXPECT_EQ(m_sim->settings().values, held) << code;
    }
}

TEST_F(RestoreTest, ASubsetTouchesOnlyItsRowsAndALostDeviceClaimsNoPutBack)
{
    RestoreValues some;
    some[settingIndex(Setting::MotorSpeed)] = 200; // unchanged
    some[settingIndex(Setting::CurrentLimit)] = 7;
    m_sim->clearRequests();
    RestoreReport report = restoreSettings(*m_session, some);
    EXPECT_EQ(report.end, End::Done);
    EXPECT_EQ(shape(report), "y y ");
    EXPECT_EQ(report.rows[0].setting, Setting::CurrentLimit);
    EXPECT_EQ(report.rows[0].before, 120);
    EXPECT_EQ(m_sim->requestCount('S') + m_sim->requestCount('C'), 2u);
    EXPECT_EQ(m_sim->requestCount('I') + m_sim->requestCount('T'), 0u);

    // Stopped between two writes: what was written stays, the rest is not sent.
    int asked = 0;
    report = restoreSettings(*m_session, {1, 2, 3, 4, 5, 6}, [&] { return ++asked > 2; });
    EXPECT_EQ(report.end, End::Interrupted);
    EXPECT_EQ(shape(report), "y y - - - - ");

    // Unplugged while the third write waits for its answer.
    m_sim->setSettings({});
    m_sim->setResponseDelay(300ms);
    m_sim->clearRequests();
    auto running = std::async(std::launch::async, [&] {
        return restoreSettings(*m_session, {120, 9, 9, 9, 9, 9});
    });
    ASSERT_TRUE(m_sim->waitForRequests('R', 1, 5s));
    m_sim->unplug();
    report = running.get();
    EXPECT_EQ(report.end, End::DeviceLost);
    // Unchanged current-limit needs nothing; the changed ir-detection could not be put back.
    EXPECT_EQ(shape(report), "y yxnx- - - ");

    // Nothing to read from: nothing written.
    report = restoreSettings(*m_session, {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(report.end, End::DeviceLost);
    EXPECT_TRUE(report.rows.empty());
}

} // namespace
} // namespace dravinel::testing
