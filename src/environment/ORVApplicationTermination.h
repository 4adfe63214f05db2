#pragma once

// Ends the application from wherever it is: inside the event loop (nested
// loops such as a modal alert's included) at once, before the loop has
// started as soon as it does. It exits the loops rather than asking the
// windows to close (QCoreApplication::quit()), since a window that refuses,
// such as an alert without an Escape button, would keep the application
// running after it was told to end.

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>

namespace orv::detail {

inline void terminateApplication()
{
    QCoreApplication *app = QCoreApplication::instance();
    if (!app)
        return;
    if (QThread::currentThread()->loopLevel() > 0)
        QCoreApplication::exit(0);
    else
        QMetaObject::invokeMethod(app, [] { QCoreApplication::exit(0); }, Qt::QueuedConnection);
}

} // namespace orv::detail
