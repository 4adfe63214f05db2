#include <OrvellaKit/ORVLocalization.h>

#include <QPointer>
#include <QTranslator>

#include <mutex>

bool ORVInstallTranslations(const QLocale &locale)
{
    static std::mutex lock;
    static QPointer<QTranslator> installed;
    std::lock_guard guard(lock);
    QCoreApplication *app = QCoreApplication::instance();
    if (!app)
        return false;
    auto translator = std::make_unique<QTranslator>(app);
    if (!translator->load(locale, QStringLiteral("orvellakit"), QStringLiteral("_"), QStringLiteral(":/i18n")))
        return false;
    if (installed) {
        QCoreApplication::removeTranslator(installed);
        delete installed.data();
    }
    installed = translator.release();
    return QCoreApplication::installTranslator(installed);
}
