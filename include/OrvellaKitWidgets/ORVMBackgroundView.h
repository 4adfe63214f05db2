#pragma once

// ORVMBackgroundView: a view that fills itself with one colour (white by
// default), for the backgrounds of onboarding screens and the like.

#include <QColor>
#include <QWidget>

class ORVMBackgroundView : public QWidget {
    Q_OBJECT
    Q_PROPERTY(QColor backgroundColor READ backgroundColor WRITE setBackgroundColor)
public:
    explicit ORVMBackgroundView(QWidget *parent = nullptr);

    QColor backgroundColor() const { return _backgroundColor; }
    // Repaints with the colour; an invalid colour paints nothing (the parent
    // shows through).
    void setBackgroundColor(const QColor &color);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QColor _backgroundColor = Qt::white;
};
