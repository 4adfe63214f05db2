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
// The first answer of a keyring includes starting libsecret's connection
// thread and opening a session with the daemon: well under a second on a
// desktop, several under a sanitizer. A keyring that answers nothing at all
// costs this long once, at start.
constexpr int kKeyringTimeoutMs = 10000;

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
            _stored = _values;
            return;
        }
    }
    QFile file(_file);
    if (file.open(QIODevice::ReadOnly))
        _values = QJsonDocument::fromJson(file.readAll()).object();
    _stored = _values;
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

bool KalendroSecrets::isStored(const QString &key, const QString &value) const
{
    std::lock_guard lock(_lock);
    return _stored.value(key).toString() == value;
}

void KalendroSecrets::clear()
{
    {
        std::lock_guard lock(_lock);
        for (const QString &key : _values.keys()) {
            if (!key.startsWith(QLatin1String("ubiquitous/")))
                _values.remove(key);
        }
    }
    writeChanged();
}

void KalendroSecrets::writeChanged()
{
    if (!_keyring) {
        std::lock_guard lock(_lock);
        if (writeFile(QJsonDocument(_values).toJson(QJsonDocument::Compact)))
            _stored = _values;
        else
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
    if (!QMetaObject::invokeMethod(
            _context.get(), [this] { writeKeyring(); }, Qt::QueuedConnection)) {
        std::lock_guard lock(_lock);
        _keyringWriting = false;
        _keyringWriteFailed = true;
    }
}

// Asynchronous, without a nested event loop: an application quitting while
// a job runs (QCoreApplication::exit() ends every running event loop) would
// otherwise lose the write; an unfinished job is waited for by flush().
void KalendroSecrets::writeKeyring()
{
    QJsonObject snapshot;
    {
        std::lock_guard lock(_lock);
        if (!_keyringWritePending) {
            _keyringWriting = false;
            return;
        }
        _keyringWritePending = false;
        snapshot = _values;
    }
    const QByteArray json = QJsonDocument(snapshot).toJson(QJsonDocument::Compact);
    auto *job = new QKeychain::WritePasswordJob(kService);
    job->setKey(kKey);
    job->setInsecureFallback(false);
    job->setBinaryData(json);
    job->setAutoDelete(true);
    QObject::connect(job, &QKeychain::Job::finished, _context.get(), [this, job, snapshot] {
        {
            std::lock_guard lock(_lock);
            if (job->error() == QKeychain::NoError)
                _stored = snapshot;
            else
                _keyringWriteFailed = true;
        }
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

bool KalendroSecrets::flush()
{
    if (!_keyring)
        return true;
    QDeadlineTimer deadline(kKeyringTimeoutMs);
    QTimer wake; // wakes the wait below to look at the deadline
    wake.start(50);
    while (keyringWriting() && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    std::lock_guard lock(_lock);
    if (_keyringWriting)
        qWarning("kalendro-sample: the keyring did not answer in time; the newest secrets may not be stored");
    const bool stored = !_keyringWriting && !_keyringWriteFailed;
    _keyringWriteFailed = false;
    return stored;
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
    std::lock_guard lock(_lock);
    const QString name = secretName(key);
    QString stored = _secrets->value(name);
    const QVariant old = _local->objectForKey(key);
    // Kept in the file by an earlier version: copied over, and taken out of
    // the file only once the secrets store holds it for sure.
    if (stored.isNull() && old.typeId() == QMetaType::QByteArray) {
        stored = QString::fromLatin1(old.toByteArray().toBase64());
        _secrets->setValue(name, stored);
    }
    if (old.isValid() && !stored.isNull() && _secrets->isStored(name, stored))
        _local->removeObjectForKey(key);
    return stored.isNull() ? QVariant() : QVariant(QByteArray::fromBase64(stored.toLatin1()));
}

void KalendroKeyValueStore::setObject(const QVariant &value, const QString &key)
{
    if (!isSecretKey(key))
        return _local->setObject(value, key);
    std::lock_guard lock(_lock);
    _secrets->setValue(secretName(key), value.isValid() ? QString::fromLatin1(value.toByteArray().toBase64()) : QString());
    if (!value.isValid())
        _local->removeObjectForKey(key); // or the next read would bring back the file's copy
}

bool KalendroKeyValueStore::synchronize()
{
    return _local->synchronize();
}
