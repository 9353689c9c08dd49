// The desktop app driven through its widgets against the simulated device on a real pty.

#include "AppDelegate.h"
#include "Hyperlink.h"
#include "MasterViewController.h"
#include "MotorCurrentChart.h"

#include "device/DeviceManager.h"
#include "serial/serial.h"
#include "sim/DeviceSimulator.h"
#include "support/Logger.h"
#include "support/NotificationCenter.h"

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace dravinel {
namespace {

constexpr int kConnectTimeoutMs = 8000;

// The requests with one of the given codes, as "code content", in arrival order.
std::vector<std::string> requestsOf(const sim::DeviceSimulator& sim, const std::string& codes)
{
    std::vector<std::string> out;
    for (const auto& request : sim.requests())
        if (codes.find(request.code) != std::string::npos)
            out.push_back(std::string(1, request.code) + " " + request.content);
    return out;
}

// What a button shows: Qt doubles an ampersand that is meant literally.
QString shownText(const QPushButton* button)
{
    return QString(button->text()).replace(QStringLiteral("&&"), QStringLiteral("&"));
}

// Counts postings of one notification while it lives.
class Counter
{
public:
    explicit Counter(const char* name)
    {
        m_token = NotificationCenter::defaultCenter().observe(
            name, [this](const Notification&) { ++m_count; });
    }
    ~Counter() { NotificationCenter::defaultCenter().remove(m_token); }
    int count() const { return m_count; }

private:
    std::atomic<int> m_count{0};
    NotificationCenter::Token m_token = 0;
};

} // namespace

class AppTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void startUpShowsDisconnectedLookAndLockedWelcome();
    void openConnectsAndFillsEveryField();
    void searchWithoutDeviceAsksToTryAgain();
    void updatesWriteInFixedOrderWithSixteenBitValues();
    void monitoringPollsOnceASecondAndMotorTestLocksBothPasses();
    void saveAndExitDisconnectsAndUnplugShowsScanning();

private:
    void launch();
    void startSimulator(sim::SimSettings settings = {});
    void openFromWelcome();

    template <typename T> T* widget(const char* name) const
    {
        auto* found = m_delegate->window()->findChild<T*>(QLatin1String(name));
        if (!found)
            qFatal("no widget %s", name);
        return found;
    }
    QDialog* welcome() const { return m_delegate->masterViewController()->welcomePopup(); }

    std::unique_ptr<sim::DeviceSimulator> m_sim;
    std::unique_ptr<AppDelegate> m_delegate;
};

void AppTest::initTestCase()
{
    // Errors only: the frame traffic of a whole run would bury the test output.
    // DRAVINEL_TEST_LOG_LEVEL=4 brings the traffic back when a test needs explaining.
    const int level = qEnvironmentVariableIntValue("DRAVINEL_TEST_LOG_LEVEL");
    Logger::getInstance().setLevel(level > 0 ? level : 1);
}

void AppTest::cleanup()
{
    m_delegate.reset();
    m_sim.reset();
}

void AppTest::launch()
{
    m_delegate = std::make_unique<AppDelegate>();
    m_delegate->applicationDidFinishLaunching();
    if (m_sim)
        m_delegate->masterViewController()->setDeviceOptions({{m_sim->portPath()}, false});
    m_delegate->window()->show();
    QTRY_VERIFY(welcome() && welcome()->isVisible());
}

void AppTest::startSimulator(sim::SimSettings settings)
{
    sim::DeviceSimulator::Options options;
    options.revision = "3.7";
    options.motorPass = 300ms;
    options.motorSampleInterval = 30ms;
    m_sim = std::make_unique<sim::DeviceSimulator>(options);
    QVERIFY(m_sim->start());
    m_sim->setSettings(settings);
    m_sim->setBatteryRaw(1332);
    if (m_delegate)
        m_delegate->masterViewController()->setDeviceOptions({{m_sim->portPath()}, false});
}

