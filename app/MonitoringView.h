#pragma once

#include "DeviceSessionController.h"

#include <QObject>
#include <QString>

// The live reading of the monitoring group: the choice of what to watch, its name and value, and
// the motor-current curve of a motor test. A choice counts only when the operator picks it from
// the open list: neither the wheel nor a key on the closed box starts a motor that turns.

class QComboBox;
class QLabel;
class QStackedWidget;

namespace Ui {
class MasterView;
} // namespace Ui

namespace dravinel {

class MotorCurrentChart;

class MonitoringView : public QObject
{
    Q_OBJECT

public:
    MonitoringView(Ui::MasterView& ui, DeviceSessionController& device);

    // What the operator picked; -1 or 0 ends monitoring.
    void choose(int index);
    // Back to none, as every read or write of the settings asks.
    void reset();
    bool motorTestRunning() const { return m_motorTest; }

signals:
    void motorTestChanged(bool running);
    void statusMessage(const QString& text);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    enum class Look { None, Value, Wrong };
    void show(const QString& text, Look look);
    void showSample(const Reading& reading);
    void endMotorTest(MotorTestEnd end);
    void onStateChanged();

    DeviceSessionController& m_device;
    QComboBox* m_combo;
    QLabel* m_name;
    QLabel* m_value;
    QLabel* m_hint;
    MotorCurrentChart* m_chart;
    QStackedWidget* m_stack;
    bool m_motorTest = false;
};

} // namespace dravinel
