#include <OrvellaKitWidgets/ORVMBackgroundView.h>

#include <QPaintEvent>
#include <QPainter>

ORVMBackgroundView::ORVMBackgroundView(QWidget *parent) : QWidget(parent)
{
    // The colour may be translucent: let the parent paint first.
    setAttribute(Qt::WA_OpaquePaintEvent, false);
}

void ORVMBackgroundView::setBackgroundColor(const QColor &color)
{
    _backgroundColor = color;
    update();
}

void ORVMBackgroundView::paintEvent(QPaintEvent *event)
{
    if (!_backgroundColor.isValid())
        return;
    QPainter painter(this);
    painter.fillRect(event->rect(), _backgroundColor);
}
