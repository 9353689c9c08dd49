#include "serial/QueueAdditions.h"
#include "serial/SerialCommunication.h"
#include "support/Logger.h"
#include "support/NotificationCenter.h"

#include <gtest/gtest.h>

#include <pty.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace dravinel {
namespace {

using namespace std::chrono_literals;

// A raw pty pair; the test writes the device's side on the master.
struct Pty
{
    int master = -1;
    int slave = -1;
    std::string path;

    Pty()
    {
        termios raw{};
        cfmakeraw(&raw);
        char name[256] = {};
        if (openpty(&master, &slave, name, &raw, nullptr) == 0)
            path = name;
    }
    ~Pty()
    {
        if (master >= 0)
            close(master);
        if (slave >= 0)
            close(slave);
    }
    void write(const std::string& bytes) const
    {
        ASSERT_EQ(::write(master, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
};

// Frames posted by one channel.
class FrameSink
{
public:
    FrameSink(const char* name, const void* sender)
    {
        m_token = NotificationCenter::defaultCenter().observe(
            name, [this, sender](const Notification& n) {
                if (n.sender != sender)
                    return;
                std::lock_guard lock(m_mutex);
                m_frames.push_back(toText(n.bytes("data").value_or(Bytes{})));
                m_added.notify_all();
            });
    }
    ~FrameSink() { NotificationCenter::defaultCenter().remove(m_token); }

    std::vector<std::string> waitFor(std::size_t count)
    {
        std::unique_lock lock(m_mutex);
        m_added.wait_for(lock, 2s, [&] { return m_frames.size() >= count; });
        return m_frames;
    }

private:
    NotificationCenter::Token m_token;
    std::mutex m_mutex;
    std::condition_variable m_added;
    std::vector<std::string> m_frames;
};

class SerialCommunicationTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        Logger::getInstance().setSink([](const std::string&) {});
        ::testing::internal::CaptureStderr(); // the pty refuses the modem-line calls
    }
    void TearDown() override
    {
        ::testing::internal::GetCapturedStderr();
        Logger::getInstance().setSink({});
    }
};

TEST_F(SerialCommunicationTest, CutsTheStreamIntoFramesAndPublishesBothDirections)
{
    Pty pty;
    ASSERT_FALSE(pty.path.empty());
    auto channel = std::make_shared<SerialCommunication>();
    FrameSink incoming(ComOnIncomingFrame, channel.get());
    FrameSink outgoing(ComOnOutcomingFrame, channel.get());
    channel->setPortName(pty.path);
    ASSERT_TRUE(channel->start());
    EXPECT_TRUE(channel->isRunning());
    EXPECT_FALSE(channel->start()); // already running

    // The CR closing each frame arrives at the start of the next piece; a piece of two bytes (CR
    // and one more) is noise.
    pty.write("b,1\n\rc,5\n\rx\n\rv,37\n\r");
    EXPECT_EQ(incoming.waitFor(3), (std::vector<std::string>{"b,1\n\r", "c,5\n\r", "v,37\n\r"}));

    channel->insertByteFrameToSend(toBytes("C120\n\r"));
    EXPECT_EQ(outgoing.waitFor(1), std::vector<std::string>{"C120\n\r"});
    char received[16] = {};
    ASSERT_EQ(read(pty.master, received, sizeof received), 6);
    EXPECT_EQ(std::string(received, 6), "C120\n\r");

    const auto before = std::chrono::steady_clock::now();
    channel->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 500ms);
    EXPECT_FALSE(channel->isRunning());
    // Sent after the stop: nothing is read any more, and the write goes nowhere but is posted.
    channel->sendFrame(toBytes("V\n\r"));
    EXPECT_EQ(outgoing.waitFor(2).size(), 2u);
}

TEST_F(SerialCommunicationTest, RefusesAnEmptyNameAndStopsWhenNeverStarted)
{
    auto channel = std::make_shared<SerialCommunication>();
    EXPECT_EQ(channel->getPortName(), "");
    EXPECT_FALSE(channel->start());
    channel->stop();
    EXPECT_FALSE(channel->isRunning());

    channel->setPortName("/dev/no-such-port");
    EXPECT_FALSE(channel->start());
}

TEST_F(SerialCommunicationTest, ReaderRestsWhileTheLineIsGone)
{
    auto pty = std::make_unique<Pty>();
    const auto link = std::filesystem::temp_directory_path() /
                      ("dravinel-channel-test-" + std::to_string(getpid()));
    std::filesystem::remove(link);
    std::filesystem::create_symlink(pty->path, link);
    auto channel = std::make_shared<SerialCommunication>();
    channel->setPortName(link.string());
    ASSERT_TRUE(channel->start());

    // Unplugged: the node is gone and the line hung up. The reader must neither spin nor hang.
    std::filesystem::remove(link);
    pty.reset();
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    std::this_thread::sleep_for(300ms);
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    const auto cpuUs = [](const rusage& r) {
        return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1'000'000L + r.ru_utime.tv_usec +
               r.ru_stime.tv_usec;
    };
    // A spinning reader would burn the whole 300 ms; resting costs next to nothing.
    EXPECT_LT(cpuUs(after) - cpuUs(before), 100'000L);
    channel->stop();
    EXPECT_FALSE(channel->isRunning());
}

TEST(QueueAdditionsTest, IsFirstInFirstOutAndRefusesAnEmptyQueue)
{
    std::deque<int> queue;
    enqueue(queue, 1);
    enqueue(queue, 2);
    EXPECT_EQ(dequeue(queue), 1);
    EXPECT_EQ(dequeue(queue), 2);
    EXPECT_TRUE(queue.empty());
    EXPECT_THROW(dequeue(queue), std::out_of_range);
}

} // namespace
} // namespace dravinel
