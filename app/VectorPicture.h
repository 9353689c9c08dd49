#pragma once

#include <QPixmap>
#include <QSize>
#include <QString>

// Draws the app's SVG pictures into pixmaps for labels.

namespace dravinel {

// The picture scaled to fit size, centred, on a transparent ground. A null pixmap when the
// file cannot be read.
QPixmap renderPicture(const QString& path, QSize size, qreal devicePixelRatio = 1.0);

} // namespace dravinel
