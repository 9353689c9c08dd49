#include "MasterViewController.h"

#include "FieldRules.h"
#include "Hyperlink.h"
#include "MotorCurrentChart.h"
#include "VectorPicture.h"
#include "ui_MasterView.h"
#include "ui_WelcomePopupPanel.h"

#include "device/DeviceManager.h"
#include "protocol/Globals.h"
#include "serial/serial.h"
#include "support/NotificationCenter.h"

#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QDialog>
#include <QKeyEvent>
#include <QMetaObject>
#include <QStackedWidget>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <filesystem>

// Resources of a static library are only linked in when something names them.
static void initAppResources()
{
    Q_INIT_RESOURCE(resources);
}

namespace dravinel {

namespace {

using namespace std::chrono_literals;

// The connection states as the notification carries them.
constexpr std::int32_t Disconnected = static_cast<std::int32_t>(ConnectionState::Disconnected);
constexpr std::int32_t Scanning = static_cast<std::int32_t>(ConnectionState::Scanning);
constexpr std::int32_t Connected = static_cast<std::int32_t>(ConnectionState::Connected);
constexpr std::int32_t Disconnecting = static_cast<std::int32_t>(ConnectionState::Disconnecting);

constexpr std::chrono::milliseconds kPollPeriod{DELAY_SCAN_CHECK};
// How long the destructor waits for the device's threads; they end within one transaction.
constexpr std::chrono::seconds kShutdownWait{5};
constexpr std::chrono::seconds kPortWatchPeriod{1};
constexpr std::chrono::milliseconds kReapPeriod{200};

// Dynamic properties of the settings fields: the tooltip from the form, the note of a write the
// device did not confirm, and the mark shown ("invalid", "unconfirmed" or empty).
constexpr const char* kBaseToolTip = "baseToolTip";
constexpr const char* kUnconfirmedNote = "unconfirmedNote";
constexpr const char* kFieldMark = "mark";

const QString kInvalidStyle = QStringLiteral("QLineEdit { border: 2px solid #d32f2f; }");
const QString kUnconfirmedStyle = QStringLiteral("QLineEdit { border: 2px solid #ef6c00; }");

void setBusy(QProgressBar* progress, bool busy)
{
    // A range of 0..0 is Qt's animated busy indicator; any other range stops the animation.
    progress->setRange(0, busy ? 0 : 1);
    progress->setVisible(busy);
}

std::optional<std::uint32_t> fieldNumber(const QLineEdit* field, std::uint32_t max)
{
    return fields::parseWhole(field->text().toStdString(), max);
}

} // namespace

MasterViewController::MasterViewController(QWidget* parent)
    : QWidget(parent), m_ui(std::make_unique<Ui::MasterView>())
{
    initAppResources();
    m_ui->setupUi(this);
    m_ui->clientImage->setPixmap(renderPicture(QStringLiteral(":/pictures/product.svg"),
                                               m_ui->clientImage->minimumSize(),
                                               devicePixelRatioF()));
    m_ui->kelImage->setPixmap(renderPicture(QStringLiteral(":/pictures/logo.svg"),
                                            m_ui->kelImage->minimumSize(), devicePixelRatioF()));

    // The motor-current curve shares a reserved space with the hint under the value, so that
    // showing it never resizes the window.
    m_motorChart = new MotorCurrentChart;
    m_motorChart->setObjectName(QStringLiteral("motorCurrentChart"));
    m_monitoringStack = new QStackedWidget(m_ui->monitoringGroup);
    m_monitoringStack->setObjectName(QStringLiteral("monitoringStack"));
    const int hintIndex = m_ui->monitoringLayout->indexOf(m_ui->monitoringHint);
    m_ui->monitoringLayout->removeWidget(m_ui->monitoringHint);
    m_ui->monitoringHint->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    m_monitoringStack->addWidget(m_ui->monitoringHint);
    m_monitoringStack->addWidget(m_motorChart);
    // The chart's height is kept from the start (a stack counts only the pages it has shown);
    // the width follows the panel, as the wrapped hint cannot say which width it wants from
    // inside a stack.
    m_monitoringStack->setMinimumHeight(m_motorChart->minimumSizeHint().height());
    m_monitoringStack->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    m_ui->monitoringLayout->insertWidget(hintIndex, m_monitoringStack);

    m_motorWatchdog = new QTimer(this);
    m_motorWatchdog->setSingleShot(true);
    m_motorWatchdog->setInterval(kMotorSilence);
    connect(m_motorWatchdog, &QTimer::timeout, this, [this] {
        // A silent device is noticed from here on as a failing keep-alive would notice it.
        if (m_manager)
            m_manager->enableKeepaliveCheck(true);
        finishMotorTest(QStringLiteral("Motor test ended: no reading from the device for %1 s")
                            .arg(kMotorSilence.count()));
    });
    m_portWatch = new QTimer(this);
    m_portWatch->setInterval(kPortWatchPeriod);
    connect(m_portWatch, &QTimer::timeout, this, [this] { checkPorts(); });
    m_reaper = new QTimer(this);
    m_reaper->setSingleShot(true);
    m_reaper->setInterval(kReapPeriod);
    connect(m_reaper, &QTimer::timeout, this, [this] { reapRetiredManagers(); });

    connect(m_ui->connectButton, &QPushButton::clicked, this,
            [this] { onConnectButtonPressed(m_ui->connectButton); });
    connect(m_ui->refreshBasicButton, &QPushButton::clicked, this,
            [this] { onRefreshBasicButtonPressed(m_ui->refreshBasicButton); });
    connect(m_ui->updateBasicButton, &QPushButton::clicked, this,
            [this] { onUpdateBasicButtonPressed(m_ui->updateBasicButton); });
    connect(m_ui->clockWiseButton, &QCheckBox::clicked, this,
            [this] { onClockWiseButtonClicked(m_ui->clockWiseButton); });
    connect(m_ui->counterClockWiseButton, &QCheckBox::clicked, this,
            [this] { onCounterClockWiseButtonClicked(m_ui->counterClockWiseButton); });
    connect(m_ui->submitAdvancedButton, &QPushButton::clicked, this,
            [this] { onSubmitAdvancedButtonPressed(m_ui->submitAdvancedButton); });
    connect(m_ui->passwordAdvancedTextField, &QLineEdit::returnPressed, this,
            [this] { onSubmitAdvancedButtonPressed(m_ui->passwordAdvancedTextField); });
    connect(m_ui->refreshAdvancedButton, &QPushButton::clicked, this,
            [this] { onRefreshAdvancedButtonPressed(m_ui->refreshAdvancedButton); });
    connect(m_ui->updateAdvancedButton, &QPushButton::clicked, this,
            [this] { onUpdateAdvancedButtonPressed(m_ui->updateAdvancedButton); });
    // Only the operator's choice counts: the controller's own selection changes must not start
    // or stop monitoring.
    connect(m_ui->monitoringComboBox, &QComboBox::activated, this,
            [this] { onMonitoringSelectionChanged(m_ui->monitoringComboBox); });
    connect(m_ui->leDravinelTitle, &QLabel::linkActivated, this,
            [this](const QString& link) { openLink(link); });

    for (QLineEdit* field : {m_ui->clockWiseBasicTextField, m_ui->counterClockWiseBasicTextField,
                             m_ui->waitTimeHoursBasicTextField, m_ui->waitTimeMinutesBasicTextField,
                             m_ui->motorTorqueTextField, m_ui->motorProtectionTextField,
                             m_ui->detectionThresholdTextField}) {
        field->setProperty(kBaseToolTip, field->toolTip());
        connect(field, &QLineEdit::textChanged, this, [this, field] {
            // An edited value is no longer the one the device did not confirm.
            field->setProperty(kUnconfirmedNote, QString());
            validateFields();
        });
    }

    loadMasterView();
}

MasterViewController::~MasterViewController()
{
    // Quitting sends nothing to the device: the worker drops what it has not begun, and the
    // stops below wake the transaction under way at once.
    m_worker.stop();
    if (m_manager)
        m_manager->stop();
    for (const auto& manager : m_retired)
        manager->stop();
    // After this no handler runs or is running, so nothing queues work for this object any more.
    NotificationCenter::defaultCenter().removeObserver(this);
    m_worker.join();
    if (m_manager)
        m_retired.push_back(std::move(m_manager));
    for (const auto& manager : m_retired)
        manager->waitUntilStopped(kShutdownWait);
    m_retired.clear();
    for (; m_busy > 0; --m_busy)
        QApplication::restoreOverrideCursor();
}

void MasterViewController::loadMasterView()
{
    auto& center = NotificationCenter::defaultCenter();
    const auto observe = [&](const char* name,
                             void (MasterViewController::*handler)(const Notification&)) {
        center.observe(
            name, [this, handler](const Notification& n) { (this->*handler)(n); }, this);
    };
    observe(ConnStateChangedEvent, &MasterViewController::eventConnectionStateChanged);
    observe(ReadRevisionEvent, &MasterViewController::eventReadRevision);
    observe(ReadVBattEvent, &MasterViewController::eventReadVBatt);
    observe(MonitorMotorEvent, &MasterViewController::eventReadMotor);
    observe(MonitorMotorDoneEvent, &MasterViewController::eventMotorDone);
    observe(MonitorIREvent, &MasterViewController::eventReadIR);
    observe(MonitorReedSensorEvent, &MasterViewController::eventReadReedSensor);

    m_pollKind = 0;
    // Deferred: the view must sit in its window before the display is prepared and the welcome
    // panel can be shown over that window.
    QMetaObject::invokeMethod(
        this, [this] { updateDisplay(Disconnected); }, Qt::QueuedConnection);
    QMetaObject::invokeMethod(
        this, [this] { loadDisplay(); }, Qt::QueuedConnection);
}

void MasterViewController::loadDisplay()
{
    updateControl(m_ui->leDravinelTitle, QString::fromLatin1(kProductPage));

    m_ui->advancedPasswordView->setHidden(false);
    m_ui->advancedView->setHidden(true);

    if (!m_welcomePopup) {
        m_welcomePopup = new QDialog(window());
        m_welcomeUi = std::make_unique<Ui::WelcomePopupPanel>();
        m_welcomeUi->setupUi(m_welcomePopup);
        m_welcomeUi->welcomeImage->setPixmap(renderPicture(QStringLiteral(":/pictures/product.svg"),
                                                           m_welcomeUi->welcomeImage->minimumSize(),
                                                           devicePixelRatioF()));
        connect(m_welcomeUi->welcomeOpenButton, &QPushButton::clicked, this,
                [this] { onWelcomeOpenButtonPressed(m_welcomeUi->welcomeOpenButton); });
        connect(m_welcomeUi->welcomeCancelButton, &QPushButton::clicked, this,
                [this] { onWelcomeCancelButtonPressed(m_welcomeUi->welcomeCancelButton); });
        // The window's actions (Quit) stay reachable while the panel blocks the window.
        m_welcomePopup->addActions(window()->actions());
        m_welcomePopup->installEventFilter(this);
    }
    m_welcomeUi->welcomeStatusLabel->setText(QString());
    m_welcomeUi->welcomeDetailLabel->setText(QString());
    m_welcomeUi->welcomeDetailLabel->setVisible(false);
    m_welcomeUi->welcomeScanningProgress->setVisible(false);

    m_inWelcomePopup = true;
    m_welcomePopup->setWindowModality(Qt::WindowModal);
    m_welcomePopup->show();
}

bool MasterViewController::eventFilter(QObject* watched, QEvent* event)
{
    // The welcome panel closes only once the device is connected; Quit stays available.
    if (watched == m_welcomePopup) {
        if (event->type() == QEvent::KeyPress &&
            static_cast<QKeyEvent*>(event)->key() == Qt::Key_Escape)
            return true;
        // Only the window system's close is refused: quitting closes every window too.
        if (event->type() == QEvent::Close && event->spontaneous()) {
            event->ignore();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void MasterViewController::endSheet()
{
    if (m_welcomePopup)
        m_welcomePopup->hide();
}

void MasterViewController::startConnection()
{
    m_restartSearch = false;
    if (m_manager)
        retireManager();
    m_portWatch->stop();
    m_savedAndExited = false;
    // Published under the lock: the scan thread starts at once, and its first notifications
    // must find the new manager in place.
    std::lock_guard lock(m_currentLock);
    m_manager = DeviceManager::create(m_deviceOptions);
    m_current = m_manager.get();
}

void MasterViewController::retireManager()
{
    {
        std::lock_guard lock(m_currentLock);
        m_current = nullptr;
    }
    if (!m_manager)
        return;
    m_manager->stop();
    m_retired.push_back(std::move(m_manager));
    reapRetiredManagers();
}

void MasterViewController::reapRetiredManagers()
{
    // Dropped only once their scan thread has ended, so the main thread never waits for one.
    std::erase_if(m_retired, [](const auto& manager) { return manager->waitUntilStopped(0ms); });
    if (!m_retired.empty()) {
        m_reaper->start();
    } else if (m_restartSearch) {
        // A search restarted after a silent device begins once the old port is free again.
        m_restartSearch = false;
        startConnection();
    }
}

DeviceManager* MasterViewController::currentManager(const void* sender) const
{
    std::lock_guard lock(m_currentLock);
    return m_current && m_current == sender ? m_current : nullptr;
}

void MasterViewController::onWelcomeOpenButtonPressed(QObject*)
{
    if (!m_manager)
        startConnection();
    m_welcomeUi->welcomeOpenButton->setEnabled(false);
    m_welcomeUi->welcomeCancelButton->setEnabled(true);
    m_welcomeUi->welcomeScanningProgress->setRange(0, 0);
    m_welcomeUi->welcomeStatusLabel->setText(QStringLiteral("Scanning..."));
    m_welcomeUi->welcomeDetailLabel->clear();
    m_welcomeUi->welcomeDetailLabel->setVisible(false);
}

void MasterViewController::onWelcomeCancelButtonPressed(QObject*)
{
    if (!m_manager)
        return;
    // Shown at once: a manager stopped before its first state has no state to end with.
    retireManager();
    updateDisplay(Disconnected);
    m_welcomeUi->welcomeStatusLabel->setText(QStringLiteral("Search cancelled."));
    showStatus(QStringLiteral("Search cancelled"));
}

void MasterViewController::toggleInterface(bool enable)
{
    auto& ui = *m_ui;
    ui.connectButton->setEnabled(enable);
    ui.refreshBasicButton->setEnabled(enable);
    ui.updateBasicButton->setEnabled(enable && m_basicValid);
    ui.clockWiseButton->setEnabled(enable);
    ui.clockWiseBasicTextField->setEnabled(enable && ui.clockWiseButton->isChecked());
    ui.counterClockWiseButton->setEnabled(enable);
    ui.counterClockWiseBasicTextField->setEnabled(enable && ui.counterClockWiseButton->isChecked());
    ui.waitTimeHoursBasicTextField->setEnabled(enable);
    ui.waitTimeMinutesBasicTextField->setEnabled(enable);
    ui.monitoringComboBox->setEnabled(enable);
    ui.motorTorqueTextField->setEnabled(enable);
    ui.motorProtectionTextField->setEnabled(enable);
    ui.detectionThresholdTextField->setEnabled(enable);
    ui.refreshAdvancedButton->setEnabled(enable);
    ui.updateAdvancedButton->setEnabled(enable && m_advancedValid);
}

void MasterViewController::applyInterfaceState()
{
    const std::int32_t state = m_currConnectionState;
    const bool idle = m_busy == 0 && !m_motorTestRunning;
    const bool enable = state == Connected && idle;
    const bool connectEnabled =
        idle && !m_saveExitPending && (state == Disconnected || state == Connected);
    // Disabling the focused control would hand the focus on to the next one in the tab order,
    // the password field. The view holds it meanwhile, and the control gets it back afterwards.
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

void MasterViewController::runOnDevice(QWidget* origin, DeviceCall call)
{
    std::shared_ptr<DeviceManager> manager = m_manager;
    if (!manager)
        return;
    beginBusy(origin);
    m_worker.post(
        [this, manager = std::move(manager), call = std::move(call)](std::stop_token stop) {
            Effect effect = call(*manager, stop);
            if (stop.stop_requested())
                return;
            QMetaObject::invokeMethod(
                this,
                [this, effect = std::move(effect)] {
                    if (effect)
                        effect();
                    endBusy();
                },
                Qt::QueuedConnection);
        });
}

void MasterViewController::beginBusy(QWidget* origin)
{
    if (m_busy++ == 0)
        QApplication::setOverrideCursor(Qt::BusyCursor);
    if (origin)
        m_focusTarget = origin;
    applyInterfaceState();
}

void MasterViewController::endBusy()
{
    if (m_busy == 0)
        return;
    if (--m_busy == 0)
        QApplication::restoreOverrideCursor();
    applyInterfaceState();
}

void MasterViewController::onConnectButtonPressed(QObject* sender)
{
    if (!m_manager) {
        startConnection();
        return;
    }
    // One Save & Exit per connection: a second press before the state changes does nothing.
    if (m_saveExitPending || m_currConnectionState != Connected)
        return;
    m_saveExitPending = true;
    m_savedAndExited = true;
    runOnDevice(qobject_cast<QWidget*>(sender),
                [this](DeviceManager& manager, const std::stop_token&) -> Effect {
                    manager.saveAndExit();
                    manager.stop();
                    return [this] {
                        showStatus(QStringLiteral("Save & Exit sent: the device stores its "
                                                  "settings and leaves configuration mode"));
                    };
                });
}

void MasterViewController::updateDisplay(std::int32_t state)
{
    if (state < Disconnected || state > Disconnecting)
        return;
    auto& ui = *m_ui;
    const bool changed = state != m_currConnectionState;
    const bool wasConnected = m_currConnectionState == Connected;
    m_currConnectionState = state;

    if (m_inWelcomePopup && state != Disconnecting) {
        auto& welcome = *m_welcomeUi;
        setBusy(welcome.welcomeScanningProgress, state == Scanning);
        welcome.welcomeOpenButton->setEnabled(state != Scanning);
        welcome.welcomeCancelButton->setEnabled(state == Scanning);
        switch (state) {
        case Disconnected:
            welcome.welcomeStatusLabel->setText(
                QStringLiteral("Could not find device. Please try again."));
            break;
        case Scanning:
            welcome.welcomeStatusLabel->setText(QStringLiteral("Scanning..."));
            welcome.welcomeDetailLabel->clear();
            welcome.welcomeDetailLabel->setVisible(false);
            break;
        case Connected:
            welcome.welcomeStatusLabel->setText(QString());
            welcome.welcomeDetailLabel->clear();
            welcome.welcomeDetailLabel->setVisible(false);
            endSheet();
            break;
        }
    }

    // Whatever was running ends with the state it ran in: a motor test unlocks the window, and
    // a poll stops rather than count a lost device's silence.
    if (changed) {
        m_saveExitPending = false;
        if (m_motorTestRunning)
            finishMotorTest(QString());
        if (m_pollKind != 0) {
            stopPolling();
            ui.monitoringComboBox->setCurrentIndex(0);
            ui.monitoringNameLabel->setText(QStringLiteral("- :"));
            ui.monitoringValueLabel->setText(QStringLiteral("-"));
        }
    }
    if (state != Disconnected)
        m_portWatch->stop();

    switch (state) {
    case Disconnected:
        ui.statusLabel->setText(QStringLiteral("Disconnected"));
        ui.connectButton->setText(QStringLiteral("Open"));
        break;
    case Scanning:
        ui.statusLabel->setText(QStringLiteral("Scanning"));
        break;
    case Connected:
        ui.statusLabel->setText(QStringLiteral("Connected"));
        // Doubled so that Qt shows the ampersand instead of taking it as a mnemonic marker.
        ui.connectButton->setText(QStringLiteral("Save && Exit"));
        break;
    case Disconnecting:
        ui.statusLabel->setText(QStringLiteral("Disconnecting"));
        break;
    }
    // Readings of a device no longer connected stay readable, greyed as not current.
    ui.revisionLabel->setEnabled(state == Connected);
    ui.batteryLevelLabel->setEnabled(state == Connected);
    setBusy(ui.scanProgress, state == Scanning || state == Disconnecting);
    validateFields();

    if (changed && wasConnected && state == Scanning)
        showStatus(QStringLiteral("Connection lost: searching for the device again"));
    if (state == Connected && changed) {
        if (!m_focusTarget)
            m_focusTarget = ui.clockWiseButton;
        // Read once now, so the battery shows from the start; the keep-alive reads it after.
        runOnDevice(nullptr, [](DeviceManager& manager, const std::stop_token&) -> Effect {
            manager.readVBatt();
            return {};
        });
        onRefreshBasicButtonPressed(nullptr);
    }
    emit stateDisplayed(state);
}

void MasterViewController::eventConnectionStateChanged(const Notification& notification)
{
    const auto value = notification.integer("state");
    if (!value)
        return;
    const auto state = static_cast<std::int32_t>(*value);
    // A manager already replaced or stopped by the window has nothing more to say.
    DeviceManager* manager = currentManager(notification.sender);
    if (!manager)
        return;
    // The manager outlives this call: its destructor waits for the scan thread posting here.
    std::vector<PortAttempt> attempts;
    if (state == Disconnected)
        attempts = manager->getPortAttempts();
    const void* sender = notification.sender;
    QMetaObject::invokeMethod(
        this, [this, sender, state, attempts] { onManagerState(sender, state, attempts); },
        Qt::QueuedConnection);

    if (state == Connected) {
        std::optional<SettingsData> settings = manager->readSettings();
        QMetaObject::invokeMethod(
            this, [this, settings] { refreshSettings(settings); }, Qt::QueuedConnection);
    }
}

void MasterViewController::onManagerState(const void* sender, std::int32_t state,
                                          const std::vector<PortAttempt>& attempts)
{
    if (!m_manager || m_manager.get() != sender)
        return;
    if (state != Disconnected) {
        updateDisplay(state);
        return;
    }
    // A search that gave up by itself says why, and watches for the device; Save & Exit does
    // neither.
    const bool gaveUp = !m_savedAndExited;
    m_savedAndExited = false;
    retireManager();
    updateDisplay(Disconnected);
    if (gaveUp) {
        showSearchFailure(attempts);
        startPortWatch();
    }
}

void MasterViewController::showSearchFailure(const std::vector<PortAttempt>& attempts)
{
    QStringList lines;
    for (const auto& attempt : attempts)
        lines << QString::fromStdString(attempt.path + ": " + describePortAttempt(attempt));
    if (attempts.empty()) {
        lines << QStringLiteral("No Dravinel device is plugged in.")
              << QStringLiteral("A USB serial cable whose name lacks the word Dravinel is not "
                                "searched: start the app with --port and its path, e.g. "
                                "--port /dev/ttyUSB0.");
    }
    m_welcomeUi->welcomeDetailLabel->setText(lines.join(QLatin1Char('\n')));
    m_welcomeUi->welcomeDetailLabel->setVisible(!lines.isEmpty());
    showStatus(
        (QStringList{QStringLiteral("Could not find device.")} + lines).join(QLatin1Char(' ')));
}

std::set<std::string> MasterViewController::presentPorts() const
{
    std::set<std::string> ports;
    if (m_deviceOptions.scanForOthers)
        for (const auto& path : get_port_paths())
            if (path.find(PRODUCT_WORD) != std::string::npos)
                ports.insert(path);
    for (const auto& path : m_deviceOptions.ports) {
        std::error_code ec;
        if (std::filesystem::exists(path, ec))
            ports.insert(path);
    }
    return ports;
}

void MasterViewController::startPortWatch()
{
    m_portsSeen = presentPorts();
    m_portWatch->start();
}

void MasterViewController::checkPorts()
{
    std::set<std::string> present = presentPorts();
    const bool appeared = std::any_of(present.begin(), present.end(), [&](const auto& path) {
        return !m_portsSeen.contains(path);
    });
    m_portsSeen = std::move(present);
    if (!appeared || m_manager || m_currConnectionState != Disconnected)
        return;
    m_portWatch->stop();
    showStatus(QStringLiteral("A device port appeared: searching"));
    if (m_welcomePopup && m_welcomePopup->isVisible())
        onWelcomeOpenButtonPressed(nullptr);
    else
        onConnectButtonPressed(nullptr);
}

void MasterViewController::eventReadRevision(const Notification& notification)
{
    if (!currentManager(notification.sender))
        return;
    const QString revision = QString::fromStdString(notification.text("rev").value_or(""));
    QMetaObject::invokeMethod(
        this, [this, revision] { setRevLabel(revision); }, Qt::QueuedConnection);
}

void MasterViewController::setRevLabel(const QString& revision)
{
    m_ui->revisionLabel->setText(QStringLiteral("Rev. %1").arg(revision));
}

void MasterViewController::eventReadVBatt(const Notification& notification)
{
    if (!currentManager(notification.sender))
        return;
    const std::int64_t raw = notification.integer("vbatt").value_or(0);
    QMetaObject::invokeMethod(
        this, [this, raw] { setVBattLabel(raw); }, Qt::QueuedConnection);
}

void MasterViewController::setVBattLabel(std::int64_t raw)
{
    // 111 raw units per volt is the device's fixed scale.
    const double volts = static_cast<double>(static_cast<std::int32_t>(raw)) * 1.0 / 111.0;
    m_ui->batteryLevelLabel->setText(QString::asprintf("%.01f V", volts));
}

void MasterViewController::refreshSettings(const std::optional<SettingsData>& settings)
{
    if (!settings)
        return;
    const auto text = [](int value) { return QString::number(value); };
    auto& ui = *m_ui;
    ui.clockWiseBasicTextField->setText(text(settings->getPosRotation()));
    ui.counterClockWiseBasicTextField->setText(text(settings->getNegRotation()));
    ui.waitTimeHoursBasicTextField->setText(text(settings->getCycleTimeoutMins() / 60));
    ui.waitTimeMinutesBasicTextField->setText(text(settings->getCycleTimeoutMins() % 60));
    ui.motorTorqueTextField->setText(text(settings->getMotorSpeed()));
    ui.motorProtectionTextField->setText(text(settings->getCurrThreshold()));
    ui.detectionThresholdTextField->setText(text(settings->getMinIRDetection()));
    // What the fields show now is what the device holds.
    for (QLineEdit* field : findChildren<QLineEdit*>())
        field->setProperty(kUnconfirmedNote, QString());
    validateFields();
}

void MasterViewController::onRefreshBasicButtonPressed(QObject* sender)
{
    m_ui->monitoringComboBox->setCurrentIndex(0);
    onMonitoringSelectionChanged(nullptr);
    showStatus(QStringLiteral("Reading the settings..."));
    runOnDevice(qobject_cast<QWidget*>(sender),
                [this](DeviceManager& manager, const std::stop_token&) -> Effect {
                    std::optional<SettingsData> settings = manager.readSettings();
                    return [this, settings] {
                        refreshSettings(settings);
                        showStatus(settings ? QStringLiteral("Settings read")
                                            : QStringLiteral("Settings not read: no valid "
                                                             "answer from the device"));
                    };
                });
}

void MasterViewController::onUpdateBasicButtonPressed(QObject* sender)
{
    validateFields();
    if (!m_basicValid)
        return;
    auto& ui = *m_ui;
    const auto value = [](const QLineEdit* field) {
        return static_cast<std::uint16_t>(fieldNumber(field, fields::kMaxValue).value_or(0));
    };
    // An unticked direction is written as 0.
    const std::uint16_t positive =
        ui.clockWiseButton->isChecked() ? value(ui.clockWiseBasicTextField) : 0;
    const std::uint16_t negative =
        ui.counterClockWiseButton->isChecked() ? value(ui.counterClockWiseBasicTextField) : 0;
    const std::uint16_t timeout =
        fields::cycleTimeout(ui.waitTimeHoursBasicTextField->text().toStdString(),
                             ui.waitTimeMinutesBasicTextField->text().toStdString())
            .value_or(0);
    writeSettings(sender,
                  {{Setting::PositiveRotation, positive, {ui.clockWiseBasicTextField}},
                   {Setting::NegativeRotation, negative, {ui.counterClockWiseBasicTextField}},
                   {Setting::CycleTimeout,
                    timeout,
                    {ui.waitTimeHoursBasicTextField, ui.waitTimeMinutesBasicTextField}}});
}

void MasterViewController::onUpdateAdvancedButtonPressed(QObject* sender)
{
    validateFields();
    if (!m_advancedValid)
        return;
    auto& ui = *m_ui;
    const auto write = [](Setting setting, QLineEdit* field) {
        const auto value = fieldNumber(field, fields::kMaxValue).value_or(0);
        return SettingWrite{setting, static_cast<std::uint16_t>(value), {field}};
    };
    writeSettings(sender, {write(Setting::MotorSpeed, ui.motorTorqueTextField),
                           write(Setting::CurrentLimit, ui.motorProtectionTextField),
                           write(Setting::MinIRDetection, ui.detectionThresholdTextField)});
}

void MasterViewController::writeSettings(QObject* sender, std::vector<SettingWrite> writes)
{
    m_ui->monitoringComboBox->setCurrentIndex(0);
    onMonitoringSelectionChanged(nullptr);
    showStatus(QStringLiteral("Writing the settings..."));
    runOnDevice(qobject_cast<QWidget*>(sender),
                [this, writes](DeviceManager& manager, const std::stop_token& stop) -> Effect {
                    std::vector<WriteResult> results;
                    for (const auto& write : writes) {
                        if (stop.stop_requested())
                            return {};
                        results.push_back(manager.save(write.setting, write.value));
                    }
                    return [this, writes, results] { reportWrites(writes, results); };
                });
}

void MasterViewController::reportWrites(const std::vector<SettingWrite>& writes,
                                        const std::vector<WriteResult>& results)
{
    QStringList problems;
    bool answered = false;
    for (std::size_t i = 0; i < writes.size() && i < results.size(); ++i) {
        const SettingWrite& write = writes[i];
        const WriteResult& result = results[i];
        const bool hasAnswer = result.answer && !result.answer->empty();
        answered = answered || hasAnswer;
        QString note;
        if (!result.confirmed) {
            const QString label = QString::fromUtf8(settingInfo(write.setting).label);
            note = hasAnswer ? QStringLiteral("%1 not confirmed: the device answered \"%2\"")
                                   .arg(label, QString::fromStdString(*result.answer))
                             : QStringLiteral("%1 not confirmed: no answer").arg(label);
            problems << note;
        }
        for (QLineEdit* field : write.fields)
            field->setProperty(kUnconfirmedNote, note);
    }
    validateFields();
    if (problems.isEmpty())
        showStatus(QStringLiteral("%1 settings written, all confirmed").arg(writes.size()));
    else if (!answered)
        showStatus(QStringLiteral("No answer from the device"));
    else
        showStatus(problems.join(QStringLiteral("; ")));
}

void MasterViewController::validateFields()
{
    auto& ui = *m_ui;
    const auto range = [](std::uint32_t max) {
        return QStringLiteral("Not accepted: enter a whole number from 0 to %1.").arg(max);
    };
    bool basic = true;
    for (const auto& [box, field] :
         {std::pair{ui.clockWiseButton, ui.clockWiseBasicTextField},
          std::pair{ui.counterClockWiseButton, ui.counterClockWiseBasicTextField}}) {
        // An unticked direction is written as 0 whatever its field holds.
        const bool ok = !box->isChecked() || fieldNumber(field, fields::kMaxValue).has_value();
        markField(field, ok ? QString() : range(fields::kMaxValue));
        basic = basic && ok;
    }
    QLineEdit* hours = ui.waitTimeHoursBasicTextField;
    QLineEdit* minutes = ui.waitTimeMinutesBasicTextField;
    const bool hoursOk = fieldNumber(hours, fields::kMaxHours).has_value();
    const bool minutesOk = fieldNumber(minutes, fields::kMaxMinutes).has_value();
    const bool totalOk =
        !hoursOk || !minutesOk ||
        fields::cycleTimeout(hours->text().toStdString(), minutes->text().toStdString())
            .has_value();
    const QString tooLong = QStringLiteral("Not accepted: hours and minutes together must be at "
                                           "most 65535 minutes (1092 h 15 min).");
    markField(hours, !hoursOk ? range(fields::kMaxHours) : totalOk ? QString() : tooLong);
    markField(minutes, !minutesOk ? range(fields::kMaxMinutes) : totalOk ? QString() : tooLong);
    basic = basic && hoursOk && minutesOk && totalOk;

    bool advanced = true;
    for (QLineEdit* field :
         {ui.motorTorqueTextField, ui.motorProtectionTextField, ui.detectionThresholdTextField}) {
        const bool ok = fieldNumber(field, fields::kMaxValue).has_value();
        markField(field, ok ? QString() : range(fields::kMaxValue));
        advanced = advanced && ok;
    }
    m_basicValid = basic;
    m_advancedValid = advanced;
    applyInterfaceState();
}

void MasterViewController::markField(QLineEdit* field, const QString& problem)
{
    // Fields are only judged while connected: before that they are empty, not wrong.
    const QString shownProblem = m_currConnectionState == Connected ? problem : QString();
    const QString unconfirmed = field->property(kUnconfirmedNote).toString();
    const QString note = shownProblem.isEmpty() ? unconfirmed : shownProblem;
    const QString mark = !shownProblem.isEmpty()  ? QStringLiteral("invalid")
                         : !unconfirmed.isEmpty() ? QStringLiteral("unconfirmed")
                                                  : QString();
    const QString style = !shownProblem.isEmpty()  ? kInvalidStyle
                          : !unconfirmed.isEmpty() ? kUnconfirmedStyle
                                                   : QString();
    const QString base = field->property(kBaseToolTip).toString();
    field->setProperty(kFieldMark, mark);
    if (field->styleSheet() != style)
        field->setStyleSheet(style);
    field->setToolTip(note.isEmpty() ? base : note + QLatin1Char('\n') + base);
}

void MasterViewController::onClockWiseButtonClicked(QObject*)
{
    m_ui->clockWiseBasicTextField->setEnabled(m_ui->clockWiseButton->isChecked());
    validateFields();
}

void MasterViewController::onCounterClockWiseButtonClicked(QObject*)
{
    m_ui->counterClockWiseBasicTextField->setEnabled(m_ui->counterClockWiseButton->isChecked());
    validateFields();
}

void MasterViewController::onSubmitAdvancedButtonPressed(QObject*)
{
    auto& ui = *m_ui;
    ui.errorAdvancedLabel->setHidden(true);
    if (ui.passwordAdvancedTextField->text() == QLatin1String(PASS.data(), PASS.size())) {
        m_enteredPassword = true;
        ui.advancedPasswordView->setHidden(true);
        ui.advancedView->setHidden(false);
    } else {
        ui.errorAdvancedLabel->setText(QStringLiteral("Wrong Password"));
        ui.errorAdvancedLabel->setHidden(false);
    }
    ui.passwordAdvancedTextField->clear();
}

void MasterViewController::onRefreshAdvancedButtonPressed(QObject* sender)
{
    onRefreshBasicButtonPressed(sender);
}

void MasterViewController::onMonitoringSelectionChanged(QObject* sender)
{
    auto& ui = *m_ui;
    const int index = ui.monitoringComboBox->currentIndex();
    ui.monitoringValueLabel->setText(QStringLiteral("-"));
    const auto enableKeepalive = [&](bool enable) {
        if (m_manager)
            m_manager->enableKeepaliveCheck(enable);
    };
    if (index != 2 && index != 3)
        stopPolling();
    m_monitoringStack->setCurrentWidget(index == 1 ? static_cast<QWidget*>(m_motorChart)
                                                   : m_ui->monitoringHint);
    switch (index) {
    case -1:
    case 0:
        enableKeepalive(true);
        ui.monitoringNameLabel->setText(QStringLiteral("- :"));
        break;
    case 1:
        enableKeepalive(false);
        ui.monitoringNameLabel->setText(QStringLiteral("Motor current :"));
        m_focusTarget = qobject_cast<QWidget*>(sender);
        startMotorTest();
        break;
    case 2:
    case 3:
        enableKeepalive(false);
        ui.monitoringNameLabel->setText(index == 2 ? QStringLiteral("Position sensor :")
                                                   : QStringLiteral("IR sensor :"));
        startPolling(index == 2 ? 1 : 2);
        break;
    default:
        break;
    }
}

void MasterViewController::startMotorTest()
{
    m_lastMotorMonitoringPass = false;
    m_motorChart->clear();
    m_motorTestRunning = true;
    applyInterfaceState();
    m_motorWatchdog->start();
    runOnDevice(nullptr, [](DeviceManager& manager, const std::stop_token&) -> Effect {
        manager.startMotorMonitoring();
        return {};
    });
}

void MasterViewController::finishMotorTest(const QString& message)
{
    m_motorTestRunning = false;
    m_lastMotorMonitoringPass = false;
    m_motorWatchdog->stop();
    // Only the selection changes: the keep-alive stays off until the operator chooses again.
    m_ui->monitoringComboBox->setCurrentIndex(0);
    // The reading stays, named as what it now is.
    m_ui->monitoringNameLabel->setText(QStringLiteral("Motor current (last test):"));
    if (!message.isEmpty())
        showStatus(message);
    applyInterfaceState();
}

void MasterViewController::startPolling(std::int32_t kind)
{
    // A poll already running only switches what it reads.
    if (m_pollKind.exchange(kind) != 0)
        return;
    std::shared_ptr<DeviceManager> manager = m_manager;
    if (!manager) {
        m_pollKind = 0;
        return;
    }
    m_worker.setPeriodic(
        [this, manager, failures = 0]() mutable {
            const std::int32_t kind = m_pollKind;
            if (kind == 0)
                return;
            // The value reaches the screen through the notification the read posts.
            const std::uint16_t value = kind == 1 ? manager->readReedSensor() : manager->readIR();
            failures = value == VAL_UNDEF ? failures + 1 : 0;
            if (failures == kFailedReadsToLose) {
                const void* sender = manager.get();
                QMetaObject::invokeMethod(
                    this, [this, sender] { onDeviceSilent(sender); }, Qt::QueuedConnection);
            }
        },
        kPollPeriod);
}

void MasterViewController::stopPolling()
{
    m_pollKind = 0;
    m_worker.setPeriodic({}, {});
}

void MasterViewController::onDeviceSilent(const void* manager)
{
    if (!m_manager || m_manager.get() != manager || m_currConnectionState != Connected)
        return;
    // The connection ends as a failed keep-alive ends it: back to the search. The new search
    // starts once the old manager has let go of the port.
    updateDisplay(Scanning);
    showStatus(QStringLiteral("The device stopped answering: searching for it again"));
    m_restartSearch = true;
    retireManager();
}

void MasterViewController::eventReadMotor(const Notification& notification)
{
    if (!currentManager(notification.sender))
        return;
    const std::int64_t value = notification.integer("value").value_or(0);
    QMetaObject::invokeMethod(
        this,
        [this, value] {
            if (!m_motorTestRunning)
                return;
            m_motorWatchdog->start();
            setMonitoringValue(value);
            m_motorChart->addSample(value);
        },
        Qt::QueuedConnection);
}

void MasterViewController::eventMotorDone(const Notification& notification)
{
    if (!currentManager(notification.sender))
        return;
    const std::int64_t value = notification.integer("value").value_or(0);
    QMetaObject::invokeMethod(
        this, [this, value] { endMotorMonitoring(value); }, Qt::QueuedConnection);
}

void MasterViewController::eventReadIR(const Notification& notification)
{
    queueMonitoringValue(notification);
}

void MasterViewController::eventReadReedSensor(const Notification& notification)
{
    queueMonitoringValue(notification);
}

void MasterViewController::queueMonitoringValue(const Notification& notification)
{
    if (!currentManager(notification.sender))
        return;
    const std::int64_t value = notification.integer("value").value_or(0);
    QMetaObject::invokeMethod(
        this,
        [this, value] {
            if (m_pollKind != 0)
                setMonitoringValue(value);
        },
        Qt::QueuedConnection);
}

void MasterViewController::setMonitoringValue(std::int64_t value)
{
    m_ui->monitoringValueLabel->setText(QString::number(static_cast<std::int32_t>(value)));
}

void MasterViewController::endMotorMonitoring(std::int64_t value)
{
    if (!m_motorTestRunning)
        return;
    m_motorWatchdog->start();
    setMonitoringValue(value);
    if (m_lastMotorMonitoringPass)
        finishMotorTest(QStringLiteral("Motor test finished"));
    else
        m_lastMotorMonitoringPass = true;
}

void MasterViewController::updateControl(QLabel* field, const QString& address)
{
    applyHyperlink(field, QUrl(address));
}

void MasterViewController::openLink(const QString& address)
{
    if (QDesktopServices::openUrl(QUrl(address)))
        return;
    QGuiApplication::clipboard()->setText(address);
    showStatus(QStringLiteral("No web browser could be opened; the address %1 is copied to the "
                              "clipboard")
                   .arg(address));
}

void MasterViewController::showStatus(const QString& text)
{
    emit statusMessage(text);
}

} // namespace dravinel
