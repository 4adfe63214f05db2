#include "KalendroSecrets.h"

#include <OrvellaKit/ORVStringWithFormat.h>

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSaveFile>
#include <QThread>
#include <QTimer>

#include <qt6keychain/keychain.h>

namespace {

const QString kService = QStringLiteral("kalendro-sample");
const QString kKey = QStringLiteral("secrets");
constexpr int kKeyringTimeoutMs = 3000;

// Runs a keychain job to its end (or the time-out) in a local event loop.
bool runJob(QKeychain::Job &job)
{
    QEventLoop loop;
    bool finished = false;
    QObject::connect(&job, &QKeychain::Job::finished, &loop, [&] {
        finished = true;
        loop.quit();
    });
    QTimer::singleShot(kKeyringTimeoutMs, &loop, &QEventLoop::quit);
    job.setAutoDelete(false);
    job.start();
    if (!finished)
        loop.exec();
    return finished;
}

} // namespace

KalendroSecrets::KalendroSecrets(QString fallbackFile) : _file(std::move(fallbackFile))
{
    // Without a session bus there is no Secret Service to ask.
    if (!qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) {
        QKeychain::ReadPasswordJob job(kService);
        job.setKey(kKey);
        job.setInsecureFallback(false);
        if (runJob(job) && (job.error() == QKeychain::NoError || job.error() == QKeychain::EntryNotFound)) {
            _keyring = true;
            _values = QJsonDocument::fromJson(job.binaryData()).object();
            return;
        }
    }
    QFile file(_file);
    if (file.open(QIODevice::ReadOnly))
        _values = QJsonDocument::fromJson(file.readAll()).object();
}

KalendroSecrets::~KalendroSecrets() = default;

QString KalendroSecrets::location() const
{
    return _keyring ? QStringLiteral("the Secret Service (keyring)") : _file;
}

QString KalendroSecrets::value(const QString &key) const
{
    std::lock_guard lock(_lock);
    const QJsonValue value = _values.value(key);
    return value.isString() ? value.toString() : QString();
}

void KalendroSecrets::setValue(const QString &key, const QString &value)
{
    {
        std::lock_guard lock(_lock);
        if (value.isNull())
            _values.remove(key);
        else
            _values.insert(key, value);
    }
    writeChanged();
}

void KalendroSecrets::clear()
{
    {
        std::lock_guard lock(_lock);
        _values = QJsonObject();
    }
    writeChanged();
}

void KalendroSecrets::writeChanged()
{
    if (!_keyring) {
        std::lock_guard lock(_lock);
        if (!writeFile(QJsonDocument(_values).toJson(QJsonDocument::Compact)))
            qWarning("kalendro-sample: could not write the secrets file %s; the secrets stay in memory only",
                     qPrintable(_file));
        return;
    }
    // The token manager calls in from its own threads; keyring jobs run on
    // the main thread, one write per burst of changes.
    {
        std::lock_guard lock(_lock);
        if (_keyringWritePending)
            return;
        _keyringWritePending = true;
    }
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [this] { flush(); }, Qt::QueuedConnection);
}

void KalendroSecrets::flush()
{
    if (!_keyring)
        return;
    QByteArray json;
    {
        std::lock_guard lock(_lock);
        if (!_keyringWritePending)
            return;
        _keyringWritePending = false;
        json = QJsonDocument(_values).toJson(QJsonDocument::Compact);
    }
    if (!writeKeyring(json))
        qWarning("kalendro-sample: the keyring did not store the secrets");
}

bool KalendroSecrets::writeKeyring(const QByteArray &json)
{
    QKeychain::WritePasswordJob job(kService);
    job.setKey(kKey);
    job.setInsecureFallback(false);
    job.setBinaryData(json);
    return runJob(job) && job.error() == QKeychain::NoError;
}

bool KalendroSecrets::writeFile(const QByteArray &json)
{
    QDir().mkpath(QFileInfo(_file).absolutePath());
    QSaveFile file(_file);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    // Owner only, before the first byte is written.
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    return file.write(json) == json.size() && file.commit();
}
