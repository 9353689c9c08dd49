#include "MonitoringView.h"

#include "MotorCurrentChart.h"
#include "ui_MasterView.h"

#include <QKeyEvent>
#include <QStackedWidget>

namespace dravinel {

namespace {

enum Item { None = 0, MotorTest = 1, Position = 2, InfraRed = 3 };

bool opensList(const QKeyEvent& key)
{
    const bool alt = key.modifiers() & Qt::AltModifier;
    return key.key() == Qt::Key_F4 || key.key() == Qt::Key_Space ||
           (alt && (key.key() == Qt::Key_Down || key.key() == Qt::Key_Up));
}

} // namespace

MonitoringView::MonitoringView(Ui::MasterView& ui, DeviceSessionController& device)
    : QObject(ui.monitoringGroup), m_device(device), m_combo(ui.monitoringComboBox),
      m_name(ui.monitoringNameLabel), m_value(ui.monitoringValueLabel), m_hint(ui.monitoringHint),
      m_chart(new MotorCurrentChart), m_stack(new QStackedWidget(ui.monitoringGroup))
{
    // The motor-current curve shares a reserved space with the hint under the value, so that
    // showing it never resizes the window.
    m_chart->setObjectName(QStringLiteral("motorCurrentChart"));
    m_chart->setAccessibleName(QStringLiteral("Motor current chart"));
    m_stack->setObjectName(QStringLiteral("monitoringStack"));
    const int hintIndex = ui.monitoringLayout->indexOf(m_hint);
    ui.monitoringLayout->removeWidget(m_hint);
    m_hint->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    m_stack->addWidget(m_hint);
    m_stack->addWidget(m_chart);
    // The chart's height is kept from the start (a stack counts only the pages it has shown);
    // the width follows the panel, as the wrapped hint cannot say which width it wants from
    // inside a stack.
    m_stack->setMinimumHeight(m_chart->minimumSizeHint().height());
    m_stack->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    ui.monitoringLayout->insertWidget(hintIndex, m_stack);
    // The row keeps the reading's height when it shows the smaller dash.
    m_value->setMinimumHeight(m_value->sizeHint().height());
    show(QStringLiteral("-"), Look::None);

    m_combo->installEventFilter(this);
    // Only the operator's pick from the list counts, never a selection made here.
    connect(m_combo, &QComboBox::activated, this, &MonitoringView::choose);
    connect(&device, &DeviceSessionController::monitorSample, this, &MonitoringView::showSample);
    connect(&device, &DeviceSessionController::motorSample, this, [this](int current) {
        if (!m_motorTest)
            return;
        show(QString::number(current), Look::Value);
        m_chart->addSample(current);
    });
    connect(&device, &DeviceSessionController::motorPassDone, this, [this](int, int value) {
        if (m_motorTest)
            show(QString::number(value), Look::Value);
    });
    connect(&device, &DeviceSessionController::motorTestEnded, this, &MonitoringView::endMotorTest);
    connect(&device, &DeviceSessionController::stateChanged, this, &MonitoringView::onStateChanged);
}

bool MonitoringView::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == m_combo) {
        if (event->type() == QEvent::Wheel)
            return true;
        // On the closed box only the keys that open the list (and move the focus) pass.
        if (event->type() == QEvent::KeyPress) {
            const auto& key = static_cast<const QKeyEvent&>(*event);
            return !opensList(key) && key.key() != Qt::Key_Tab && key.key() != Qt::Key_Backtab;
        }
    }
    return QObject::eventFilter(watched, event);
}

void MonitoringView::choose(int index)
{
    show(QStringLiteral("-"), Look::None);
    m_stack->setCurrentWidget(index == MotorTest ? static_cast<QWidget*>(m_chart) : m_hint);
    switch (index) {
    case -1:
    case None:
        m_name->setText(QStringLiteral("- :"));
        m_device.monitor(Monitoring::None);
        break;
    case MotorTest:
        m_name->setText(QStringLiteral("Motor current :"));
        m_chart->clear();
        m_motorTest = true;
        emit motorTestChanged(true);
        m_device.monitor(Monitoring::MotorTest);
        break;
    case Position:
    case InfraRed:
        m_name->setText(index == Position ? QStringLiteral("Position sensor :")
                                          : QStringLiteral("IR sensor :"));
        m_device.monitor(index == Position ? Monitoring::Position : Monitoring::InfraRed);
        break;
    default:
        break;
    }
}

void MonitoringView::reset()
{
    m_combo->setCurrentIndex(None);
    choose(None);
}

void MonitoringView::show(const QString& text, Look look)
{
    // A missing value reads as a quiet dash, not as a bar in the reading's colour; a wrong
    // answer is said in words, in the body's size.
    static const QString styles[] = {
        QStringLiteral("color: #5a6675; font-size: 12pt; font-weight: normal;"),
        QStringLiteral("color: #1f4e79;"),
        QStringLiteral("color: #c62828; font-size: 12pt; font-weight: normal;")};
    m_value->setText(text);
    m_value->setStyleSheet(styles[static_cast<int>(look)]);
}

void MonitoringView::showSample(const Reading& reading)
{
    const int index = m_combo->currentIndex();
    if (index != Position && index != InfraRed)
        return;
    if (reading.kind == Reading::Kind::Value)
        show(QString::number(reading.value), Look::Value);
    else if (reading.kind == Reading::Kind::WrongReply)
        show(QStringLiteral("wrong answer: \"%1\"").arg(QString::fromStdString(reading.answer)),
             Look::Wrong);
}

void MonitoringView::endMotorTest(MotorTestEnd end)
{
    if (!m_motorTest)
        return;
    m_motorTest = false;
    // Only the selection changes: the keep-alive stays off until the operator chooses again.
    m_combo->setCurrentIndex(None);
    // The reading stays, named as what it now is.
    m_name->setText(QStringLiteral("Motor current (last test):"));
    if (end == MotorTestEnd::Finished)
        emit statusMessage(QStringLiteral("Motor test finished"));
    else if (end == MotorTestEnd::Silent)
        emit statusMessage(QStringLiteral("Motor test ended: no reading from the device for %1 s")
                               .arg(DeviceSession::kMotorSilence.count()));
    emit motorTestChanged(false);
}

void MonitoringView::onStateChanged()
{
    // A poll ends with the connection it ran in.
    const int index = m_combo->currentIndex();
    if (index != Position && index != InfraRed)
        return;
    m_combo->setCurrentIndex(None);
    m_name->setText(QStringLiteral("- :"));
    show(QStringLiteral("-"), Look::None);
}

} // namespace dravinel
