#include "DeviceSessionController.h"

#include "device/DeviceManager.h"
#include "protocol/Globals.h"
#include "serial/serial.h"
#include "support/NotificationCenter.h"

#include <QMetaObject>
#include <QTimer>

#include <algorithm>
#include <filesystem>

namespace dravinel {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kPollPeriod{DELAY_SCAN_CHECK};
// How long the destructor waits for the device's threads; they end within one transaction.
constexpr std::chrono::seconds kShutdownWait{5};
constexpr std::chrono::seconds kPortWatchPeriod{1};
constexpr std::chrono::milliseconds kReapPeriod{200};

Reading readingOf(std::uint16_t value)
{
    return value == VAL_UNDEF ? Reading{} : Reading{Reading::Kind::Value, value, {}};
}

} // namespace

DeviceSessionController::DeviceSessionController(QObject* parent) : QObject(parent)
{
    m_motorSilence = new QTimer(this);
    m_motorSilence->setSingleShot(true);
    m_motorSilence->setInterval(DeviceSession::kMotorSilence);
    connect(m_motorSilence, &QTimer::timeout, this, [this] {
        // A silent device is noticed from here on as a failing keep-alive would notice it.
        if (m_manager)
            m_manager->enableKeepaliveCheck(true);
        endMotorTest(MotorTestEnd::Silent);
    });
    m_portWatch = new QTimer(this);
    m_portWatch->setInterval(kPortWatchPeriod);
    connect(m_portWatch, &QTimer::timeout, this, [this] { checkPorts(); });
    m_reaper = new QTimer(this);
    m_reaper->setSingleShot(true);
    m_reaper->setInterval(kReapPeriod);
    connect(m_reaper, &QTimer::timeout, this, [this] { reapRetiredManagers(); });
    observe();
}

DeviceSessionController::~DeviceSessionController()
{
    // The worker drops what it has not begun, and the stops below wake the transaction under
    // way at once.
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
}

void DeviceSessionController::observe()
{
    auto& center = NotificationCenter::defaultCenter();
    center.observe(
        ConnStateChangedEvent,
        [this](const Notification& n) {
            const auto value = n.integer("state");
            DeviceManager* manager = currentManager(n.sender);
            if (!value || !manager)
                return;
            const auto state = static_cast<ConnectionState>(*value);
            // The manager outlives this call: its destructor waits for the scan thread.
            QStringList reasons;
            if (state == ConnectionState::Disconnected)
                for (const auto& attempt : manager->getPortAttempts())
                    reasons << QString::fromStdString(attempt.path + ": " +
                                                      describePortAttempt(attempt));
            const void* sender = n.sender;
            QMetaObject::invokeMethod(
                this, [=, this] { onManagerState(sender, state, reasons); }, Qt::QueuedConnection);
            if (state == ConnectionState::Connected) {
                std::optional<SettingsData> settings = manager->readSettings();
                QMetaObject::invokeMethod(
                    this, [this, settings] { emit settingsRead(settings); }, Qt::QueuedConnection);
            }
        },
        this);
    center.observe(
        ReadRevisionEvent,
        [this](const Notification& n) {
            if (!currentManager(n.sender))
                return;
            const QString revision = QString::fromStdString(n.text("rev").value_or(""));
            QMetaObject::invokeMethod(
                this, [this, revision] { emit revisionRead(revision); }, Qt::QueuedConnection);
        },
        this);
    center.observe(
        ReadVBattEvent,
        [this](const Notification& n) {
            if (!currentManager(n.sender))
                return;
            const auto raw = static_cast<std::uint16_t>(n.integer("vbatt").value_or(0));
            QMetaObject::invokeMethod(
                this,
                [this, raw] { emit batteryRead(readingOf(raw), DeviceSession::batteryVolts(raw)); },
                Qt::QueuedConnection);
        },
        this);
    center.observe(
        MonitorMotorEvent, [this](const Notification& n) { onMotorFrame(n, false); }, this);
    center.observe(
        MonitorMotorDoneEvent, [this](const Notification& n) { onMotorFrame(n, true); }, this);
}

