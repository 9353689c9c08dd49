#pragma once

#include <QObject>
#include <QString>

#include <memory>

// Builds the main window and puts the main view's controller in it.

class QAction;
class QMainWindow;

namespace dravinel {

class MasterViewController;

class AppDelegate : public QObject
{
    Q_OBJECT

public:
    explicit AppDelegate(QObject* parent = nullptr);
    ~AppDelegate() override;

    void applicationDidFinishLaunching();
    // Nothing is sent to the device and nothing is saved at quit.
    void applicationWillTerminate() {}

    QMainWindow* window() const { return m_window.get(); }
    MasterViewController* masterViewController() const { return m_masterViewController; }
    QAction* quitAction() const { return m_quitAction; }

    // Marks the window title, e.g. " — demo".
    void setTitleSuffix(const QString& suffix);

private:
    std::unique_ptr<QMainWindow> m_window;
    MasterViewController* m_masterViewController = nullptr; // owned by m_window
    QAction* m_quitAction = nullptr;                        // owned by m_window
};

} // namespace dravinel
