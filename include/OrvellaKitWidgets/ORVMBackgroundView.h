#pragma once

/// \file
/// ORVMBackgroundView: a view that fills itself with one colour (white by
/// default), for the backgrounds of onboarding screens and the like.

#include <OrvellaKitWidgets/ORVWidgetsExport.h>

#include <QColor>
#include <QWidget>

/// A view that fills itself with one colour (white by default); the colour
/// may be translucent, the parent painting first.
///
/// Threads: main thread only.
/// Ownership: a QWidget; its parent, if any, owns it.
class ORVELLAKIT_WIDGETS_EXPORT ORVMBackgroundView : public QWidget {
    Q_OBJECT
    /// The fill colour; white by default.
    Q_PROPERTY(QColor backgroundColor READ backgroundColor WRITE setBackgroundColor)
public:
    /// A white view.
    explicit ORVMBackgroundView(QWidget *parent = nullptr);

    /// The fill colour.
    QColor backgroundColor() const { return _backgroundColor; }
    /// Repaints with the colour; an invalid colour paints nothing (the parent
    /// shows through).
    void setBackgroundColor(const QColor &color);

protected:
    /// Fills the damaged area with the colour.
    void paintEvent(QPaintEvent *event) override;

private:
    QColor _backgroundColor = Qt::white;
};