void DeviceSessionController::onMotorFrame(const Notification& notification, bool done)
{
    if (!currentManager(notification.sender))
        return;
    const int value = static_cast<int>(notification.integer("value").value_or(0));
    QMetaObject::invokeMethod(
        this,
        [this, value, done] {
            if (m_motorPass == 0)
                return;
            m_motorSilence->start();
            if (!done) {
                emit motorSample(value);
                return;
            }
            emit motorPassDone(m_motorPass, value);
            if (m_motorPass++ == 2)
                endMotorTest(MotorTestEnd::Finished);
        },
        Qt::QueuedConnection);
}

void DeviceSessionController::open()
{
    m_restartSearch = false;
    startManager();
}

void DeviceSessionController::cancel()
{
    if (!m_manager)
        return;
    // Shown at once: a manager stopped before its first state has no state to end with.
    retireManager();
    m_state = ConnectionState::Disconnected;
    emit stateChanged(m_state);
    emit searchCancelled();
}

void DeviceSessionController::startManager()
{
    if (m_manager)
        retireManager();
    m_portWatch->stop();
    m_savedAndExited = false;
    ScanOptions options{m_ports.ports, m_ports.others == PortChoice::Others::Scan};
    // Published under the lock: the scan thread starts at once, and its first notifications
    // must find the new manager in place.
    std::lock_guard lock(m_currentLock);
    m_manager = DeviceManager::create(options);
    m_current = m_manager.get();
}

void DeviceSessionController::retireManager()
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

void DeviceSessionController::reapRetiredManagers()
{
    // Dropped only once their scan thread has ended, so the main thread never waits for one.
    std::erase_if(m_retired, [](const auto& manager) { return manager->waitUntilStopped(0ms); });
    if (!m_retired.empty()) {
        m_reaper->start();
    } else if (m_restartSearch) {
        // A search restarted after a silent device begins once the old port is free again.
        m_restartSearch = false;
        startManager();
    }
}

DeviceManager* DeviceSessionController::currentManager(const void* sender) const
{
    std::lock_guard lock(m_currentLock);
    return m_current && m_current == sender ? m_current : nullptr;
}

void DeviceSessionController::onManagerState(const void* sender, ConnectionState state,
                                             const QStringList& reasons)
{
    if (!m_manager || m_manager.get() != sender)
        return;
    if (state != m_state) {
        // Whatever was running ends with the state it ran in.
        monitor(Monitoring::None);
        if (m_motorPass != 0)
            endMotorTest(MotorTestEnd::Lost);
    }
    m_state = state;
    if (state != ConnectionState::Disconnected) {
        m_portWatch->stop();
        emit stateChanged(state);
        return;
    }
    // A search that gave up by itself says why, and watches for the device; Save & Exit does
    // neither.
    const bool gaveUp = !m_savedAndExited;
    retireManager();
    emit stateChanged(state);
    if (gaveUp) {
        emit searchFailed(reasons);
        m_portsSeen = presentPorts();
        m_portWatch->start();
    }
}

void DeviceSessionController::run(Call call)
{
    std::shared_ptr<DeviceManager> manager = m_manager;
    if (!manager)
        return;
    if (m_busy++ == 0)
        emit busyChanged(true);
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
                    if (--m_busy == 0)
                        emit busyChanged(false);
                },
                Qt::QueuedConnection);
        });
}

void DeviceSessionController::saveAndExit()
{
    if (!m_manager || m_state != ConnectionState::Connected)
        return;
    m_savedAndExited = true;
    run([this](DeviceManager& manager, const std::stop_token&) -> Effect {
        manager.saveAndExit();
        manager.stop();
        return [this] { emit saveAndExitSent(); };
    });
}

void DeviceSessionController::readBattery()
{
    // The value reaches the screen through the notification the read posts.
    run([](DeviceManager& manager, const std::stop_token&) -> Effect {
        manager.readVBatt();
        return {};
    });
}

