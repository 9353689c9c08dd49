// The desktop app driven through its widgets against the simulated device on a real pty.

#include "AppDelegate.h"
#include "Hyperlink.h"
#include "MasterViewController.h"
#include "MotorCurrentChart.h"

#include "device/DeviceSession.h"
#include "sim/DeviceSimulator.h"
#include "support/Logger.h"

#include <QAbstractItemView>
#include <QAccessible>
#include <QAction>
#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QDialog>
#include <QElapsedTimer>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QProgressBar>
#include <QPushButton>
#include <QStatusBar>
#include <QTemporaryFile>
#include <QTest>
#include <QTimer>
#include <QWheelEvent>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

namespace dravinel {

constexpr int kConnectTimeoutMs = 8000;
using Requests = std::vector<std::string>;

class AppTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        // Errors only: the frame traffic of a whole run would bury the test output.
        // DRAVINEL_TEST_LOG_LEVEL=4 brings the traffic back when a test needs explaining.
        const int level = qEnvironmentVariableIntValue("DRAVINEL_TEST_LOG_LEVEL");
        Logger::getInstance().setLevel(level > 0 ? level : 1);
        DeviceSession::setSerialMessageSink(
            [](const std::string& m) { Logger::getInstance().logInfo("%s", m.c_str()); });
    }
    void cleanup()
    {
        m_delegate.reset();
        m_sim.reset();
    }
    void startUpLookAndASearchThatFindsNothingSaysWhy();
    void openFillsEveryFieldAndWritesFollowTheFieldRules();
    void monitoringPollsMotorTestLocksAndMuteDeviceNeverFreezes();
    void saveAndExitOnceThenLostDeviceIsNoticed();
    void deliberateChoicesNamedControlsAndQuittingAnyTime();

private:
    void launch()
    {
        m_delegate = std::make_unique<AppDelegate>();
        m_delegate->applicationDidFinishLaunching();
        if (m_sim)
            m_delegate->masterViewController()->setPorts(PortChoice::only(m_sim->portPath()));
        m_delegate->window()->show();
        QTRY_VERIFY(welcome() && welcome()->isVisible());
    }
    void startSimulator(sim::SimSettings settings = {})
    {
        m_sim = std::make_unique<sim::DeviceSimulator>();
        QVERIFY(m_sim->start());
        m_sim->setSettings(settings);
        m_sim->setBatteryRaw(1332);
        if (m_delegate)
            m_delegate->masterViewController()->setPorts(PortChoice::only(m_sim->portPath()));
    }
    // The requests with one of the given codes, as "code content", in arrival order.
    Requests requestsOf(const std::string& codes) const
    {
        Requests out;
        for (const auto& request : m_sim->requests())
            if (codes.find(request.code) != std::string::npos)
                out.push_back(std::string(1, request.code) + " " + request.content);
        return out;
    }
    // Waits until no device call runs any more.
    void waitIdle() { QTRY_VERIFY_WITH_TIMEOUT(!QApplication::overrideCursor(), 8000); }
    void openFromWelcome()
    {
        // The open button is the panel's default button: Return starts the search.
        QTest::keyClick(welcome(), Qt::Key_Return);
        QCOMPARE(text("welcomeStatusLabel"), u"Scanning..."_s);
        QTRY_COMPARE_WITH_TIMEOUT(text("statusLabel"), u"Connected"_s, kConnectTimeoutMs);
        waitIdle();
    }
    // Sets fields by object name, in the order given.
    void type(std::initializer_list<std::pair<const char*, QString>> entries)
    {
        for (const auto& [name, value] : entries)
            widget<QLineEdit>(name)->setText(value);
    }
    // Clicks a button and returns the setting writes the device received for it.
    Requests press(const char* button)
    {
        m_sim->clearRequests();
        QTest::mouseClick(widget<QPushButton>(button), Qt::LeftButton);
        waitIdle();
        return requestsOf("RLTSCIZ");
    }
    void choose(int index)
    {
        widget<QComboBox>("monitoringComboBox")->setCurrentIndex(index);
        emit widget<QComboBox>("monitoringComboBox")->activated(index);
    }
    // The text a label or field shows; a button's caption as a screen reader reads it.
    QString text(const char* name) const
    {
        auto* found = widget<QWidget>(name);
        if (auto* label = qobject_cast<QLabel*>(found))
            return label->text();
        if (auto* field = qobject_cast<QLineEdit*>(found))
            return field->text();
        return accessible(found, QAccessible::Name);
    }
    static QString accessible(QWidget* widget, QAccessible::Text what)
    {
        return QAccessible::queryAccessibleInterface(widget)->text(what);
    }
    // Which of the named widgets are enabled.
    QStringList enabled(std::initializer_list<const char*> names) const
    {
        QStringList out;
        for (const char* name : names)
            if (widget<QWidget>(name)->isEnabled())
                out << QString::fromLatin1(name);
        return out;
    }
    QString bar() const { return m_delegate->window()->statusBar()->currentMessage(); }
    QString mark(const char* f) const { return widget<QWidget>(f)->property("mark").toString(); }

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

