#pragma once

#include "DeviceWorker.h"

#include "device/Settings.h"
#include "device/SettingsData.h"
#include "protocol/PortAttempt.h"
#include "protocol/SerialManager.h"

#include <QPointer>
#include <QString>
#include <QWidget>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

// The main view's controller: shows the connection, the settings panels and the live readings,
// and forwards the operator's actions to the device model. Device calls run on its worker
// thread; their results come back to the main thread in the order they were asked for.

class QDialog;
class QLabel;
class QLineEdit;
class QStackedWidget;
class QTimer;

namespace Ui {
class MasterView;
class WelcomePopupPanel;
} // namespace Ui

namespace dravinel {

class MotorCurrentChart;

class DeviceManager;
struct Notification;
struct WriteResult;

class MasterViewController : public QWidget
{
    Q_OBJECT

public:
    // The product's web page, opened by the title link.
    static constexpr const char* kProductPage = "https://www.dravinel.example/";
    // A motor test with no frame for this long has ended, whatever the device says later.
    static constexpr std::chrono::seconds kMotorSilence{5};
    // Failed sensor reads in a row after which the device counts as lost.
    static constexpr int kFailedReadsToLose = 3;

    explicit MasterViewController(QWidget* parent = nullptr);
    ~MasterViewController() override;

    // Actions; each takes the sending widget, which may be empty.
    void onConnectButtonPressed(QObject* sender);
    void onRefreshBasicButtonPressed(QObject* sender);
    void onUpdateBasicButtonPressed(QObject* sender);
    void onClockWiseButtonClicked(QObject* sender);
    void onCounterClockWiseButtonClicked(QObject* sender);
    void onSubmitAdvancedButtonPressed(QObject* sender);
    void onRefreshAdvancedButtonPressed(QObject* sender);
    void onUpdateAdvancedButtonPressed(QObject* sender);
    void onMonitoringSelectionChanged(QObject* sender);
    void onWelcomeOpenButtonPressed(QObject* sender);
    void onWelcomeCancelButtonPressed(QObject* sender);

    // Which ports a connection started from now on tries.
    void setDeviceOptions(ScanOptions options) { m_deviceOptions = std::move(options); }

    void toggleInterface(bool enable);
    void updateDisplay(std::int32_t state);
    void refreshSettings(const std::optional<SettingsData>& settings);
    void setRevLabel(const QString& revision);
    void setVBattLabel(std::int64_t raw);
    void setMonitoringValue(std::int64_t value);
    void endMotorMonitoring(std::int64_t value);
    void updateControl(QLabel* field, const QString& address);

    // The welcome panel; empty until the first loadDisplay.
    QDialog* welcomePopup() const { return m_welcomePopup; }

signals:
    // Emitted once a connection state has been put on screen.
    void stateDisplayed(int state);
    // One line on the outcome of the last operation, for the window's status bar.
    void statusMessage(const QString& text);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    // What a device call leaves to do on screen; run on the main thread.
    using Effect = std::function<void()>;
    using DeviceCall = std::function<Effect(DeviceManager&, const std::stop_token&)>;

    // One setting write: what to write, and the fields that show it.
    struct SettingWrite
    {
        Setting setting;
        std::uint16_t value = 0;
        std::vector<QLineEdit*> fields;
    };

    void loadMasterView();
    void loadDisplay();
    void startConnection();
    void retireManager();
    void reapRetiredManagers();
    void endSheet();

    // Runs call on the worker with the current manager, the window busy meanwhile.
    void runOnDevice(QWidget* origin, DeviceCall call);
    void beginBusy(QWidget* origin);
    void endBusy();
    // Enables what the state, the running work and the fields allow, and puts focus back.
    void applyInterfaceState();
    void restoreFocus();

    void onManagerState(const void* sender, std::int32_t state,
                        const std::vector<PortAttempt>& attempts);
    void showSearchFailure(const std::vector<PortAttempt>& attempts);
    void startMotorTest();
    void finishMotorTest(const QString& message);
    void startPolling(std::int32_t kind);
    void stopPolling();
    void onDeviceSilent(const void* manager);
    void writeSettings(QObject* sender, std::vector<SettingWrite> writes);
    void reportWrites(const std::vector<SettingWrite>& writes,
                      const std::vector<WriteResult>& results);
    void validateFields();
    void markField(QLineEdit* field, const QString& problem);
    void openLink(const QString& address);
    void showStatus(const QString& text);

    // Plug in and go: after a search gave up, a device port that appears starts a new one.
    std::set<std::string> presentPorts() const;
    void startPortWatch();
    void checkPorts();

    // Notification handlers: they run on the posting thread and only queue screen work.
    DeviceManager* currentManager(const void* sender) const;
    void eventConnectionStateChanged(const Notification& notification);
    void eventReadRevision(const Notification& notification);
    void eventReadVBatt(const Notification& notification);
    void eventReadMotor(const Notification& notification);
    void eventMotorDone(const Notification& notification);
    void eventReadIR(const Notification& notification);
    void eventReadReedSensor(const Notification& notification);
    void queueMonitoringValue(const Notification& notification);

    std::unique_ptr<Ui::MasterView> m_ui;
    std::unique_ptr<Ui::WelcomePopupPanel> m_welcomeUi;
    QDialog* m_welcomePopup = nullptr;
    MotorCurrentChart* m_motorChart = nullptr;
    QStackedWidget* m_monitoringStack = nullptr;
    QTimer* m_motorWatchdog = nullptr;
    QTimer* m_portWatch = nullptr;
    QTimer* m_reaper = nullptr;

    ScanOptions m_deviceOptions;
    // The manager of the connection on screen, and those stopped but not yet ended. Only the
    // main thread and the worker (for the job it runs) hold one, never the scan thread: a
    // manager's destructor joins its scan thread.
    std::shared_ptr<DeviceManager> m_manager;
    std::vector<std::shared_ptr<DeviceManager>> m_retired;
    // The current manager as the notification handlers see it.
    mutable std::mutex m_currentLock;
    DeviceManager* m_current = nullptr; // guarded by m_currentLock
    std::atomic<std::int32_t> m_pollKind{0};

    std::int32_t m_currConnectionState = 0;
    int m_busy = 0;
    QPointer<QWidget> m_focusTarget;
    bool m_enteredPassword = false;
    bool m_lastMotorMonitoringPass = false;
    bool m_motorTestRunning = false;
    bool m_saveExitPending = false; // pressed; the state has not changed since
    bool m_savedAndExited = false;  // the current manager ends by Save & Exit, not by giving up
    bool m_restartSearch = false;
    bool m_inWelcomePopup = false;
    bool m_basicValid = true;
    bool m_advancedValid = true;
    std::set<std::string> m_portsSeen;

    // Last: its thread runs jobs that use the members above, and it is stopped first.
    DeviceWorker m_worker;
};

} // namespace dravinel
