#include "serial/SerialCommunication.h"

#include "protocol/DeviceProtocol.h"
#include "protocol/Globals.h"
#include "serial/serial.h"
#include "support/Logger.h"
#include "support/NotificationCenter.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <exception>

namespace dravinel {

namespace {

// How long the reader rests between turns while the line is gone.
constexpr std::chrono::milliseconds kLineGonePause{50};

bool lineHungUp(int fd)
{
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 0) < 0)
        return false;
    return (p.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0 && (p.revents & POLLIN) == 0;
}

} // namespace

SerialCommunication::~SerialCommunication()
{
    stop();
    // The reader's own reference is the last one when it ends after a stop() made on it.
    if (m_reader.joinable()) {
        if (m_reader.get_id() == std::this_thread::get_id())
            m_reader.detach();
        else
            m_reader.join();
    }
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
    const int fd = open_serial_port(name.c_str());
    if (fd == -1) {
        Logger::getInstance().logError("Device didn't open");
        return false;
    }
    port_f_desc = fd;
    m_wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    Logger::getInstance().logDebug("SerialCommunication -> Device with file desc %d is open", fd);
    m_stopped = false;
    m_running = true;
    m_reader = std::thread([self = shared_from_this()] { self->readThread(); });
    return true;
}

void SerialCommunication::stop()
{
    if (!m_running.exchange(false))
        return;
    {
        std::lock_guard lock(m_pauseMutex);
        m_pause.notify_all();
    }
    if (m_wakeFd >= 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t n = write(m_wakeFd, &one, sizeof one);
    }
    // The read watches m_running and returns within one poll period, so the reader is joined
    // before its descriptor is closed: no read ever sees a closed or reused descriptor.
    if (m_reader.joinable()) {
        if (m_reader.get_id() == std::this_thread::get_id())
            m_reader.detach();
        else
            m_reader.join();
    }
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

void SerialCommunication::insertByteFrameToSend(const Bytes& frame)
{
    sendFrame(frame);
}

void SerialCommunication::insertStringFrameToSend(const std::string& text)
{
    // One byte more than the text, as a C string would carry its terminator.
    Bytes buffer(text.begin(), text.end());
    buffer.push_back(0);
    Logger::getInstance().logDebug("Inserting data to send buffer : %s", text.c_str());
    sendFrame(buffer);
}

void SerialCommunication::sendFrame(const Bytes& frame)
{
    {
        std::lock_guard lock(m_writeMutex);
        send_frame(port_f_desc, frame);
    }
    postOutcomingFrameNotification(frame);
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
        if (fd == -1 || !is_device_open(name.c_str()) || lineHungUp(fd))
            return true;
        if (auto frame = frameFromPiece(read_bytes_until_byte(fd, END_1, &m_running, m_wakeFd)))
            postIncomingFrameNotification(*frame);
    } catch (const std::exception& e) {
        Logger::getInstance().logDebug("SerialCommunication deviceFrameCheck : %s", e.what());
    }
    return false;
}

void SerialCommunication::readThread()
{
    while (m_running) {
        if (deviceFrameCheck()) {
            std::unique_lock lock(m_pauseMutex);
            m_pause.wait_for(lock, kLineGonePause, [this] { return !m_running; });
        }
    }
    m_stopped = true;
}

std::vector<std::string> SerialCommunication::getSerialPortPaths()
{
    return get_port_paths();
}

} // namespace dravinel