void AppTest::startUpLookAndASearchThatFindsNothingSaysWhy()
{
    launch();
    QCOMPARE(text("statusLabel"), u"Disconnected"_s);
    QCOMPARE(text("connectButton"), u"Open"_s);
    QVERIFY(!widget<QProgressBar>("scanProgress")->isVisible());
    // Only Open and the password widgets, which do not follow the connection, are enabled.
    QCOMPARE(
        enabled({"connectButton", "refreshBasicButton", "updateBasicButton", "updateAdvancedButton",
                 "monitoringComboBox", "clockWiseBasicTextField", "waitTimeMinutesBasicTextField",
                 "detectionThresholdTextField", "revisionLabel", "batteryLevelLabel",
                 "passwordAdvancedTextField", "submitAdvancedButton"}),
        (QStringList{"connectButton", "passwordAdvancedTextField", "submitAdvancedButton"}));
    // Empty fields before any connection are not marked as wrong.
    QCOMPARE(mark("clockWiseBasicTextField"), QString());

    // The welcome panel: a dialog over the main window, ready to search, that Escape does not
    // dismiss; Quit stays reachable.
    QCOMPARE(welcome()->parentWidget(), m_delegate->window());
    QCOMPARE(text("welcomeStatusLabel"), QString());
    QVERIFY(!widget<QProgressBar>("welcomeScanningProgress")->isVisible());
    QCOMPARE(enabled({"welcomeOpenButton", "welcomeCancelButton"}),
             QStringList{"welcomeOpenButton"});
    QVERIFY(widget<QPushButton>("welcomeOpenButton")->isDefault());
    QTest::keyClick(welcome(), Qt::Key_Escape);
    QVERIFY(welcome()->isVisible());
    QVERIFY(welcome()->actions().contains(m_delegate->quitAction()));
    QCOMPARE(m_delegate->quitAction()->shortcutContext(), Qt::ApplicationShortcut);

    // The title is a blue, single-underlined link to the product page. Without a browser the
    // address goes to the clipboard, and the status bar says so.
    const QString page = QString::fromLatin1(MasterViewController::kProductPage);
    QCOMPARE(text("leDravinelTitle"), hyperlinkFromString(u"Dravinel Configurator"_s, QUrl(page)));
    emit widget<QLabel>("leDravinelTitle")->linkActivated(page);
    QCOMPARE(QGuiApplication::clipboard()->text(), page);
    QVERIFY2(bar().contains(u"copied to the clipboard"_s), qPrintable(bar()));
    QVERIFY(!widget<QLabel>("clientImage")->pixmap().isNull());
    // States outside 0..3 change nothing.
    for (int state : {4, -1})
        m_delegate->masterViewController()->updateDisplay(state);
    QCOMPARE(text("statusLabel"), u"Disconnected"_s);

    // A search that finds nothing says why, under the usual message.
    if (!DeviceSession::candidatePorts().empty())
        QSKIP("this machine has a real device port");
    auto* detail = widget<QLabel>("welcomeDetailLabel");
    const QString notFound = u"Could not find device. Please try again."_s;
    QTest::keyClick(welcome(), Qt::Key_Return);
    QVERIFY(widget<QPushButton>("welcomeCancelButton")->isEnabled());
    QTRY_COMPARE_WITH_TIMEOUT(text("welcomeStatusLabel"), notFound, 10000);
    QCOMPARE(welcome()->focusWidget(), widget<QWidget>("welcomeOpenButton"));
    // The reasons follow the state: the session is asked for them after it has ended.
    QTRY_VERIFY(detail->isVisible());
    QCOMPARE(detail->text().section('\n', 0, 0), u"No Dravinel device is plugged in."_s);
    QVERIFY(detail->text().contains(u"--port"_s));
    QVERIFY(bar().contains(u"No Dravinel device is plugged in."_s));
    QCOMPARE(enabled({"welcomeOpenButton", "welcomeCancelButton", "connectButton"}),
             (QStringList{"welcomeOpenButton", "connectButton"}));
    QCOMPARE(text("statusLabel"), u"Disconnected"_s);

    // A port that cannot be opened is named with the reason, in words.
    QTemporaryFile notATty;
    QVERIFY(notATty.open());
    m_delegate->masterViewController()->setPorts(
        PortChoice::only(notATty.fileName().toStdString()));
    QTest::keyClick(welcome(), Qt::Key_Return);
    QTRY_VERIFY_WITH_TIMEOUT(!detail->text().isEmpty(), 10000);
    QCOMPARE(detail->text(), notATty.fileName() + u": not a serial port"_s);
    QVERIFY(bar().endsWith(detail->text()));

    // Cancel ends a search at once, even one that has not yet reported itself; the panel stays.
    QTest::keyClick(welcome(), Qt::Key_Return);
    widget<QPushButton>("welcomeCancelButton")->click();
    QTRY_COMPARE_WITH_TIMEOUT(text("welcomeStatusLabel"), u"Search cancelled."_s, 3000);
    QVERIFY(widget<QPushButton>("welcomeOpenButton")->isEnabled());
    QCOMPARE(text("statusLabel"), u"Disconnected"_s);

    // Plug in and go: a device port that appears after a search gave up starts a new one.
    startSimulator();
    m_sim->unplug();
    QTest::keyClick(welcome(), Qt::Key_Return);
    QTRY_COMPARE_WITH_TIMEOUT(text("welcomeStatusLabel"), notFound, 10000);
    QVERIFY(m_sim->plugIn());
    QTRY_COMPARE_WITH_TIMEOUT(text("statusLabel"), u"Connected"_s, kConnectTimeoutMs);
    QVERIFY(!welcome()->isVisible());
}

