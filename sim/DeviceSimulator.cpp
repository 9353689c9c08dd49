#include "sim/DeviceSimulator.h"

#include "protocol/Globals.h"
#include "support/ErrorText.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <numbers>
#include <poll.h>
#include <pty.h>
#include <random>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace dravinel::sim {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// 115200 baud with one start and one stop bit: ten bit times a byte.
constexpr std::uint64_t kBaud = 115200;
constexpr std::uint64_t kBitsPerByte = 10;
// Bytes written between two pacing sleeps when the wire time is simulated.
constexpr std::size_t kWireChunk = 8;
// A request longer than this without LF is line noise; the device drops it.
constexpr std::size_t kMaxRequest = 1024;
// How long one write may wait for a host that does not read before the rest is dropped, as a
// UART would drop it.
constexpr std::chrono::milliseconds kWriteStallLimit{1000};
constexpr std::chrono::milliseconds kWriteStallStep{100};
// The service loop's idle wait; a wake pipe ends it early on stop.
constexpr std::chrono::milliseconds kIdleWait{250};
// Pause after a hang-up or read error before the master is polled again.
constexpr std::chrono::milliseconds kHangupPause{20};

// Battery: 12.0 V is 1332 raw at 111 units per volt; it loses one unit every few reads.
constexpr std::uint16_t kBatteryStart = 1332;
constexpr unsigned kReadsPerBatteryStep = 4;
constexpr std::uint16_t kBatteryFloor = 900;