void AppTest::openFromWelcome()
{
    // The open button is the panel's default button: Return starts the search.
    QTest::keyClick(welcome(), Qt::Key_Return);
    QTRY_COMPARE_WITH_TIMEOUT(widget<QLabel>("statusLabel")->text(), QStringLiteral("Connected"),
                              kConnectTimeoutMs);
}

void AppTest::startUpShowsDisconnectedLookAndLockedWelcome()
{
    launch();
    auto* status = widget<QLabel>("statusLabel");
    QCOMPARE(status->text(), QStringLiteral("Disconnected"));
    QCOMPARE(shownText(widget<QPushButton>("connectButton")), QStringLiteral("Open"));
    QVERIFY(widget<QPushButton>("connectButton")->isEnabled());
    QVERIFY(!widget<QProgressBar>("scanProgress")->isVisible());
    for (const char* name : {"refreshBasicButton", "updateBasicButton", "updateAdvancedButton",
                             "monitoringComboBox", "clockWiseBasicTextField",
                             "waitTimeMinutesBasicTextField", "detectionThresholdTextField"})
        QVERIFY2(!widget<QWidget>(name)->isEnabled(), name);
    // The password widgets do not follow the connection.
    QVERIFY(widget<QLineEdit>("passwordAdvancedTextField")->isEnabled());
    QVERIFY(widget<QPushButton>("submitAdvancedButton")->isEnabled());
    QVERIFY(widget<QWidget>("advancedPasswordView")->isVisible());
    QVERIFY(!widget<QWidget>("advancedView")->isVisible());

    // The welcome panel: a window-modal dialog over the main window, ready to search.
    QCOMPARE(welcome()->parentWidget(), m_delegate->window());
    QCOMPARE(welcome()->windowModality(), Qt::WindowModal);
    QCOMPARE(widget<QLabel>("welcomeStatusLabel")->text(), QString());
    QVERIFY(!widget<QProgressBar>("welcomeScanningProgress")->isVisible());
    auto* open = widget<QPushButton>("welcomeOpenButton");
    QVERIFY(open->isEnabled());
    QVERIFY(open->isDefault());
    QVERIFY(welcome()->actions().contains(m_delegate->quitAction()));
    QCOMPARE(m_delegate->quitAction()->shortcutContext(), Qt::ApplicationShortcut);

    // The title is a blue, single-underlined link to the product page, opened by the browser.
    auto* title = widget<QLabel>("leDravinelTitle");
    QVERIFY(title->openExternalLinks());
    QCOMPARE(title->textFormat(), Qt::RichText);
    QVERIFY(title->text().contains(QStringLiteral("href=\"https://www.dravinel.example/\"")));
    QVERIFY(title->text().contains(QStringLiteral("color:#0000ff")));
    QVERIFY(title->text().contains(QStringLiteral("text-decoration:underline")));
    QVERIFY(title->text().contains(QStringLiteral(">Dravinel Configurator</a>")));
    QLabel empty;
    m_delegate->masterViewController()->updateControl(&empty, QStringLiteral("https://a.example/"));
    QCOMPARE(empty.text(), QString());
    QCOMPARE(
        hyperlinkFromString(QStringLiteral("R&D"), QUrl(QStringLiteral("https://a.example/x"))),
        QStringLiteral("<a href=\"https://a.example/x\" style=\"color:#0000ff; "
                       "text-decoration:underline;\">R&amp;D</a>"));

    QVERIFY(!widget<QLabel>("clientImage")->pixmap().isNull());
    QVERIFY(!widget<QLabel>("kelImage")->pixmap().isNull());

    // Ending the sheet twice is harmless, and states outside 0..3 change nothing.
    m_delegate->masterViewController()->updateDisplay(4);
    m_delegate->masterViewController()->updateDisplay(-1);
    QCOMPARE(status->text(), QStringLiteral("Disconnected"));
    QVERIFY(welcome()->isVisible());
}

