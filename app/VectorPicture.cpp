#include "VectorPicture.h"

#include <QPainter>
#include <QRectF>
#include <QSvgRenderer>

namespace dravinel {

QPixmap renderPicture(const QString& path, QSize size, qreal devicePixelRatio)
{
    if (size.isEmpty())
        return QPixmap();
    QSvgRenderer renderer(path);
    if (!renderer.isValid())
        return QPixmap();
    QPixmap pixmap(size * devicePixelRatio);
    pixmap.setDevicePixelRatio(devicePixelRatio);
    pixmap.fill(Qt::transparent);

    QSizeF fitted = renderer.viewBoxF().size();
    fitted.scale(QSizeF(size), Qt::KeepAspectRatio);
    QRectF bounds(QPointF(0, 0), fitted);
    bounds.moveCenter(QRectF(QPointF(0, 0), QSizeF(size)).center());
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    renderer.render(&painter, bounds);
    return pixmap;
}

} // namespace dravinel
