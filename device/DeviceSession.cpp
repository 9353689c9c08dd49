#include "device/DeviceSession.h"

#include "protocol/Globals.h"
#include "protocol/PortAttempt.h"
#include "protocol/SerialManager.h"
#include "serial/PortWatcher.h"
#include "serial/SerialCommunication.h"
#include "serial/serial.h"
#include "support/NotificationCenter.h"

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stop_token>
#include <thread>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace dravinel {

namespace {

using Clock = std::chrono::steady_clock;

// The scan ends within one port attempt of a stop; this only guards against a hang.
constexpr std::chrono::seconds kStopBudget{10};

ScanOptions scanOptions(const PortChoice& choice)
{
    return {choice.ports, choice.others == PortChoice::Others::Scan};
}

Reading classify(bool ok, std::uint16_t value, std::optional<std::string> answer)
{
    if (ok)
        return {Reading::Kind::Value, value, {}};
    if (!answer)
        return {};
    return {Reading::Kind::WrongReply, 0, std::move(*answer)};
}

// Waits in poll(2) on the port watcher and a wake descriptor; calls appeared when something is
// created where candidate ports appear and a candidate port is there.
class PortWatch
{
public:
    // Watching from before the constructor returns: nothing that appears after it is missed.
    PortWatch(const PortChoice& choice, std::function<void()> appeared)
        : m_options(scanOptions(choice)), m_appeared(std::move(appeared)),
          m_wakeFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
          m_watcher(SerialManager::portFolders(m_options))
    {
        m_thread = std::jthread([this](std::stop_token stop) { run(stop); });
    }
    ~PortWatch()
    {
        m_thread.request_stop();
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t n = write(m_wakeFd, &one, sizeof one);
        m_thread.join();
        if (m_wakeFd >= 0)
            close(m_wakeFd);
    }
    PortWatch(const PortWatch&) = delete;
    PortWatch& operator=(const PortWatch&) = delete;

private:
    void run(const std::stop_token& stop)
    {
        while (!stop.stop_requested()) {
            pollfd fds[2] = {{m_wakeFd, POLLIN, 0}, {m_watcher.fd(), POLLIN, 0}};
            if (poll(fds, 2, -1) <= 0 || (fds[0].revents & POLLIN) != 0)
                continue;
            if ((fds[1].revents & POLLIN) == 0)
                continue;
            // A port unplugged and plugged in again between two wakes leaves the list as it
            // was: any entry created while a candidate port is there counts.
            const bool created = m_watcher.drain();
            if (created && !SerialManager::presentPorts(SerialManager::candidatePorts(m_options)).empty())
                m_appeared();
        }
    }

    const ScanOptions m_options;
    const std::function<void()> m_appeared;
    const int m_wakeFd;
    PortWatcher m_watcher;
    std::jthread m_thread; // last: joined before the members it uses go
};

} // namespace

struct DeviceSession::Impl
{
    explicit Impl(Listener* l) : listener(l) {}

    Listener* const listener;

    mutable std::mutex mutex;
    std::condition_variable_any changed; // woken by the keeper's stop token too
    PortChoice choice;
    std::shared_ptr<DeviceManager> manager; // the running search or connection
    // Managers whose scan has ended, dropped on the keeper thread (their destructor joins the
    // scan thread, which posted the state that retired them).
    std::vector<std::shared_ptr<DeviceManager>> retired;
    ConnectionState state = ConnectionState::Disconnected;
    bool searchWanted = false; // cleared by close(): a loss then searches no more
    bool lossPending = false;
    bool replacing = false; // the keeper is between a lost manager and its successor
    bool waitInterrupted = false;
    bool keepalive = true; // the front end's choice, restored after a motor test
    int noReplies = 0;
    std::vector<PortReport> report;

    bool testRunning = false;
    bool testQuiet = false;
    int passesDone = 0;
    Clock::time_point lastFrame;
    int testCallsInFlight = 0; // motor-test calls to the listener running now

