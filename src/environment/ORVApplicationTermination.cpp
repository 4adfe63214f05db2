#include "ORVApplicationTermination.h"

#include <QPointer>
#include <QTimer>

namespace {

// The timer that ends every loop of the main thread once the application
// was told to end; none before.
QPointer<QTimer> &ender()
{
    static QPointer<QTimer> timer;
    return timer;
}

// Set on the application object once its exec() has returned, so it goes
// with that object.
constexpr char kExecReturned[] = "_orvExecReturned";

// Connected as the application object is made, so it comes before the
// application's own aboutToQuit handlers: emitted outside every loop,
// aboutToQuit says exec() has returned, and loops the handlers run to
// finish their work must not be ended.
void watchForTheEndOfExec()
{
    QCoreApplication *app = QCoreApplication::instance();
    QObject::connect(app, &QCoreApplication::aboutToQuit, app, [app] {
        if (QThread::currentThread()->loopLevel() != 0)
            return;
        app->setProperty(kExecReturned, true);
        if (ender())
            ender()->stop();
    });
}

// Whether an exit of ours is under way: a Qt that emits aboutToQuit from
// exit() runs handlers inside it, and a loop of theirs must not make the
// timer call exit() again from within.
bool exiting = false;

void exitOnce()
{
    if (exiting)
        return;
    exiting = true;
    QCoreApplication::exit(0);
    exiting = false;
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(watchForTheEndOfExec)

namespace orv::detail {

void endApplication()
{
    QCoreApplication *app = QCoreApplication::instance();
    if (!app)
        return;
    if (QThread::currentThread() != app->thread()) {
        QMetaObject::invokeMethod(app, [] { endApplication(); }, Qt::QueuedConnection);
        return;
    }
    // Told once exec() is over (in an aboutToQuit handler's loop, say): the
    // application is ending anyway, and loops it runs to finish its work
    // are left to finish.
    if (app->property(kExecReturned).toBool())
        return;
    if (!ender()) {
        ender() = new QTimer(app);
        // Soon enough for a loop to end unnoticed, and no busy loop for
        // code that waits for events in a loop of its own meanwhile.
        ender()->setInterval(10);
        QObject::connect(ender(), &QTimer::timeout, app, &exitOnce);
    }
    ender()->start();
    if (QThread::currentThread()->loopLevel() > 0)
        exitOnce();
}

} // namespace orv::detail