std::chrono::nanoseconds wireTimeFor(std::size_t bytes)
{
    return std::chrono::nanoseconds(bytes * kBitsPerByte * 1'000'000'000ULL / kBaud);
}

void reportError(const char* call, const std::string& path)
{
    const int err = errno;
    std::cerr << "dravinel-sim: " << call << " failed for " << (path.empty() ? "-" : path) << ": "
              << errorText(err) << " (" << err << ")\n";
}

int pollMs(std::chrono::nanoseconds d)
{
    if (d <= 0ns)
        return 0;
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(d).count();
    return static_cast<int>(std::min<long long>(ms, 60'000));
}

// The device reads a setting as "%d" would: leading blanks, an optional sign, digits; anything
// else gives 0. The value is kept in 16 bits, as the firmware's variables are.
std::uint16_t parseSetting(const std::string& text)
{
    std::size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r')))
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    std::uint32_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
        value = (value * 10 + static_cast<std::uint32_t>(text[i] - '0')) & 0xFFFFu;
    if (negative)
        value = (0x10000u - value) & 0xFFFFu;
    return static_cast<std::uint16_t>(value);
}

void closeFd(int& fd)
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

} // namespace

struct DeviceSimulator::Impl
{
    explicit Impl(Options o) : opts(std::move(o)), rng(opts.seed) {}

    // The motor test's progress; touched only by the service thread.
    struct Motor
    {
        bool active = false;
        int pass = 0;
        int sample = 0;
        int samplesPerPass = 1;
        std::uint16_t peak = 0;
        Clock::time_point nextSample;
    };

    const Options opts;

    // Start, stop, unplug and plug-in, one at a time.
    std::mutex lifecycleMutex;
    bool started = false;
    bool plugged = false;
    bool ownsLinkDir = false;
    std::filesystem::path linkDir;
    std::thread service;
    std::atomic<bool> serviceStop{false};
    int wakeRead = -1;
    int wakeWrite = -1;
    // Kept open for the port's whole life so the master never sees a hang-up when the host
    // closes and reopens its side.
    int slaveFd = -1;

    // Every byte to the master goes through writeBytes under this lock.
    std::mutex writeMutex;
    int masterFd = -1;
    Clock::time_point wireFreeAt;
    std::atomic<bool> closing{false};

    // The device's state and the fault controls.
    mutable std::mutex stateMutex;
    mutable std::condition_variable requestsChanged;
    std::string portPath;
    std::string slavePath;
    SimSettings settings;
    std::uint16_t battery = kBatteryStart;
    bool batteryFixed = false;
    unsigned batteryReads = 0;
    bool saved = false;
    bool mute = false;
    std::chrono::milliseconds responseDelay{0};
    struct Override
    {
        std::string line;
        std::size_t skip = 0; // requests still answered truly before the line takes over
    };
    std::map<char, Override> overrides;
    std::string settingsOrder; // empty: the table's order
    std::vector<ReceivedRequest> requests;
    std::map<char, std::size_t> requestCounts;

    // Used by the service thread only.
    std::mt19937 rng;
    Motor motor;
    Clock::time_point bornAt = Clock::now();

    bool openPort();
    void closePort();
    bool startService();
    void stopService();
    // The bytes of the request being received, up to its LF.
    struct LineAssembler
    {
        std::string pending;
        bool overlong = false; // the line outgrew any request; dropped up to its LF
    };

    void serve(int master, int wake);
    std::chrono::nanoseconds nextWait() const;
    void readRequests(int master, int wake, LineAssembler& assembler);
    void takeByte(char byte, int wake, LineAssembler& assembler);
    void pauseAfterHangup(int wake);
    void handleLine(const std::string& line, int wake);
    void handleRequest(char code, const std::string& content, int wake);
    std::vector<std::string> react(char code, const std::string& content);
    std::vector<std::string> settingsAnswers();
    void startMotor();
    void tickMotor();
    std::uint16_t motorSample(double fraction, int pass);
    std::uint16_t reedReading();
    std::uint16_t irReading();
    std::uint16_t batteryReading();
    int noise(int amplitude);
    bool sendFrame(const std::string& line);
    bool writeBytes(const std::uint8_t* data, std::size_t size);
    bool writeAll(const std::uint8_t* data, std::size_t size);
    void teardown();
};

int DeviceSimulator::Impl::noise(int amplitude)
{
    std::uniform_int_distribution<int> d(-amplitude, amplitude);
    return d(rng);
}

bool DeviceSimulator::Impl::openPort()
{
    // The slave starts raw: with the default line discipline the answers written before the
    // host has set its own modes would be echoed back to the master and read as requests.
    termios raw{};
    cfmakeraw(&raw);
    raw.c_cflag |= CREAD | CLOCAL;
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    cfsetspeed(&raw, B115200);

    int master = -1;
    int slave = -1;
    if (::openpty(&master, &slave, nullptr, &raw, nullptr) != 0) {
        reportError("openpty", "");
        return false;
    }
    char name[128] = {};
    if (::ptsname_r(master, name, sizeof name) != 0) {
        reportError("ptsname_r", "");
        ::close(master);
        ::close(slave);
        return false;
    }
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    ::fcntl(slave, F_SETFD, FD_CLOEXEC);
    // Non-blocking, so that a host that stops reading cannot hold a write (and with it stop())
    // for ever.
    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);

    const std::filesystem::path link = linkDir / opts.linkName;
    std::error_code ec;
    std::filesystem::remove(link, ec);
    if (::symlink(name, link.c_str()) != 0) {
        reportError("symlink", link.string());
        ::close(master);
        ::close(slave);
        return false;
    }

    slaveFd = slave;
    {
        std::lock_guard lock(writeMutex);
        masterFd = master;
        wireFreeAt = Clock::now();
    }
    closing = false;
    std::lock_guard lock(stateMutex);
    portPath = link.string();
    slavePath = name;
    return true;
}

void DeviceSimulator::Impl::closePort()
{
    // A writer waiting for a host that does not read gives up at its next look at this flag.
    closing = true;
    {
        std::lock_guard lock(writeMutex);
        closeFd(masterFd);
    }
    closeFd(slaveFd);
    std::error_code ec;
    std::filesystem::remove(linkDir / opts.linkName, ec);
    std::lock_guard lock(stateMutex);
    slavePath.clear();
}

bool DeviceSimulator::Impl::startService()
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        reportError("pipe2", "");
        return false;
    }
    wakeRead = fds[0];
    wakeWrite = fds[1];
    serviceStop = false;
    motor = Motor{};
    int master = -1;
    {
        std::lock_guard lock(writeMutex);
        master = masterFd;
    }
    service = std::thread([this, master, wake = wakeRead] { serve(master, wake); });
    return true;
}

void DeviceSimulator::Impl::stopService()
{
    if (!service.joinable())
        return;
    serviceStop = true;
    const std::uint8_t byte = 1;
    [[maybe_unused]] auto n = ::write(wakeWrite, &byte, 1);
    service.join();
    closeFd(wakeRead);
    closeFd(wakeWrite);
}

