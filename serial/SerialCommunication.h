#pragma once

#include "support/Bytes.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Owns one open serial port: a reader thread cuts the incoming bytes into frames and posts each
// as "ComOnIncomingFrame"; every frame written is posted as "ComOnOutcomingFrame".

namespace dravinel {

inline constexpr const char* ComOnIncomingFrame = "ComOnIncomingFrame";
inline constexpr const char* ComOnOutcomingFrame = "ComOnOutcomingFrame";

// Always owned through std::shared_ptr: the reader thread shares ownership, so a channel whose
// last owner lets go inside a frame handler (on the reader thread) outlives that handler.
class SerialCommunication : public std::enable_shared_from_this<SerialCommunication>
{
public:
    SerialCommunication() = default;
    ~SerialCommunication();
    SerialCommunication(const SerialCommunication&) = delete;
    SerialCommunication& operator=(const SerialCommunication&) = delete;

    void setPortName(const std::string& name);
    std::string getPortName() const;

    bool start();
    // Ends the reader thread (joined unless called on it), then closes the port and restores
    // its settings.
    void stop();
    bool isRunning() const { return m_running; }

    void insertByteFrameToSend(const Bytes& frame);
    void insertStringFrameToSend(const std::string& text);
    void sendFrame(const Bytes& frame);

    void postIncomingFrameNotification(const Bytes& frame);
    void postOutcomingFrameNotification(const Bytes& frame);

    // One turn of the reader. Returns true when the line is gone (node vanished, hang-up, port
    // closed), so that the reader pauses instead of turning again at once.
    bool deviceFrameCheck();

    static std::vector<std::string> getSerialPortPaths();

private:
    void readThread();

    std::atomic<int> port_f_desc{-1};
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_stopped{false};
    mutable std::mutex m_nameMutex;
    std::string m_portName;
    std::deque<Bytes> m_sendBuffer; // kept for the queue operations; nothing sends through it

    std::mutex m_writeMutex; // a write never meets the close of its descriptor
    std::thread m_reader;
    int m_wakeFd = -1; // an eventfd that ends the reader's wait when the channel stops
    std::mutex m_pauseMutex;
    std::condition_variable m_pause;
};

} // namespace dravinel