    std::unique_ptr<PortWatch> portWatch;
    std::vector<NotificationCenter::Token> tokens;
    std::jthread keeper; // last: joined before anything it uses goes

    void observe();
    void onState(const void* sender, ConnectionState newState);
    void onMotorFrame(const void* sender, std::uint16_t value, bool done);
    void onKeepAlive(const DeviceManager* sender, std::optional<std::uint16_t> value,
                     const std::string& answer);
    // A call about the motor test is claimed under the lock, where the test's end is decided,
    // so that a drain waiting for that end also waits for the call.
    bool claimTestCall();
    template <typename Call> void testCall(bool claimed, Call call);
    void keep(const std::stop_token& stop);
    void replaceLost(std::unique_lock<std::mutex>& lock);
    void endSilentTest(std::unique_lock<std::mutex>& lock);
    std::shared_ptr<DeviceManager> startSearch();
    std::shared_ptr<DeviceManager> ready();
    void drain();
    void stopAndWait();
    Reading countRead(Reading reading);
};

void DeviceSession::Impl::observe()
{
    auto& center = NotificationCenter::defaultCenter();
    tokens.push_back(center.observe(ConnStateChangedEvent, [this](const Notification& n) {
        onState(n.sender, static_cast<ConnectionState>(n.integer("state").value_or(0)));
    }));
    for (const char* name : {MonitorMotorEvent, MonitorMotorDoneEvent}) {
        const bool done = name == MonitorMotorDoneEvent;
        tokens.push_back(center.observe(name, [this, done](const Notification& n) {
            onMotorFrame(n.sender, static_cast<std::uint16_t>(n.integer("value").value_or(0)),
                         done);
        }));
    }
}

void DeviceSession::Impl::onState(const void* sender, ConnectionState newState)
{
    std::vector<PortAttempt> attempts;
    if (newState == ConnectionState::Disconnected) {
        // The sender is alive: it posts from its own scan thread.
        attempts = static_cast<const DeviceManager*>(sender)->getPortAttempts();
    }
    bool testLost = false;
    bool claimed = false;
    {
        std::lock_guard lock(mutex);
        if (!manager || sender != manager.get())
            return;
        state = newState;
        if (newState == ConnectionState::Connected)
            noReplies = 0;
        if (testRunning && newState != ConnectionState::Connected) {
            testRunning = false;
            testLost = true;
            claimed = claimTestCall();
        }
        if (newState == ConnectionState::Disconnected) {
            report.clear();
            for (const auto& attempt : attempts)
                report.push_back({attempt.path, describePortAttempt(attempt)});
            retired.push_back(std::move(manager));
            manager.reset();
        }
        changed.notify_all();
    }
    if (listener)
        listener->stateChanged(newState);
    if (testLost)
        testCall(claimed, [this] { listener->motorTestEnded(MotorTestEnd::Lost); });
}

bool DeviceSession::Impl::claimTestCall()
{
    if (!listener || testQuiet)
        return false;
    ++testCallsInFlight;
    return true;
}

template <typename Call> void DeviceSession::Impl::testCall(bool claimed, Call call)
{
    if (!claimed)
        return;
    call();
    std::lock_guard lock(mutex);
    --testCallsInFlight;
    changed.notify_all();
}

void DeviceSession::Impl::onMotorFrame(const void* sender, std::uint16_t value, bool done)
{
    int pass = 0;
    bool finished = false;
    bool claimed = false;
    {
        std::lock_guard lock(mutex);
        if (!manager || sender != manager.get() || !testRunning)
            return;
        lastFrame = Clock::now();
        if (done) {
            pass = ++passesDone;
            finished = passesDone >= 2;
        }
        claimed = claimTestCall();
        if (finished) {
            testRunning = false;
            // Under the lock: a next test, once the drain lets it start, turns it off again.
            manager->enableKeepaliveCheck(keepalive);
            changed.notify_all();
        }
    }
    testCall(claimed, [&] {
        if (!done)
            listener->motorSample(value);
        else
            listener->motorPassDone(pass, value);
        if (finished)
            listener->motorTestEnded(MotorTestEnd::Finished);
    });
}

