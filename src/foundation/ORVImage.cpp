#include <OrvellaKit/ORVImage.h>

#include <OrvellaKit/ORVException.h>

#include <QPainter>

#include <cmath>

namespace {
thread_local int t_animationsDisabled = 0;
} // namespace

QImage orv_imageWithData(const QByteArray &data)
{
    if (!ORVMethodParameterAssert(!data.isNull(), "data != nil", "orv_imageWithData:", "QImage", "NSUIImage+OrvellaKit"))
        return {};
    return QImage::fromData(data);
}

void orv_drawImageApplyingTintColor(QPainter &painter, const QRectF &rect, const QImage &image,
                                    const QColor &tintColor, bool flipped)
{
    // QPainter has no transparency layer; an offscreen image of the
    // destination's device size plays that part, so the source-in fill only
    // sees the tinted image and not what is already on the painter.
    const qreal ratio = painter.device() ? painter.device()->devicePixelRatioF() : 1.0;
    const QSize pixels(std::max(1, int(std::ceil(rect.width() * ratio))), std::max(1, int(std::ceil(rect.height() * ratio))));
    QImage layer(pixels, QImage::Format_ARGB32_Premultiplied);
    layer.setDevicePixelRatio(ratio);
    layer.fill(Qt::transparent);
    {
        QPainter layerPainter(&layer);
        layerPainter.setRenderHint(QPainter::SmoothPixmapTransform);
        const QRectF target(QPointF(0, 0), rect.size());
        if (flipped) {
            layerPainter.translate(0, target.height());
            layerPainter.scale(1, -1);
        }
        layerPainter.setCompositionMode(QPainter::CompositionMode_SourceOver);
        layerPainter.setOpacity(1.0);
        layerPainter.drawImage(target, image, QRectF(image.rect()));
        layerPainter.resetTransform();
        layerPainter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        layerPainter.fillRect(target, tintColor);
    }
    painter.save();
    painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
    painter.drawImage(rect, layer);
    painter.restore();
}

QImage orv_imageByApplyingTintColor(const QImage &image, const QColor &tintColor, bool flipped, qreal devicePixelRatio)
{
    if (!ORVMethodParameterAssert(tintColor.isValid(), "tintColor != nil", "orv_imageByApplyingTintColor:flipped:",
                                  "QImage", "NSUIImage+OrvellaKit"))
        return {};
    if (image.isNull())
        return {};
    const qreal ratio = devicePixelRatio > 0 ? devicePixelRatio : image.devicePixelRatio();
    const QSizeF logical = image.deviceIndependentSize();
    QImage result(QSize(std::max(1, int(std::ceil(logical.width() * ratio))),
                        std::max(1, int(std::ceil(logical.height() * ratio)))),
                  QImage::Format_ARGB32_Premultiplied);
    result.setDevicePixelRatio(ratio);
    result.fill(Qt::transparent);
    QPainter painter(&result);
    orv_drawImageApplyingTintColor(painter, QRectF(QPointF(0, 0), logical), image, tintColor, flipped);
    return result;
}

void orv_performWithoutAnimation(const std::function<void()> &actions)
{
    if (!ORVMethodParameterAssert(static_cast<bool>(actions), "actions != NULL", "orv_performWithoutAnimation:",
                                  "ORVAnimation", "CATransaction+OrvellaKit"))
        return;
    struct Disabled {
        Disabled() { ++t_animationsDisabled; }
        ~Disabled() { --t_animationsDisabled; }
    } disabled;
    actions();
}

bool ORVAnimationsEnabled()
{
    return t_animationsDisabled == 0;
}