void DeviceSimulator::Impl::teardown()
{
    stopService();
    if (plugged)
        closePort();
    plugged = false;
    if (started && ownsLinkDir) {
        std::error_code ec;
        std::filesystem::remove_all(linkDir, ec);
    }
    started = false;
}

void DeviceSimulator::Impl::serve(int master, int wake)
{
    LineAssembler assembler;
    while (!serviceStop) {
        pollfd fds[2] = {{master, POLLIN, 0}, {wake, POLLIN, 0}};
        const int ready = ::poll(fds, 2, pollMs(nextWait()));
        if (ready < 0 && errno != EINTR) {
            reportError("poll", "");
            break;
        }
        if (serviceStop)
            break;
        if (ready > 0 && (fds[0].revents & POLLIN))
            readRequests(master, wake, assembler);
        else if (ready > 0 && (fds[0].revents & (POLLHUP | POLLERR)))
            pauseAfterHangup(wake);
        if (motor.active && Clock::now() >= motor.nextSample)
            tickMotor();
    }
}

std::chrono::nanoseconds DeviceSimulator::Impl::nextWait() const
{
    std::chrono::nanoseconds wait = kIdleWait;
    if (motor.active)
        wait = std::min<std::chrono::nanoseconds>(wait, motor.nextSample - Clock::now());
    return wait;
}