void DeviceSession::Impl::onKeepAlive(const DeviceManager* sender,
                                      std::optional<std::uint16_t> value, const std::string& answer)
{
    {
        std::lock_guard lock(mutex);
        if (!manager || sender != manager.get())
            return;
    }
    if (!listener)
        return;
    const Reading reading = classify(value.has_value(), value.value_or(0), answer);
    listener->batteryRead(reading, reading.ok() ? batteryVolts(reading.value) : 0.0);
}

std::shared_ptr<DeviceManager> DeviceSession::Impl::startSearch()
{
    auto created = DeviceManager::create(scanOptions(choice), DeviceManager::Start::Later);
    const DeviceManager* raw = created.get();
    created->setKeepAliveObserver(
        [this, raw](std::optional<std::uint16_t> value, const std::string& answer) {
            onKeepAlive(raw, value, answer);
        });
    manager = created;
    state = ConnectionState::Disconnected;
    noReplies = 0;
    // Started under the lock: a close() cannot slip between its creation and its start. Its
    // first state waits for the lock, so it is taken as this manager's.
    created->start();
    return created;
}

void DeviceSession::Impl::keep(const std::stop_token& stop)
{
    std::unique_lock lock(mutex);
    for (;;) {
        const auto silent = [&] {
            return testRunning && Clock::now() >= lastFrame + kMotorSilence;
        };
        // A test that starts or ends changes what is waited for: the wait then begins anew.
        const bool timing = testRunning;
        const auto woken = [&] {
            return !retired.empty() || lossPending || silent() || testRunning != timing;
        };
        if (timing)
            changed.wait_until(lock, stop, lastFrame + kMotorSilence, woken);
        else
            changed.wait(lock, stop, woken);
        if (stop.stop_requested())
            break;
        if (!retired.empty()) {
            auto dropping = std::move(retired);
            retired.clear();
            lock.unlock();
            dropping.clear();
            lock.lock();
        }
        if (lossPending)
            replaceLost(lock);
        if (silent())
            endSilentTest(lock);
    }
    auto dropping = std::move(retired);
    retired.clear();
    lock.unlock();
}

void DeviceSession::Impl::replaceLost(std::unique_lock<std::mutex>& lock)
{
    lossPending = false;
    auto lost = std::move(manager);
    manager.reset();
    if (!lost)
        return;
    replacing = true;
    state = ConnectionState::Disconnecting;
    lock.unlock();
    if (listener)
        listener->deviceLost();
    lost->stop();
    lost->waitUntilStopped(kStopBudget);
    lost.reset(); // the port is let go here
    lock.lock();
    replacing = false;
    if (searchWanted)
        startSearch();
    changed.notify_all();
}

void DeviceSession::Impl::endSilentTest(std::unique_lock<std::mutex>& lock)
{
    testRunning = false;
    // A device that went silent must be noticed: the keep-alive comes back whatever was chosen.
    if (manager)
        manager->enableKeepaliveCheck(true);
    const bool claimed = claimTestCall();
    changed.notify_all();
    lock.unlock();
    testCall(claimed, [this] { listener->motorTestEnded(MotorTestEnd::Silent); });
    lock.lock();
}

void DeviceSession::Impl::drain()
{
    std::unique_lock lock(mutex);
    if (testRunning)
        testQuiet = true;
    changed.wait(lock, [this] { return !testRunning && testCallsInFlight == 0; });
    testQuiet = false;
}

std::shared_ptr<DeviceManager> DeviceSession::Impl::ready()
{
    drain();
    std::lock_guard lock(mutex);
    return state == ConnectionState::Connected ? manager : nullptr;
}

