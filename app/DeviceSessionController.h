#pragma once

#include "DeviceWorker.h"

#include "device/DeviceSession.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

// The app's one link to the device: runs the device calls on its worker thread, one after
// another, and turns what the device reports into signals delivered on the main thread. The
// views call it and listen to it; they never reach the device themselves.

namespace dravinel {

// What the monitoring view asks to watch.
enum class Monitoring { None, MotorTest, Position, InfraRed };

struct SettingValue
{
    Setting setting;
    std::uint16_t value = 0;
};

class DeviceSessionController : public QObject
{
    Q_OBJECT

public:
    explicit DeviceSessionController(QObject* parent = nullptr);
    // Quitting sends nothing more to the device: waiting calls are dropped.
    ~DeviceSessionController() override;

    // Which ports a search started from now on tries.
    void setPorts(PortChoice ports) { m_ports = std::move(ports); }
    ConnectionState state() const { return m_state; }
    // A device call is waiting or running.
    bool busy() const { return m_busy > 0; }

    void open();
    // Ends a search under way at once.
    void cancel();
    void saveAndExit();
    void readBattery();
    void readSettings();
    // In the order given; writeDone reports them in that order.
    void write(std::vector<SettingValue> values);
    // None ends a poll and turns the keep-alive back on; a motor test runs until it ends.
    void monitor(Monitoring what);

signals:
    void stateChanged(dravinel::ConnectionState state);
    // A search gave up by itself: each port tried, with why it was not the device.
    void searchFailed(const QStringList& reasons);
    // After the Disconnected state that cancel() brought.
    void searchCancelled();
    void revisionRead(const QString& revision);
    void batteryRead(const dravinel::Reading& reading, double volts);
    void settingsRead(const std::optional<dravinel::SettingsData>& settings);
    void writeDone(const std::vector<dravinel::SettingValue>& values,
                   const std::vector<dravinel::WriteResult>& results);
    void saveAndExitSent();
    void monitorSample(const dravinel::Reading& reading);
    void motorSample(int current);
    void motorPassDone(int pass, int value);
    void motorTestEnded(dravinel::MotorTestEnd end);
    // The device stopped answering; a new search follows.
    void deviceLost();
    // After a search gave up, a candidate port appeared.
    void portAppeared();
    void busyChanged(bool busy);

private:
    class Relay;
    using Effect = std::function<void()>;
    using Call = std::function<Effect(DeviceSession&, const std::stop_token&)>;

    // A device call that keeps the window busy until its effect has run on this thread.
    void run(Call call);
    // A call the window does not wait for.
    void post(std::function<void(DeviceSession&)> call);
    void onStateChanged(ConnectionState state);
    void stopPoll();

    PortChoice m_ports;
    ConnectionState m_state = ConnectionState::Disconnected;
    int m_busy = 0;
    bool m_searching = false; // from open() to the Disconnected state that ends it
    bool m_closing = false;   // the coming Disconnected state was asked for
    bool m_cancelled = false;
    std::atomic<int> m_pollKind{0}; // 0: none, else the polled sensor + 1

    std::unique_ptr<Relay> m_relay;
    std::unique_ptr<DeviceSession> m_session;
    // Last: its thread runs jobs that use the session, and it is stopped first.
    DeviceWorker m_worker;
};

} // namespace dravinel
