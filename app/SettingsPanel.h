#pragma once

#include "DeviceSessionController.h"

#include <QObject>
#include <QString>

#include <optional>
#include <vector>

// One settings panel (basic or advanced): its fields, found through the settings table by the
// "setting" property the form gives each field, shown from a settings record, checked as typed,
// and written in the order the form lists them.

class QAbstractButton;
class QLineEdit;
class QPushButton;
class QWidget;

namespace dravinel {

class SettingsPanel : public QObject
{
    Q_OBJECT

public:
    SettingsPanel(QWidget* panel, QPushButton* refreshButton, QPushButton* updateButton,
                  DeviceSessionController& device);

    // Reads both panels from the device.
    void refresh();
    // Writes this panel's settings, when every field holds what can be written.
    void update();
    // An empty record is a read that failed: empty fields then say so rather than look wrong.
    void fill(const std::optional<SettingsData>& settings);
    void showWrites(const std::vector<SettingValue>& values,
                    const std::vector<WriteResult>& results);
    void setEnabled(bool enable);
    // Fields are judged only while connected: before that they are empty, not wrong.
    void setJudged(bool judged);
    bool valid() const { return m_valid; }

signals:
    // Before a device request: monitoring stops, as every read or write of the settings ends it.
    void deviceRequested();
    void validityChanged();
    void statusMessage(const QString& text);

private:
    struct Binding
    {
        Setting setting;
        QLineEdit* field = nullptr;
        QLineEdit* minutes = nullptr;      // the cycle time-out's second field
        QAbstractButton* toggle = nullptr; // unticked: written as 0
    };

    std::optional<std::uint16_t> value(const Binding& binding) const;
    void validate();
    void mark(QLineEdit* field, const QString& problem);

    std::vector<Binding> m_bindings;
    QPushButton* m_refreshButton;
    QPushButton* m_updateButton;
    DeviceSessionController& m_device;
    bool m_valid = true;
    bool m_judged = false;
    bool m_readFailed = false;
    bool m_enabled = false;
};

} // namespace dravinel
