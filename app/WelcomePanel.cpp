#include "WelcomePanel.h"

#include "VectorPicture.h"
#include "ui_WelcomePopupPanel.h"

#include <QKeyEvent>
#include <QLayout>

namespace dravinel {

WelcomePanel::WelcomePanel(QWidget* mainWindow)
    : QDialog(mainWindow), m_ui(std::make_unique<Ui::WelcomePopupPanel>())
{
    m_ui->setupUi(this);
    m_ui->welcomeImage->setPixmap(renderPicture(QStringLiteral(":/pictures/product.svg"),
                                                m_ui->welcomeImage->minimumSize(),
                                                devicePixelRatioF()));
    connect(m_ui->welcomeOpenButton, &QPushButton::clicked, this, [this] {
        showSearching();
        emit openRequested();
    });
    connect(m_ui->welcomeCancelButton, &QPushButton::clicked, this, &WelcomePanel::cancelRequested);
    // The window's actions (Quit) stay reachable while the panel has the keyboard.
    addActions(mainWindow->actions());
    mainWindow->installEventFilter(this);
    setWindowModality(Qt::NonModal);
}

WelcomePanel::~WelcomePanel() = default;

void WelcomePanel::prepare()
{
    m_ui->welcomeStatusLabel->clear();
    showDetail(QString());
    m_ui->welcomeScanningProgress->setVisible(false);
}

void WelcomePanel::showSearching()
{
    m_ui->welcomeOpenButton->setEnabled(false);
    m_ui->welcomeCancelButton->setEnabled(true);
    m_ui->welcomeCancelButton->setFocus(Qt::OtherFocusReason);
    m_ui->welcomeScanningProgress->setRange(0, 0);
    m_ui->welcomeStatusLabel->setText(QStringLiteral("Scanning..."));
    showDetail(QString());
}

void WelcomePanel::showState(ConnectionState state)
{
    if (state == ConnectionState::Disconnecting)
        return;
    const bool scanning = state == ConnectionState::Scanning;
    // A range of 0..0 is Qt's animated busy indicator; any other range stops the animation.
    m_ui->welcomeScanningProgress->setRange(0, scanning ? 0 : 1);
    m_ui->welcomeScanningProgress->setVisible(scanning);
    m_ui->welcomeOpenButton->setEnabled(!scanning);
    m_ui->welcomeCancelButton->setEnabled(scanning);
    // The focus follows the button that can be pressed next.
    (scanning ? m_ui->welcomeCancelButton : m_ui->welcomeOpenButton)
        ->setFocus(Qt::OtherFocusReason);
    switch (state) {
    case ConnectionState::Disconnected:
        m_ui->welcomeStatusLabel->setText(
            QStringLiteral("Could not find device. Please try again."));
        break;
    case ConnectionState::Scanning:
        m_ui->welcomeStatusLabel->setText(QStringLiteral("Scanning..."));
        showDetail(QString());
        break;
    default:
        m_ui->welcomeStatusLabel->clear();
        showDetail(QString());
        hide();
        break;
    }
    fitText();
}

QString WelcomePanel::showSearchFailure(const QStringList& reasons)
{
    QStringList lines = reasons;
    if (lines.isEmpty())
        lines << QStringLiteral("No Dravinel device is plugged in.")
              << QStringLiteral("A USB serial cable whose name lacks the word Dravinel is not "
                                "searched: start the app with --port and its path, e.g. "
                                "--port /dev/ttyUSB0.");
    showDetail(lines.join(QLatin1Char('\n')));
    return m_ui->welcomeDetailLabel->text();
}

void WelcomePanel::showCancelled()
{
    m_ui->welcomeStatusLabel->setText(QStringLiteral("Search cancelled."));
}

void WelcomePanel::showDetail(const QString& text)
{
    m_ui->welcomeDetailLabel->setText(text);
    m_ui->welcomeDetailLabel->setVisible(!text.isEmpty());
    fitText();
}

void WelcomePanel::fitText()
{
    // Wrapped texts need more height in a larger font or with a longer reason: the panel grows
    // rather than cut them.
    layout()->activate();
    const int needed = layout()->totalHeightForWidth(width());
    setMinimumHeight(needed);
    if (height() < needed)
        resize(width(), needed);
}

void WelcomePanel::centre()
{
    const QWidget* window = parentWidget();
    QRect frame = frameGeometry();
    frame.moveCenter(window->frameGeometry().center());
    move(frame.topLeft() + (pos() - frameGeometry().topLeft()));
}

bool WelcomePanel::event(QEvent* event)
{
    if (event->type() == QEvent::Show || event->type() == QEvent::FontChange ||
        event->type() == QEvent::ApplicationFontChange) {
        fitText();
        if (event->type() == QEvent::Show)
            centre();
    }
    return QDialog::event(event);
}

bool WelcomePanel::eventFilter(QObject* watched, QEvent* event)
{
    // The window manager places the main window after it is shown: the panel follows it there.
    if (watched == parentWidget() && isVisible() &&
        (event->type() == QEvent::Move || event->type() == QEvent::Resize ||
         event->type() == QEvent::Show))
        centre();
    return QDialog::eventFilter(watched, event);
}

void WelcomePanel::keyPressEvent(QKeyEvent* event)
{
    // Escape would dismiss the panel: only its close button, or quitting, does.
    if (event->key() == Qt::Key_Escape) {
        event->accept();
        return;
    }
    QDialog::keyPressEvent(event);
}

} // namespace dravinel