void AppTest::openFillsEveryFieldAndWritesFollowTheFieldRules()
{
    startSimulator({131, 412, 47, 65535, 222, 135});
    launch();
    m_delegate->window()->activateWindow();
    openFromWelcome();
    QVERIFY(!welcome()->isVisible());
    QCOMPARE(text("connectButton"), u"Save & Exit"_s);
    QCOMPARE(text("revisionLabel"), u"Rev. 2.1"_s);
    // The battery is read with the settings on connecting (1332 / 111 volts), not at the first
    // keep-alive 3 s later.
    QCOMPARE(text("batteryLevelLabel"), u"12.0 V"_s);
    QStringList shown;
    for (const char* name :
         {"clockWiseBasicTextField", "counterClockWiseBasicTextField",
          "waitTimeHoursBasicTextField", "waitTimeMinutesBasicTextField", "motorTorqueTextField",
          "motorProtectionTextField", "detectionThresholdTextField"})
        shown << text(name);
    QCOMPARE(shown, (QStringList{"47", "65535", "2", "15", "222", "131", "412"}));
    QCOMPARE(bar(), u"Settings read"_s);
    // The scan thread and the Connected display each read the settings once.
    QTRY_COMPARE(m_sim->requestCount('G'), std::size_t{2});
    QCOMPARE(requestsOf("BG"), (Requests{"B ", "G ", "G "}));
    QVERIFY(QTest::qWaitForWindowActive(m_delegate->window()));
    auto* update = widget<QPushButton>("updateBasicButton");

    // Anything but whole numbers in range (hours and minutes together at most 65535 minutes)
    // marks the field, with the range in its tooltip, and disables Update: nothing is sent.
    for (const QString row : {" -1|2|15", "abc|2|15", "70000|2|15", "12.5|2|15", "|2|15", "47||",
                              "47|1093|0", "47|1092|16", "47|0|65536"}) {
        const QStringList values = row.split('|');
        type({{"clockWiseBasicTextField", values[0]},
              {"waitTimeHoursBasicTextField", values[1]},
              {"waitTimeMinutesBasicTextField", values[2]}});
        const QString marks = mark("clockWiseBasicTextField") +
                              mark("waitTimeHoursBasicTextField") +
                              mark("waitTimeMinutesBasicTextField");
        QVERIFY2(!update->isEnabled() && marks.contains("invalid"), qPrintable(row));
    }
    QVERIFY(widget<QWidget>("waitTimeHoursBasicTextField")->toolTip().contains("65535 minutes"));
    QCOMPARE(press("updateBasicButton"), Requests{});

    // Minutes over 59 are added; an empty field beside a filled one counts as 0.
    for (const auto& [row, written] :
         {std::pair{"1|75", "T 135"}, {"2|", "T 120"}, {"|5", "T 5"}, {"0|65535", "T 65535"}}) {
        const QStringList values = QString::fromLatin1(row).split('|');
        type({{"waitTimeHoursBasicTextField", values[0]},
              {"waitTimeMinutesBasicTextField", values[1]}});
        QCOMPARE(press("updateBasicButton").back(), std::string(written));
    }
    // Ticked directions write their fields; an unticked one writes 0 whatever its field holds.
    // Return in a field updates its panel.
    type({{"counterClockWiseBasicTextField", "77"},
          {"waitTimeHoursBasicTextField", "1092"},
          {"waitTimeMinutesBasicTextField", "15"}});
    QCOMPARE(mark("waitTimeHoursBasicTextField"), QString());
    m_sim->clearRequests();
    QTest::keyClick(widget<QLineEdit>("waitTimeMinutesBasicTextField"), Qt::Key_Return);
    waitIdle();
    QCOMPARE(requestsOf("RLTSCI"), (Requests{"R 47", "L 77", "T 65535"}));
    QCOMPARE(bar(), u"3 settings written, all confirmed"_s);
    // A write the device does not confirm is named, with its answer, and marked on its field.
    m_sim->setAnswerOverride('L', "l,12");
    QCOMPARE(press("updateBasicButton"), (Requests{"R 47", "L 77", "T 65535"}));
    QCOMPARE(bar(), u"Negative rotation not confirmed: the device answered \"l,12\""_s);
    QCOMPARE(mark("counterClockWiseBasicTextField"), u"unconfirmed"_s);
    m_sim->clearAnswerOverrides();
    auto* counterClockWise = widget<QCheckBox>("counterClockWiseButton");
    counterClockWise->click();
    type({{"counterClockWiseBasicTextField", "junk"}, {"clockWiseBasicTextField", " 007 "}});
    type({{"waitTimeHoursBasicTextField", "0"}, {"waitTimeMinutesBasicTextField", "0"}});
    QVERIFY(!widget<QLineEdit>("counterClockWiseBasicTextField")->isEnabled());
    // Focus comes back to the pressed button, not to the next field in the tab order.
    QCOMPARE(press("updateBasicButton"), (Requests{"R 7", "L 0", "T 0"}));
    QCOMPARE(QApplication::focusWidget(), update);
    QCOMPARE(m_sim->settings().get(Setting::NegativeRotation), 0);
    counterClockWise->click();
    QVERIFY(!update->isEnabled());

    // The advanced panel opens only for the exact password; the field empties after each try.
    for (const char* attempt : {"1234", "5137 ", "5137"}) {
        const bool right = QByteArray(attempt) == "5137";
        widget<QLineEdit>("passwordAdvancedTextField")->setText(QString::fromLatin1(attempt));
        QTest::keyClick(widget<QLineEdit>("passwordAdvancedTextField"), Qt::Key_Return);
        QCOMPARE(text("passwordAdvancedTextField"), QString());
        QCOMPARE(widget<QWidget>("advancedView")->isVisible(), right);
        QCOMPARE(widget<QWidget>("errorAdvancedLabel")->isVisible(), !right);
        QCOMPARE(text("errorAdvancedLabel"), u"Wrong Password"_s);
    }
    QCOMPARE(QApplication::focusWidget(), widget<QWidget>("motorTorqueTextField"));
    type({{"motorTorqueTextField", "250"}, {"motorProtectionTextField", "65536"}});
    QVERIFY(!widget<QPushButton>("updateAdvancedButton")->isEnabled());
    type({{"motorProtectionTextField", "65535"}, {"detectionThresholdTextField", "0"}});
    QCOMPARE(press("updateAdvancedButton"), (Requests{"S 250", "C 65535", "I 0"}));

    // A refresh reads both panels back from the device.
    type({{"motorTorqueTextField", "9"}, {"counterClockWiseBasicTextField", "9"}});
    QCOMPARE(press("refreshAdvancedButton"), Requests{});
    QCOMPARE(text("motorTorqueTextField"), u"250"_s);
    QCOMPARE(text("clockWiseBasicTextField"), u"7"_s);
    QCOMPARE(text("counterClockWiseBasicTextField"), u"0"_s);
    QCOMPARE(QApplication::focusWidget(), widget<QWidget>("refreshAdvancedButton"));
}