void DeviceSession::Impl::stopAndWait()
{
    std::shared_ptr<DeviceManager> running;
    {
        std::lock_guard lock(mutex);
        searchWanted = false;
        lossPending = false;
        running = manager;
    }
    if (running) {
        running->enableKeepaliveCheck(true);
        running->stop();
    }
    running.reset();
    std::unique_lock lock(mutex);
    changed.wait_for(lock, kStopBudget, [this] { return !manager && !replacing; });
}

Reading DeviceSession::Impl::countRead(Reading reading)
{
    std::lock_guard lock(mutex);
    if (reading.kind != Reading::Kind::NoReply) {
        noReplies = 0;
        return reading;
    }
    if (++noReplies >= kFailedReadsToLose && manager) {
        noReplies = 0;
        lossPending = true;
        changed.notify_all();
    }
    return reading;
}

DeviceSession::DeviceSession(Listener* listener) : m_impl(std::make_unique<Impl>(listener))
{
    m_impl->observe();
    m_impl->keeper =
        std::jthread([impl = m_impl.get()](std::stop_token stop) { impl->keep(stop); });
}

DeviceSession::~DeviceSession()
{
    watchPorts(false);
    close();
    // Only this object's handlers call into it; after their removal none runs any more.
    for (auto token : m_impl->tokens)
        NotificationCenter::defaultCenter().remove(token);
    m_impl->keeper.request_stop();
    m_impl->keeper.join();
    // A scan that did not end within its budget is joined here, on the front end's thread.
    m_impl->manager.reset();
}

void DeviceSession::open(PortChoice ports)
{
    m_impl->drain();
    m_impl->stopAndWait();
    std::lock_guard lock(m_impl->mutex);
    m_impl->choice = std::move(ports);
    m_impl->searchWanted = true;
    m_impl->waitInterrupted = false;
    m_impl->report.clear();
    m_impl->keepalive = true;
    m_impl->startSearch();
}

void DeviceSession::close()
{
    m_impl->drain();
    m_impl->stopAndWait();
}

ConnectionState DeviceSession::state() const
{
    std::lock_guard lock(m_impl->mutex);
    return m_impl->state;
}

bool DeviceSession::waitForConnection(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(m_impl->mutex);
    m_impl->changed.wait_for(lock, timeout, [this] {
        return m_impl->state == ConnectionState::Connected || m_impl->waitInterrupted ||
               (!m_impl->manager && !m_impl->replacing && !m_impl->lossPending);
    });
    return m_impl->state == ConnectionState::Connected;
}

bool DeviceSession::waitForLoss(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(m_impl->mutex);
    return m_impl->changed.wait_for(lock, timeout,
                                    [this] { return m_impl->state != ConnectionState::Connected; });
}

void DeviceSession::interruptWait()
{
    std::lock_guard lock(m_impl->mutex);
    m_impl->waitInterrupted = true;
    m_impl->changed.notify_all();
}

std::vector<PortReport> DeviceSession::searchReport() const
{
    std::lock_guard lock(m_impl->mutex);
    return m_impl->report;
}

std::optional<std::string> DeviceSession::readRevision(std::optional<std::string>* answer)
{
    if (answer)
        answer->reset();
    auto device = m_impl->ready();
    return device ? device->readRevision(answer) : std::nullopt;
}

std::optional<std::string> DeviceSession::revision() const
{
    std::shared_ptr<DeviceManager> device;
    {
        std::lock_guard lock(m_impl->mutex);
        device = m_impl->manager;
    }
    if (!device)
        return std::nullopt;
    return device->getRevision();
}

std::optional<SettingsData> DeviceSession::readSettings(std::vector<std::string>* answers)
{
    if (answers)
        answers->clear();
    auto device = m_impl->ready();
    return device ? device->readSettings(answers) : std::nullopt;
}

