#pragma once

#include "device/DeviceSession.h"

#include <QDialog>
#include <QStringList>

#include <memory>

// The panel that greets the operator and starts the first search. It sits over the main window
// without blocking it, so the window's close button and menu quit at any time; Escape does not
// dismiss it.

namespace Ui {
class WelcomePopupPanel;
} // namespace Ui

namespace dravinel {

class WelcomePanel : public QDialog
{
    Q_OBJECT

public:
    explicit WelcomePanel(QWidget* mainWindow);
    ~WelcomePanel() override;

    // Ready to search: empty status line, no progress.
    void prepare();
    // The Open button was pressed: a search is asked for.
    void showSearching();
    void showState(ConnectionState state);
    // Shows why a search found nothing, and returns those words.
    QString showSearchFailure(const QStringList& reasons);
    void showCancelled();

signals:
    void openRequested();
    void cancelRequested();

protected:
    bool event(QEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void showDetail(const QString& text);
    void fitText();
    void centre();

    std::unique_ptr<Ui::WelcomePopupPanel> m_ui;
};

} // namespace dravinel
