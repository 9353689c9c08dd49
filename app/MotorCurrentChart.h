#pragma once

#include <QChartView>

#include <cstdint>

class QLineSeries;
class QValueAxis;

// The motor current of the running motor test, sample by sample, so the technician sees the
// inrush, the plateau and the rise at the end of travel rather than only the latest number.

namespace dravinel {

class MotorCurrentChart : public QChartView
{
    Q_OBJECT

public:
    explicit MotorCurrentChart(QWidget* parent = nullptr);

    void clear();
    void addSample(std::int64_t value);
    int sampleCount() const;

    // Constant for a font, unlike a view's hint that follows its scene: the space kept for the
    // chart must not change once it shows.
    QSize sizeHint() const override { return minimumSizeHint(); }
    QSize minimumSizeHint() const override;

private:
    static constexpr int kMinimumWidth = 240;
    static constexpr int kMinimumHeight = 160;
    static constexpr int kAxisMargins = 32;

    QLineSeries* m_series;
    QValueAxis* m_samples;
    QValueAxis* m_current;
    std::int64_t m_peak = 0;
};

} // namespace dravinel
