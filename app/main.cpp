#include "AppDelegate.h"
#include "MasterViewController.h"

#include "sim/DeviceSimulator.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QEvent>
#include <QMainWindow>

#include <cstdio>
#include <memory>
#include <string_view>

namespace {

// Prints the time from program start to the first showing of the main window, when the
// environment asks for it (DRAVINEL_STARTUP_TIMING=1).
class StartupTimer : public QObject
{
public:
    StartupTimer(QElapsedTimer sinceStart, QObject* parent) : QObject(parent), m_elapsed(sinceStart)
    {}

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::Show) {
            std::fprintf(stderr, "dravinel: main window shown after %lld ms\n",
                         static_cast<long long>(m_elapsed.elapsed()));
            watched->removeEventFilter(this);
        }
        return false;
    }

private:
    QElapsedTimer m_elapsed;
};

void describeApplication()
{
    QCoreApplication::setApplicationName(QStringLiteral("dravinel"));
    QCoreApplication::setApplicationVersion(QStringLiteral(DRAVINEL_VERSION));
}

struct Options
{
    bool demo = false;
    QString port;
};

// Help and version need no display: they are answered before any window system is touched.
bool wantsTextOnly(int argc, char* argv[])
{
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg(argv[i]);
        if (arg == "-h" || arg == "--help" || arg == "-?" || arg == "--help-all" || arg == "-v" ||
            arg == "--version")
            return true;
    }
    return false;
}

Options parseOptions(QCoreApplication& app)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Configures and diagnoses the Dravinel device over its USB serial port."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption demoOption(
        QStringLiteral("demo"),
        QStringLiteral("Run against a simulated device built into the app."));
    const QCommandLineOption portOption(
        QStringLiteral("port"),
        QStringLiteral("Use only the serial port at <path> (for a cable whose name lacks the "
                       "product word)."),
        QStringLiteral("path"));
    parser.addOption(demoOption);
    parser.addOption(portOption);
    parser.process(app); // exits for --help, --version and unknown options
    return {parser.isSet(demoOption), parser.value(portOption)};
}

} // namespace

int main(int argc, char* argv[])
{
    QElapsedTimer sinceStart;
    sinceStart.start();
    if (wantsTextOnly(argc, argv)) {
        QCoreApplication app(argc, argv);
        describeApplication();
        parseOptions(app);
        return 0;
    }

    QApplication app(argc, argv);
    describeApplication();
    QApplication::setApplicationDisplayName(QStringLiteral("Dravinel Configurator"));
    // The installed desktop entry's name: Wayland shows that entry's icon for the window.
    QGuiApplication::setDesktopFileName(QStringLiteral("example.dravinel.Configurator"));
    const Options options = parseOptions(app);
    // The serial module's messages (a port that failed, and why) go to standard error, never
    // to the levelled log.
    dravinel::DeviceSession::setSerialMessageSink(
        [](const std::string& message) { std::fputs(message.c_str(), stderr); });

    // Declared before the window so that it outlives every connection the window makes.
    std::unique_ptr<dravinel::sim::DeviceSimulator> simulator;
    if (options.demo) {
        dravinel::sim::DeviceSimulator::Options simOptions;
        simOptions.wireTime = true;
        simulator = std::make_unique<dravinel::sim::DeviceSimulator>(simOptions);
        if (!simulator->start()) {
            std::fprintf(stderr, "dravinel: could not start the simulated device\n");
            return 1;
        }
    }
    // A named port, or the simulated device, is the only port the app opens.
    dravinel::PortChoice ports;
    if (simulator)
        ports = dravinel::PortChoice::only(simulator->portPath());
    else if (!options.port.isEmpty())
        ports = dravinel::PortChoice::only(options.port.toStdString());

    dravinel::AppDelegate delegate;
    if (simulator)
        delegate.setTitleSuffix(QStringLiteral(" — demo"));
    if (qEnvironmentVariableIsSet("DRAVINEL_STARTUP_TIMING"))
        delegate.window()->installEventFilter(new StartupTimer(sinceStart, &delegate));
    delegate.applicationDidFinishLaunching();
    delegate.masterViewController()->setPorts(ports);
    delegate.window()->resize(delegate.window()->sizeHint().expandedTo(QSize(780, 560)));
    delegate.window()->show();
    const int result = QApplication::exec();
    return result;
}
