#include "MasterViewController.h"

#include "Hyperlink.h"
#include "MotorCurrentChart.h"
#include "VectorPicture.h"
#include "ui_MasterView.h"
#include "ui_WelcomePopupPanel.h"

#include "device/DeviceManager.h"
#include "protocol/Globals.h"
#include "support/NotificationCenter.h"
#include "support/TextScan.h"

#include <QDialog>
#include <QLayout>
#include <QMetaObject>
#include <QUrl>

#include <chrono>
#include <thread>

// Resources of a static library are only linked in when something names them.
static void initAppResources()
{
    Q_INIT_RESOURCE(resources);
}

namespace dravinel {

namespace {

// The connection states as the notification carries them.
constexpr std::int32_t Disconnected = static_cast<std::int32_t>(ConnectionState::Disconnected);
constexpr std::int32_t Scanning = static_cast<std::int32_t>(ConnectionState::Scanning);
constexpr std::int32_t Connected = static_cast<std::int32_t>(ConnectionState::Connected);
constexpr std::int32_t Disconnecting = static_cast<std::int32_t>(ConnectionState::Disconnecting);

constexpr std::chrono::milliseconds kPollPeriod{DELAY_SCAN_CHECK};
// How long the destructor waits for the device's threads; they end within one transaction.
constexpr std::chrono::seconds kShutdownWait{5};

// The integer reading of a typed number: leading number or 0, then cut to 16 bits.
std::uint16_t fieldValue(const QLineEdit* field)
{
    return low16(scanLeadingInt(field->text().toStdString()).value_or(0));
}

std::int32_t fieldInt(const QLineEdit* field)
{
    return scanLeadingInt(field->text().toStdString()).value_or(0);
}

void setBusy(QProgressBar* progress, bool busy)
{
    // A range of 0..0 is Qt's animated busy indicator; any other range stops the animation.
    progress->setRange(0, busy ? 0 : 1);
    progress->setVisible(busy);
}

} // namespace

std::shared_ptr<DeviceManager> MasterViewController::Shared::deviceMngr() const
{
    std::lock_guard lock(m_lock);
    return m_deviceMngr;
}

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

    // The motor-current curve sits under the value and shows only for a motor test.
    m_motorChart = new MotorCurrentChart(m_ui->monitoringGroup);
    m_motorChart->setObjectName(QStringLiteral("motorCurrentChart"));
    m_motorChart->hide();
    m_ui->monitoringLayout->insertWidget(m_ui->monitoringLayout->indexOf(m_ui->monitoringHint),
                                         m_motorChart);

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

    loadMasterView();
}

MasterViewController::~MasterViewController()
{
    // After this no handler runs or is running, so nothing queues work for this object any more.
    NotificationCenter::defaultCenter().removeObserver(this);

    // Quitting sends nothing to the device: the threads are only stopped, so none outlives us.
    std::shared_ptr<DeviceManager> current;
    {
        std::lock_guard lock(m_shared->m_lock);
        m_shared->m_running = false;
        m_shared->m_monitoring = 0;
        m_shared->m_closing = true;
        current.swap(m_shared->m_deviceMngr);
    }
    m_shared->m_wake.notify_all();
    if (current)
        current->stop();
    {
        std::unique_lock lock(m_shared->m_lock);
        m_shared->m_wake.wait_for(lock, kShutdownWait,
                                  [&] { return m_shared->m_pollThreads == 0; });
    }
    current.reset();
    for (const auto& weak : m_createdManagers) {
        if (auto manager = weak.lock()) {
            manager->stop();
            manager->waitUntilStopped(kShutdownWait);
        }
    }
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

    m_shared->m_monitoring = 0;
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
        // The window's actions (Quit) stay reachable while the panel blocks the window.
        m_welcomePopup->addActions(window()->actions());
    }
    m_welcomeUi->welcomeStatusLabel->setText(QString());
    m_welcomeUi->welcomeScanningProgress->setVisible(false);

    m_inWelcomePopup = true;
    m_welcomePopup->setWindowModality(Qt::WindowModal);
    m_welcomePopup->show();
}

void MasterViewController::endSheet()
{
    if (m_welcomePopup)
        m_welcomePopup->hide();
}

void MasterViewController::startConnection()
{
    m_shared->m_running = true;
    // Created under the lock: the scan thread starts at once, and its first notifications must
    // find the new manager in place.
    std::lock_guard lock(m_shared->m_lock);
    m_shared->m_deviceMngr = DeviceManager::create(m_deviceOptions);
    m_createdManagers.push_back(m_shared->m_deviceMngr);
    std::erase_if(m_createdManagers, [](const auto& weak) { return weak.expired(); });
}

void MasterViewController::onWelcomeOpenButtonPressed(QObject*)
{
    if (!m_shared->deviceMngr())
        startConnection();
    m_welcomeUi->welcomeOpenButton->setEnabled(false);
    m_welcomeUi->welcomeScanningProgress->setRange(0, 0);
    m_welcomeUi->welcomeStatusLabel->setText(QStringLiteral("Scanning..."));
}

