#include <OrvellaKit/ORVLocalization.h>

#include <QPointer>
#include <QTranslator>

#include <mutex>

namespace {
std::mutex g_lock;
QPointer<QTranslator> g_installed;

void removeInstalledLocked()
{
    if (g_installed) {
        QCoreApplication::removeTranslator(g_installed);
        delete g_installed.data();
    }
}
} // namespace

void ORVRemoveTranslations()
{
    std::lock_guard guard(g_lock);
    removeInstalledLocked();
}

bool ORVInstallTranslations(const QLocale &locale)
{
    std::lock_guard guard(g_lock);
    QCoreApplication *app = QCoreApplication::instance();
    if (!app)
        return false;
    auto translator = std::make_unique<QTranslator>(app);
    if (!translator->load(locale, QStringLiteral("orvellakit"), QStringLiteral("_"), QStringLiteral(":/i18n")))
        return false;
    removeInstalledLocked();
    g_installed = translator.release();
    return QCoreApplication::installTranslator(g_installed);
}