void DeviceSessionController::readSettings()
{
    run([this](DeviceManager& manager, const std::stop_token&) -> Effect {
        std::optional<SettingsData> settings = manager.readSettings();
        return [this, settings] { emit settingsRead(settings); };
    });
}

void DeviceSessionController::write(std::vector<SettingValue> values)
{
    run([this, values](DeviceManager& manager, const std::stop_token& stop) -> Effect {
        std::vector<WriteResult> results;
        for (const auto& value : values) {
            if (stop.stop_requested())
                return {};
            results.push_back(manager.save(value.setting, value.value));
        }
        return [this, values, results] { emit writeDone(values, results); };
    });
}

void DeviceSessionController::monitor(Monitoring what)
{
    if (m_manager)
        m_manager->enableKeepaliveCheck(what == Monitoring::None);
    if (what != Monitoring::Position && what != Monitoring::InfraRed) {
        m_pollKind = 0;
        m_worker.setPeriodic({}, {});
    }
    if (what == Monitoring::MotorTest) {
        m_motorPass = 1;
        m_motorSilence->start();
        run([](DeviceManager& manager, const std::stop_token&) -> Effect {
            manager.startMotorMonitoring();
            return {};
        });
        return;
    }
    if (what == Monitoring::None || !m_manager)
        return;
    // A poll already running only switches what it reads.
    if (m_pollKind.exchange(what == Monitoring::Position ? 1 : 2) != 0)
        return;
    m_worker.setPeriodic(
        [this, manager = m_manager, failures = 0]() mutable {
            const int kind = m_pollKind;
            if (kind == 0)
                return;
            const std::uint16_t value = kind == 1 ? manager->readReedSensor() : manager->readIR();
            failures = value == VAL_UNDEF ? failures + 1 : 0;
            const void* sender = manager.get();
            QMetaObject::invokeMethod(
                this,
                [this, value, sender, lost = failures == DeviceSession::kFailedReadsToLose] {
                    if (m_pollKind != 0)
                        emit monitorSample(readingOf(value));
                    if (lost)
                        onDeviceSilent(sender);
                },
                Qt::QueuedConnection);
        },
        kPollPeriod);
}

void DeviceSessionController::endMotorTest(MotorTestEnd end)
{
    if (m_motorPass == 0)
        return;
    m_motorPass = 0;
    m_motorSilence->stop();
    emit motorTestEnded(end);
}

void DeviceSessionController::onDeviceSilent(const void* manager)
{
    if (!m_manager || m_manager.get() != manager || m_state != ConnectionState::Connected)
        return;
    // The connection ends as a failed keep-alive ends it: back to the search, once the old
    // manager has let go of the port.
    monitor(Monitoring::None);
    m_state = ConnectionState::Scanning;
    emit stateChanged(m_state);
    emit deviceLost();
    m_restartSearch = true;
    retireManager();
}

std::vector<std::string> DeviceSessionController::presentPorts() const
{
    std::vector<std::string> ports;
    if (m_ports.others == PortChoice::Others::Scan)
        for (const auto& path : get_port_paths())
            if (path.find(PRODUCT_WORD) != std::string::npos)
                ports.push_back(path);
    for (const auto& path : m_ports.ports) {
        std::error_code ec;
        if (std::filesystem::exists(path, ec))
            ports.push_back(path);
    }
    std::sort(ports.begin(), ports.end());
    return ports;
}

void DeviceSessionController::checkPorts()
{
    std::vector<std::string> present = presentPorts();
    const bool appeared = std::any_of(present.begin(), present.end(), [&](const auto& path) {
        return !std::binary_search(m_portsSeen.begin(), m_portsSeen.end(), path);
    });
    m_portsSeen = std::move(present);
    if (!appeared || m_manager || m_state != ConnectionState::Disconnected)
        return;
    m_portWatch->stop();
    emit portAppeared();
}

} // namespace dravinel
