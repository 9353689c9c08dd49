#include "SettingsPanel.h"

#include "FieldRules.h"

#include <QAbstractButton>
#include <QLineEdit>
#include <QPushButton>

namespace dravinel {

namespace {

// Dynamic properties of a field: the tooltip from the form, the note of a write the device did
// not confirm, and the mark shown ("invalid", "unconfirmed" or empty).
constexpr const char* kBaseToolTip = "baseToolTip";
constexpr const char* kUnconfirmedNote = "unconfirmedNote";
constexpr const char* kFieldMark = "mark";

const QString kInvalidStyle = QStringLiteral("QLineEdit { border: 2px solid #d32f2f; }");
const QString kUnconfirmedStyle = QStringLiteral("QLineEdit { border: 2px solid #ef6c00; }");

QString text(const QLineEdit* field)
{
    return field ? field->text() : QString();
}

} // namespace

SettingsPanel::SettingsPanel(QWidget* panel, QPushButton* refreshButton, QPushButton* updateButton,
                             DeviceSessionController& device)
    : QObject(panel), m_refreshButton(refreshButton), m_updateButton(updateButton), m_device(device)
{
    // In the order the form lists the fields, which is the order they are written in.
    for (QLineEdit* field : panel->findChildren<QLineEdit*>()) {
        const QString name = field->property("setting").toString();
        const auto* info = findSettingByCliName(name.toStdString());
        if (!info)
            continue;
        const bool minutes = field->property("unit").toString() == QLatin1String("minutes");
        if (minutes && !m_bindings.empty() && m_bindings.back().setting == info->id) {
            m_bindings.back().minutes = field;
        } else {
            Binding binding{info->id, field};
            for (auto* toggle : panel->findChildren<QAbstractButton*>())
                if (toggle->property("setting").toString() == name)
                    binding.toggle = toggle;
            m_bindings.push_back(binding);
        }
        field->setProperty(kBaseToolTip, field->toolTip());
        connect(field, &QLineEdit::textChanged, this, [this, field] {
            // An edited value is no longer the one the device did not confirm.
            field->setProperty(kUnconfirmedNote, QString());
            validate();
        });
        connect(field, &QLineEdit::returnPressed, this, [this] {
            if (m_updateButton->isEnabled())
                update();
        });
    }
    for (const Binding& binding : m_bindings)
        if (binding.toggle)
            connect(binding.toggle, &QAbstractButton::clicked, this, [this, binding] {
                binding.field->setEnabled(m_enabled && binding.toggle->isChecked());
                validate();
            });
    connect(refreshButton, &QPushButton::clicked, this, &SettingsPanel::refresh);
    connect(updateButton, &QPushButton::clicked, this, &SettingsPanel::update);
}

void SettingsPanel::refresh()
{
    emit deviceRequested();
    emit statusMessage(QStringLiteral("Reading the settings..."));
    m_device.readSettings();
}

void SettingsPanel::update()
{
    validate();
    if (!m_valid)
        return;
    std::vector<SettingValue> values;
    for (const Binding& binding : m_bindings)
        values.push_back({binding.setting, value(binding).value_or(0)});
    emit deviceRequested();
    emit statusMessage(QStringLiteral("Writing the settings..."));
    m_device.write(std::move(values));
}

std::optional<std::uint16_t> SettingsPanel::value(const Binding& binding) const
{
    if (binding.toggle && !binding.toggle->isChecked())
        return 0;
    if (binding.minutes)
        return fields::cycleTimeout(text(binding.field).toStdString(),
                                    text(binding.minutes).toStdString());
    return parseSettingValue(text(binding.field).toStdString(), settingInfo(binding.setting));
}

void SettingsPanel::fill(const std::optional<SettingsData>& settings)
{
    m_readFailed = !settings;
    for (const Binding& binding : m_bindings) {
        for (QLineEdit* field : {binding.field, binding.minutes}) {
            if (!field)
                continue;
            // Shown only while the field is empty.
            field->setPlaceholderText(settings ? QString() : QStringLiteral("not read"));
            if (settings)
                field->setProperty(kUnconfirmedNote, QString());
        }
        if (!settings)
            continue;
        const int value = settings->get(binding.setting);
        if (binding.minutes) {
            binding.field->setText(QString::number(value / 60));
            binding.minutes->setText(QString::number(value % 60));
        } else {
            binding.field->setText(QString::number(value));
        }
    }
    validate();
}

void SettingsPanel::showWrites(const std::vector<SettingValue>& values,
                               const std::vector<WriteResult>& results)
{
    if (values.empty() || values.front().setting != m_bindings.front().setting)
        return;
    QStringList problems;
    bool answered = false;
    for (std::size_t i = 0; i < values.size() && i < results.size(); ++i) {
        const WriteResult& result = results[i];
        const bool hasAnswer = result.answer && !result.answer->empty();
        answered = answered || hasAnswer;
        QString note;
        if (!result.confirmed) {
            const QString label = QString::fromUtf8(settingInfo(values[i].setting).label);
            note = hasAnswer ? QStringLiteral("%1 not confirmed: the device answered \"%2\"")
                                   .arg(label, QString::fromStdString(*result.answer))
                             : QStringLiteral("%1 not confirmed: no answer").arg(label);
            problems << note;
        }
        for (const Binding& binding : m_bindings)
            if (binding.setting == values[i].setting)
                for (QLineEdit* field : {binding.field, binding.minutes})
                    if (field)
                        field->setProperty(kUnconfirmedNote, note);
    }
    validate();
    if (problems.isEmpty())
        emit statusMessage(QStringLiteral("%1 settings written, all confirmed").arg(values.size()));
    else if (!answered)
        emit statusMessage(QStringLiteral("No answer from the device"));
    else
        emit statusMessage(problems.join(QStringLiteral("; ")));
}

void SettingsPanel::setEnabled(bool enable)
{
    m_enabled = enable;
    m_refreshButton->setEnabled(enable);
    m_updateButton->setEnabled(enable && m_valid);
    for (const Binding& binding : m_bindings) {
        if (binding.toggle)
            binding.toggle->setEnabled(enable);
        binding.field->setEnabled(enable && (!binding.toggle || binding.toggle->isChecked()));
        if (binding.minutes)
            binding.minutes->setEnabled(enable);
    }
}

void SettingsPanel::setJudged(bool judged)
{
    m_judged = judged;
    validate();
}

void SettingsPanel::validate()
{
    const int maxTotal = settingInfo(Setting::CycleTimeout).max;
    const QString tooLong = QStringLiteral("Not accepted: hours and minutes together must be at "
                                           "most %1 minutes (%2 h %3 min).")
                                .arg(maxTotal)
                                .arg(maxTotal / 60)
                                .arg(maxTotal % 60);
    bool valid = true;
    for (const Binding& binding : m_bindings) {
        const QString range =
            QStringLiteral("Not accepted: enter %1.")
                .arg(QString::fromStdString(settingRangeText(settingInfo(binding.setting))));
        const bool ok = value(binding).has_value();
        valid = valid && ok;
        if (!binding.minutes) {
            mark(binding.field, ok ? QString() : range);
            continue;
        }
        // Says which of the two fields is wrong, or that their total is.
        const bool bothBlank = fields::isBlank(text(binding.field).toStdString()) &&
                               fields::isBlank(text(binding.minutes).toStdString());
        for (QLineEdit* field : {binding.field, binding.minutes}) {
            const std::string typed = field->text().toStdString();
            const bool own =
                fields::isBlank(typed) ? !bothBlank : parseSettingValue(typed).has_value();
            mark(field, ok ? QString() : own ? tooLong : range);
        }
    }
    const bool changed = valid != m_valid;
    m_valid = valid;
    m_updateButton->setEnabled(m_enabled && m_valid);
    if (changed)
        emit validityChanged();
}

void SettingsPanel::mark(QLineEdit* field, const QString& problem)
{
    // An empty field after a failed read is not wrong: its placeholder says it was not read.
    const bool notRead = m_readFailed && field->text().isEmpty();
    const QString shown = m_judged && !notRead ? problem : QString();
    const QString unconfirmed = field->property(kUnconfirmedNote).toString();
    const QString note = shown.isEmpty() ? unconfirmed : shown;
    const char* mark = !shown.isEmpty() ? "invalid" : !unconfirmed.isEmpty() ? "unconfirmed" : "";
    const QString style = !shown.isEmpty()         ? kInvalidStyle
                          : !unconfirmed.isEmpty() ? kUnconfirmedStyle
                                                   : QString();
    const QString base = field->property(kBaseToolTip).toString();
    field->setProperty(kFieldMark, QString::fromLatin1(mark));
    if (field->styleSheet() != style)
        field->setStyleSheet(style);
    field->setToolTip(notRead ? QStringLiteral("Not read: the device did not answer the settings "
                                               "read.\n") +
                                    base
                      : note.isEmpty() ? base
                                       : note + QLatin1Char('\n') + base);
}

} // namespace dravinel
