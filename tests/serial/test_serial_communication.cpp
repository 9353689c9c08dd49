#include "EngineFixture.h"
#include "serial/QueueAdditions.h"
#include "serial/SerialCommunication.h"
#include "serial/serial.h"
#include "support/Logger.h"
#include "support/NotificationCenter.h"

#include <gtest/gtest.h>

#include <pty.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <filesystem>
#include <thread>

namespace dravinel {
namespace {

using namespace std::chrono_literals;

// The frames one channel posts under one name.
struct FrameSink : testing::Collector<std::string>
{
    FrameSink(const char* name, const void* sender)
    {
        token = NotificationCenter::defaultCenter().observe(name, [this, sender](const Notification& n) {
            if (n.sender == sender)
                add(toText(n.bytes("data").value_or(Bytes{})));
        });
    }
    ~FrameSink() { NotificationCenter::defaultCenter().remove(token); }
    std::vector<std::string> waitFor(std::size_t count, std::chrono::milliseconds timeout = 2s)
    {
        waitForCount(count, timeout);
        return items();
    }
    NotificationCenter::Token token = 0;
};

// A framing of the test's own: a piece of two bytes or fewer is noise, the rest gets a '|'.
Framing testFraming()
{
    return {'\n', [](Bytes piece) -> std::optional<Bytes> {
                if (piece.size() <= 2)
                    return std::nullopt;
                piece.push_back('|');
                return piece;
            }};
}

class SerialCommunicationTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        Logger::getInstance().setSink([](const std::string&) {});
        set_serial_message_sink([](const std::string&) {});
        termios raw{};
        cfmakeraw(&raw);
        char name[256] = {};
        ASSERT_EQ(openpty(&m_master, &m_slave, name, &raw, nullptr), 0);
        m_link = std::filesystem::temp_directory_path() / ("dravinel-channel-" + std::to_string(getpid()));
        std::filesystem::remove(m_link);
        std::filesystem::create_symlink(name, m_link);
        m_channel.setPortName(m_link.string());
        m_channel.setOnLineLost([this] { ++m_lost; });
    }
    void TearDown() override
    {
        m_channel.stop();
        for (int fd : {m_master, m_slave})
            if (fd >= 0)
                close(fd);
        std::filesystem::remove(m_link);
        Logger::getInstance().setSink({});
        set_serial_message_sink({});
    }
    void write(const std::string& bytes) const
    {
        ASSERT_EQ(::write(m_master, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    int m_master = -1, m_slave = -1;
    std::filesystem::path m_link;
    std::atomic<int> m_lost{0};
    SerialCommunication m_channel{testFraming()};
};

TEST_F(SerialCommunicationTest, CutsTheStreamWithItsOwnersFramingAndPublishesBothDirections)
{
    FrameSink incoming(ComOnIncomingFrame, &m_channel);
    FrameSink outgoing(ComOnOutcomingFrame, &m_channel);
    ASSERT_TRUE(m_channel.start());
    EXPECT_TRUE(m_channel.isRunning());
    EXPECT_FALSE(m_channel.start()); // already running

    write("b,1\nab\nv,37\n");
    EXPECT_EQ(incoming.waitFor(2), (std::vector<std::string>{"b,1|", "v,37|"}));
    m_channel.insertByteFrameToSend(toBytes("C120\n\r"));
    EXPECT_EQ(outgoing.waitFor(1), std::vector<std::string>{"C120\n\r"});
    char received[16] = {};
    ASSERT_EQ(read(m_master, received, sizeof received), 6);
    EXPECT_EQ(std::string(received, 6), "C120\n\r");

    const auto before = std::chrono::steady_clock::now();
    m_channel.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 500ms);
    EXPECT_FALSE(m_channel.isRunning());
    EXPECT_EQ(m_lost, 0) << "a stop is not a lost line";
    // Sent after the stop: the write goes nowhere but is posted.
    m_channel.sendFrame(toBytes("V\n\r"));
    EXPECT_EQ(outgoing.waitFor(2).size(), 2u);
}

TEST_F(SerialCommunicationTest, RefusesAnEmptyOrMissingPortWithItsReason)
{
    SerialCommunication channel(testFraming());
    channel.stop(); // never started
    EXPECT_FALSE(channel.start());
    EXPECT_FALSE(channel.lastError());
    channel.setPortName("/dev/no-such-port");
    EXPECT_FALSE(channel.start());
    ASSERT_TRUE(channel.lastError());
    EXPECT_EQ(channel.lastError()->error, ENOENT);
}

TEST_F(SerialCommunicationTest, AHangUpIsReportedOnceTheCutLineDroppedAndTheReaderRests)
{
    FrameSink incoming(ComOnIncomingFrame, &m_channel);
    ASSERT_TRUE(m_channel.start());
    write("v,1\nIMEAS: 4");
    ASSERT_EQ(incoming.waitFor(1).size(), 1u);
    std::this_thread::sleep_for(50ms);
    // Unplugged: the line hangs up and the node goes.
    close(std::exchange(m_master, -1));
    close(std::exchange(m_slave, -1));
    std::filesystem::remove(m_link);
    for (int i = 0; i < 500 && m_lost == 0; ++i)
        std::this_thread::sleep_for(2ms);
    EXPECT_EQ(m_lost, 1);
    EXPECT_TRUE(m_channel.lineLost());

    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    std::this_thread::sleep_for(300ms);
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    const auto cpuUs = [](const rusage& r) {
        return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1'000'000L + r.ru_utime.tv_usec + r.ru_stime.tv_usec;
    };
    // A spinning reader would burn the whole 300 ms; resting costs next to nothing.
    EXPECT_LT(cpuUs(after) - cpuUs(before), 100'000L);
    EXPECT_EQ(m_lost, 1);
    EXPECT_EQ(incoming.waitFor(2, 100ms), std::vector<std::string>{"v,1|"}) << "the cut line is no frame";
}

TEST(QueueAdditionsTest, IsFirstInFirstOutAndRefusesAnEmptyQueue)
{
    std::deque<int> queue;
    enqueue(queue, 1);
    enqueue(queue, 2);
    EXPECT_EQ(dequeue(queue), 1);
    EXPECT_EQ(dequeue(queue), 2);
    EXPECT_THROW(dequeue(queue), std::out_of_range);
}

} // namespace
} // namespace dravinel
