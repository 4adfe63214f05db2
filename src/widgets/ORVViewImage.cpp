#include <OrvellaKitWidgets/ORVViewImage.h>

#include <QPixmap>
#include <QWidget>

#include <cmath>

QImage ORVImageRepFromView(QWidget *view, const QRect &rect, bool synchronous)
{
    if (!view)
        return {};
    const QRect area = rect.intersected(view->rect());
    if (area.isEmpty())
        return {};
    if (synchronous)
        return view->grab(area).toImage();
    const qreal ratio = view->devicePixelRatioF();
    QImage image(QSize(int(std::ceil(area.width() * ratio)), int(std::ceil(area.height() * ratio))),
                 QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(ratio);
    image.fill(0);
    view->render(&image, QPoint(), QRegion(area), QWidget::DrawChildren);
    return image;
}

QImage ORVImageFromView(QWidget *view, const QRect &rect, bool synchronous)
{
    return ORVImageRepFromView(view, rect, synchronous);
}