void AppTest::openConnectsAndFillsEveryField()
{
    sim::SimSettings settings;
    settings.currentLimit = 131;
    settings.minIRDetection = 412;
    settings.positiveRotation = 47;
    settings.negativeRotation = 65535;
    settings.motorSpeed = 222;
    settings.cycleTimeoutMins = 135;
    startSimulator(settings);
    launch();
    QSignalSpy displayed(m_delegate->masterViewController(), &MasterViewController::stateDisplayed);

    QTest::keyClick(welcome(), Qt::Key_Return);
    QCOMPARE(widget<QLabel>("welcomeStatusLabel")->text(), QStringLiteral("Scanning..."));
    QVERIFY(!widget<QPushButton>("welcomeOpenButton")->isEnabled());
    QTRY_COMPARE_WITH_TIMEOUT(widget<QLabel>("statusLabel")->text(), QStringLiteral("Connected"),
                              kConnectTimeoutMs);
    QVERIFY(displayed.size() >= 2);
    QCOMPARE(displayed.at(0).at(0).toInt(), 1);
    QCOMPARE(displayed.last().at(0).toInt(), 2);

    QVERIFY(!welcome()->isVisible());
    QCOMPARE(widget<QLabel>("welcomeStatusLabel")->text(), QString());
    QCOMPARE(shownText(widget<QPushButton>("connectButton")), QStringLiteral("Save & Exit"));
    QVERIFY(!widget<QProgressBar>("scanProgress")->isVisible());
    QCOMPARE(widget<QLabel>("revisionLabel")->text(), QStringLiteral("Rev. 3.7"));
    QTRY_COMPARE_WITH_TIMEOUT(widget<QLineEdit>("clockWiseBasicTextField")->text(),
                              QStringLiteral("47"), 3000);
    QCOMPARE(widget<QLineEdit>("counterClockWiseBasicTextField")->text(), QStringLiteral("65535"));
    QCOMPARE(widget<QLineEdit>("waitTimeHoursBasicTextField")->text(), QStringLiteral("2"));
    QCOMPARE(widget<QLineEdit>("waitTimeMinutesBasicTextField")->text(), QStringLiteral("15"));
    QCOMPARE(widget<QLineEdit>("motorTorqueTextField")->text(), QStringLiteral("222"));
    QCOMPARE(widget<QLineEdit>("motorProtectionTextField")->text(), QStringLiteral("131"));
    QCOMPARE(widget<QLineEdit>("detectionThresholdTextField")->text(), QStringLiteral("412"));
    QVERIFY(widget<QWidget>("updateBasicButton")->isEnabled());

    // The scan thread and the Connected display each read the settings once.
    QTRY_COMPARE(m_sim->requestCount('G'), std::size_t{2});
    const auto reads = requestsOf(*m_sim, "BG");
    QCOMPARE(reads, (std::vector<std::string>{"B ", "G ", "G "}));

    // The battery arrives with the first keep-alive read: 1332 / 111 volts.
    QTRY_COMPARE_WITH_TIMEOUT(widget<QLabel>("batteryLevelLabel")->text(), QStringLiteral("12.0 V"),
                              5000);
    m_delegate->masterViewController()->setVBattLabel(111);
    QCOMPARE(widget<QLabel>("batteryLevelLabel")->text(), QStringLiteral("1.0 V"));
    m_delegate->masterViewController()->setVBattLabel(0);
    QCOMPARE(widget<QLabel>("batteryLevelLabel")->text(), QStringLiteral("0.0 V"));
}