void AppTest::monitoringPollsMotorTestLocksAndMuteDeviceNeverFreezes()
{
    startSimulator();
    launch();
    openFromWelcome();
    auto* combo = widget<QComboBox>("monitoringComboBox");
    QCOMPARE(text("monitoringNameLabel"), u"- :"_s);
    const auto reading = [&] {
        bool numeric = false;
        const int value = text("monitoringValueLabel").toInt(&numeric);
        return numeric ? value : -1;
    };

    // Position sensor: one read a second, shown as it comes; the keep-alive pauses.
    m_sim->clearRequests();
    choose(2);
    QCOMPARE(text("monitoringNameLabel"), u"Position sensor :"_s);
    // A keep-alive read already under way when polling started may still land.
    QTest::qWait(300);
    const std::size_t keepalives = m_sim->requestCount('V');
    QTest::qWait(3000);
    const std::size_t reedReads = m_sim->requestCount('O');
    QVERIFY2(reedReads >= 3 && reedReads <= 4, std::to_string(reedReads).c_str());
    QCOMPARE(m_sim->requestCount('V'), keepalives);
    QVERIFY2(reading() >= 0, qPrintable(text("monitoringValueLabel")));

    // Switching to IR keeps the one poll: it only changes what it reads.
    choose(3);
    QCOMPARE(text("monitoringNameLabel"), u"IR sensor :"_s);
    QTest::qWait(1100);
    m_sim->clearRequests();
    QTest::qWait(3050);
    const std::size_t irReads = m_sim->requestCount('N');
    QVERIFY2(irReads >= 3 && irReads <= 4, std::to_string(irReads).c_str());
    QCOMPARE(m_sim->requestCount('O'), std::size_t{0});
    QTRY_VERIFY(reading() > 0);

    // Motor test: everything stays disabled through both passes; the sensor poll has ended.
    choose(1);
    QCOMPARE(text("monitoringNameLabel"), u"Motor current :"_s);
    QCOMPARE(enabled({"monitoringComboBox", "connectButton", "refreshBasicButton"}), QStringList{});
    QVERIFY(m_sim->waitForRequests('M', 1, 1000ms));
    QTest::qWait(100);
    const std::size_t sensorReads = m_sim->requestCount('N') + m_sim->requestCount('O');
    QTRY_VERIFY_WITH_TIMEOUT(combo->isEnabled(), 4000);
    QCOMPARE(combo->currentIndex(), 0);
    QCOMPARE(bar(), u"Motor test finished"_s);
    // The finished test's curve and its last reading stay on screen, named as such.
    const auto* chart = widget<MotorCurrentChart>("motorCurrentChart");
    QVERIFY(chart->isVisible());
    QVERIFY(chart->sampleCount() >= 10);
    QCOMPARE(text("monitoringNameLabel"), u"Motor current (last test):"_s);
    QVERIFY(reading() > 0);
    QCOMPARE(m_sim->requestCount('N') + m_sim->requestCount('O'), sensorReads);

    // A test whose frames stop ends after 5 s of silence with a message, and unlocks.
    m_sim->setMute(true);
    choose(1);
    QTest::qWait(4500);
    QVERIFY(!combo->isEnabled());
    QTRY_VERIFY_WITH_TIMEOUT(combo->isEnabled(), 1500);
    QVERIFY2(bar().contains(u"no reading"_s), qPrintable(bar()));
    m_sim->setMute(false);

    // A refresh ends all monitoring and brings the keep-alive back.
    widget<QPushButton>("refreshBasicButton")->click();
    QCOMPARE(text("monitoringNameLabel"), u"- :"_s);
    QCOMPARE(text("monitoringValueLabel"), u"-"_s);
    QVERIFY(!chart->isVisible());
    QVERIFY(m_sim->waitForRequests('V', 1, 4500ms));
    waitIdle();

    // A mute device's refresh: the event loop runs meanwhile (a timer fires), the window shows
    // busy, and quitting ends at once without sending anything more.
    m_sim->setMute(true);
    m_sim->clearRequests();
    widget<QPushButton>("refreshBasicButton")->click();
    QVERIFY(m_sim->waitForRequests('G', 1, 1000ms));
    bool fired = false;
    QTimer::singleShot(50, this, [&] { fired = true; });
    QTRY_VERIFY_WITH_TIMEOUT(fired, 500);
    QVERIFY(QApplication::overrideCursor());
    QCOMPARE(QApplication::overrideCursor()->shape(), Qt::BusyCursor);
    QCOMPARE(enabled({"refreshBasicButton", "updateBasicButton"}), QStringList{});
    const std::size_t sent = m_sim->requests().size();
    QElapsedTimer closing;
    closing.start();
    m_delegate.reset();
    QVERIFY2(closing.elapsed() < 1000, std::to_string(closing.elapsed()).c_str());
    QVERIFY(!QApplication::overrideCursor());
    QTest::qWait(300);
    QCOMPARE(m_sim->requests().size(), sent);
}

