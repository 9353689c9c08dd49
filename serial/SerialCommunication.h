#pragma once

#include "serial/PortError.h"
#include "support/Bytes.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// Owns one open serial port: a reader thread cuts the incoming bytes into frames and posts each
// as "ComOnIncomingFrame"; every frame written is posted as "ComOnOutcomingFrame".

namespace dravinel {

inline constexpr const char* ComOnIncomingFrame = "ComOnIncomingFrame";
inline constexpr const char* ComOnOutcomingFrame = "ComOnOutcomingFrame";

// How the owner's protocol cuts the byte stream: the byte that ends a piece, and what turns a
// piece into a frame (or into nothing, for noise).
struct Framing
{
    std::uint8_t stopByte = '\n';
    std::function<std::optional<Bytes>(Bytes piece)> frameFromPiece;
};

class SerialCommunication
{
public:
    explicit SerialCommunication(Framing framing);
    ~SerialCommunication(); // stops, so the reader is joined

    SerialCommunication(const SerialCommunication&) = delete;
    SerialCommunication& operator=(const SerialCommunication&) = delete;

    void setPortName(const std::string& name);
    std::string getPortName() const;

    bool start();
    // Why the last start() failed to open the port; empty after a successful start.
    std::optional<PortError> lastError() const;
    // Called once, on the reader thread, when the line hangs up (unplugged) while running. The
    // partial line it cut is dropped. Set before start().
    void setOnLineLost(std::function<void()> onLineLost);
    bool lineLost() const { return m_lineLost; }
    // Ends the reader thread and joins it, then closes the port and restores its settings.
    // Never called on the reader thread itself (from a frame handler).
    void stop();
    bool isRunning() const { return m_running; }

    // Each returns true when one write wrote the whole frame; the frame is posted either way.
    bool insertByteFrameToSend(const Bytes& frame);
    bool insertStringFrameToSend(const std::string& text);
    bool sendFrame(const Bytes& frame);

    void postIncomingFrameNotification(const Bytes& frame);
    void postOutcomingFrameNotification(const Bytes& frame);

    // One turn of the reader. Returns true when the line is gone (node vanished, hang-up, port
    // closed), so that the reader rests until the channel stops instead of turning again.
    bool deviceFrameCheck();

    static std::vector<std::string> getSerialPortPaths();

private:
    void readThread(std::stop_token stop);
    void reportLineLost();

    Framing m_framing;
    std::atomic<int> port_f_desc{-1};
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_stopped{false};
    mutable std::mutex m_nameMutex;
    std::string m_portName;
    std::deque<Bytes> m_sendBuffer; // kept for the queue operations; nothing sends through it

    std::mutex m_writeMutex; // a write never meets the close of its descriptor
    int m_wakeFd = -1;       // an eventfd that ends the reader's wait when the channel stops
    std::mutex m_restMutex;
    std::condition_variable_any m_rest;   // woken by the stop token alone
    std::optional<PortError> m_lastError; // written and read by the owner's thread only
    std::function<void()> m_onLineLost;
    std::atomic<bool> m_lineLost{false};
    std::jthread m_reader; // last, so it is joined before the members it uses go
};

} // namespace dravinel