void AppTest::searchWithoutDeviceAsksToTryAgain()
{
    for (const auto& path : get_port_paths())
        if (path.find("Dravinel") != std::string::npos)
            QSKIP("this machine has a real device port");
    launch();
    QTest::keyClick(welcome(), Qt::Key_Return);
    QTRY_COMPARE_WITH_TIMEOUT(widget<QLabel>("welcomeStatusLabel")->text(),
                              QStringLiteral("Could not find device. Please try again."), 10000);
    QVERIFY(widget<QPushButton>("welcomeOpenButton")->isEnabled());
    QVERIFY(welcome()->isVisible());
    QVERIFY(!widget<QProgressBar>("welcomeScanningProgress")->isVisible());
    QCOMPARE(widget<QLabel>("statusLabel")->text(), QStringLiteral("Disconnected"));
    QCOMPARE(shownText(widget<QPushButton>("connectButton")), QStringLiteral("Open"));
    QVERIFY(widget<QPushButton>("connectButton")->isEnabled());
}

void AppTest::updatesWriteInFixedOrderWithSixteenBitValues()
{
    startSimulator();
    launch();
    openFromWelcome();
    QTRY_COMPARE(m_sim->requestCount('G'), std::size_t{2});

    auto* counterClockWise = widget<QCheckBox>("counterClockWiseButton");
    widget<QLineEdit>("clockWiseBasicTextField")->setText(QStringLiteral(" -1"));
    widget<QLineEdit>("counterClockWiseBasicTextField")->setText(QStringLiteral("77"));
    counterClockWise->click();
    QVERIFY(!counterClockWise->isChecked());
    QVERIFY(!widget<QLineEdit>("counterClockWiseBasicTextField")->isEnabled());
    widget<QLineEdit>("waitTimeHoursBasicTextField")->setText(QStringLiteral("2"));
    widget<QLineEdit>("waitTimeMinutesBasicTextField")->setText(QString());
    m_sim->clearRequests();
    widget<QPushButton>("updateBasicButton")->click();
    QCOMPARE(requestsOf(*m_sim, "RLTSCIG"), (std::vector<std::string>{"R 65535", "L 0", "T 120"}));
    QVERIFY(widget<QPushButton>("updateBasicButton")->isEnabled());
    QVERIFY(!widget<QLineEdit>("counterClockWiseBasicTextField")->isEnabled());

    counterClockWise->click();
    QVERIFY(widget<QLineEdit>("counterClockWiseBasicTextField")->isEnabled());
    widget<QLineEdit>("counterClockWiseBasicTextField")->setText(QStringLiteral("70000"));
    widget<QLineEdit>("waitTimeHoursBasicTextField")->setText(QStringLiteral("1"));
    widget<QLineEdit>("waitTimeMinutesBasicTextField")->setText(QStringLiteral("75min"));
    m_sim->clearRequests();
    widget<QPushButton>("updateBasicButton")->click();
    QCOMPARE(requestsOf(*m_sim, "RLT"), (std::vector<std::string>{"R 65535", "L 4464", "T 135"}));
    QCOMPARE(m_sim->settings().cycleTimeoutMins, 135);

    // The advanced panel opens only for the exact password; the field empties after each try.
    auto* password = widget<QLineEdit>("passwordAdvancedTextField");
    auto* error = widget<QLabel>("errorAdvancedLabel");
    for (const char* wrong : {"1234", "5137 "}) {
        password->setText(QString::fromLatin1(wrong));
        widget<QPushButton>("submitAdvancedButton")->click();
        QCOMPARE(error->text(), QStringLiteral("Wrong Password"));
        QVERIFY(error->isVisible());
        QCOMPARE(password->text(), QString());
        QVERIFY(!widget<QWidget>("advancedView")->isVisible());
    }
    password->setText(QStringLiteral("5137"));
    QTest::keyClick(password, Qt::Key_Return);
    QVERIFY(!error->isVisible());
    QCOMPARE(password->text(), QString());
    QVERIFY(widget<QWidget>("advancedView")->isVisible());
    QVERIFY(!widget<QWidget>("advancedPasswordView")->isVisible());

    widget<QLineEdit>("motorTorqueTextField")->setText(QStringLiteral("250"));
    widget<QLineEdit>("motorProtectionTextField")->setText(QStringLiteral("65537"));
    widget<QLineEdit>("detectionThresholdTextField")->setText(QStringLiteral("abc"));
    m_sim->clearRequests();
    widget<QPushButton>("updateAdvancedButton")->click();
    QCOMPARE(requestsOf(*m_sim, "RLTSCIG"), (std::vector<std::string>{"S 250", "C 1", "I 0"}));

    // A refresh reads both panels back from the device.
    widget<QLineEdit>("motorTorqueTextField")->setText(QStringLiteral("9"));
    widget<QLineEdit>("clockWiseBasicTextField")->setText(QStringLiteral("9"));
    widget<QPushButton>("refreshAdvancedButton")->click();
    QCOMPARE(widget<QLineEdit>("motorTorqueTextField")->text(), QStringLiteral("250"));
    QCOMPARE(widget<QLineEdit>("clockWiseBasicTextField")->text(), QStringLiteral("65535"));
    QCOMPARE(widget<QLineEdit>("waitTimeMinutesBasicTextField")->text(), QStringLiteral("15"));
}

