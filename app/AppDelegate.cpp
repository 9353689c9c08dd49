#include "AppDelegate.h"

#include "MasterViewController.h"

#include <QAction>
#include <QApplication>
#include <QKeySequence>
#include <QMainWindow>
#include <QMenuBar>
#include <QMessageBox>
#include <QStatusBar>

namespace dravinel {

namespace {

const QString kWindowTitle = QStringLiteral("Dravinel Configurator");
constexpr qsizetype kRecentMessages = 10;

} // namespace

AppDelegate::AppDelegate(QObject* parent) : QObject(parent), m_window(new QMainWindow)
{
    m_window->setWindowTitle(kWindowTitle);

    m_quitAction = new QAction(tr("&Quit"), m_window.get());
    m_quitAction->setShortcut(QKeySequence::Quit);
    // Application-wide, so quitting also works while the welcome panel blocks the window.
    m_quitAction->setShortcutContext(Qt::ApplicationShortcut);
    connect(m_quitAction, &QAction::triggered, qApp, &QCoreApplication::quit, Qt::QueuedConnection);
    m_window->addAction(m_quitAction);
    m_window->menuBar()->addMenu(tr("&File"))->addAction(m_quitAction);
    auto* about = new QAction(tr("&About"), m_window.get());
    connect(about, &QAction::triggered, this, [this] {
        QMessageBox::about(m_window.get(), tr("About %1").arg(kWindowTitle),
                           tr("%1 %2\nConfigures and diagnoses the Dravinel device over its USB "
                              "serial port.\nhttps://www.dravinel.example/")
                               .arg(kWindowTitle, QCoreApplication::applicationVersion()));
    });
    m_window->menuBar()->addMenu(tr("&Help"))->addAction(about);
    connect(qApp, &QCoreApplication::aboutToQuit, this, &AppDelegate::applicationWillTerminate);
}

AppDelegate::~AppDelegate() = default;

void AppDelegate::applicationDidFinishLaunching()
{
    m_masterViewController = new MasterViewController;
    m_window->setCentralWidget(m_masterViewController);
    // Present from the start, so that the first message does not make the window grow.
    QStatusBar* status = m_window->statusBar();
    connect(m_masterViewController, &MasterViewController::statusMessage, status,
            [status, recent = QStringList()](const QString& text) mutable {
                status->showMessage(text);
                // The bar cuts a long message; its tooltip keeps the last ones whole.
                recent.prepend(text);
                if (recent.size() > kRecentMessages)
                    recent.removeLast();
                status->setToolTip(recent.join(QLatin1Char('\n')));
            });
}

void AppDelegate::setTitleSuffix(const QString& suffix)
{
    const QString title = kWindowTitle + suffix;
    m_window->setWindowTitle(title);
    // The window system appends the display name to every title that does not already end
    // with it; naming the application as the title reads keeps the name from showing twice.
    QGuiApplication::setApplicationDisplayName(title);
}

} // namespace dravinel