void AppTest::saveAndExitOnceThenLostDeviceIsNoticed()
{
    startSimulator();
    launch();
    openFromWelcome();
    auto* status = widget<QLabel>("statusLabel");
    auto* connect = widget<QPushButton>("connectButton");
    QStringList shown;
    QObject::connect(m_delegate->masterViewController(), &MasterViewController::stateDisplayed,
                     this, [&] { shown << status->text(); });

    // A second press of Save & Exit does nothing: one Z, and no new search, also when it lands
    // on Open within a double-click.
    QApplication::setDoubleClickInterval(4000);
    QTest::mouseClick(connect, Qt::LeftButton);
    QTest::mouseClick(connect, Qt::LeftButton);
    QVERIFY(m_sim->waitForRequests('Z', 1, 2000ms));
    QTRY_COMPARE_WITH_TIMEOUT(status->text(), u"Disconnected"_s, 3000);
    QTest::mouseClick(connect, Qt::LeftButton);
    QTest::qWait(300);
    QApplication::setDoubleClickInterval(100);
    QCOMPARE(shown, (QStringList{"Disconnecting", "Disconnected"}));
    QCOMPARE(m_sim->requestCount('Z'), std::size_t{1});
    QVERIFY(m_sim->savedAndExited());
    QCOMPARE(text("connectButton"), u"Open"_s);
    // The last readings stay, greyed as no longer current.
    QCOMPARE(text("revisionLabel"), u"Rev. 2.1"_s);
    QCOMPARE(enabled({"connectButton", "updateBasicButton", "revisionLabel", "batteryLevelLabel"}),
             QStringList{"connectButton"});
    QVERIFY(!welcome()->isVisible());

    // "Open" starts a new search from the main window.
    shown.clear();
    connect->click();
    QTRY_COMPARE_WITH_TIMEOUT(status->text(), u"Connected"_s, kConnectTimeoutMs);
    QCOMPARE(shown.first(), u"Scanning"_s);
    waitIdle();

    // A device that stops answering while polled is lost after three failed reads in a row,
    // as a failed keep-alive would lose it, and found again when it answers.
    choose(3);
    m_sim->setMute(true);
    QTRY_COMPARE_WITH_TIMEOUT(status->text(), u"Scanning"_s, 9000);
    QCOMPARE(text("monitoringNameLabel"), u"- :"_s);
    m_sim->setMute(false);
    QTRY_COMPARE_WITH_TIMEOUT(status->text(), u"Connected"_s, kConnectTimeoutMs);
    waitIdle();

    // Unplugged during a motor test (keep-alive off): Scanning at once, the test's lock gone;
    // plugged back in, the device is found and the window works again.
    choose(1);
    QVERIFY(m_sim->waitForRequests('M', 1, 1000ms));
    m_sim->unplug();
    QTRY_COMPARE_WITH_TIMEOUT(status->text(), u"Scanning"_s, 1000);
    QCOMPARE(text("monitoringNameLabel"), u"Motor current (last test):"_s);
    QVERIFY(m_sim->plugIn());
    QTRY_COMPARE_WITH_TIMEOUT(status->text(), u"Connected"_s, kConnectTimeoutMs);
    waitIdle();
    QVERIFY(widget<QComboBox>("monitoringComboBox")->isEnabled());

    // Unplugged while polled: Scanning at once too, with the settings greyed.
    choose(2);
    QTest::qWait(200);
    m_sim->unplug();
    QTRY_COMPARE_WITH_TIMEOUT(status->text(), u"Scanning"_s, 1000);
    QVERIFY(widget<QProgressBar>("scanProgress")->isVisible());
    QCOMPARE(text("connectButton"), u"Save & Exit"_s);
    QCOMPARE(enabled({"connectButton", "updateBasicButton", "refreshAdvancedButton",
                      "monitoringComboBox", "waitTimeHoursBasicTextField", "motorTorqueTextField"}),
             QStringList{});
}