void AppTest::monitoringPollsOnceASecondAndMotorTestLocksBothPasses()
{
    startSimulator();
    launch();
    openFromWelcome();
    QTRY_COMPARE(m_sim->requestCount('G'), std::size_t{2});
    auto* combo = widget<QComboBox>("monitoringComboBox");
    auto* name = widget<QLabel>("monitoringNameLabel");
    auto* value = widget<QLabel>("monitoringValueLabel");
    QCOMPARE(combo->count(), 4);
    QCOMPARE(name->text(), QStringLiteral("- :"));
    const auto choose = [&](int index) {
        combo->setCurrentIndex(index);
        emit combo->activated(index);
    };

    // Position sensor: one read a second, shown as it comes; the keep-alive pauses.
    m_sim->clearRequests();
    choose(2);
    QCOMPARE(name->text(), QStringLiteral("Position sensor :"));
    // A keep-alive read already under way when polling started may still land.
    QTest::qWait(300);
    const std::size_t keepalives = m_sim->requestCount('V');
    QTest::qWait(3000);
    const std::size_t reedReads = m_sim->requestCount('O');
    QVERIFY2(reedReads >= 3 && reedReads <= 4, std::to_string(reedReads).c_str());
    QCOMPARE(m_sim->requestCount('V'), keepalives);
    bool numeric = false;
    value->text().toInt(&numeric);
    QVERIFY2(numeric, qPrintable(value->text()));

    // Switching to IR keeps the one poll thread: it only changes what it reads.
    choose(3);
    QCOMPARE(name->text(), QStringLiteral("IR sensor :"));
    QTest::qWait(1100);
    m_sim->clearRequests();
    QTest::qWait(3050);
    const std::size_t irReads = m_sim->requestCount('N');
    QVERIFY2(irReads >= 3 && irReads <= 4, std::to_string(irReads).c_str());
    QCOMPARE(m_sim->requestCount('O'), std::size_t{0});
    QTRY_VERIFY(value->text().toInt(&numeric) > 0 && numeric);

    // Motor test: everything stays disabled through the first done event, until the second.
    Counter done(MonitorMotorDoneEvent);
    choose(1);
    QCOMPARE(name->text(), QStringLiteral("Motor current :"));
    QVERIFY(!combo->isEnabled());
    QVERIFY(!widget<QPushButton>("connectButton")->isEnabled());
    QVERIFY(!widget<QPushButton>("refreshBasicButton")->isEnabled());
    QVERIFY(m_sim->waitForRequests('M', 1, 1000ms));
    // The poll thread ends at its next wake-up; a read it had under way may still land.
    QTest::qWait(100);
    const std::size_t sensorReads = m_sim->requestCount('N') + m_sim->requestCount('O');
    QTRY_COMPARE_WITH_TIMEOUT(done.count(), 1, 3000);
    QCoreApplication::processEvents();
    if (done.count() == 1)
        QVERIFY(!combo->isEnabled());
    QTRY_VERIFY_WITH_TIMEOUT(combo->isEnabled(), 3000);
    QCOMPARE(done.count(), 2);
    QCOMPARE(combo->currentIndex(), 0);
    // The finished test's curve stays on screen: every sample of both passes was plotted.
    const auto* chart = widget<MotorCurrentChart>("motorCurrentChart");
    QVERIFY(chart->isVisible());
    QVERIFY(chart->sampleCount() >= 10);
    QVERIFY(widget<QPushButton>("updateAdvancedButton")->isEnabled());
    QCOMPARE(name->text(), QStringLiteral("Motor current :"));
    value->text().toInt(&numeric);
    QVERIFY(numeric);
    QCOMPARE(m_sim->requestCount('N') + m_sim->requestCount('O'), sensorReads);

    // A refresh ends all monitoring and brings the keep-alive back.
    widget<QPushButton>("refreshBasicButton")->click();
    QCOMPARE(name->text(), QStringLiteral("- :"));
    QCOMPARE(value->text(), QStringLiteral("-"));
    QVERIFY(!chart->isVisible());
    QVERIFY(m_sim->waitForRequests('V', 1, 4500ms));
}

