#include "EngineFixture.h"
#include "serial/QueueAdditions.h"
#include "serial/SerialCommunication.h"

#include <cerrno>
#include <ctime>
#include <deque>
#include <fstream>
#include <future>
#include <tuple>

#include <fcntl.h>
#include <pty.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

namespace dravinel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::Recorder;

// Runs read_bytes_until_byte on its own thread; the flag is cleared on the way out, so a read
// that never ends fails its test instead of hanging it.
struct BackgroundRead
{
    std::atomic<bool> keepReading{true};
    ReadEnd end = ReadEnd::Stopped;
    std::future<std::string> result;
    explicit BackgroundRead(int fd)
        : result(std::async(std::launch::async, [this, fd] {
              return toText(read_bytes_until_byte(fd, '\n', &keepReading, -1, &end));
          }))
    {}
    ~BackgroundRead() { keepReading = false; }
    bool endsWithin(std::chrono::milliseconds t)
    {
        return result.wait_for(t) == std::future_status::ready;
    }
};

// A fresh folder and a raw pty whose slave is open as the port; the test plays the device on the
// master. The module's messages are collected.
class SerialTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        set_serial_message_sink([this](const std::string& m) { m_messages += m; });
        std::string pattern = ::testing::TempDir() + "serial-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_dir = pattern;
        termios raw{};
        cfmakeraw(&raw);
        char name[256] = {};
        ASSERT_EQ(openpty(&m_master, &m_slave, name, &raw, nullptr), 0);
        m_path = name;
        m_fd = open_serial_port(name);
        ASSERT_GE(m_fd, 0);
    }
    void TearDown() override
    {
        if (m_fd >= 0)
            close_serial_port(m_fd);
        for (int fd : {m_master, m_slave})
            if (fd >= 0)
                close(fd);
        fs::remove_all(m_dir);
        set_serial_message_sink({});
    }
    void write(const std::string& text) const
    {
        ASSERT_EQ(::write(m_master, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::string line() const { return toText(read_bytes_until_byte(m_fd, '\n')); }
    std::string takeMessages() { return std::exchange(m_messages, {}); }

    fs::path m_dir;
    int m_master = -1, m_slave = -1, m_fd = -1;
    std::string m_path, m_messages;
};

TEST_F(SerialTest, OpenIsRawExclusiveAndFreshAndCloseGivesThePortBack)
{
    // A pty has no modem lines: each of the four steps is reported and the open goes on.
    const std::string tail = " " + m_path + " - Inappropriate ioctl for device(25).\n";
    EXPECT_EQ(takeMessages(), "Error asserting DTR" + tail + "Error clearing DTR" + tail +
                                  "Error setting handshake lines" + tail +
                                  "Error getting handshake lines" + tail);
    EXPECT_NE(fcntl(m_fd, F_GETFL) & O_NONBLOCK, 0);
    termios now{};
    ASSERT_EQ(tcgetattr(m_fd, &now), 0);
    EXPECT_EQ(cfgetispeed(&now), static_cast<speed_t>(B115200));
    EXPECT_EQ(now.c_cflag & (CSIZE | PARENB | CRTSCTS), static_cast<tcflag_t>(CS8));
    EXPECT_EQ(now.c_cc[VMIN], 0);
    EXPECT_EQ(now.c_cc[VTIME], 1);

    // A second open, of this program or another, is refused while the port is held.
    PortError error;
    EXPECT_EQ(open_serial_port(m_path.c_str(), &error), -1);
    EXPECT_TRUE((error.call == "open" && error.error == EBUSY) ||
                (error.call == "flock" && error.error == EWOULDBLOCK))
        << error.call << " " << error.error;
    ASSERT_TRUE(error.holder) << "the holder is named";
    EXPECT_EQ(error.holder->pid, getpid());
    EXPECT_NE(describePortError(m_path, error).find("in use by " + error.holder->name),
              std::string::npos);

    // Bytes waiting before an open are not taken for the first answer; the port reopens for an
    // unprivileged user too, and the close put the line's own settings back.
    EXPECT_EQ(close_serial_port(std::exchange(m_fd, -1)), 0);
    ASSERT_EQ(tcgetattr(m_slave, &now), 0);
    EXPECT_NE(cfgetispeed(&now), static_cast<speed_t>(B115200));
    write("stale\n");
    std::this_thread::sleep_for(20ms);
    m_fd = open_serial_port(m_path.c_str(), &error);
    ASSERT_GE(m_fd, 0) << error.call << " " << error.error;
    write("fresh\n");
    EXPECT_EQ(line(), "fresh");
}

TEST_F(SerialTest, PortErrorsAreValuesAndWordsATechnicianCanActOn)
{
    takeMessages();
    const std::string missing = (m_dir / "ttyUSB9").string();
    PortError error;
    EXPECT_EQ(open_serial_port(missing.c_str(), &error), -1);
    EXPECT_EQ(error, (PortError{"open", ENOENT, std::nullopt}));
    EXPECT_EQ(takeMessages(),
              "Error opening serial port " + missing + " - No such file or directory(2).\n");
    EXPECT_FALSE(is_device_open(missing.c_str()) || is_device_open(nullptr));
    EXPECT_TRUE(is_device_open(m_path.c_str()));
    // A negative descriptor: nothing read or sent, and each modem-line call says so.
    EXPECT_TRUE(read_bytes_until_byte(-1, '\n').empty() && !send_frame(-1, toBytes("R\n\r")));
    EXPECT_EQ(
        std::tuple(get_rts(-1), set_rts(-1, true), get_cts(-1), get_dtr(-1), set_dtr(-1, false)),
        std::tuple(-1, false, -1, -1, false));
    EXPECT_EQ(takeMessages().size(), 5 * std::string("serial -> Device not opened\n").size());

    const SystemFiles files{"/proc", (m_dir / "group").string()};
    const auto words = [&](const std::string& path, PortError error) {
        return describePortError(path, error, files);
    };
    const auto holder = [](const char* name) { return PortHolder{812, name}; };
    const std::tuple<int, std::optional<PortHolder>, std::string> cases[] = {
        {EBUSY, holder("ModemManager"), "in use by ModemManager (pid 812)"},
        {EBUSY, holder("ModemManager"), "ENV{ID_MM_DEVICE_IGNORE}=\"1\""},
        {EWOULDBLOCK, holder("brltty"), "sudo apt remove brltty"},
        {EWOULDBLOCK, holder("minicom"), "in use by minicom (pid 812); close that program first"},
        {ENOENT, std::nullopt, "not found: the device is unplugged, or the path is wrong"},
        {ENOTTY, std::nullopt, "not a serial port"},
        {EROFS, std::nullopt, "could not be opened: open: Read-only file system (30)"},
    };
    for (const auto& [err, who, expected] : cases)
        EXPECT_NE(words(m_path, {"open", err, who}).find(expected), std::string::npos) << expected;

    // Permission: the port's group, from the group file, and what to do about it.
    const fs::path port = m_dir / "ttyUSB0";
    std::ofstream(port) << "";
    if (geteuid() == 0) {
        ASSERT_EQ(chown(port.c_str(), 0, 4242), 0);
        std::ofstream(files.groupFile) << "dialout:x:4242:\n";
        const std::string notInGroup = words(port, {"open", EACCES, {}});
        EXPECT_NE(notInGroup.find("sudo dravinel-cli setup-access --install"), std::string::npos);
        EXPECT_NE(notInGroup.find("sudo usermod -aG dialout $USER"), std::string::npos);
        std::ofstream(files.groupFile) << "dialout:x:4242:someone,root\n";
        EXPECT_NE(words(port, {"open", EACCES, {}}).find("does not have it yet; log out and in"),
                  std::string::npos);
    } else {
        std::ofstream(files.groupFile) << "mine:x:" << getegid() << ":\n";
        EXPECT_NE(words(port, {"open", EACCES, {}}).find("although you are in group mine"),
                  std::string::npos);
    }
}

TEST_F(SerialTest, ReadGivesLinesInPiecesOfAtMost4096AndWaitsIdleUntilStoppedOrHungUp)
{
    write("first\nsecond\n");
    EXPECT_EQ(line(), "first");
    EXPECT_EQ(line(), "second");
    BackgroundRead partial(m_fd);
    write("CD");
    std::this_thread::sleep_for(150ms);
    write("E\nr");
    ASSERT_TRUE(partial.endsWithin(2s));
    EXPECT_EQ(partial.result.get(), "CDE");
    EXPECT_EQ(partial.end, ReadEnd::StopByte);
    EXPECT_EQ(toText(read_byte(m_fd)), "r");
    // The master blocks once the line discipline's buffer is full: it writes on its own thread.
    auto writer = std::async(std::launch::async, [this] { write(std::string(5000, 'x') + "\n"); });
    EXPECT_EQ(line(), std::string(4096, 'x'));
    EXPECT_EQ(line(), std::string(904, 'x'));
    writer.get();
    EXPECT_TRUE(send_frame(m_fd, toBytes("R12\n\r")));
    EXPECT_EQ(toText(read_bytes_until_byte(m_master, '\r')), "R12\n");
    // Nobody reads the master, so the non-blocking port takes only part of a large frame.
    EXPECT_FALSE(send_frame(m_fd, Bytes(1 << 20, 'y')));

    // A waiting read idles, and ends on its flag or on a hang-up.
    write("xy");
    const std::clock_t cpuBefore = std::clock();
    {
        BackgroundRead reader(m_fd);
        std::this_thread::sleep_for(300ms);
        EXPECT_FALSE(reader.endsWithin(0ms));
        reader.keepReading = false;
        ASSERT_TRUE(reader.endsWithin(500ms));
        EXPECT_EQ(reader.result.get(), "xy");
        EXPECT_EQ(reader.end, ReadEnd::Stopped);
    }
    // A reader that spun would burn about as much CPU as the 300 ms wait lasted.
    EXPECT_LT(static_cast<double>(std::clock() - cpuBefore) / CLOCKS_PER_SEC, 0.03);

    write("gone");
    BackgroundRead reader(m_fd);
    std::this_thread::sleep_for(100ms);
    close(std::exchange(m_master, -1));
    ASSERT_TRUE(reader.endsWithin(500ms)) << "read did not end on hang-up";
    EXPECT_EQ(reader.result.get(), "gone");
    EXPECT_EQ(reader.end, ReadEnd::HungUp);
    takeMessages();
    EXPECT_EQ(close_serial_port(std::exchange(m_fd, -1)), 0);
    EXPECT_EQ(takeMessages(), "Error waiting for drain - Input/output error(5).\n"
                              "Error resetting tty attributes - Input/output error(5).\n");
}

TEST(SerialLog, LogStringEscapesAndStaysInsideItsBuffer)
{
    EXPECT_STREQ(log_string("a\tb\n\r\x1b\x01"), "a\\tb\\n\\r\\e\\001");
    EXPECT_STREQ(log_string("\x7f\xe9"), "\\177\\377");
    EXPECT_EQ(std::string(log_string(std::string(3000, 'a').c_str())), std::string(2047, 'a'));
    EXPECT_EQ(std::string(log_string(std::string(3000, '\x01').c_str())).size(), 511u * 4);
}

TEST_F(SerialTest, PortPathsListByIdFirstThenRealHardwareOnce)
{
    const fs::path dev = m_dir / "dev", byId = dev / "serial" / "by-id", sys = m_dir / "tty";
    fs::create_directories(byId);
    for (const char* node :
         {"ttyUSB0", "ttyUSB1", "ttyUSB10", "ttyACM0", "ttyS0", "ttyS1", "ttyS5"})
        std::ofstream(dev / node) << '\n';
    fs::create_symlink("../../ttyUSB0", byId / "usb-Dravinel_Drive_A1-if00-port0");
    fs::create_symlink("../../ttyACM0", byId / "usb-Acme_Modem_77-if00");
    // Name, driver (empty: none), type ("": no type attribute, as USB serial ports have none).
    // ttyUSB2 has no node; ttyS1 is an old-style serial8250 placeholder, ttyS5 a current one on
    // serial-base; tty0 is a virtual console without device.
    const std::tuple<const char*, const char*, const char*> ttys[] = {
        {"ttyUSB0", "", ""},
        {"ttyUSB10", "", ""},
        {"ttyUSB1", "", ""},
        {"ttyUSB2", "", ""},
        {"ttyACM0", "", ""},
        {"ttyS0", "platform/serial8250", "4"},
        {"ttyS1", "platform/serial8250", "0"},
        {"ttyS5", "serial-base/port", "0"}};
    for (const auto& [name, driver, type] : ttys) {
        fs::create_directories(sys / name / "device");
        if (*type != '\0')
            std::ofstream(sys / name / "type") << type;
        if (*driver != '\0') {
            fs::create_directories(m_dir / driver);
            fs::create_symlink(m_dir / driver, sys / name / "device" / "driver");
        }
    }
    fs::create_directories(sys / "tty0");
    std::vector<std::string> expected{(byId / "usb-Acme_Modem_77-if00").string(),
                                      (byId / "usb-Dravinel_Drive_A1-if00-port0").string()};
    for (const char* node : {"ttyS0", "ttyUSB1", "ttyUSB10"})
        expected.push_back((dev / node).string());
    takeMessages();
    EXPECT_EQ(get_port_paths({byId.string(), sys.string(), dev.string()}), expected);
    const auto bare = [this](const char* tty) {
        return SerialRoots{(m_dir / "none").string(), (m_dir / tty).string(), m_dir.string()};
    };
    fs::create_directories(m_dir / "empty");
    EXPECT_TRUE(get_port_paths(bare("empty")).empty());
    EXPECT_EQ(takeMessages(), "");
    EXPECT_TRUE(get_port_paths(bare("none")).empty());
    EXPECT_EQ(takeMessages(), "IOServiceGetMatchingServices returned " + std::to_string(ENOENT) +
                                  "\nCouldn't find ports\n");
    // Without a sink of a front end's, the status goes to standard output, the rest to error.
    set_serial_message_sink({});
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    EXPECT_TRUE(get_port_paths(bare("none")).empty());
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "IOServiceGetMatchingServices returned " + std::to_string(ENOENT) + "\n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Couldn't find ports\n");
}

// The channel with a framing of the test's own: two bytes or fewer are noise, the rest get '|'.
class ChannelTest : public SerialTest
{
protected:
    void SetUp() override
    {
        SerialTest::SetUp();
        ASSERT_EQ(close_serial_port(std::exchange(m_fd, -1)), 0);
        m_channel.setPortName(m_path);
        m_channel.setOnLineLost([this] { ++m_lost; });
    }
    void TearDown() override
    {
        m_channel.stop();
        SerialTest::TearDown();
    }
    testing::LogCapture m_log; // keeps the channel's log lines off the test output
    std::atomic<int> m_lost{0};
    SerialCommunication m_channel{{'\n', [](Bytes piece) -> std::optional<Bytes> {
                                       if (piece.size() <= 2)
                                           return std::nullopt;
                                       piece.push_back('|');
                                       return piece;
                                   }}};
};

TEST_F(ChannelTest, CutsTheStreamWithItsOwnersFramingAndPublishesBothDirections)
{
    Recorder incoming(ComOnIncomingFrame, "data", &m_channel);
    Recorder outgoing(ComOnOutcomingFrame, "data", &m_channel);
    ASSERT_TRUE(m_channel.start());
    EXPECT_FALSE(m_channel.start()); // already running
    write("b,1\nab\nv,37\n");
    ASSERT_TRUE(incoming.waitForCount(2, 2s));
    EXPECT_EQ(incoming.texts(), (std::vector<std::string>{"b,1|", "v,37|"}));
    EXPECT_TRUE(m_channel.insertByteFrameToSend(toBytes("C120\n\r")));
    EXPECT_EQ(outgoing.texts(), std::vector<std::string>{"C120\n\r"});
    EXPECT_EQ(toText(read_bytes_until_byte(m_master, '\r')), "C120\n");
    const auto before = std::chrono::steady_clock::now();
    m_channel.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 500ms);
    EXPECT_FALSE(m_channel.isRunning());
    EXPECT_EQ(m_lost, 0) << "a stop is not a lost line";
    EXPECT_FALSE(m_channel.sendFrame(toBytes("V\n\r"))); // after the stop: fails, but is posted
    EXPECT_EQ(outgoing.size(), 2u);

    SerialCommunication unnamed({});
    unnamed.stop(); // never started
    EXPECT_FALSE(unnamed.start());
}

