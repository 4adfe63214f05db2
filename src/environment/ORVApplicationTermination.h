#pragma once

// Ends the application from wherever it is: inside the event loop (nested
// loops such as a modal alert's included) at once, before the loop has
// started as soon as it does.

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
        QCoreApplication::quit();
    else
        QMetaObject::invokeMethod(app, &QCoreApplication::quit, Qt::QueuedConnection);
}

} // namespace orv::detail
