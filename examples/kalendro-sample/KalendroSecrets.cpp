#include "KalendroSecrets.h"

#include <OrvellaKit/ORVOrvellaTokenManager.h>

#include <OrvellaKit/ORVStringWithFormat.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
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
    // the main thread, one at a time, each writing everything there is.
    {
        std::lock_guard lock(_lock);
        _keyringWritePending = true;
        if (_keyringWriting)
            return;
        _keyringWriting = true;
    }
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [this] { writeKeyring(); }, Qt::QueuedConnection);
}

// Asynchronous, without a nested event loop: an application quitting while
// a job runs (QCoreApplication::exit() ends every running event loop) would
// otherwise lose the write; an unfinished job is waited for by flush().
void KalendroSecrets::writeKeyring()
{
    QByteArray json;
    {
        std::lock_guard lock(_lock);
        if (!_keyringWritePending) {
            _keyringWriting = false;
            return;
        }
        _keyringWritePending = false;
        json = QJsonDocument(_values).toJson(QJsonDocument::Compact);
    }
    auto *job = new QKeychain::WritePasswordJob(kService);
    job->setKey(kKey);
    job->setInsecureFallback(false);
    job->setBinaryData(json);
    job->setAutoDelete(true);
    QObject::connect(job, &QKeychain::Job::finished, job, [this, job] {
        if (job->error() != QKeychain::NoError)
            qWarning("kalendro-sample: the keyring did not store the secrets: %s", qPrintable(job->errorString()));
        writeKeyring(); // what changed meanwhile
    });
    job->start();
}

bool KalendroSecrets::keyringWriting() const
{
    std::lock_guard lock(_lock);
    return _keyringWriting;
}

void KalendroSecrets::flush()
{
    if (!_keyring)
        return;
    QDeadlineTimer deadline(kKeyringTimeoutMs);
    QTimer wake; // wakes the wait below to look at the deadline
    wake.start(50);
    while (keyringWriting() && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    if (keyringWriting())
        qWarning("kalendro-sample: the keyring did not answer in time; the newest secrets may not be stored");
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

namespace {

bool isSecretKey(const QString &key)
{
    return key.startsWith(ORVOrvellaAccountKeyUbiquitousKeyPrefix);
}

QString secretName(const QString &key)
{
    return QStringLiteral("ubiquitous/") + key;
}

} // namespace

KalendroKeyValueStore::KalendroKeyValueStore(std::shared_ptr<KalendroSecrets> secrets)
    : _secrets(std::move(secrets)), _local(std::make_shared<ORVLocalKeyValueStore>())
{
}

QVariant KalendroKeyValueStore::objectForKey(const QString &key) const
{
    if (!isSecretKey(key))
        return _local->objectForKey(key);
    const QString stored = _secrets->value(secretName(key));
    if (!stored.isNull())
        return QByteArray::fromBase64(stored.toLatin1());
    // Kept in the file by an earlier version: moved, not lost.
    const QVariant old = _local->objectForKey(key);
    if (old.typeId() == QMetaType::QByteArray) {
        _secrets->setValue(secretName(key), QString::fromLatin1(old.toByteArray().toBase64()));
        _local->removeObjectForKey(key);
    }
    return old;
}

void KalendroKeyValueStore::setObject(const QVariant &value, const QString &key)
{
    if (!isSecretKey(key))
        return _local->setObject(value, key);
    _secrets->setValue(secretName(key), value.isValid() ? QString::fromLatin1(value.toByteArray().toBase64()) : QString());
    _local->removeObjectForKey(key);
}

bool KalendroKeyValueStore::synchronize()
{
    return _local->synchronize();
}