TEST_F(ChannelTest, AHangUpIsReportedOnceTheCutLineDroppedAndTheReaderRests)
{
    Recorder incoming(ComOnIncomingFrame, "data", &m_channel);
    ASSERT_TRUE(m_channel.start());
    write("v,1\nIMEAS: 4");
    ASSERT_TRUE(incoming.waitForCount(1, 2s));
    std::this_thread::sleep_for(50ms);
    close(std::exchange(m_master, -1)); // unplugged
    for (int i = 0; i < 500 && m_lost == 0; ++i)
        std::this_thread::sleep_for(2ms);
    EXPECT_TRUE(m_channel.lineLost());
    const auto cpu = [] {
        rusage r{};
        getrusage(RUSAGE_SELF, &r);
        return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1'000'000L + r.ru_utime.tv_usec +
               r.ru_stime.tv_usec;
    };
    const long before = cpu();
    std::this_thread::sleep_for(300ms);
    // A spinning reader would burn the whole 300 ms; resting costs next to nothing.
    EXPECT_LT(cpu() - before, 100'000L);
    EXPECT_EQ(m_lost, 1);
    EXPECT_EQ(incoming.texts(), std::vector<std::string>{"v,1|"}) << "the cut line is no frame";

    std::deque<int> queue; // the queue operations, first in, first out
    enqueue(queue, 1);
    enqueue(queue, 2);
    EXPECT_EQ(dequeue(queue), 1);
    EXPECT_EQ(dequeue(queue), 2);
    EXPECT_THROW(dequeue(queue), std::out_of_range);
}

} // namespace
} // namespace dravinel
