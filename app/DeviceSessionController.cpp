#include "DeviceSessionController.h"

#include <QMetaObject>

#include <utility>

namespace dravinel {

namespace {

// A sensor is read once a second while it is watched.
constexpr std::chrono::seconds kPollPeriod{1};

} // namespace

// Hands what the session reports, on the engine's threads, to the controller's thread.
class DeviceSessionController::Relay final : public DeviceSession::Listener
{
public:
    explicit Relay(DeviceSessionController& owner) : m_owner(owner) {}

    void stateChanged(ConnectionState state) override
    {
        post([this, state] { m_owner.onStateChanged(state); });
    }
    void revisionRead(const std::string& revision) override
    {
        post([this, text = QString::fromStdString(revision)] { emit m_owner.revisionRead(text); });
    }
    void batteryRead(const Reading& reading, double volts) override
    {
        post([this, reading, volts] { emit m_owner.batteryRead(reading, volts); });
    }
    void motorSample(std::uint16_t current) override
    {
        post([this, current] { emit m_owner.motorSample(current); });
    }
    void motorPassDone(int pass, std::uint16_t value) override
    {
        post([this, pass, value] { emit m_owner.motorPassDone(pass, value); });
    }
    void motorTestEnded(MotorTestEnd end) override
    {
        post([this, end] { emit m_owner.motorTestEnded(end); });
    }
    void deviceLost() override
    {
        post([this] { emit m_owner.deviceLost(); });
    }
    void portAppeared() override
    {
        post([this] { emit m_owner.portAppeared(); });
    }

private:
    template <typename F> void post(F&& work)
    {
        QMetaObject::invokeMethod(&m_owner, std::forward<F>(work), Qt::QueuedConnection);
    }

    DeviceSessionController& m_owner;
};

DeviceSessionController::DeviceSessionController(QObject* parent)
    : QObject(parent), m_relay(std::make_unique<Relay>(*this)),
      m_session(std::make_unique<DeviceSession>(m_relay.get()))
{}

DeviceSessionController::~DeviceSessionController()
{
    // Nothing more is sent: the calls not begun are dropped, and closing wakes the one under way
    // at once (a running motor test is let end first).
    m_worker.stop();
    m_session->close();
    m_worker.join();
    m_session.reset();
}

void DeviceSessionController::run(Call call)
{
    if (m_busy++ == 0)
        emit busyChanged(true);
    m_worker.post([this, call = std::move(call)](std::stop_token stop) {
        Effect effect = call(*m_session, stop);
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

void DeviceSessionController::post(std::function<void(DeviceSession&)> call)
{
    m_worker.post([this, call = std::move(call)](std::stop_token) { call(*m_session); });
}

void DeviceSessionController::onStateChanged(ConnectionState state)
{
    const bool changed = state != m_state;
    m_state = state;
    if (changed)
        stopPoll();
    emit stateChanged(state);
    if (state == ConnectionState::Connected) {
        // The settings are read once as the connection begins, besides the window's own read.
        post([this](DeviceSession& session) {
            const QString revision = QString::fromStdString(session.revision().value_or(""));
            std::optional<SettingsData> settings = session.readSettings();
            QMetaObject::invokeMethod(
                this,
                [this, revision, settings] {
                    emit revisionRead(revision);
                    emit settingsRead(settings);
                },
                Qt::QueuedConnection);
        });
    }
    if (state != ConnectionState::Disconnected)
        return;
    m_searching = false;
    const bool cancelled = std::exchange(m_cancelled, false);
    if (cancelled)
        emit searchCancelled();
    // A search that gave up by itself says why, and watches for the device; Save & Exit and
    // Cancel do neither.
    if (std::exchange(m_closing, false))
        return;
    post([this](DeviceSession& session) {
        QStringList reasons;
        for (const auto& report : session.searchReport())
            reasons << QString::fromStdString(report.path + ": " + report.reason);
        session.watchPorts(true);
        QMetaObject::invokeMethod(
            this, [this, reasons] { emit searchFailed(reasons); }, Qt::QueuedConnection);
    });
}

void DeviceSessionController::open()
{
    m_searching = true;
    m_closing = false;
    post([ports = m_ports](DeviceSession& session) {
        session.watchPorts(false);
        session.open(ports);
    });
}

void DeviceSessionController::cancel()
{
    if (!m_searching)
        return;
    m_closing = true;
    m_cancelled = true;
    post([](DeviceSession& session) { session.close(); });
}

void DeviceSessionController::saveAndExit()
{
    m_closing = true;
    run([this](DeviceSession& session, const std::stop_token&) -> Effect {
        session.saveAndExit();
        return [this] { emit saveAndExitSent(); };
    });
}

void DeviceSessionController::readBattery()
{
    // The reading reaches the window through the listener, as the keep-alive's do.
    run([](DeviceSession& session, const std::stop_token&) -> Effect {
        session.readBattery();
        return {};
    });
}

void DeviceSessionController::readSettings()
{
    run([this](DeviceSession& session, const std::stop_token&) -> Effect {
        std::optional<SettingsData> settings = session.readSettings();
        return [this, settings] { emit settingsRead(settings); };
    });
}

void DeviceSessionController::write(std::vector<SettingValue> values)
{
    run([this, values](DeviceSession& session, const std::stop_token& stop) -> Effect {
        std::vector<WriteResult> results;
        for (const auto& value : values) {
            if (stop.stop_requested())
                return {};
            results.push_back(session.write(value.setting, value.value));
        }
        return [this, values, results] { emit writeDone(values, results); };
    });
}

void DeviceSessionController::monitor(Monitoring what)
{
    if (what != Monitoring::Position && what != Monitoring::InfraRed)
        stopPoll();
    switch (what) {
    case Monitoring::None:
        post([](DeviceSession& session) { session.enableKeepalive(true); });
        return;
    case Monitoring::MotorTest:
        // The session turns the keep-alive off for the test.
        run([](DeviceSession& session, const std::stop_token&) -> Effect {
            session.startMotorTest();
            return {};
        });
        return;
    case Monitoring::Position:
    case Monitoring::InfraRed:
        break;
    }
    // A poll already running only switches what it reads.
    const Sensor sensor = what == Monitoring::Position ? Sensor::Position : Sensor::InfraRed;
    if (m_pollKind.exchange(static_cast<int>(sensor) + 1) != 0)
        return;
    post([](DeviceSession& session) { session.enableKeepalive(false); });
    m_worker.setPeriodic(
        [this] {
            const int kind = m_pollKind;
            if (kind == 0)
                return;
            const Reading reading = m_session->readSensor(static_cast<Sensor>(kind - 1));
            QMetaObject::invokeMethod(
                this,
                [this, reading] {
                    if (m_pollKind != 0)
                        emit monitorSample(reading);
                },
                Qt::QueuedConnection);
        },
        kPollPeriod);
}

void DeviceSessionController::stopPoll()
{
    m_pollKind = 0;
    m_worker.setPeriodic({}, {});
}

} // namespace dravinel
