#include "serial/serial.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

namespace dravinel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A raw pseudo-terminal pair; the test plays the device on the master side.
class Pty
{
public:
    Pty()
    {
        termios raw{};
        cfmakeraw(&raw);
        if (openpty(&m_master, &m_slave, nullptr, &raw, nullptr) != 0)
            return;
        char name[256] = {};
        if (ttyname_r(m_slave, name, sizeof name) == 0)
            m_path = name;
    }
    ~Pty()
    {
        closeMaster();
        if (m_slave >= 0)
            close(m_slave);
    }
    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;

    const std::string& path() const { return m_path; }
    int master() const { return m_master; }
    int slave() const { return m_slave; }

    void write(const std::string& text) const
    {
        ASSERT_EQ(::write(m_master, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    // Whatever arrives on the master within the time-out.
    std::string readAvailable(std::chrono::milliseconds timeout) const
    {
        std::string text;
        pollfd pfd{m_master, POLLIN, 0};
        while (poll(&pfd, 1, static_cast<int>(timeout.count())) > 0) {
            char chunk[256];
            const ssize_t n = ::read(m_master, chunk, sizeof chunk);
            if (n <= 0)
                break;
            text.append(chunk, static_cast<std::size_t>(n));
            timeout = 50ms;
        }
        return text;
    }

    void closeMaster()
    {
        if (m_master >= 0)
            close(m_master);
        m_master = -1;
    }

private:
    int m_master = -1;
    int m_slave = -1;
    std::string m_path;
};

class TempDir
{
public:
    TempDir()
    {
        std::string pattern = testing::TempDir() + "serial-XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr)
            m_path = pattern;
    }
    ~TempDir()
    {
        std::error_code ec;
        if (!m_path.empty())
            fs::remove_all(m_path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const fs::path& path() const { return m_path; }

private:
    fs::path m_path;
};

double threadCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Runs read_bytes_until_byte on its own thread. Should a read never end, the destructor clears
// the keep-reading flag so that a failing test cannot hang the whole run.
class BackgroundRead
{
public:
    explicit BackgroundRead(int fd, bool useFlag = true) : m_future(m_result.get_future())
    {
        m_thread = std::thread([this, fd, useFlag] {
            const double cpuBefore = threadCpuSeconds();
            Bytes bytes = read_bytes_until_byte(fd, '\n', useFlag ? &m_keepReading : nullptr);
            m_cpuSeconds = threadCpuSeconds() - cpuBefore;
            m_result.set_value(toText(bytes));
        });
    }
    ~BackgroundRead()
    {
        m_keepReading = false;
        m_thread.join();
    }
    BackgroundRead(const BackgroundRead&) = delete;
    BackgroundRead& operator=(const BackgroundRead&) = delete;

    void stop() { m_keepReading = false; }
    bool endsWithin(std::chrono::milliseconds timeout)
    {
        return m_future.wait_for(timeout) == std::future_status::ready;
    }
    std::string result() { return m_future.get(); }
    double cpuSeconds() const { return m_cpuSeconds; }

private:
    std::atomic<bool> m_keepReading{true};
    std::promise<std::string> m_result;
    std::future<std::string> m_future;
    double m_cpuSeconds = 0;
    std::thread m_thread;
};

class SerialPortTest : public testing::Test
{
protected:
    void SetUp() override { ASSERT_FALSE(m_pty.path().empty()) << "openpty failed"; }
    void TearDown() override
    {
        if (m_fd >= 0)
            close_serial_port(m_fd);
    }

    void openQuietly()
    {
        testing::internal::CaptureStderr();
        m_fd = open_serial_port(m_pty.path().c_str());
        testing::internal::GetCapturedStderr();
        ASSERT_GE(m_fd, 0);
    }

    Pty m_pty;
    int m_fd = -1;
};

std::string errorLine(const std::string& what, const std::string& path, int err)
{
    return what + " " + path + " - " + std::strerror(err) + "(" + std::to_string(err) + ").\n";
}

TEST_F(SerialPortTest, OpenConfiguresRawPortDespiteRefusedModemLinesAndCloseRestoresIt)
{
    termios before{};
    ASSERT_EQ(tcgetattr(m_pty.slave(), &before), 0);
    before.c_cc[VTIME] = 7;
    cfsetspeed(&before, B9600);
    ASSERT_EQ(tcsetattr(m_pty.slave(), TCSANOW, &before), 0);

    testing::internal::CaptureStderr();
    m_fd = open_serial_port(m_pty.path().c_str());
    const std::string err = testing::internal::GetCapturedStderr();
    ASSERT_GE(m_fd, 0);

    // A pty has no modem lines: each of the four steps is reported and the open goes on.
    const std::string& path = m_pty.path();
    EXPECT_EQ(err, errorLine("Error asserting DTR", path, ENOTTY) +
                       errorLine("Error clearing DTR", path, ENOTTY) +
                       errorLine("Error setting handshake lines", path, ENOTTY) +
                       errorLine("Error getting handshake lines", path, ENOTTY));
    EXPECT_NE(err.find("(25)"), std::string::npos);

    EXPECT_NE(fcntl(m_fd, F_GETFL) & O_NONBLOCK, 0);
    termios now{};
    ASSERT_EQ(tcgetattr(m_fd, &now), 0);
    EXPECT_EQ(cfgetispeed(&now), static_cast<speed_t>(B115200));
    EXPECT_EQ(cfgetospeed(&now), static_cast<speed_t>(B115200));
    EXPECT_EQ(now.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(now.c_cflag & (PARENB | CRTSCTS), 0u);
    EXPECT_EQ(now.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(now.c_cc[VMIN], 0);
    EXPECT_EQ(now.c_cc[VTIME], 1);

    testing::internal::CaptureStderr();
    EXPECT_EQ(close_serial_port(m_fd), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    m_fd = -1;

    termios after{};
    ASSERT_EQ(tcgetattr(m_pty.slave(), &after), 0);
    EXPECT_EQ(after.c_cc[VTIME], 7);
    EXPECT_EQ(cfgetospeed(&after), static_cast<speed_t>(B9600));
}

TEST(SerialPort, OpenOfMissingPathFailsWithMessage)
{
    TempDir dir;
    const std::string path = (dir.path() / "ttyUSB9").string();
    testing::internal::CaptureStderr();
    EXPECT_EQ(open_serial_port(path.c_str()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error opening serial port " + path + " - No such file or directory(2).\n");
}

TEST_F(SerialPortTest, ReadReturnsOneLineAtATimeWithoutTheStopByte)
{
    EXPECT_TRUE(read_bytes_until_byte(-1, '\n').empty());
    EXPECT_TRUE(read_byte(-1).empty());
    openQuietly();

    m_pty.write("AB\n");
    EXPECT_EQ(toText(read_bytes_until_byte(m_fd, '\n')), "AB");

    m_pty.write("first\nsecond\n");
    EXPECT_EQ(toText(read_bytes_until_byte(m_fd, '\n')), "first");
    EXPECT_EQ(toText(read_bytes_until_byte(m_fd, '\n')), "second");

    // A line that arrives in parts is gathered across the waits.
    BackgroundRead reader(m_fd);
    m_pty.write("CD");
    std::this_thread::sleep_for(150ms);
    m_pty.write("E\nrest");
    ASSERT_TRUE(reader.endsWithin(2s));
    EXPECT_EQ(reader.result(), "CDE");

    EXPECT_EQ(toText(read_byte(m_fd)), "r");
    EXPECT_EQ(toText(read_bytes_until_byte(m_fd, 't')), "es");
    EXPECT_TRUE(read_byte(m_fd).empty());
}

TEST_F(SerialPortTest, ClosingThePortEndsAWaitingReadWithTheBytesSoFar)
{
    openQuietly();
    m_pty.write("par");
    BackgroundRead reader(m_fd, false);
    std::this_thread::sleep_for(150ms);
    EXPECT_FALSE(reader.endsWithin(0ms));

    const auto closedAt = Clock::now();
    EXPECT_EQ(close_serial_port(m_fd), 0);
    m_fd = -1;
    ASSERT_TRUE(reader.endsWithin(1s));
    EXPECT_LT(Clock::now() - closedAt, 500ms);
    EXPECT_EQ(reader.result(), "par");
}

TEST_F(SerialPortTest, KeepReadingFlagEndsAReadWithoutClosingAndIdleWaitCostsNoCpu)
{
    openQuietly();
    m_pty.write("xy");
    const auto startedAt = Clock::now();
    BackgroundRead reader(m_fd);
    std::this_thread::sleep_for(400ms);
    EXPECT_FALSE(reader.endsWithin(0ms));

    const auto stoppedAt = Clock::now();
    reader.stop();
    ASSERT_TRUE(reader.endsWithin(1s));
    EXPECT_LT(Clock::now() - stoppedAt, 500ms);
    EXPECT_EQ(reader.result(), "xy");

    // A reader that spun would burn about as much CPU as the wait lasted.
    const double waited = std::chrono::duration<double>(Clock::now() - startedAt).count();
    EXPECT_LT(reader.cpuSeconds(), waited / 10) << "reader used " << reader.cpuSeconds() << " s";

    // The port stays usable.
    m_pty.write("z\n");
    EXPECT_EQ(toText(read_bytes_until_byte(m_fd, '\n')), "z");
}

TEST_F(SerialPortTest, ReadEndsPromptlyWhenTheOtherSideHangsUp)
{
    openQuietly();
    BackgroundRead reader(m_fd);
    m_pty.write("gone");
    std::this_thread::sleep_for(100ms);
    const auto hungUpAt = Clock::now();
    m_pty.closeMaster();
    ASSERT_TRUE(reader.endsWithin(1s)) << "read did not end on hang-up";
    EXPECT_LT(Clock::now() - hungUpAt, 500ms);
    EXPECT_EQ(reader.result(), "gone");
    EXPECT_LT(reader.cpuSeconds(), 0.05);

    // Later reads on the dead line end at once too.
    const auto again = Clock::now();
    EXPECT_TRUE(read_bytes_until_byte(m_fd, '\n').empty());
    EXPECT_LT(Clock::now() - again, 200ms);

    // The hung-up line refuses the drain and the restore; both are reported, the close is not.
    testing::internal::CaptureStderr();
    EXPECT_EQ(close_serial_port(m_fd), 0);
    m_fd = -1;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error waiting for drain - Input/output error(5).\n"
              "Error resetting tty attributes - Input/output error(5).\n");
}

TEST_F(SerialPortTest, LineWithoutStopByteIsHandedOverIn4096BytePieces)
{
    openQuietly();
    // The master blocks once the line discipline's buffer is full, so it writes on its own
    // thread while the port is read.
    std::thread writer([this] { m_pty.write(std::string(5000, 'x') + "\n"); });
    const Bytes first = read_bytes_until_byte(m_fd, '\n');
    const Bytes second = read_bytes_until_byte(m_fd, '\n');
    writer.join();
    EXPECT_EQ(toText(first), std::string(4096, 'x'));
    EXPECT_EQ(toText(second), std::string(904, 'x'));
}

TEST_F(SerialPortTest, SendFrameIsTrueOnlyForACompleteWrite)
{
    openQuietly();
    EXPECT_TRUE(send_frame(m_fd, toBytes("R12\n\r")));
    EXPECT_EQ(m_pty.readAvailable(1s), "R12\n\r");

    EXPECT_FALSE(send_frame(-1, toBytes("R12\n\r")));

    // Nobody reads the master, so the non-blocking port takes only part of a large frame.
    EXPECT_FALSE(send_frame(m_fd, Bytes(1 << 20, 'y')));
}

TEST(SerialPort, IsDeviceOpenFollowsThePath)
{
    Pty pty;
    ASSERT_FALSE(pty.path().empty());
    TempDir dir;
    const fs::path link = dir.path() / "usb-Dravinel_Port";
    fs::create_symlink(pty.path(), link);
    EXPECT_TRUE(is_device_open(link.c_str()));
    fs::remove(link);
    EXPECT_FALSE(is_device_open(link.c_str()));
    EXPECT_FALSE(is_device_open(""));
    EXPECT_FALSE(is_device_open(nullptr));
}

TEST_F(SerialPortTest, ModemLineFunctionsReportAClosedDescriptor)
{
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

    // On a pty the line query itself fails: the getters that check it give -1.
    openQuietly();
    EXPECT_EQ(get_cts(m_fd), -1);
    EXPECT_EQ(get_dtr(m_fd), -1);
    EXPECT_EQ(get_rts(m_fd), 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(set_rts(m_fd, true));
    EXPECT_TRUE(set_dtr(m_fd, true));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "set_dtr -> Before: flags are 000.\n"
                                                      "set_dtr -> Setting the dtr failed somehow\n"
                                                      "set_dtr -> After: flags are 000.\n");
}

TEST(SerialLog, LogStringEscapesAndStaysInsideItsBuffer)
{
    EXPECT_STREQ(log_string("a\tb"), "a\\tb");
    EXPECT_STREQ(log_string("\n\r\x1b\x01 ok"), "\\n\\r\\e\\001 ok");
    EXPECT_STREQ(log_string("\x7f"), "\\177");
    EXPECT_STREQ(log_string("\xe9"), "\\377");
    EXPECT_STREQ(log_string("\x80z\xff"), "\\377z\\377");
    EXPECT_STREQ(log_string(""), "");

    const std::string plain(3000, 'a');
    EXPECT_EQ(std::string(log_string(plain.c_str())), std::string(2047, 'a'));

    // An escape that does not fit whole is left out rather than cut.
    std::string escaped(3000, '\x01');
    std::string expected;
    for (int i = 0; i < 511; ++i)
        expected += "\\001";
    EXPECT_EQ(std::string(log_string(escaped.c_str())), expected);

    escaped = std::string(2046, 'b') + "\t\t";
    EXPECT_EQ(std::string(log_string(escaped.c_str())), std::string(2046, 'b'));
}

void touch(const fs::path& path)
{
    std::ofstream(path).put('\n');
}

void writeText(const fs::path& path, const std::string& text)
{
    std::ofstream(path) << text;
}

TEST(SerialPorts, PortPathsListByIdLinksFirstThenHardwareNodesOnce)
{
    TempDir dir;
    const fs::path root = dir.path();
    const fs::path dev = root / "dev";
    const fs::path byId = dev / "serial" / "by-id";
    const fs::path sys = root / "sys" / "class" / "tty";
    const fs::path devices = root / "sys" / "devices";
    fs::create_directories(byId);
    fs::create_directories(sys);
    fs::create_directories(devices / "usb0");
    fs::create_directories(devices / "platform" / "serial8250");
    fs::create_directories(devices / "pnp0" / "serial");

    for (const char* node :
         {"ttyUSB0", "ttyUSB1", "ttyUSB10", "ttyACM0", "ttyS0", "ttyS1", "ttyS4", "tty0"})
        touch(dev / node);
    fs::create_symlink("../../ttyUSB0", byId / "usb-Dravinel_Drive_A1-if00-port0");
    fs::create_symlink("../../ttyACM0", byId / "usb-Acme_Modem_77-if00");

    // name, driver (empty: none), port type; tty0 stands for a virtual console without device.
    struct Tty
    {
        const char* name;
        const char* driver;
        const char* type;
    };
    for (const Tty& tty :
         {Tty{"ttyUSB0", "", "0"}, Tty{"ttyUSB10", "", "0"}, Tty{"ttyUSB1", "", "0"},
          Tty{"ttyUSB2", "", "0"}, Tty{"ttyACM0", "", "0"}, Tty{"ttyS0", "serial8250", "4"},
          Tty{"ttyS1", "serial8250", "0"}, Tty{"ttyS4", "serial", "0"}}) {
        const fs::path ttyDir = sys / tty.name;
        fs::create_directories(ttyDir / "device");
        writeText(ttyDir / "type", tty.type);
        if (std::string(tty.driver) == "serial8250")
            fs::create_symlink(devices / "platform" / "serial8250", ttyDir / "device" / "driver");
        else if (std::string(tty.driver) == "serial")
            fs::create_symlink(devices / "pnp0" / "serial", ttyDir / "device" / "driver");
    }
    fs::create_directories(sys / "tty0");

    const SerialRoots roots{byId.string(), sys.string(), dev.string()};
    std::vector<SerialService> services;
    ASSERT_EQ(find_ports(services, roots), 0);
    const auto ttyUSB2 = std::find_if(services.begin(), services.end(),
                                      [](const SerialService& s) { return s.name == "ttyUSB2"; });
    ASSERT_NE(ttyUSB2, services.end());
    EXPECT_FALSE(ttyUSB2->calloutDevice.has_value()) << "no node in dev, so no callout path";

    testing::internal::CaptureStderr();
    const std::vector<std::string> paths = get_port_paths(roots);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    const std::vector<std::string> expected = {
        (byId / "usb-Acme_Modem_77-if00").string(),
        (byId / "usb-Dravinel_Drive_A1-if00-port0").string(),
        (dev / "ttyS0").string(),
        (dev / "ttyS4").string(),
        (dev / "ttyUSB1").string(),
        (dev / "ttyUSB10").string(),
    };
    EXPECT_EQ(paths, expected);

    // Explicit ports live beside the enumeration, never in it.
    register_port_path("/tmp/sim-port");
    register_port_path("/dev/pts/42");
    register_port_path("/tmp/sim-port");
    EXPECT_EQ(registered_port_paths(), (std::vector<std::string>{"/tmp/sim-port", "/dev/pts/42"}));
    EXPECT_EQ(get_port_paths(roots), expected);
    unregister_port_path("/tmp/sim-port");
    EXPECT_EQ(registered_port_paths(), std::vector<std::string>{"/dev/pts/42"});
    unregister_port_path("/dev/pts/42");
    EXPECT_TRUE(registered_port_paths().empty());
}

TEST(SerialPorts, NoPortsGiveAnEmptyListAndOnlyAMissingTtyClassIsAnError)
{
    TempDir dir;
    fs::create_directories(dir.path() / "tty");
    const SerialRoots empty{(dir.path() / "by-id").string(), (dir.path() / "tty").string(),
                            dir.path().string()};
    testing::internal::CaptureStderr();
    EXPECT_TRUE(get_port_paths(empty).empty());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    const SerialRoots broken{(dir.path() / "by-id").string(), (dir.path() / "none").string(),
                             dir.path().string()};
    std::vector<SerialService> services;
    testing::internal::CaptureStdout();
    EXPECT_EQ(find_ports(services, broken), ENOENT);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "IOServiceGetMatchingServices returned " + std::to_string(ENOENT) + "\n");

    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_TRUE(get_port_paths(broken).empty());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Couldn't find ports\n");
    testing::internal::GetCapturedStdout();
}

} // namespace
} // namespace dravinel
