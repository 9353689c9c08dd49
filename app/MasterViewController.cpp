#include "MasterViewController.h"

#include "Hyperlink.h"
#include "MonitoringView.h"
#include "SettingsPanel.h"
#include "VectorPicture.h"
#include "WelcomePanel.h"
#include "ui_MasterView.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QKeyEvent>
#include <QMetaObject>
#include <QUrl>

// Resources of a static library are only linked in when something names them.
static void initAppResources()
{
    Q_INIT_RESOURCE(resources);
}

namespace dravinel {

namespace {

void setBusy(QProgressBar* progress, bool busy)
{
    // A range of 0..0 is Qt's animated busy indicator; any other range stops the animation.
    progress->setRange(0, busy ? 0 : 1);
    progress->setVisible(busy);
}

} // namespace

MasterViewController::MasterViewController(QWidget* parent)
    : QWidget(parent), m_ui(std::make_unique<Ui::MasterView>()),
      m_device(std::make_unique<DeviceSessionController>())
{
    initAppResources();
    m_ui->setupUi(this);
    const auto picture = [this](QLabel* label, const char* path) {
        label->setPixmap(
            renderPicture(QString::fromLatin1(path), label->minimumSize(), devicePixelRatioF()));
    };
    picture(m_ui->clientImage, ":/pictures/product.svg");
    picture(m_ui->kelImage, ":/pictures/logo.svg");

    m_basic = new SettingsPanel(m_ui->basicGroup, m_ui->refreshBasicButton, m_ui->updateBasicButton,
                                *m_device);
    m_advanced = new SettingsPanel(m_ui->advancedView, m_ui->refreshAdvancedButton,
                                   m_ui->updateAdvancedButton, *m_device);
    m_monitoring = new MonitoringView(*m_ui, *m_device);
    connect(m_monitoring, &MonitoringView::statusMessage, this,
            &MasterViewController::statusMessage);
    for (SettingsPanel* panel : {m_basic, m_advanced}) {
        connect(panel, &SettingsPanel::statusMessage, this, &MasterViewController::statusMessage);
        connect(panel, &SettingsPanel::deviceRequested, m_monitoring, &MonitoringView::reset);
        connect(panel, &SettingsPanel::validityChanged, this,
                &MasterViewController::applyInterfaceState);
        connect(m_device.get(), &DeviceSessionController::writeDone, panel,
                &SettingsPanel::showWrites);
    }
    connect(m_monitoring, &MonitoringView::motorTestChanged, this,
            &MasterViewController::applyInterfaceState);

    DeviceSessionController* device = m_device.get();
    connect(device, &DeviceSessionController::stateChanged, this,
            [this](ConnectionState state) { updateDisplay(static_cast<int>(state)); });
    connect(device, &DeviceSessionController::revisionRead, this, [this](const QString& revision) {
        m_ui->revisionLabel->setText(QStringLiteral("Rev. %1").arg(revision));
    });
    connect(device, &DeviceSessionController::batteryRead, this,
            &MasterViewController::showBattery);
    connect(device, &DeviceSessionController::settingsRead, this,
            [this](const std::optional<SettingsData>& settings) {
                m_basic->fill(settings);
                m_advanced->fill(settings);
                emit statusMessage(settings ? QStringLiteral("Settings read")
                                            : QStringLiteral("Settings not read: no valid "
                                                             "answer from the device"));
            });
    connect(device, &DeviceSessionController::saveAndExitSent, this, [this] {
        emit statusMessage(QStringLiteral("Save & Exit sent: the device stores its settings and "
                                          "leaves configuration mode"));
    });
    connect(device, &DeviceSessionController::deviceLost, this, [this] {
        emit statusMessage(QStringLiteral("The device stopped answering: searching for it again"));
    });
    connect(device, &DeviceSessionController::searchFailed, this, [this](const QStringList& why) {
        const QString detail = m_welcome->showSearchFailure(why);
        emit statusMessage(QStringLiteral("Could not find device. ") +
                           QString(detail).replace(QLatin1Char('\n'), QLatin1Char(' ')));
    });
    connect(device, &DeviceSessionController::searchCancelled, this, [this] {
        m_welcome->showCancelled();
        emit statusMessage(QStringLiteral("Search cancelled"));
    });
    connect(device, &DeviceSessionController::portAppeared, this, [this] {
        emit statusMessage(QStringLiteral("A device port appeared: searching"));
        if (m_welcome->isVisible())
            openWelcomeSearch();
        else
            onConnectButtonPressed();
    });
    connect(device, &DeviceSessionController::busyChanged, this, [this](bool busy) {
        if (busy)
            QApplication::setOverrideCursor(Qt::BusyCursor);
        else
            QApplication::restoreOverrideCursor();
        applyInterfaceState();
    });

    connect(m_ui->connectButton, &QPushButton::clicked, this,
            &MasterViewController::onConnectButtonPressed);
    connect(m_ui->submitAdvancedButton, &QPushButton::clicked, this,
            &MasterViewController::onSubmitAdvancedButtonPressed);
    connect(m_ui->passwordAdvancedTextField, &QLineEdit::returnPressed, this,
            &MasterViewController::onSubmitAdvancedButtonPressed);
    connect(m_ui->leDravinelTitle, &QLabel::linkActivated, this, &MasterViewController::openLink);

    // Deferred: the view must sit in its window before the welcome panel can be shown over it.
    QMetaObject::invokeMethod(
        this, [this] { updateDisplay(static_cast<int>(ConnectionState::Disconnected)); },
        Qt::QueuedConnection);
    QMetaObject::invokeMethod(this, &MasterViewController::loadDisplay, Qt::QueuedConnection);
}

MasterViewController::~MasterViewController()
{
    // Quitting sends nothing more to the device; the controller ends its calls at once.
    const bool busy = m_device->busy();
    m_device.reset();
    if (busy)
        QApplication::restoreOverrideCursor();
}

QDialog* MasterViewController::welcomePopup() const
{
    return m_welcome;
}

void MasterViewController::loadDisplay()
{
    applyHyperlink(m_ui->leDravinelTitle, QUrl(QString::fromLatin1(kProductPage)));
    // One Tab stop that Shift+Tab leaves too: the label's own link navigation would keep it.
    m_ui->leDravinelTitle->setTextInteractionFlags(Qt::LinksAccessibleByMouse);
    m_ui->leDravinelTitle->setFocusPolicy(Qt::TabFocus);
    m_ui->leDravinelTitle->installEventFilter(this);

    m_ui->advancedPasswordView->setHidden(false);
    m_ui->advancedView->setHidden(true);

    if (!m_welcome) {
        m_welcome = new WelcomePanel(window());
        connect(m_welcome, &WelcomePanel::openRequested, this,
                &MasterViewController::openWelcomeSearch);
        connect(m_welcome, &WelcomePanel::cancelRequested, m_device.get(),
                &DeviceSessionController::cancel);
    }
    m_welcome->prepare();
    m_inWelcomePopup = true;
    m_welcome->show();
}

void MasterViewController::openWelcomeSearch()
{
    m_welcome->showSearching();
    if (m_state == ConnectionState::Disconnected)
        m_device->open();
}

bool MasterViewController::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == m_ui->leDravinelTitle && event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent*>(event)->key();
        if (key == Qt::Key_Return || key == Qt::Key_Enter || key == Qt::Key_Space) {
            openLink(QString::fromLatin1(kProductPage));
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void MasterViewController::onConnectButtonPressed()
{
    if (m_state == ConnectionState::Disconnected) {
        // The second click of a double-clicked Save & Exit lands on Open: it is not a request.
        if (m_sinceSaveExit.isValid() &&
            m_sinceSaveExit.elapsed() < QApplication::doubleClickInterval())
            return;
        m_device->open();
        return;
    }
    // One Save & Exit per connection: a second press before the state changes does nothing.
    if (m_saveExitPending || m_state != ConnectionState::Connected)
        return;
    m_saveExitPending = true;
    m_sinceSaveExit.start();
    m_device->saveAndExit();
    applyInterfaceState();
}

void MasterViewController::onSubmitAdvancedButtonPressed()
{
    auto& ui = *m_ui;
    ui.errorAdvancedLabel->setHidden(true);
    if (ui.passwordAdvancedTextField->text() == QLatin1String(PASS.data(), PASS.size())) {
        m_enteredPassword = true;
        ui.advancedPasswordView->setHidden(true);
        ui.advancedView->setHidden(false);
        ui.motorTorqueTextField->setFocus(Qt::OtherFocusReason);
    } else {
        ui.errorAdvancedLabel->setText(QStringLiteral("Wrong Password"));
        ui.errorAdvancedLabel->setHidden(false);
    }
    ui.passwordAdvancedTextField->clear();
}

void MasterViewController::toggleInterface(bool enable)
{
    m_ui->connectButton->setEnabled(enable);
    m_basic->setEnabled(enable);
    m_ui->monitoringComboBox->setEnabled(enable);
    m_advanced->setEnabled(enable);
}

void MasterViewController::applyInterfaceState()
{
    const bool idle = !m_device->busy() && !m_monitoring->motorTestRunning();
    const bool enable = m_state == ConnectionState::Connected && idle;
    const bool connectEnabled =
        idle && !m_saveExitPending &&
        (m_state == ConnectionState::Disconnected || m_state == ConnectionState::Connected);
    // Disabling the focused control would hand the focus on to the next one in the tab order.
    // The view holds it meanwhile, and the control gets it back afterwards.
    QWidget* focused = QApplication::focusWidget();
    if (!enable && focused && focused != this && isAncestorOf(focused) &&
        !m_ui->advancedPasswordView->isAncestorOf(focused) &&
        !(focused == m_ui->connectButton && connectEnabled)) {
        if (!m_focusTarget)
            m_focusTarget = focused;
        setFocus(Qt::OtherFocusReason);
    }
    toggleInterface(enable);
    m_ui->connectButton->setEnabled(connectEnabled);
    if (enable || (connectEnabled && m_focusTarget == m_ui->connectButton))
        restoreFocus();
}

void MasterViewController::restoreFocus()
{
    QWidget* target = m_focusTarget;
    m_focusTarget = nullptr;
    if (!target)
        return;
    // A control that stays disabled hands over to the first field of its panel.
    if (!target->isEnabled()) {
        if (m_ui->basicGroup->isAncestorOf(target))
            target = m_ui->clockWiseButton;
        else if (m_ui->advancedView->isAncestorOf(target))
            target = m_ui->motorTorqueTextField;
    }
    if (target->isEnabled())
        target->setFocus(Qt::OtherFocusReason);
}

void MasterViewController::updateDisplay(int value)
{
    if (value < 0 || value > static_cast<int>(ConnectionState::Disconnecting))
        return;
    const auto state = static_cast<ConnectionState>(value);
    auto& ui = *m_ui;
    const bool changed = state != m_state;
    const bool wasConnected = m_state == ConnectionState::Connected;
    m_state = state;
    if (m_inWelcomePopup)
        m_welcome->showState(state);
    if (changed)
        m_saveExitPending = false;

    switch (state) {
    case ConnectionState::Disconnected:
        ui.statusLabel->setText(QStringLiteral("Disconnected"));
        ui.connectButton->setText(QStringLiteral("&Open"));
        break;
    case ConnectionState::Scanning:
        ui.statusLabel->setText(QStringLiteral("Scanning"));
        break;
    case ConnectionState::Connected:
        ui.statusLabel->setText(QStringLiteral("Connected"));
        // The ampersand doubled shows as one; the single one marks Alt+X.
        ui.connectButton->setText(QStringLiteral("Save && E&xit"));
        break;
    case ConnectionState::Disconnecting:
        ui.statusLabel->setText(QStringLiteral("Disconnecting"));
        break;
    }
    // Readings of a device no longer connected stay readable, greyed as not current.
    ui.revisionLabel->setEnabled(state == ConnectionState::Connected);
    ui.batteryLevelLabel->setEnabled(state == ConnectionState::Connected);
    setBusy(ui.scanProgress,
            state == ConnectionState::Scanning || state == ConnectionState::Disconnecting);
    m_basic->setJudged(state == ConnectionState::Connected);
    m_advanced->setJudged(state == ConnectionState::Connected);
    applyInterfaceState();

    if (changed && wasConnected && state == ConnectionState::Scanning)
        emit statusMessage(QStringLiteral("Connection lost: searching for the device again"));
    if (state == ConnectionState::Connected && changed) {
        if (!m_focusTarget)
            m_focusTarget = ui.clockWiseButton;
        // Read once now, so the battery shows from the start; the keep-alive reads it after.
        m_device->readBattery();
        m_basic->refresh();
    }
    emit stateDisplayed(value);
}

void MasterViewController::showBattery(const Reading& reading, double volts)
{
    if (reading.ok()) {
        m_ui->batteryLevelLabel->setText(QString::asprintf("%.01f V", volts));
    } else if (reading.kind == Reading::Kind::WrongReply) {
        emit statusMessage(QStringLiteral("Battery not read: the device answered \"%1\"")
                               .arg(QString::fromStdString(reading.answer)));
    }
}

void MasterViewController::openLink(const QString& address)
{
    if (QDesktopServices::openUrl(QUrl(address)))
        return;
    QGuiApplication::clipboard()->setText(address);
    emit statusMessage(QStringLiteral("No web browser could be opened; the address %1 is copied "
                                      "to the clipboard")
                           .arg(address));
}

} // namespace dravinel