void MasterViewController::toggleInterface(bool enable)
{
    auto& ui = *m_ui;
    ui.connectButton->setEnabled(enable);
    ui.refreshBasicButton->setEnabled(enable);
    ui.updateBasicButton->setEnabled(enable);
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
    ui.updateAdvancedButton->setEnabled(enable);
}

void MasterViewController::onConnectButtonPressed(QObject*)
{
    std::shared_ptr<DeviceManager> manager = m_shared->deviceMngr();
    if (!manager) {
        startConnection();
        return;
    }
    manager->saveAndExit();
    m_shared->m_running = false;
    manager->stop();
    std::lock_guard lock(m_shared->m_lock);
    if (m_shared->m_deviceMngr == manager)
        m_shared->m_deviceMngr.reset();
}

void MasterViewController::updateDisplay(std::int32_t state)
{
    if (state < Disconnected || state > Disconnecting)
        return;
    auto& ui = *m_ui;

    if (m_inWelcomePopup && state != Disconnecting) {
        auto& welcome = *m_welcomeUi;
        setBusy(welcome.welcomeScanningProgress, state == Scanning);
        welcome.welcomeOpenButton->setEnabled(state != Scanning);
        switch (state) {
        case Disconnected:
            welcome.welcomeStatusLabel->setText(
                QStringLiteral("Could not find device. Please try again."));
            break;
        case Scanning:
            welcome.welcomeStatusLabel->setText(QStringLiteral("Scanning..."));
            break;
        case Connected:
            welcome.welcomeStatusLabel->setText(QString());
            endSheet();
            break;
        }
    }

    toggleInterface(state == Connected);
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
    ui.connectButton->setEnabled(state == Disconnected || state == Connected);
    setBusy(ui.scanProgress, state == Scanning || state == Disconnecting);

    if (state == Connected)
        onRefreshBasicButtonPressed(nullptr);
    emit stateDisplayed(state);
}

void MasterViewController::eventConnectionStateChanged(const Notification& notification)
{
    const auto value = notification.integer("state");
    if (!value)
        return;
    const auto state = static_cast<std::int32_t>(*value);

    std::shared_ptr<DeviceManager> manager;
    {
        std::lock_guard lock(m_shared->m_lock);
        // A manager already replaced by a newer connection has nothing more to say.
        if (m_shared->m_deviceMngr && m_shared->m_deviceMngr.get() != notification.sender)
            return;
        if (state == Disconnected) {
            m_shared->m_running = false;
            manager.swap(m_shared->m_deviceMngr);
        } else {
            manager = m_shared->m_deviceMngr;
        }
    }
    if (state == Disconnected && manager) {
        manager->stop();
        // Dropped on the main thread: the manager joins this (the scan) thread when it goes.
        QMetaObject::invokeMethod(
            this, [manager] { (void)manager; }, Qt::QueuedConnection);
        manager.reset();
    }

    QMetaObject::invokeMethod(
        this, [this, state] { updateDisplay(state); }, Qt::QueuedConnection);

    if (state == Connected && manager) {
        std::optional<SettingsData> settings = manager->readSettings();
        QMetaObject::invokeMethod(
            this, [this, settings] { refreshSettings(settings); }, Qt::QueuedConnection);
    }
}

void MasterViewController::eventReadRevision(const Notification& notification)
{
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
}

void MasterViewController::onRefreshBasicButtonPressed(QObject*)
{
    toggleInterface(false);
    m_ui->monitoringComboBox->setCurrentIndex(0);
    onMonitoringSelectionChanged(nullptr);
    if (auto manager = m_shared->deviceMngr())
        refreshSettings(manager->readSettings());
    toggleInterface(true);
}

void MasterViewController::onUpdateBasicButtonPressed(QObject*)
{
    toggleInterface(false);
    m_ui->monitoringComboBox->setCurrentIndex(0);
    onMonitoringSelectionChanged(nullptr);
    if (auto manager = m_shared->deviceMngr()) {
        auto& ui = *m_ui;
        manager->savePositiveRotation(
            ui.clockWiseButton->isChecked() ? fieldValue(ui.clockWiseBasicTextField) : 0);
        manager->saveNegativeRotation(ui.counterClockWiseButton->isChecked()
                                          ? fieldValue(ui.counterClockWiseBasicTextField)
                                          : 0);
        // Wraps as 32-bit arithmetic would; only the low 16 bits are sent.
        const auto hours = static_cast<std::uint32_t>(fieldInt(ui.waitTimeHoursBasicTextField));
        const auto minutes = static_cast<std::uint32_t>(fieldInt(ui.waitTimeMinutesBasicTextField));
        manager->saveCycleTimeout(low16(hours * 60u + minutes));
    }
    toggleInterface(true);
}

void MasterViewController::onClockWiseButtonClicked(QObject*)
{
    m_ui->clockWiseBasicTextField->setEnabled(m_ui->clockWiseButton->isChecked());
}