void AppTest::deliberateChoicesNamedControlsAndQuittingAnyTime()
{
    // A settings read that fails leaves its empty fields saying so, not marked as wrong.
    startSimulator();
    // One answer of the six is not a number.
    m_sim->setAnswerOverride('G', "c,1\n\ri,?\n\rr,1\n\rl,1\n\rs,1\n\rt,1");
    launch();
    openFromWelcome();
    auto* field = widget<QLineEdit>("clockWiseBasicTextField");
    QCOMPARE(field->text(), QString());
    QCOMPARE(field->placeholderText(), u"not read"_s);
    QCOMPARE(mark("clockWiseBasicTextField") + mark("waitTimeMinutesBasicTextField"), QString());
    QVERIFY(!widget<QPushButton>("updateBasicButton")->isEnabled());
    m_sim->clearAnswerOverrides();

    // Every control is named as a person reads it; value labels by their value.
    auto* window = m_delegate->window();
    QStringList unnamed;
    for (QWidget* control : window->findChildren<QWidget*>())
        if (control->focusPolicy() != Qt::NoFocus && control->isVisible() &&
            accessible(control, QAccessible::Name).isEmpty())
            unnamed << control->objectName() + ':' + control->metaObject()->className();
    QVERIFY2(unnamed.isEmpty(), qPrintable(unnamed.join(' ')));
    QStringList names;
    for (const char* name : {"clockWiseBasicTextField", "counterClockWiseBasicTextField",
                             "waitTimeHoursBasicTextField", "waitTimeMinutesBasicTextField",
                             "connectButton", "refreshBasicButton", "updateAdvancedButton",
                             "statusLabel", "batteryLevelLabel", "monitoringValueLabel"})
        names << accessible(widget<QWidget>(name), QAccessible::Name);
    QCOMPARE(names, (QStringList{"Positive rotation", "Negative rotation", "Cycle time-out hours",
                                 "Cycle time-out minutes", "Save & Exit", "Refresh", "Update",
                                 "Connected", "12.0 V", "-"}));
    QVERIFY(accessible(widget<QWidget>("refreshBasicButton"), QAccessible::Description) !=
            accessible(widget<QWidget>("refreshAdvancedButton"), QAccessible::Description));
    QCOMPARE(accessible(welcome(), QAccessible::Name), u"Welcome"_s);
    QCOMPARE(QAccessible::queryAccessibleInterface(welcome())->role(), QAccessible::Dialog);
    // The menus' access keys stay free.
    for (QAbstractButton* button : window->findChildren<QAbstractButton*>())
        for (const char* menuKey : {"&F", "&D", "&V", "&H"})
            QVERIFY2(!button->text().contains(QLatin1String(menuKey), Qt::CaseInsensitive),
                     qPrintable(button->text()));

    // Neither the wheel nor an arrow key on the closed box starts anything; a pick from the
    // open list starts at once.
    auto* combo = widget<QComboBox>("monitoringComboBox");
    QCOMPARE(window->findChild<QGroupBox*>("monitoringGroup")->findChild<QComboBox*>(), combo);
    m_sim->clearRequests();
    combo->setFocus();
    QWheelEvent wheel(QPointF(5, 5), combo->mapToGlobal(QPointF(5, 5)), {}, {0, -120}, Qt::NoButton,
                      Qt::NoModifier, Qt::NoScrollPhase, false);
    QApplication::sendEvent(combo, &wheel);
    for (const auto key : {Qt::Key_Down, Qt::Key_PageDown, Qt::Key_End, Qt::Key_I})
        QTest::keyClick(combo, key);
    QTest::qWait(1200);
    QCOMPARE(combo->currentIndex(), 0);
    QCOMPARE(requestsOf("MNO"), Requests{});
    combo->showPopup();
    QTRY_VERIFY(combo->view()->isVisible());
    QTest::keyClick(combo->view(), Qt::Key_Down);
    QTest::keyClick(combo->view(), Qt::Key_Down);
    QTest::keyClick(combo->view(), Qt::Key_Return);
    QCOMPARE(text("monitoringNameLabel"), u"Position sensor :"_s);
    QVERIFY(m_sim->waitForRequests('O', 1, 1000ms));
    QCOMPARE(m_sim->requestCount('M'), std::size_t{0});

    // A wrong answer is shown with what came, and four in a row are not a lost device.
    m_sim->setAnswerOverride('O', "o,abc");
    QTRY_COMPARE_WITH_TIMEOUT(text("monitoringValueLabel"), u"wrong answer: \"o,abc\""_s, 2500);
    m_sim->clearRequests();
    QTest::qWait(3500);
    QVERIFY(m_sim->requestCount('O') >= 3);
    QCOMPARE(text("statusLabel"), u"Connected"_s);
    QCOMPARE(text("monitoringValueLabel"), u"wrong answer: \"o,abc\""_s);
    m_sim->clearAnswerOverrides();

    // The title link is one Tab stop, left by Tab and Shift+Tab alike.
    auto* title = widget<QLabel>("leDravinelTitle");
    for (const auto modifier : {Qt::NoModifier, Qt::ShiftModifier}) {
        title->setFocus();
        QTest::keyClick(title, Qt::Key_Tab, modifier);
        QVERIFY(QApplication::focusWidget() != title);
    }

    // Escape does not close the welcome panel, which stays centred on the main window; its
    // close button leaves the window usable.
    welcome()->show();
    window->move(window->pos() + QPoint(40, 30));
    QTRY_VERIFY((welcome()->frameGeometry().center() - window->frameGeometry().center())
                    .manhattanLength() <= 2);
    QTest::keyClick(welcome(), Qt::Key_Escape);
    QVERIFY(welcome()->isVisible());
    QVERIFY(welcome()->close());
    QVERIFY(!QApplication::modalWindow());
    QVERIFY(widget<QPushButton>("connectButton")->isEnabled());

    // With the panel up, closing the main window or File > Quit ends the app at once.
    for (const bool byMenu : {false, true}) {
        welcome()->show();
        QTimer::singleShot(0, this, [&] {
            if (byMenu)
                m_delegate->quitAction()->trigger();
            else
                window->close();
        });
        // Ends a loop that nothing else ended, with a code that fails the comparison.
        QTimer fallback;
        fallback.callOnTimeout([] { QCoreApplication::exit(7); });
        fallback.start(3000);
        QCOMPARE(QApplication::exec(), 0);
        window->show();
    }
}

} // namespace dravinel

QTEST_MAIN(dravinel::AppTest)
#include "test_app.moc"
