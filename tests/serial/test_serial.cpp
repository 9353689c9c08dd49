#include "serial/serial.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

namespace dravinel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Runs read_bytes_until_byte on its own thread. The flag is cleared on the way out, before the
// future waits for the thread, so a read that never ends fails its test instead of hanging it.
struct BackgroundRead
{
    std::atomic<bool> keepReading{true};
    std::future<std::string> result;

    explicit BackgroundRead(int fd)
        : result(std::async(std::launch::async, [this, fd] {
              return toText(read_bytes_until_byte(fd, '\n', &keepReading));
          }))
    {}
    ~BackgroundRead() { keepReading = false; }
    bool endsWithin(std::chrono::milliseconds timeout)
    {
        return result.wait_for(timeout) == std::future_status::ready;
    }
};

// A fresh folder, and a raw pty whose slave is open as the port; the test plays the device on
// the master.
class SerialTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string pattern = testing::TempDir() + "serial-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_dir = pattern;
        termios raw{};
        cfmakeraw(&raw);
        char name[256] = {};
        ASSERT_EQ(openpty(&m_master, &m_slave, name, &raw, nullptr), 0);
        m_path = name;
        testing::internal::CaptureStderr();
        m_fd = open_serial_port(name);
        m_openMessages = testing::internal::GetCapturedStderr();
        ASSERT_GE(m_fd, 0);
    }
    void TearDown() override
    {
        if (m_fd >= 0)
            close_serial_port(m_fd);
        for (int fd : {m_master, m_slave})
            if (fd >= 0)
                close(fd);
        std::error_code ec;
        fs::remove_all(m_dir, ec);
    }
    void write(const std::string& text) const
    {
        ASSERT_EQ(::write(m_master, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::string line() const { return toText(read_bytes_until_byte(m_fd, '\n')); }

    fs::path m_dir;
    int m_master = -1, m_slave = -1, m_fd = -1;
    std::string m_path, m_openMessages;
};

TEST_F(SerialTest, OpenSetsRaw115200DespiteRefusedModemLinesAndCloseRestoresTheLine)
{
    // A pty has no modem lines: each of the four steps is reported and the open goes on.
    const std::string tail = " " + m_path + " - Inappropriate ioctl for device(25).\n";
    EXPECT_EQ(m_openMessages, "Error asserting DTR" + tail + "Error clearing DTR" + tail +
                                  "Error setting handshake lines" + tail +
                                  "Error getting handshake lines" + tail);

    EXPECT_NE(fcntl(m_fd, F_GETFL) & O_NONBLOCK, 0);
    termios now{};
    ASSERT_EQ(tcgetattr(m_fd, &now), 0);
    EXPECT_EQ(cfgetispeed(&now), static_cast<speed_t>(B115200));
    EXPECT_EQ(now.c_cflag & (CSIZE | PARENB | CRTSCTS), static_cast<tcflag_t>(CS8));
    EXPECT_EQ(now.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(now.c_cc[VMIN], 0);
    EXPECT_EQ(now.c_cc[VTIME], 1);

    EXPECT_EQ(close_serial_port(std::exchange(m_fd, -1)), 0);
    ASSERT_EQ(tcgetattr(m_slave, &now), 0);
    EXPECT_NE(cfgetispeed(&now), static_cast<speed_t>(B115200));
    EXPECT_EQ(now.c_cc[VTIME], 0);
}

TEST_F(SerialTest, MissingPortOrNegativeDescriptorIsRefusedWithAMessage)
{
    const std::string path = (m_dir / "ttyUSB9").string();
    EXPECT_FALSE(is_device_open(path.c_str()));
    EXPECT_FALSE(is_device_open(nullptr));
    EXPECT_TRUE(is_device_open(m_path.c_str()));
    testing::internal::CaptureStderr();
    EXPECT_EQ(open_serial_port(path.c_str()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error opening serial port " + path + " - No such file or directory(2).\n");

    EXPECT_TRUE(read_bytes_until_byte(-1, '\n').empty());
    EXPECT_FALSE(send_frame(-1, toBytes("R12\n\r")));
    testing::internal::CaptureStderr();
    EXPECT_EQ(get_rts(-1), -1);
    EXPECT_FALSE(set_rts(-1, true));
    EXPECT_EQ(get_cts(-1), -1);
    EXPECT_EQ(get_dtr(-1), -1);
    EXPECT_FALSE(set_dtr(-1, false));
    std::string expected;
    for (int i = 0; i < 5; ++i)
        expected += "serial -> Device not opened\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
}

TEST_F(SerialTest, ReadReturnsOneLineAtATimeWithoutTheStopByteInPiecesOfAtMost4096)
{
    write("first\nsecond\n");
    EXPECT_EQ(line(), "first");
    EXPECT_EQ(line(), "second");

    // A line that arrives in parts is gathered across the waits.
    BackgroundRead reader(m_fd);
    write("CD");
    std::this_thread::sleep_for(150ms);
    write("E\nr");
    ASSERT_TRUE(reader.endsWithin(2s));
    EXPECT_EQ(reader.result.get(), "CDE");
    EXPECT_EQ(toText(read_byte(m_fd)), "r");

    // The master blocks once the line discipline's buffer is full, so it writes on its own
    // thread while the port is read.
    const auto writer =
        std::async(std::launch::async, [this] { write(std::string(5000, 'x') + "\n"); });
    EXPECT_EQ(line(), std::string(4096, 'x'));
    EXPECT_EQ(line(), std::string(904, 'x'));
}

TEST_F(SerialTest, AWaitingReadEndsOnClearedFlagOrCloseWithTheBytesSoFarAndIdlesWithoutCpu)
{
    write("xy");
    const std::clock_t cpuBefore = std::clock();
    {
        BackgroundRead reader(m_fd);
        std::this_thread::sleep_for(300ms);
        EXPECT_FALSE(reader.endsWithin(0ms));
        reader.keepReading = false;
        ASSERT_TRUE(reader.endsWithin(500ms));
        EXPECT_EQ(reader.result.get(), "xy");
    }
    // A reader that spun would burn about as much CPU as the 300 ms wait lasted.
    EXPECT_LT(static_cast<double>(std::clock() - cpuBefore) / CLOCKS_PER_SEC, 0.03);
    write("z\n");
    EXPECT_EQ(line(), "z") << "the port stays usable";

    write("par");
    BackgroundRead reader(m_fd);
    std::this_thread::sleep_for(150ms);
    EXPECT_FALSE(reader.endsWithin(0ms));
    EXPECT_EQ(close_serial_port(std::exchange(m_fd, -1)), 0);
    ASSERT_TRUE(reader.endsWithin(500ms));
    EXPECT_EQ(reader.result.get(), "par");
}

TEST_F(SerialTest, ReadEndsPromptlyWhenTheOtherSideHangsUp)
{
    BackgroundRead reader(m_fd);
    write("gone");
    std::this_thread::sleep_for(100ms);
    close(std::exchange(m_master, -1));
    ASSERT_TRUE(reader.endsWithin(500ms)) << "read did not end on hang-up";
    EXPECT_EQ(reader.result.get(), "gone");

    // Later reads on the dead line end at once too.
    const auto again = Clock::now();
    EXPECT_TRUE(line().empty());
    EXPECT_LT(Clock::now() - again, 200ms);

    // The hung-up line refuses the drain and the restore; both are reported, the close is not.
    testing::internal::CaptureStderr();
    EXPECT_EQ(close_serial_port(std::exchange(m_fd, -1)), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error waiting for drain - Input/output error(5).\n"
              "Error resetting tty attributes - Input/output error(5).\n");
}

TEST_F(SerialTest, SendFrameIsTrueOnlyForACompleteWrite)
{
    EXPECT_TRUE(send_frame(m_fd, toBytes("R12\n\r")));
    EXPECT_EQ(toText(read_bytes_until_byte(m_master, '\r')), "R12\n");
    // Nobody reads the master, so the non-blocking port takes only part of a large frame.
    EXPECT_FALSE(send_frame(m_fd, Bytes(1 << 20, 'y')));
}

TEST(SerialLog, LogStringEscapesAndStaysInsideItsBuffer)
{
    EXPECT_STREQ(log_string("a\tb\n\r\x1b\x01"), "a\\tb\\n\\r\\e\\001");
    EXPECT_STREQ(log_string("\x7f\xe9"), "\\177\\377");

    EXPECT_EQ(std::string(log_string(std::string(3000, 'a').c_str())), std::string(2047, 'a'));
    // An escape that does not fit whole is left out rather than cut.
    std::string expected;
    for (int i = 0; i < 511; ++i)
        expected += "\\001";
    EXPECT_EQ(std::string(log_string(std::string(3000, '\x01').c_str())), expected);
    const std::string tabs = std::string(2046, 'b') + "\t\t";
    EXPECT_EQ(std::string(log_string(tabs.c_str())), std::string(2046, 'b'));
}

TEST_F(SerialTest, PortPathsListByIdLinksFirstThenHardwareNodesOnceAndNoneForEmptyTrees)
{
    const fs::path dev = m_dir / "dev", byId = dev / "serial" / "by-id", sys = m_dir / "tty";
    fs::create_directories(byId);
    for (const char* node :
         {"ttyUSB0", "ttyUSB1", "ttyUSB10", "ttyACM0", "ttyS0", "ttyS1", "ttyS4", "tty0"})
        std::ofstream(dev / node) << '\n';
    fs::create_symlink("../../ttyUSB0", byId / "usb-Dravinel_Drive_A1-if00-port0");
    fs::create_symlink("../../ttyACM0", byId / "usb-Acme_Modem_77-if00");

    // Class entries: name, driver folder (empty: none), port type. ttyUSB2 has no node in dev,
    // ttyS1 is a serial8250 placeholder (type 0), tty0 a virtual console without device.
    const std::tuple<const char*, const char*, const char*> ttys[] = {
        {"ttyUSB0", "", "0"},          {"ttyUSB10", "", "0"},
        {"ttyUSB1", "", "0"},          {"ttyUSB2", "", "0"},
        {"ttyACM0", "", "0"},          {"ttyS0", "platform/serial8250", "4"},
        {"ttyS4", "pnp0/serial", "0"}, {"ttyS1", "platform/serial8250", "0"}};
    for (const auto& [name, driver, type] : ttys) {
        fs::create_directories(sys / name / "device");
        std::ofstream(sys / name / "type") << type;
        if (*driver != '\0') {
            fs::create_directories(m_dir / driver);
            fs::create_symlink(m_dir / driver, sys / name / "device" / "driver");
        }
    }
    fs::create_directories(sys / "tty0");

    const SerialRoots roots{byId.string(), sys.string(), dev.string()};
    std::vector<std::string> expected{(byId / "usb-Acme_Modem_77-if00").string(),
                                      (byId / "usb-Dravinel_Drive_A1-if00-port0").string()};
    for (const char* node : {"ttyS0", "ttyS4", "ttyUSB1", "ttyUSB10"})
        expected.push_back((dev / node).string());
    testing::internal::CaptureStderr();
    EXPECT_EQ(get_port_paths(roots), expected);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    // Explicit ports live beside the enumeration, never in it, and each only once.
    register_port_path("/tmp/sim-port");
    register_port_path("/tmp/sim-port");
    EXPECT_EQ(registered_port_paths(), std::vector<std::string>{"/tmp/sim-port"});
    EXPECT_EQ(get_port_paths(roots), expected);
    unregister_port_path("/tmp/sim-port");
    EXPECT_TRUE(registered_port_paths().empty());

    // Missing by-id and empty class folders give an empty list quietly; a missing class folder
    // is an error.
    fs::create_directories(m_dir / "empty");
    const auto bare = [this](const char* tty) {
        return SerialRoots{(m_dir / "none").string(), (m_dir / tty).string(), m_dir.string()};
    };
    testing::internal::CaptureStderr();
    EXPECT_TRUE(get_port_paths(bare("empty")).empty());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_TRUE(get_port_paths(bare("none")).empty());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Couldn't find ports\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "IOServiceGetMatchingServices returned " + std::to_string(ENOENT) + "\n");
}

} // namespace
} // namespace dravinel
