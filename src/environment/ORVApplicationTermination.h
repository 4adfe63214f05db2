#pragma once

// Two ways to end the application from wherever it is, inside the event
// loop (nested loops such as a modal alert's included) or before it runs.

#include <QCoreApplication>
#include <QMetaObject>
#include <QPointer>
#include <QThread>
#include <QTimer>

namespace orv::detail {

// Asks the application to quit as a user would (QCoreApplication::quit()):
// its windows are asked to close and may refuse, an unsaved document's say.
// Before the event loop has started, as soon as it does.
inline void quitApplication()
{
    QCoreApplication *app = QCoreApplication::instance();
    if (!app)
        return;
    if (QThread::currentThread()->loopLevel() > 0)
        QCoreApplication::quit();
    else
        QMetaObject::invokeMethod(app, &QCoreApplication::quit, Qt::QueuedConnection);
}

// Ends the application whatever its windows say: every event loop of the
// main thread ends, the ones running now and every one started later up to
// and including the application's own exec(). A window that refuses to
// close (an alert without an Escape button) cannot keep it running, and
// neither can start-up code that goes on after a modal loop ended: exec()
// clears a pending exit when it starts, so a single QCoreApplication::exit()
// before it would be lost.
inline void endApplication()
{
    QCoreApplication *app = QCoreApplication::instance();
    if (!app)
        return;
    if (QThread::currentThread() != app->thread()) {
        QMetaObject::invokeMethod(app, [] { endApplication(); }, Qt::QueuedConnection);
        return;
    }
    static QPointer<QTimer> ender;
    if (!ender) {
        ender = new QTimer(app);
        ender->setInterval(0);
        QObject::connect(ender, &QTimer::timeout, app, [] { QCoreApplication::exit(0); });
        // Once exec() has returned the application is tearing down; a loop
        // it runs then (to flush a file, say) is left to finish.
        QObject::connect(app, &QCoreApplication::aboutToQuit, ender, &QTimer::stop);
        ender->start();
    }
    if (QThread::currentThread()->loopLevel() > 0)
        QCoreApplication::exit(0);
}

} // namespace orv::detail
