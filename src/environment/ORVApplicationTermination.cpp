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

// Connected as the application object is made, so it comes before the
// application's own aboutToQuit handlers: emitted outside every loop,
// aboutToQuit says exec() has returned, and loops the handlers run to
// finish their work must not be ended.
void watchForTheEndOfExec()
{
    QObject::connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, [] {
        if (QThread::currentThread()->loopLevel() == 0 && ender())
            ender()->stop();
    });
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
    if (!ender()) {
        ender() = new QTimer(app);
        // Soon enough for a loop to end unnoticed, and no busy loop for
        // code that waits for events in a loop of its own meanwhile.
        ender()->setInterval(10);
        QObject::connect(ender(), &QTimer::timeout, app, [] { QCoreApplication::exit(0); });
    }
    ender()->start();
    if (QThread::currentThread()->loopLevel() > 0)
        QCoreApplication::exit(0);
}

} // namespace orv::detail
