#include "AppDelegate.h"

#include "MasterViewController.h"

#include <QAction>
#include <QApplication>
#include <QKeySequence>
#include <QMainWindow>
#include <QMenuBar>

namespace dravinel {

namespace {

const QString kWindowTitle = QStringLiteral("Dravinel Configurator");

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
    connect(qApp, &QCoreApplication::aboutToQuit, this, &AppDelegate::applicationWillTerminate);
}

AppDelegate::~AppDelegate() = default;

void AppDelegate::applicationDidFinishLaunching()
{
    m_masterViewController = new MasterViewController;
    m_window->setCentralWidget(m_masterViewController);
}

void AppDelegate::setTitleSuffix(const QString& suffix)
{
    m_window->setWindowTitle(kWindowTitle + suffix);
}

} // namespace dravinel
