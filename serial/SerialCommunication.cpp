#include "serial/SerialCommunication.h"

#include "serial/serial.h"
#include "support/Logger.h"
#include "support/NotificationCenter.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <exception>

namespace dravinel {

namespace {

bool lineHungUp(int fd)
{
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 0) < 0)
        return false;
    return (p.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0 && (p.revents & POLLIN) == 0;
}

} // namespace

SerialCommunication::SerialCommunication(Framing framing) : m_framing(std::move(framing)) {}

SerialCommunication::~SerialCommunication()
{
    stop();
}

std::optional<PortError> SerialCommunication::lastError() const
{
    return m_lastError;
}

void SerialCommunication::setOnLineLost(std::function<void()> onLineLost)
{
    m_onLineLost = std::move(onLineLost);
}

void SerialCommunication::setPortName(const std::string& name)
{
    std::lock_guard lock(m_nameMutex);
    m_portName = name;
}

std::string SerialCommunication::getPortName() const
{
    std::lock_guard lock(m_nameMutex);
    return m_portName;
}

bool SerialCommunication::start()
{
    const std::string name = getPortName();
    if (m_running || name.empty())
        return false;
    PortError error;
    const int fd = open_serial_port(name.c_str(), &error);
    if (fd == -1) {
        m_lastError = error;
        Logger::getInstance().logError("Device didn't open");
        return false;
    }
    m_lastError.reset();
    port_f_desc = fd;
    m_wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    Logger::getInstance().logDebug("SerialCommunication -> Device with file desc %d is open", fd);
    m_stopped = false;
    m_lineLost = false;
    m_running = true;
    m_reader = std::jthread([this](std::stop_token stop) { readThread(stop); });
    return true;
}

void SerialCommunication::stop()
{
    if (!m_running.exchange(false))
        return;
    m_reader.request_stop(); // also ends the reader's rest while the line is gone
    if (m_wakeFd >= 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t n = write(m_wakeFd, &one, sizeof one);
    }
    // The reader is joined before its descriptor is closed: no read ever sees a closed or
    // reused descriptor.
    if (m_reader.joinable())
        m_reader.join();
    std::lock_guard lock(m_writeMutex);
    const int fd = port_f_desc.exchange(-1);
    if (fd != -1) {
        close_serial_port(fd);
        Logger::getInstance().logDebug("Serial communication -> Device with file desc %d is closed",
                                       fd);
    }
    if (m_wakeFd >= 0) {
        close(m_wakeFd);
        m_wakeFd = -1;
    }
}

bool SerialCommunication::insertByteFrameToSend(const Bytes& frame)
{
    return sendFrame(frame);
}

bool SerialCommunication::insertStringFrameToSend(const std::string& text)
{
    // One byte more than the text, as a C string would carry its terminator.
    Bytes buffer(text.begin(), text.end());
    buffer.push_back(0);
    Logger::getInstance().logDebug("Inserting data to send buffer : %s", text.c_str());
    return sendFrame(buffer);
}

bool SerialCommunication::sendFrame(const Bytes& frame)
{
    bool written = false;
    {
        std::lock_guard lock(m_writeMutex);
        written = send_frame(port_f_desc, frame);
    }
    postOutcomingFrameNotification(frame);
    return written;
}

void SerialCommunication::postIncomingFrameNotification(const Bytes& frame)
{
    NotificationCenter::defaultCenter().post(ComOnIncomingFrame, this, {{"data", frame}});
}

void SerialCommunication::postOutcomingFrameNotification(const Bytes& frame)
{
    NotificationCenter::defaultCenter().post(ComOnOutcomingFrame, this, {{"data", frame}});
}

bool SerialCommunication::deviceFrameCheck()
{
    try {
        const int fd = port_f_desc;
        const std::string name = getPortName();
        if (fd == -1)
            return true;
        if (!is_device_open(name.c_str()) || lineHungUp(fd)) {
            reportLineLost();
            return true;
        }
        ReadEnd end = ReadEnd::Stopped;
        Bytes piece = read_bytes_until_byte(fd, m_framing.stopByte, &m_running, m_wakeFd, &end);
        if (end == ReadEnd::HungUp && m_running) {
            // A line cut by the hang-up is not a frame the device sent.
            reportLineLost();
            return true;
        }
        if (end == ReadEnd::HungUp)
            return true;
        if (auto frame = m_framing.frameFromPiece(std::move(piece)))
            postIncomingFrameNotification(*frame);
    } catch (const std::exception& e) {
        Logger::getInstance().logDebug("SerialCommunication deviceFrameCheck : %s", e.what());
    }
    return false;
}

void SerialCommunication::reportLineLost()
{
    if (!m_lineLost.exchange(true) && m_onLineLost)
        m_onLineLost();
}

void SerialCommunication::readThread(std::stop_token stop)
{
    while (m_running && !stop.stop_requested()) {
        if (deviceFrameCheck()) {
            // The line is gone and nothing brings it back: rest until the owner stops the
            // channel, instead of spinning.
            std::unique_lock lock(m_restMutex);
            m_rest.wait(lock, stop, [] { return false; });
        }
    }
    m_stopped = true;
}

std::vector<std::string> SerialCommunication::getSerialPortPaths()
{
    return get_port_paths();
}

} // namespace dravinel
