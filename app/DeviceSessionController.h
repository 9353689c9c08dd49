#pragma once

#include "DeviceWorker.h"

#include "device/DeviceSession.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

// The app's one link to the device: runs the device calls on its worker thread, one after
// another, and turns what the device reports into signals delivered on the main thread. The
// views call it and listen to it; they never reach the device themselves.

class QTimer;

namespace dravinel {

class DeviceManager;
struct Notification;

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
    using Effect = std::function<void()>;
    using Call = std::function<Effect(DeviceManager&, const std::stop_token&)>;

    void run(Call call);
    void startManager();
    void retireManager();
    void reapRetiredManagers();
    void onManagerState(const void* sender, ConnectionState state, const QStringList& reasons);
    void endMotorTest(MotorTestEnd end);
    void onDeviceSilent(const void* manager);
    void checkPorts();
    std::vector<std::string> presentPorts() const;
    DeviceManager* currentManager(const void* sender) const;
    void observe();
    void onMotorFrame(const Notification& notification, bool done);

    PortChoice m_ports;
    ConnectionState m_state = ConnectionState::Disconnected;
    int m_busy = 0;
    int m_motorPass = 0; // 0: no motor test runs
    bool m_savedAndExited = false;
    bool m_restartSearch = false;
    Monitoring m_polled = Monitoring::None;
    std::vector<std::string> m_portsSeen;
    QTimer* m_motorSilence = nullptr;
    QTimer* m_portWatch = nullptr;
    QTimer* m_reaper = nullptr;

    // Only the main thread and the worker (for the job it runs) hold a manager, never the scan
    // thread: a manager's destructor joins its scan thread.
    std::shared_ptr<DeviceManager> m_manager;
    std::vector<std::shared_ptr<DeviceManager>> m_retired;
    mutable std::mutex m_currentLock;
    DeviceManager* m_current = nullptr; // guarded by m_currentLock
    std::atomic<int> m_pollKind{0};

    // Last: its thread runs jobs that use the members above, and it is stopped first.
    DeviceWorker m_worker;
};

} // namespace dravinel
