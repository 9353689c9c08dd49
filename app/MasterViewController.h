#pragma once

#include "DeviceSessionController.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QString>
#include <QWidget>

#include <memory>

// The main view: composes the connection panel, the two settings panels, the monitoring view
// and the welcome panel, and shows the connection. Device work goes through the session
// controller, which runs it off the main thread.

class QDialog;

namespace Ui {
class MasterView;
} // namespace Ui

namespace dravinel {

class MonitoringView;
class SettingsPanel;
class WelcomePanel;

class MasterViewController : public QWidget
{
    Q_OBJECT

public:
    // The product's web page, opened by the title link.
    static constexpr const char* kProductPage = "https://www.dravinel.example/";

    explicit MasterViewController(QWidget* parent = nullptr);
    ~MasterViewController() override;

    // Which ports a connection started from now on tries.
    void setPorts(PortChoice ports) { m_device->setPorts(std::move(ports)); }

    void onConnectButtonPressed();
    void onSubmitAdvancedButtonPressed();
    void toggleInterface(bool enable);
    void updateDisplay(int state);

    // The welcome panel; empty until the first loadDisplay.
    QDialog* welcomePopup() const;

signals:
    // Emitted once a connection state has been put on screen.
    void stateDisplayed(int state);
    // One line on the outcome of the last operation, for the window's status bar.
    void statusMessage(const QString& text);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void loadDisplay();
    void openWelcomeSearch();
    // Enables what the state, the running work and the fields allow, and puts focus back.
    void applyInterfaceState();
    void restoreFocus();
    void showBattery(const Reading& reading, double volts);
    void openLink(const QString& address);

    std::unique_ptr<Ui::MasterView> m_ui;
    std::unique_ptr<DeviceSessionController> m_device;
    SettingsPanel* m_basic = nullptr;    // owned by its group
    SettingsPanel* m_advanced = nullptr; // owned by its group
    MonitoringView* m_monitoring = nullptr;
    WelcomePanel* m_welcome = nullptr; // owned by the window
    ConnectionState m_state = ConnectionState::Disconnected;
    QPointer<QWidget> m_focusTarget;
    QElapsedTimer m_sinceSaveExit;
    bool m_enteredPassword = false;
    bool m_saveExitPending = false; // pressed; the state has not changed since
    bool m_inWelcomePopup = false;
};

} // namespace dravinel