void DeviceSimulator::Impl::readRequests(int master, int wake, LineAssembler& assembler)
{
    std::uint8_t buffer[512];
    for (;;) {
        const ssize_t n = ::read(master, buffer, sizeof buffer);
        if (n > 0) {
            for (ssize_t i = 0; i < n; ++i)
                takeByte(static_cast<char>(buffer[i]), wake, assembler);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        // EIO: no descriptor holds the slave. Not the end: the host may open it again, so look
        // back a little later.
        if (n < 0 && errno != EAGAIN)
            pauseAfterHangup(wake);
        return;
    }
}

void DeviceSimulator::Impl::takeByte(char byte, int wake, LineAssembler& assembler)
{
    if (byte == static_cast<char>(END_1)) {
        if (!assembler.overlong)
            handleLine(assembler.pending, wake);
        assembler.pending.clear();
        assembler.overlong = false;
    } else if (assembler.pending.size() < kMaxRequest) {
        assembler.pending.push_back(byte);
    } else {
        assembler.pending.clear();
        assembler.overlong = true;
    }
}

void DeviceSimulator::Impl::pauseAfterHangup(int wake)
{
    pollfd w{wake, POLLIN, 0};
    ::poll(&w, 1, pollMs(kHangupPause));
}

void DeviceSimulator::Impl::handleLine(const std::string& line, int wake)
{
    // Requests end LF CR, so the previous request's CR leads this line.
    std::size_t start = (!line.empty() && line.front() == static_cast<char>(END_2)) ? 1 : 0;
    if (start >= line.size())
        return;
    handleRequest(line[start], line.substr(start + 1), wake);
}

void DeviceSimulator::Impl::handleRequest(char code, const std::string& content, int wake)
{
    bool muted = false;
    std::chrono::milliseconds delay{0};
    std::optional<std::string> override;
    {
        std::lock_guard lock(stateMutex);
        requests.push_back(ReceivedRequest{Clock::now(), code, content});
        ++requestCounts[code];
        muted = mute;
        // Stored as it is recorded, so whoever waits for the request sees the settings saved.
        if (code == SAVE_EXIT_REQ && !muted)
            saved = true;
        delay = responseDelay;
        if (auto it = overrides.find(code); it != overrides.end()) {
            if (it->second.skip > 0)
                --it->second.skip;
            else
                override = it->second.line;
        }
    }
    requestsChanged.notify_all();
    if (muted)
        return;
    if (delay > 0ms) {
        pollfd w{wake, POLLIN, 0};
        const auto until = Clock::now() + delay;
        while (!serviceStop && Clock::now() < until)
            ::poll(&w, 1, pollMs(until - Clock::now()));
        if (serviceStop)
            return;
    }

    // An override replaces what goes over the wire; what the device does with the request
    // (storing a value, saving) still happens. For the motor test the stream is the answer.
    if (code == TEST_MOTOR_REQ) {
        if (override)
            sendFrame(*override);
        else
            startMotor();
        return;
    }
    std::vector<std::string> frames = react(code, content);
    if (override)
        frames = {*override};
    for (const auto& frame : frames)
        sendFrame(frame);
}

std::vector<std::string> DeviceSimulator::Impl::settingsAnswers()
{
    std::vector<std::string> frames;
    std::lock_guard lock(stateMutex);
    const std::string order = settingsOrder.empty() ? settingsReadOrder() : settingsOrder;
    for (char code : order) {
        const auto row = std::ranges::find(kSettings, code, &SettingInfo::response);
        if (row != kSettings.end())
            frames.push_back(std::string{code, SEPARATOR} + std::to_string(settings.get(row->id)));
    }
    return frames;
}

std::vector<std::string> DeviceSimulator::Impl::react(char code, const std::string& content)
{
    if (const SettingInfo* row = findSettingByRequest(code)) {
        const std::uint16_t value = parseSetting(content);
        std::lock_guard lock(stateMutex);
        settings.set(row->id, value);
        return {std::string{row->response, SEPARATOR} + std::to_string(value)};
    }
    switch (code) {
    case READ_REV_REQ:
        return {std::string{READ_REV_RESP, SEPARATOR} + opts.revision};
    case READ_SETTINGS_REQ:
        return settingsAnswers();
    case READ_REED_SENSOR_REQ:
        return {std::string{READ_REED_SENSOR_RESP, SEPARATOR} + std::to_string(reedReading())};
    case READ_V_BATT_REQ:
        return {std::string{READ_V_BATT_RESP, SEPARATOR} + std::to_string(batteryReading())};
    case READ_IR_REQ:
        // The IR reply is a text line, not a coded answer.
        return {"IR: " + std::to_string(irReading())};
    case SAVE_EXIT_REQ: {
        std::lock_guard lock(stateMutex);
        saved = true;
        return {};
    }
    default:
        return {};
    }
}

std::uint16_t DeviceSimulator::Impl::reedReading()
{
    // A magnet on the moving part passes the sensor for 0.6 s of every 3 s.
    const auto t = std::chrono::duration<double>(Clock::now() - bornAt).count();
    const double phase = std::fmod(t, 3.0);
    const bool magnet = phase >= 1.2 && phase < 1.8;
    const int value = magnet ? 1023 - std::abs(noise(4)) : std::abs(noise(4));
    return static_cast<std::uint16_t>(value);
}

std::uint16_t DeviceSimulator::Impl::irReading()
{
    // Ambient light drifting slowly, and an object in front of the detector for 0.5 s of every
    // 5 s.
    const auto t = std::chrono::duration<double>(Clock::now() - bornAt).count();
    double value = 180.0 + 40.0 * std::sin(2.0 * std::numbers::pi * t / 7.0);
    if (std::fmod(t, 5.0) >= 4.5)
        value += 450.0;
    value += noise(8);
    return static_cast<std::uint16_t>(std::clamp(value, 0.0, 1023.0));
}

std::uint16_t DeviceSimulator::Impl::batteryReading()
{
    std::uint16_t base = 0;
    {
        std::lock_guard lock(stateMutex);
        if (batteryFixed)
            return battery;
        if (++batteryReads % kReadsPerBatteryStep == 0 && battery > kBatteryFloor)
            --battery;
        base = battery;
    }
    return static_cast<std::uint16_t>(base + noise(2));
}

void DeviceSimulator::Impl::startMotor()
{
    // A second start while the motor runs is ignored, as the firmware does not restart a test.
    if (motor.active)
        return;
    const auto interval = std::max(opts.motorSampleInterval, std::chrono::milliseconds{1});
    motor = Motor{};
    motor.active = true;
    motor.samplesPerPass = static_cast<int>(std::max<long long>(1, opts.motorPass / interval));
    motor.nextSample = Clock::now() + interval;
}

std::uint16_t DeviceSimulator::Impl::motorSample(double f, int pass)
{
    // Inrush peak decaying into a plateau, and a rise at the end of travel as the motor stalls
    // against its stop. The return pass runs a little lighter.
    const double plateau = pass == 0 ? 360.0 : 320.0;
    const double inrush = 620.0 * std::exp(-f / 0.1);
    const double stall = f > 0.85 ? 480.0 * std::pow((f - 0.85) / 0.15, 2.0) : 0.0;
    const double value = plateau + inrush + stall + noise(12);
    return static_cast<std::uint16_t>(std::clamp(value, 0.0, 4095.0));
}

void DeviceSimulator::Impl::tickMotor()
{
    bool muted = false;
    {
        std::lock_guard lock(stateMutex);
        muted = mute;
    }
    const double f = static_cast<double>(motor.sample + 1) / motor.samplesPerPass;
    const std::uint16_t value = motorSample(f, motor.pass);
    motor.peak = std::max(motor.peak, value);
    if (!muted)
        sendFrame(std::string(MONITOR_CURRENT_PREFIX) + ": " + std::to_string(value));
    if (++motor.sample >= motor.samplesPerPass) {
        if (!muted)
            sendFrame(std::string(MONITOR_DONE_PREFIX) + ":" + std::to_string(motor.peak));
        motor.sample = 0;
        motor.peak = 0;
        if (++motor.pass >= 2) {
            motor.active = false;
            return;
        }
    }
    const auto interval = std::max(opts.motorSampleInterval, std::chrono::milliseconds{1});
    motor.nextSample += interval;
    // After a long stall (a slow host, a response delay) carry on from now rather than burst.
    if (motor.nextSample < Clock::now())
        motor.nextSample = Clock::now() + interval;
}

bool DeviceSimulator::Impl::sendFrame(const std::string& line)
{
    std::string frame = line;
    frame.push_back(static_cast<char>(END_1));
    frame.push_back(static_cast<char>(END_2));
    return writeBytes(reinterpret_cast<const std::uint8_t*>(frame.data()), frame.size());
}

bool DeviceSimulator::Impl::writeBytes(const std::uint8_t* data, std::size_t size)
{
    std::lock_guard lock(writeMutex);
    if (masterFd < 0)
        return false;
    if (!opts.wireTime)
        return writeAll(data, size);

    // Each chunk is released when its last byte would have left a 115200-baud line, so the host
    // never sees a byte earlier than the wire could deliver it.
    const auto start = std::max(Clock::now(), wireFreeAt);
    wireFreeAt = start + wireTimeFor(size);
    for (std::size_t sent = 0; sent < size;) {
        const std::size_t chunk = std::min(kWireChunk, size - sent);
        std::this_thread::sleep_until(start + wireTimeFor(sent + chunk));
        if (!writeAll(data + sent, chunk))
            return false;
        sent += chunk;
    }
    return true;
}

bool DeviceSimulator::Impl::writeAll(const std::uint8_t* data, std::size_t size)
{
    auto stalledSince = Clock::now();
    while (size > 0) {
        const ssize_t n = ::write(masterFd, data, size);
        if (n > 0) {
            data += n;
            size -= static_cast<std::size_t>(n);
            stalledSince = Clock::now();
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN) {
            reportError("write", "pty master");
            return false;
        }
        if (closing || Clock::now() - stalledSince >= kWriteStallLimit)
            return false;
        pollfd p{masterFd, POLLOUT, 0};
        ::poll(&p, 1, pollMs(kWriteStallStep));
    }
    return true;
}

DeviceSimulator::DeviceSimulator() : DeviceSimulator(Options{}) {}

DeviceSimulator::DeviceSimulator(Options options)
    : m_impl(std::make_unique<Impl>(std::move(options)))
{}

DeviceSimulator::~DeviceSimulator()
{
    stop();
}

bool DeviceSimulator::start()
{
    std::lock_guard lock(m_impl->lifecycleMutex);
    Impl& d = *m_impl;
    if (d.started)
        return true;

    if (d.opts.linkDir.empty()) {
        std::string templ =
            (std::filesystem::temp_directory_path() / "dravinel-sim-XXXXXX").string();
        if (::mkdtemp(templ.data()) == nullptr) {
            reportError("mkdtemp", templ);
            return false;
        }
        d.linkDir = templ;
        d.ownsLinkDir = true;
    } else {
        d.linkDir = d.opts.linkDir;
        d.ownsLinkDir = false;
        std::error_code ec;
        std::filesystem::create_directories(d.linkDir, ec);
    }
    d.started = true;

    if (!d.openPort()) {
        d.teardown();
        return false;
    }
    d.plugged = true;
    if (!d.startService()) {
        d.teardown();
        return false;
    }
    return true;
}

void DeviceSimulator::stop()
{
    std::lock_guard lock(m_impl->lifecycleMutex);
    m_impl->teardown();
}

std::string DeviceSimulator::portPath() const
{
    std::lock_guard lock(m_impl->stateMutex);
    return m_impl->portPath;
}

std::string DeviceSimulator::slavePath() const
{
    std::lock_guard lock(m_impl->stateMutex);
    return m_impl->slavePath;
}

SimSettings DeviceSimulator::settings() const
{
    std::lock_guard lock(m_impl->stateMutex);
    return m_impl->settings;
}

void DeviceSimulator::setSettings(const SimSettings& settings)
{
    std::lock_guard lock(m_impl->stateMutex);
    m_impl->settings = settings;
}

std::uint16_t DeviceSimulator::batteryRaw() const
{
    std::lock_guard lock(m_impl->stateMutex);
    return m_impl->battery;
}

void DeviceSimulator::setBatteryRaw(std::uint16_t raw)
{
    std::lock_guard lock(m_impl->stateMutex);
    m_impl->battery = raw;
    m_impl->batteryFixed = true;
}

std::vector<ReceivedRequest> DeviceSimulator::requests() const
{
    std::lock_guard lock(m_impl->stateMutex);
    return m_impl->requests;
}

std::size_t DeviceSimulator::requestCount(char code) const
{
    std::lock_guard lock(m_impl->stateMutex);
    const auto it = m_impl->requestCounts.find(code);
    return it == m_impl->requestCounts.end() ? 0 : it->second;
}

void DeviceSimulator::clearRequests()
{
    std::lock_guard lock(m_impl->stateMutex);
    m_impl->requests.clear();
    m_impl->requestCounts.clear();
}

bool DeviceSimulator::waitForRequests(char code, std::size_t count,
                                      std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(m_impl->stateMutex);
    return m_impl->requestsChanged.wait_for(lock, timeout, [&] {
        const auto it = m_impl->requestCounts.find(code);
        return it != m_impl->requestCounts.end() && it->second >= count;
    });
}

bool DeviceSimulator::savedAndExited() const
{
    std::lock_guard lock(m_impl->stateMutex);
    return m_impl->saved;
}

void DeviceSimulator::setMute(bool mute)
{
    std::lock_guard lock(m_impl->stateMutex);
    m_impl->mute = mute;
}

void DeviceSimulator::setResponseDelay(std::chrono::milliseconds d)
{
    std::lock_guard lock(m_impl->stateMutex);
    m_impl->responseDelay = d;
}

void DeviceSimulator::setAnswerOverride(char requestCode, std::string line, std::size_t after)
{
    std::lock_guard lock(m_impl->stateMutex);
    m_impl->overrides[requestCode] = {std::move(line), after};
}

void DeviceSimulator::clearAnswerOverrides()
{
    std::lock_guard lock(m_impl->stateMutex);
    m_impl->overrides.clear();
}

void DeviceSimulator::setSettingsOrder(std::string codes)
{
    std::lock_guard lock(m_impl->stateMutex);
    m_impl->settingsOrder = std::move(codes);
}

void DeviceSimulator::sendLine(const std::string& line)
{
    m_impl->sendFrame(line);
}

void DeviceSimulator::sendBytes(const Bytes& bytes)
{
    m_impl->writeBytes(bytes.data(), bytes.size());
}

void DeviceSimulator::unplug()
{
    std::lock_guard lock(m_impl->lifecycleMutex);
    Impl& d = *m_impl;
    if (!d.plugged)
        return;
    d.stopService();
    d.closePort();
    d.plugged = false;
}

bool DeviceSimulator::plugIn()
{
    std::lock_guard lock(m_impl->lifecycleMutex);
    Impl& d = *m_impl;
    if (!d.started)
        return false;
    if (d.plugged)
        return true;
    if (!d.openPort())
        return false;
    d.plugged = true;
    if (!d.startService()) {
        d.closePort();
        d.plugged = false;
        return false;
    }
    return true;
}

} // namespace dravinel::sim