void MasterViewController::onCounterClockWiseButtonClicked(QObject*)
{
    m_ui->counterClockWiseBasicTextField->setEnabled(m_ui->counterClockWiseButton->isChecked());
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

void MasterViewController::onUpdateAdvancedButtonPressed(QObject*)
{
    toggleInterface(false);
    m_ui->monitoringComboBox->setCurrentIndex(0);
    onMonitoringSelectionChanged(nullptr);
    if (auto manager = m_shared->deviceMngr()) {
        manager->saveMotorSpeed(fieldValue(m_ui->motorTorqueTextField));
        manager->saveCurrentLimit(fieldValue(m_ui->motorProtectionTextField));
        manager->saveIR(fieldValue(m_ui->detectionThresholdTextField));
    }
    toggleInterface(true);
}

void MasterViewController::onMonitoringSelectionChanged(QObject*)
{
    auto& ui = *m_ui;
    const int index = ui.monitoringComboBox->currentIndex();
    ui.monitoringValueLabel->setText(QStringLiteral("-"));
    const auto manager = m_shared->deviceMngr();
    const auto enableKeepalive = [&](bool enable) {
        if (manager)
            manager->enableKeepaliveCheck(enable);
    };

    if (m_motorChart->isHidden() && index == 1) {
        m_motorChart->show();
        // Grow the window for the curve rather than squeezing the panels around it.
        if (QWidget* top = window(); top && top->layout()) {
            top->layout()->activate();
            top->resize(top->size().expandedTo(top->sizeHint()));
        }
    } else if (index != 1) {
        m_motorChart->hide();
    }
    switch (index) {
    case -1:
    case 0:
        m_shared->m_monitoring = 0;
        enableKeepalive(true);
        ui.monitoringNameLabel->setText(QStringLiteral("- :"));
        break;
    case 1:
        m_shared->m_monitoring = 0;
        m_lastMotorMonitoringPass = false;
        m_motorChart->clear();
        enableKeepalive(false);
        ui.monitoringNameLabel->setText(QStringLiteral("Motor current :"));
        toggleInterface(false);
        if (manager)
            manager->startMotorMonitoring();
        break;
    case 2:
    case 3: {
        const std::int32_t kind = index == 2 ? 1 : 2;
        enableKeepalive(false);
        ui.monitoringNameLabel->setText(index == 2 ? QStringLiteral("Position sensor :")
                                                   : QStringLiteral("IR sensor :"));
        // A thread already polling only switches what it reads.
        std::int32_t idle = 0;
        if (m_shared->m_monitoring.compare_exchange_strong(idle, kind))
            startMonitoringThread();
        m_shared->m_monitoring = kind;
        break;
    }
    default:
        break;
    }
}

void MasterViewController::startMonitoringThread()
{
    {
        std::lock_guard lock(m_shared->m_lock);
        if (m_shared->m_closing)
            return;
        ++m_shared->m_pollThreads;
    }
    // Detached: it holds only the shared state, and the destructor waits for it to leave.
    std::thread(threadMonitoring, m_shared).detach();
}

void MasterViewController::threadMonitoring(std::shared_ptr<Shared> shared)
{
    while (shared->m_monitoring != 0 && shared->m_running) {
        const std::int32_t kind = shared->m_monitoring;
        if (auto manager = shared->deviceMngr()) {
            // The value reaches the screen through the notification the read posts.
            if (kind == 1)
                manager->readReedSensor();
            else if (kind == 2)
                manager->readIR();
        }
        std::unique_lock lock(shared->m_lock);
        if (shared->m_wake.wait_for(lock, kPollPeriod, [&] { return shared->m_closing; }))
            break;
    }
    std::lock_guard lock(shared->m_lock);
    --shared->m_pollThreads;
    shared->m_wake.notify_all();
}

void MasterViewController::queueMonitoringValue(const Notification& notification)
{
    const std::int64_t value = notification.integer("value").value_or(0);
    QMetaObject::invokeMethod(
        this, [this, value] { setMonitoringValue(value); }, Qt::QueuedConnection);
}

void MasterViewController::eventReadMotor(const Notification& notification)
{
    const std::int64_t value = notification.integer("value").value_or(0);
    QMetaObject::invokeMethod(
        this,
        [this, value] {
            setMonitoringValue(value);
            m_motorChart->addSample(value);
        },
        Qt::QueuedConnection);
}

void MasterViewController::eventMotorDone(const Notification& notification)
{
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

void MasterViewController::setMonitoringValue(std::int64_t value)
{
    m_ui->monitoringValueLabel->setText(QString::number(static_cast<std::int32_t>(value)));
}

void MasterViewController::endMotorMonitoring(std::int64_t value)
{
    setMonitoringValue(value);
    if (m_lastMotorMonitoringPass) {
        toggleInterface(true);
        // Only the selection changes: the keep-alive stays off until the operator chooses again.
        m_ui->monitoringComboBox->setCurrentIndex(0);
    } else {
        m_lastMotorMonitoringPass = true;
    }
}

void MasterViewController::updateControl(QLabel* field, const QString& address)
{
    applyHyperlink(field, QUrl(address));
}

} // namespace dravinel