void AppTest::saveAndExitDisconnectsAndUnplugShowsScanning()
{
    startSimulator();
    launch();
    openFromWelcome();
    auto* status = widget<QLabel>("statusLabel");
    auto* connect = widget<QPushButton>("connectButton");
    QStringList shown;
    QObject::connect(m_delegate->masterViewController(), &MasterViewController::stateDisplayed,
                     this, [&] { shown << status->text(); });

    connect->click();
    QVERIFY(m_sim->waitForRequests('Z', 1, 2000ms));
    QTRY_COMPARE_WITH_TIMEOUT(status->text(), QStringLiteral("Disconnected"), 5000);
    QCOMPARE(shown, (QStringList{QStringLiteral("Disconnecting"), QStringLiteral("Disconnected")}));
    QVERIFY(m_sim->savedAndExited());
    QCOMPARE(shownText(connect), QStringLiteral("Open"));
    QVERIFY(connect->isEnabled());
    QVERIFY(!widget<QWidget>("updateBasicButton")->isEnabled());
    // The welcome panel stays closed; its widgets still follow the state.
    QVERIFY(!welcome()->isVisible());

    // "Open" starts a new search from the main window.
    shown.clear();
    connect->click();
    QTRY_COMPARE_WITH_TIMEOUT(status->text(), QStringLiteral("Connected"), kConnectTimeoutMs);
    QCOMPARE(shown.first(), QStringLiteral("Scanning"));
    QVERIFY(!welcome()->isVisible());

    // Losing the device: the next keep-alive fails and the window greys its settings.
    m_sim->unplug();
    QTRY_COMPARE_WITH_TIMEOUT(status->text(), QStringLiteral("Scanning"), 8000);
    QVERIFY(widget<QProgressBar>("scanProgress")->isVisible());
    QCOMPARE(shownText(connect), QStringLiteral("Save & Exit"));
    QVERIFY(!connect->isEnabled());
    for (const char* name : {"updateBasicButton", "refreshAdvancedButton", "monitoringComboBox",
                             "waitTimeHoursBasicTextField", "motorTorqueTextField"})
        QVERIFY2(!widget<QWidget>(name)->isEnabled(), name);
    QCOMPARE(widget<QLabel>("welcomeStatusLabel")->text(), QStringLiteral("Scanning..."));
}

} // namespace dravinel

QTEST_MAIN(dravinel::AppTest)
#include "test_app.moc"
