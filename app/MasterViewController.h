#pragma once

#include "device/SettingsData.h"
#include "protocol/SerialManager.h"

#include <QString>
#include <QWidget>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// The main view's controller: shows the connection, the settings panels and the live readings,
// and forwards the operator's actions to the device model.

class QDialog;
class QLabel;
class QProgressBar;

namespace Ui {
class MasterView;
class WelcomePopupPanel;
} // namespace Ui

namespace dravinel {

class MotorCurrentChart;

class DeviceManager;
struct Notification;

class MasterViewController : public QWidget
{
    Q_OBJECT

public:
    // The product's web page, opened by the title link.
    static constexpr const char* kProductPage = "https://www.dravinel.example/";

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

private:
    // What the notification handlers and the poll thread share with the controller. Those run on
    // other threads and may outlive the controller by a moment, so they hold this, never the
    // controller itself.
    struct Shared
    {
        std::shared_ptr<DeviceManager> deviceMngr() const;

        mutable std::mutex m_lock;
        std::shared_ptr<DeviceManager> m_deviceMngr; // guarded by m_lock
        std::atomic<bool> m_running{false};
        std::atomic<std::int32_t> m_monitoring{0};
        // Set by the controller's destructor to end the poll threads at once.
        bool m_closing = false; // guarded by m_lock
        int m_pollThreads = 0;  // guarded by m_lock
        std::condition_variable m_wake;
    };

    void loadMasterView();
    void loadDisplay();
    void startConnection();
    void endSheet();

    // Notification handlers: they run on the posting thread and only queue screen work.
    void eventConnectionStateChanged(const Notification& notification);
    void eventReadRevision(const Notification& notification);
    void eventReadVBatt(const Notification& notification);
    void eventReadMotor(const Notification& notification);
    void eventMotorDone(const Notification& notification);
    void eventReadIR(const Notification& notification);
    void eventReadReedSensor(const Notification& notification);
    void queueMonitoringValue(const Notification& notification);

    static void threadMonitoring(std::shared_ptr<Shared> shared);
    void startMonitoringThread();

    std::unique_ptr<Ui::MasterView> m_ui;
    std::unique_ptr<Ui::WelcomePopupPanel> m_welcomeUi;
    QDialog* m_welcomePopup = nullptr;
    MotorCurrentChart* m_motorChart = nullptr;

    std::shared_ptr<Shared> m_shared = std::make_shared<Shared>();
    ScanOptions m_deviceOptions;
    // Every manager this controller made, so that none of their threads outlives it.
    std::vector<std::weak_ptr<DeviceManager>> m_createdManagers;
    std::int32_t m_currConnectionState = 0;
    bool m_enteredPassword = false;
    bool m_lastMotorMonitoringPass = false;
    bool m_inWelcomePopup = false;
};

} // namespace dravinel