WriteResult DeviceSession::write(Setting setting, std::uint16_t value)
{
    auto device = m_impl->ready();
    return device ? device->save(setting, value) : WriteResult{};
}

bool DeviceSession::saveAndExit()
{
    auto device = m_impl->ready();
    if (!device)
        return false;
    device->saveAndExit();
    device.reset();
    close();
    return true;
}

Reading DeviceSession::readBattery()
{
    auto device = m_impl->ready();
    if (!device)
        return {};
    std::optional<std::string> answer;
    bool ok = false;
    const std::uint16_t raw = device->readVBatt(&answer, &ok);
    const Reading reading = classify(ok, raw, std::move(answer));
    if (m_impl->listener)
        m_impl->listener->batteryRead(reading, reading.ok() ? batteryVolts(reading.value) : 0.0);
    return reading;
}

Reading DeviceSession::readSensor(Sensor sensor)
{
    auto device = m_impl->ready();
    if (!device)
        return {};
    std::optional<std::string> answer;
    bool ok = false;
    const std::uint16_t raw = sensor == Sensor::Position ? device->readReedSensor(&answer, &ok)
                                                         : device->readIR(&answer, &ok);
    device.reset();
    const Reading reading = m_impl->countRead(classify(ok, raw, std::move(answer)));
    if (m_impl->listener)
        m_impl->listener->sensorRead(sensor, reading);
    return reading;
}

bool DeviceSession::startMotorTest()
{
    auto device = m_impl->ready();
    if (!device)
        return false;
    device->enableKeepaliveCheck(false);
    {
        std::lock_guard lock(m_impl->mutex);
        m_impl->testRunning = true;
        m_impl->testQuiet = false;
        m_impl->passesDone = 0;
        m_impl->lastFrame = Clock::now();
        m_impl->changed.notify_all();
    }
    device->startMotorMonitoring();
    return true;
}

bool DeviceSession::motorTestRunning() const
{
    std::lock_guard lock(m_impl->mutex);
    return m_impl->testRunning;
}

void DeviceSession::drainMotorTest()
{
    m_impl->drain();
}

void DeviceSession::enableKeepalive(bool enable)
{
    std::shared_ptr<DeviceManager> device;
    {
        std::lock_guard lock(m_impl->mutex);
        m_impl->keepalive = enable;
        // A running motor test keeps it off; its end restores this choice.
        if (!m_impl->testRunning)
            device = m_impl->manager;
    }
    if (device)
        device->enableKeepaliveCheck(enable);
}

std::vector<std::string> DeviceSession::candidatePorts(const PortChoice& ports)
{
    return SerialManager::candidatePorts(scanOptions(ports));
}

std::size_t DeviceSession::machinePortCount()
{
    return machinePorts().size();
}

std::string_view DeviceSession::productWord()
{
    return PRODUCT_WORD;
}

std::vector<std::string> DeviceSession::machinePorts()
{
    return SerialCommunication::getSerialPortPaths();
}

void DeviceSession::watchPorts(bool watch)
{
    std::unique_ptr<PortWatch> ending;
    PortChoice choice;
    {
        std::lock_guard lock(m_impl->mutex);
        if (!watch || m_impl->portWatch) {
            ending = std::move(m_impl->portWatch);
            m_impl->portWatch.reset();
        }
        choice = m_impl->choice;
    }
    ending.reset(); // joined outside the lock: its thread may be calling the listener
    if (!watch)
        return;
    auto started = std::make_unique<PortWatch>(choice, [this] {
        if (m_impl->listener)
            m_impl->listener->portAppeared();
    });
    std::lock_guard lock(m_impl->mutex);
    m_impl->portWatch = std::move(started);
}

void DeviceSession::setSerialMessageSink(std::function<void(const std::string&)> sink)
{
    set_serial_message_sink(std::move(sink));
}

} // namespace dravinel
