#pragma once

// Two ways to end the application from wherever it is, inside the event
// loop (nested loops such as a modal alert's included) or before it runs.

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>

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
// main thread ends with 0, the ones running now and every one started later
// up to and including the application's own exec(). A window that refuses
// to close (an alert without an Escape button) cannot keep it running, and
// neither can start-up code that goes on after a modal loop ended: exec()
// clears a pending exit when it starts, so a single QCoreApplication::exit()
// before it would be lost. Loops run once exec() has returned (in
// aboutToQuit handlers, say) are left alone, and a call made then does
// nothing, where Qt says so by emitting aboutToQuit after exec()'s loop
// (Qt 6.4); a Qt that emits it from exit() itself gives no such sign, and
// there such loops end at once too.
void endApplication();

} // namespace orv::detail
