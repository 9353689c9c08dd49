#include "MotorCurrentChart.h"

#include <QChart>
#include <QFontMetrics>
#include <QLineSeries>
#include <QValueAxis>

#include <algorithm>

namespace dravinel {

namespace {

constexpr int kInitialSamples = 40;
constexpr int kInitialCurrent = 100;

} // namespace

MotorCurrentChart::MotorCurrentChart(QWidget* parent)
    : QChartView(parent), m_series(new QLineSeries), m_samples(new QValueAxis),
      m_current(new QValueAxis)
{
    auto* chart = new QChart;
    chart->legend()->hide();
    chart->setMargins(QMargins(0, 0, 0, 0));
    chart->setBackgroundRoundness(0);
    chart->addSeries(m_series);
    m_samples->setTitleText(tr("sample"));
    m_samples->setLabelFormat(QStringLiteral("%d"));
    m_current->setTitleText(tr("current (raw)"));
    m_current->setLabelFormat(QStringLiteral("%d"));
    chart->addAxis(m_samples, Qt::AlignBottom);
    chart->addAxis(m_current, Qt::AlignLeft);
    m_series->attachAxis(m_samples);
    m_series->attachAxis(m_current);
    setChart(chart);
    setRenderHint(QPainter::Antialiasing);
    clear();
}

void MotorCurrentChart::clear()
{
    m_series->clear();
    m_peak = 0;
    m_samples->setRange(0, kInitialSamples);
    m_current->setRange(0, kInitialCurrent);
}

void MotorCurrentChart::addSample(std::int64_t value)
{
    const int index = m_series->count();
    m_series->append(index, static_cast<qreal>(value));
    // The axes only ever grow, so a finished test stays readable as a whole.
    if (index > m_samples->max()) {
        // Room for half as many samples again: whole samples, so a whole number.
        const int room = index + kInitialSamples / 2;
        m_samples->setMax(room);
    }
    if (value > m_peak) {
        m_peak = value;
        m_current->setMax(std::max<qreal>(kInitialCurrent, static_cast<qreal>(value) * 1.15));
    }
}

QSize MotorCurrentChart::minimumSizeHint() const
{
    // The current axis's title runs up the plot's side: the plot is kept at least as tall as
    // the title is long, so that a larger font does not cut it.
    const QFontMetrics title(m_current->titleFont());
    const QFontMetrics labels(m_samples->labelsFont());
    const int height = title.horizontalAdvance(m_current->titleText()) + title.height() +
                       2 * labels.height() + kAxisMargins;
    return {kMinimumWidth, std::max(kMinimumHeight, height)};
}

int MotorCurrentChart::sampleCount() const
{
    return m_series->count();
}

} // namespace dravinel
