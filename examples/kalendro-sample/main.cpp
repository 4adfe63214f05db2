// Kalendro sample: the start-up sequence of a hosting application and one
// signed-in session against the account server.
//
//   kalendro-sample [--server URL] [--email E] [--password P] [--name N]
//                   [--sign-in-with password|google|apple] [--approve-as EMAIL]
//                   [--browser COMMAND] [--oidc-issuer URL --oidc-client-id ID
//                   [--oidc-client-secret S]] [--sign-out] [--refresh]
//                   [--verbose] [--gui] [--screenshots DIR] [--email-link]
//                   [--install-url-handler] [--request-key | --recovery-code |
//                   --reset-key] [--approve-device] [--show-recovery-code]
//                   [--note TEXT] [LINK]
//
// Without --server it runs the reference account server inside the process
// on 127.0.0.1 (its state kept in the data folder, so a second run finds the
// account and the device again). Each step is printed in plain words; the
// secrets themselves are never printed. With --gui the preferences window
// stays open afterwards; --screenshots writes a PNG of each window and ends.
// A sign-in link as the argument signs in with it, or is handed to the copy
// already running.

#include "KalendroAccount.h"
#include "KalendroCommandLog.h"
#include "KalendroLinks.h"
#include "KalendroSecrets.h"
#include "KalendroSignInWindow.h"
#include "KalendroTokenManager.h"
#include "KalendroWindows.h"

#include <AccountServer.h>

#include <OrvellaKit/OrvellaKit.h>
#include <OrvellaKitWidgets/ORVDuplicateAppManager.h>
#include <OrvellaKitWidgets/ORVOpenIDSignIn.h>
#include <OrvellaKit/ORVOrvellaKeyTransfer.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QJsonDocument>
#include <QProcess>
#include <QSet>
#include <QSocketNotifier>
#include <QTextStream>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>
#include <functional>

ORV_LOG_FILE("Kalendro")

namespace {

class KalendroCoordinator : public ORVPlatformCoordinator {
public:
    QString appName() const override { return QStringLiteral("Kalendro"); }
    QString appGroupIdentifier() const override { return QString(); }
};

void say(const QString &line)
{
    static QTextStream stream(stdout);
    stream << "kalendro-sample: " << line << Qt::endl;
}

QString describe(const ORVError &error)
{
    QString text = error.localizedDescription();
    if (!error.localizedFailureReason().isEmpty())
        text += QStringLiteral(" ") + error.localizedFailureReason().simplified();
    return ORVStringWithFormat("%@ (%@ %ld)", text, error.domain(), static_cast<long>(error.code()));
}

// Reads one line from standard input without blocking the main loop; an
// empty string at its end (or when it cannot be read).
void readLineFromStandardInput(std::function<void(const QString &line)> done)
{
    auto *notifier = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, QCoreApplication::instance());
    auto buffer = std::make_shared<QByteArray>();
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [notifier, buffer, done] {
        char chunk[256];
        const ssize_t count = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (count > 0)
            buffer->append(chunk, static_cast<qsizetype>(count));
        const qsizetype end = buffer->indexOf('\n');
        if (end < 0 && count > 0 && buffer->size() < 4096)
            return;
        notifier->setEnabled(false);
        notifier->deleteLater();
        done(QString::fromUtf8(end < 0 ? *buffer : buffer->left(end)).trimmed());
    });
}

// What to do when the account does not accept this device's key.
enum class KeyChoice { Ask, RequestFromOtherDevice, RecoveryCode, Reset };

// The signed-in session, one asynchronous step after the other on the main
// thread. Every step ends in next() or fail().
class Session {
public:
    Session(std::shared_ptr<KalendroTokenManager> tokens, QString secretsLocation, QString email, QString password,
            QString name, bool refresh)
        : _tokens(std::move(tokens)), _secrets(std::move(secretsLocation)), _email(std::move(email)),
          _password(std::move(password)), _name(std::move(name)), _refresh(refresh)
    {
    }

    // With a browser sign-in, nobody types a password: the provider says
    // who the user is.
    void useBrowserSignIn(std::unique_ptr<ORVOpenIDSignIn> browser) { _browser = std::move(browser); }
    // Signs in with the magic token of a sign-in link instead.
    void useMagicToken(const QString &token) { _magicToken = token; }
    // Only asks the server to mail a sign-in link; `mailbox` says where the
    // embedded server drops it (empty for another server).
    void useEmailLink(const QString &mailbox)
    {
        _emailLink = true;
        _mailbox = mailbox;
    }

    // What the command line says about the encryption key.
    void useKeyChoice(KeyChoice choice) { _keyChoice = choice; }
    void approveDeviceWhenReady() { _approveDevice = true; }
    void showRecoveryCodeWhenReady() { _showRecoveryCode = true; }
    void writeNote(const QString &note) { _note = note; }

    // A sign-in link that a later copy forwarded.
    void signInWithMagicLink(const QString &token)
    {
        if (begin(QStringLiteral("Signing in with the link…")))
            magicSignIn(token);
    }

private:
    // One thing at a time: false (and nothing done) while another runs.
    bool begin(const QString &what)
    {
        if (_busy) {
            say("another sign-in runs; this request is ignored");
            return false;
        }
        _busy = true;
        if (started)
            started(what);
        return true;
    }

    void magicSignIn(const QString &token)
    {
        say("signing in with the sign-in link");
        _tokens->signInWithMagicToken(token, [this](std::shared_ptr<ORVOrvellaAccount> account, const ORVError &error) {
            if (!account)
                return fail("the sign-in link was not accepted", error);
            signedIn(account);
        });
    }

public:
    // What happens when the session ends (0: every step passed); the
    // application exits with the code unless something else is set.
    std::function<void(int)> finished = [](int code) { QCoreApplication::exit(code); };
    // With a window, failures and news go to it and the session goes on.
    std::function<void(const QString &what, const ORVError &error)> failed;
    std::function<void(const QString &message)> informed;

    // Says what starts (the window shows it and waits).
    std::function<void(const QString &what)> started;
    // A sign-in, the account checks after it, or a link request runs.
    bool isBusy() const { return _busy; }

    // The account's key is not this device's (the window offers the ways
    // on): `message` says why, or what happened.
    std::function<void(const QString &message)> keyChoices;
    // The confirmation code this device shows while it asks for the key.
    std::function<void(const QString &code)> keyCodeShown;
    // A device asks for the key (empty name: no longer); the user may take
    // it up. Then, once taken up, the window asks for the code it shows.
    std::function<void(const QString &deviceName)> approvalShown;
    std::function<void()> approvalCodeWanted;

    // Whether this device is asking its other devices for the key.
    std::function<void(bool asking)> keyRequestRunning;

    // What the key page asks for; asked again while asking, it stops.
    void requestKeyFromOtherDevice()
    {
        if (_keyRequest)
            return _keyRequest->cancel();
        if (begin(QStringLiteral("Asking your other devices for the key…")))
            askForKey();
    }
    void restoreKey(const QString &code)
    {
        if (begin(QStringLiteral("Checking the recovery code…")))
            restoreKeyWithCode(code);
    }
    void resetKey()
    {
        if (begin(QStringLiteral("Resetting the key…")))
            resetToThisDevicesKey();
    }
    // What the account page asks for, on a device that has the key: the
    // user says the request is theirs, then types the code it shows.
    void takeUpOfferedRequest()
    {
        if (_offered && !_approval)
            takeUp(*std::exchange(_offered, std::nullopt));
    }
    void approveDevice(const QString &typedCode)
    {
        // One answer at a time: a second click while one is on its way waits.
        if (!_approval || _answering)
            return;
        _answering = true;
        _approval->approve(_key, typedCode, [this, approval = _approval](bool success, const ORVError &error) {
            if (approval != _approval)
                return; // dropped meanwhile (signed out)
            _answering = false;
            if (success) {
                say("sent the encryption key to the other device, encrypted for it alone");
                return approvalEnded(QStringLiteral("The other device has your encryption key now."), 0);
            }
            if (error.code() == ORVOrvellaKeyApprovalCodeMismatchErrorCode && approvalShown) {
                say("the typed code does not match the one this device computed");
                return informed(QStringLiteral("That code does not match; check it, or refuse."));
            }
            say("the key was not sent: " + describe(error));
            if (error.code() == ORVOrvellaKeyApprovalCodeMismatchErrorCode)
                return refuseDevice(1);
            approvalEnded(QStringLiteral("The key was not sent."), 1);
        });
    }
    void refuseDevice(int status = 0)
    {
        // Refused before it was taken up.
        if (_offered && !_approval)
            _approval = ORVOrvellaKeyApproval::create(_tokens, *std::exchange(_offered, std::nullopt));
        if (!_approval || _answering)
            return;
        _answering = true;
        _approval->refuse([this, status, approval = _approval](bool success, const ORVError &error) {
            if (approval != _approval)
                return; // dropped meanwhile (signed out)
            _answering = false;
            say(success ? QStringLiteral("refused the other device's request for the key")
                        : QStringLiteral("could not refuse the request: ") + describe(error));
            approvalEnded(QStringLiteral("The request was refused."), success ? status : 1);
        });
    }
    // The recovery code of the accepted key; empty before.
    QString recoveryCode() const { return ORVEncryptionKeyRecoveryCode(_key); }
    // With a window: once the key is accepted, look for devices that ask
    // for it every `milliseconds`.
    void watchForKeyRequests(int milliseconds)
    {
        _lookout.setInterval(milliseconds);
        QObject::connect(&_lookout, &QTimer::timeout, [this] { lookForKeyRequests(); });
    }

    // What the sign-in window asks for.
    void signInWithPassword(const QString &email, const QString &password)
    {
        if (!begin(QStringLiteral("Signing in…")))
            return;
        _browser.reset();
        _email = email;
        _password = password;
        signIn();
    }
    void createAccountAndSignIn(const QString &name, const QString &email, const QString &password)
    {
        if (!begin(QStringLiteral("Creating the account…")))
            return;
        _browser.reset();
        _name = name;
        _email = email;
        _password = password;
        _accountMustBeNew = true;
        createAccount();
    }
    void signInThroughBrowser(std::unique_ptr<ORVOpenIDSignIn> browser)
    {
        if (!begin(QStringLiteral("Approve the sign-in in your browser…")))
            return;
        _browser = std::move(browser);
        signInWithBrowser();
    }
    // Cancels a browser sign-in that still waits for the browser.
    void stopBrowserSignIn() { _browser.reset(); }
    // At the end and at sign-out: a request for the key is withdrawn, an
    // approval dropped, the key forgotten until the next check.
    void stopKeyTransfers()
    {
        _lookout.stop();
        _offered.reset();
        _seenRequests.clear();
        _key.clear();
        _answering = false;
        if (auto request = std::exchange(_keyRequest, nullptr)) {
            // Its end is not waited for: the session is free again now.
            _busy = false;
            if (keyRequestRunning)
                keyRequestRunning(false);
            request->cancel();
        }
        if (auto approval = std::exchange(_approval, nullptr))
            approval->cancel();
    }
    void emailLinkTo(const QString &email)
    {
        if (!begin(QStringLiteral("Sending the link…")))
            return;
        _email = email;
        emailLink();
    }

    void start()
    {
        if (!begin(QStringLiteral("Signing in…")))
            return;
        if (_emailLink)
            return emailLink();
        if (!_magicToken.isEmpty())
            return magicSignIn(_magicToken);
        const auto account = ORVFetchOrvellaAccount();
        if (account->username() && _tokens->credentialForOrvellaAccount(account)) {
            say(ORVStringWithFormat("this device is registered for %@; %@", *account->username(),
                                    _refresh ? "exchanging the device credential for a fresh access token"
                                             : "asking for an access token (a stored one is used while it lasts)"));
            requestToken(/*signInOnFailure=*/true);
        } else if (_browser) {
            signIn();
        } else {
            say(ORVStringWithFormat("nobody is signed in; creating the account %@ (or using it if it exists)", _email));
            createAccount();
        }
    }

private:
    void createAccount()
    {
        _tokens->createAccountWithName(_name, _email, _password, [this](const ORVError &error) {
            if (!error)
                say("account created");
            else if (error.code() == 7 && !_accountMustBeNew)
                say("the account already exists");
            else
                return fail("could not create the account", error);
            signIn();
        });
    }

    void signIn()
    {
        if (_browser)
            return signInWithBrowser();
        say(ORVStringWithFormat("signing in as %@ with the password", _email));
        _tokens->registerDevice({_email, _password}, [this](std::shared_ptr<ORVOrvellaAccount> account,
                                                            const ORVError &error) {
            if (!account)
                return fail("sign-in failed", error);
            signedIn(account);
        });
    }

    void emailLink()
    {
        say(ORVStringWithFormat("asking the server to mail a sign-in link to %@", _email));
        auto account = ORVFetchOrvellaAccount();
        ORVURLRequest urlRequest(account->URLForServerEndpoint(ORVOrvellaServerEndpointAuthMagicInstant));
        urlRequest.setHTTPMethod(QStringLiteral("POST"));
        urlRequest.setValue(QStringLiteral("application/json"), QStringLiteral("Content-Type"));
        urlRequest.setHTTPBody(QJsonDocument(QJsonObject{{"email", _email}}).toJson(QJsonDocument::Compact));
        auto request = ORVOrvellaSimpleRequest::requestWithURLRequest(urlRequest);
        request->setCategory(QStringLiteral("Kalendro sign-in link"));
        request->setCompletionHandler([this](const std::shared_ptr<ORVOrvellaData> &data,
                                             const std::optional<ORVHTTPURLResponse> &response, const ORVError &error) {
            const int status = response ? response->statusCode() : 0;
            const auto body = orv_JSONDictionaryWithData(data ? data->data() : QByteArray());
            // The server's field error, in the framework's words for it.
            if (status == 400 && body && body->contains(QStringLiteral("email")))
                return fail(QStringLiteral("the server sent no sign-in link"),
                            ORVError(ORVOrvellaTokenManagerErrorDomain, 11,
                                     {{ORVLocalizedFailureReasonErrorKey,
                                       ORVLocalizedString("Enter a valid email address.")}}));
            if (status != 200)
                return fail(ORVStringWithFormat("the server sent no sign-in link (HTTP %d)", status), error);
            const QString sent =
                _mailbox.isEmpty()
                    ? QStringLiteral("the server sent the sign-in link; open it on this computer")
                    : ORVStringWithFormat("the embedded server put the mail in %@; open the link in it, or give it "
                                          "to kalendro-sample as its argument",
                                          _mailbox);
            say(sent);
            if (informed) {
                _busy = false;
                return informed(sent);
            }
            finish(0);
        });
        ORVOrvellaNetworkManager::sharedManager()->startRequest(request);
    }

    void signInWithBrowser()
    {
        const auto &provider = _browser->configuration();
        say(ORVStringWithFormat("signing in with %@ through the browser (provider %@, client %@); approve there",
                                ORVOrvellaAccountTypeString(provider.accountType), provider.issuer,
                                provider.clientIdentifier));
        _browser->signIn(_tokens, [this](std::shared_ptr<ORVOrvellaAccount> account, const ORVError &error) {
            if (!account)
                return fail("sign-in through the browser failed", error);
            signedIn(account);
        });
    }

    void signedIn(const std::shared_ptr<ORVOrvellaAccount> &account)
    {
        say(ORVStringWithFormat("signed in: user %@ <%@>, this device is registered, the device credential is in %@",
                                account->username().value_or(QString()), account->emailAddress(), _secrets));
        say(ORVStringWithFormat("last sign-in remembered: %@ (%@)",
                                ORVOrvellaAccountTypeString(ORVOrvellaTokenManager::lastUsedAccountType()),
                                ORVOrvellaTokenManager::lastUsedEmail()));
        requestToken(/*signInOnFailure=*/false);
    }

    void requestToken(bool signInOnFailure)
    {
        const bool ignoreCache = _refresh && signInOnFailure;
        _tokens->requestTokenForAccount(ORVFetchOrvellaAccount(), nullptr, ignoreCache,
                                        [this, signInOnFailure](const QString &token, const ORVError &error) {
            // Token replies come on the token manager's queue.
            ORVDispatchQueue::mainQueue()->async([this, signInOnFailure, token, error] {
                if (token.isEmpty()) {
                    if (signInOnFailure && failed)
                        return fail("the server refused this device; sign in again", error);
                    if (signInOnFailure) {
                        say(ORVStringWithFormat("the server refused this device (%@); signing in again", describe(error)));
                        return signIn();
                    }
                    return fail("no access token", error);
                }
                const auto expiry = _tokens->expirationDateForToken(token);
                say(ORVStringWithFormat("have an access token, valid until %@",
                                        expiry ? expiry->toLocalTime().toString(Qt::ISODate) : QStringLiteral("?")));
                fetchDetails();
            });
        });
    }

    void fetchDetails()
    {
        auto account = ORVFetchOrvellaAccount();
        auto request = ORVOrvellaAccountRequest::requestWithURLRequest(
            ORVURLRequest(account->URLForServerEndpoint(ORVOrvellaServerEndpointAccountDetails)));
        request->setCategory(QStringLiteral("Kalendro account details"));
        request->setCompletionHandler([this](const std::shared_ptr<ORVOrvellaData> &data,
                                             const std::optional<ORVHTTPURLResponse> &response, const ORVError &error) {
            const int status = response ? response->statusCode() : 0;
            const auto details = orv_JSONDictionaryWithData(data ? data->data() : QByteArray());
            if (status != 200 || !details)
                return fail(ORVStringWithFormat("the account details request failed (HTTP %d)", status), error);
            say(ORVStringWithFormat("authenticated request: the server knows us as %@ <%@>, named \"%@\"",
                                    details->value("user").toString(), details->value("email").toString(),
                                    details->value("name").toString()));
            checkKey();
        });
        ORVOrvellaNetworkManager::sharedManager()->startRequest(request);
    }

    void checkKey()
    {
        const auto key = _tokens->encryptionKeyFromUbiquitousKeyValueStore();
        if (!key)
            return fail("no encryption key could be made", ORVError());
        say("checking the account's encryption key with the server");
        _tokens->checkEncryptionKey(*key, [this, key = *key](bool success, const ORVError &error) {
            if (success)
                return keyAccepted(key);
            if (error.domain() == ORVOrvellaTokenManagerErrorDomain && error.code() == 14)
                return keyNotAccepted();
            fail("the encryption key was not accepted", error);
        });
    }

    void keyAccepted(const QByteArray &key)
    {
        _key = key;
        say(ORVStringWithFormat("encryption key accepted (kept in the ubiquitous store and in %@)", _secrets));
        if (_showRecoveryCode)
            say(ORVStringWithFormat("recovery code of the account's encryption key (write it down and keep it safe: "
                                    "it reads your data): %@",
                                    recoveryCode()));
        syncNote([this] {
            if (_approveDevice)
                return approveNewestRequest();
            if (_lookout.interval() > 0)
                _lookout.start();
            finish(0);
        });
    }

    // The account's note on the server's key-value store, encrypted with
    // the account's key: written when the command line gives one, then read
    // back, so that two devices show they hold the same key.
    void syncNote(std::function<void()> next)
    {
        auto account = ORVFetchOrvellaAccount();
        QUrl url = account->URLForServerEndpoint(ORVOrvellaServerEndpointKeyValue);
        url.setPath(url.path() + QStringLiteral("kalendro/note"));
        const auto read = [this, url, next] {
            auto request = ORVOrvellaAccountRequest::requestWithURLRequest(ORVURLRequest(url));
            request->setCategory(QStringLiteral("Kalendro note"));
            request->setCompletionHandler([this, next](const std::shared_ptr<ORVOrvellaData> &data,
                                                       const std::optional<ORVHTTPURLResponse> &response,
                                                       const ORVError &) {
                const int status = response ? response->statusCode() : 0;
                const auto plain = status == 200 ? orv_decryptedDataWithKey(data ? data->data() : QByteArray(), _key)
                                                 : std::nullopt;
                if (plain)
                    say(ORVStringWithFormat("the account's note, decrypted with the key: \"%@\"", QString::fromUtf8(*plain)));
                else
                    say(status == 404 ? QStringLiteral("the account has no note yet (--note TEXT stores one)")
                                      : ORVStringWithFormat("the account's note could not be read (HTTP %d)", status));
                next();
            });
            ORVOrvellaNetworkManager::sharedManager()->startRequest(request);
        };
        if (_note.isEmpty())
            return read();
        const auto sealed = orv_encryptedDataWithKey(_note.toUtf8(), _key);
        ORVURLRequest put(url);
        put.setHTTPMethod(QStringLiteral("PUT"));
        put.setHTTPBody(sealed.value_or(QByteArray()));
        put.setValue(QStringLiteral("application/octet-stream"), QStringLiteral("Content-Type"));
        auto request = ORVOrvellaAccountRequest::requestWithURLRequest(put);
        request->setCategory(QStringLiteral("Kalendro note"));
        request->setCompletionHandler([this, read](const std::shared_ptr<ORVOrvellaData> &,
                                                   const std::optional<ORVHTTPURLResponse> &response, const ORVError &error) {
            const int status = response ? response->statusCode() : 0;
            if (status != 200)
                return fail(ORVStringWithFormat("the note was not stored (HTTP %d)", status), error);
            say("stored the note on the server, encrypted with the account's key");
            read();
        });
        ORVOrvellaNetworkManager::sharedManager()->startRequest(request);
    }

    void keyNotAccepted()
    {
        say("the encryption key was not accepted: the account's data is encrypted with a key this device does "
            "not have");
        switch (_keyChoice) {
        case KeyChoice::RequestFromOtherDevice:
            return askForKey();
        case KeyChoice::RecoveryCode:
            say("type the recovery code and press Enter:");
            return readLineFromStandardInput([this](const QString &code) { restoreKeyWithCode(code); });
        case KeyChoice::Reset:
            return resetToThisDevicesKey();
        case KeyChoice::Ask:
            break;
        }
        if (keyChoices) {
            _busy = false;
            return keyChoices(QString());
        }
        say("to bring the account's key to this device, run kalendro-sample again with one of:");
        say("  --request-key        approve from another device: on a device that has the key, run "
            "kalendro-sample --approve-device (or use its window) and type the code this one shows");
        say("  --recovery-code      enter the recovery code (--show-recovery-code prints it on a device that "
            "has the key)");
        say("  --reset-key          make this device's key the account's: data encrypted with the old key can "
            "no longer be read");
        finish(1);
    }

    // A step towards the key failed: the window offers the ways again.
    void keyFailed(const QString &what, const ORVError &error)
    {
        if (!keyChoices)
            return fail(what, error);
        say(error ? what + QStringLiteral(": ") + describe(error) : what);
        _busy = false;
        QString reason = error.localizedFailureReason();
        keyChoices(reason.isEmpty() ? what : reason);
    }

    void askForKey()
    {
        const QString name = _tokens->deviceName();
        say(ORVStringWithFormat("asking your other devices for the account's encryption key, as \"%@\"; on one "
                                "that has it, run kalendro-sample --approve-device or use its window",
                                name));
        auto request = ORVOrvellaKeyRequest::create(_tokens);
        _keyRequest = request;
        request->start(
            name,
            [this](const QString &code) {
                say(ORVStringWithFormat("confirmation code: %@ (type it on the other device)", code));
                if (keyCodeShown)
                    keyCodeShown(code);
            },
            [this, asked = std::weak_ptr(request)](bool success, const ORVError &error) {
                if (asked.lock() != _keyRequest)
                    return; // dropped meanwhile (signed out)
                _keyRequest.reset();
                if (keyRequestRunning)
                    keyRequestRunning(false);
                if (orv_isOrvellaKitCancelError(error) && keyChoices) {
                    say("stopped asking the other devices for the key");
                    _busy = false;
                    return keyChoices(QStringLiteral("You stopped asking your other devices."));
                }
                if (!success)
                    return keyFailed("the encryption key did not come from another device", error);
                say("encryption key received from the other device and accepted");
                keyArrived();
            });
        if (keyRequestRunning)
            keyRequestRunning(true);
    }

    void restoreKeyWithCode(const QString &code)
    {
        say("checking the recovery code");
        _tokens->restoreEncryptionKeyWithRecoveryCode(code, [this](bool success, const ORVError &error) {
            if (!success)
                return keyFailed("the recovery code was not accepted", error);
            say("encryption key restored from the recovery code and accepted");
            keyArrived();
        });
    }

    void resetToThisDevicesKey()
    {
        const auto key = _tokens->encryptionKeyFromUbiquitousKeyValueStore();
        if (!key)
            return fail("no encryption key could be made", ORVError());
        say("resetting the account's encryption key to this device's: data encrypted with the old key can no "
            "longer be read");
        _tokens->resetEncryptionKey(*key, [this](bool success, const ORVError &error) {
            if (!success)
                return keyFailed("the encryption key was not reset", error);
            say("the account's encryption key is now this device's");
            keyArrived();
        });
    }

    // The key this device now holds is the account's.
    void keyArrived()
    {
        const auto account = ORVFetchOrvellaAccount();
        const QByteArray key = _tokens->acceptedEncryptionKey(account->username().value_or(QString()));
        keyAccepted(key);
    }

    void approveNewestRequest()
    {
        ORVOrvellaKeyApproval::pendingRequests(_tokens, [this](const QList<ORVOrvellaKeyRequestInfo> &requests,
                                                               const ORVError &error) {
            if (error)
                return fail("the devices that ask for the key could not be listed", error);
            if (requests.isEmpty())
                return fail("no device asks for the encryption key (run kalendro-sample --request-key there first)",
                            ORVError());
            takeUp(requests.last());
        });
    }

    // With a window, between other things: a device that asks is shown,
    // and taken up only when the user says so. Each request is offered
    // once: taking one up gives a lying server a try at matching codes, so
    // that must never repeat by itself.
    void lookForKeyRequests()
    {
        if (_busy || _approval || _answering || _looking)
            return;
        _looking = true;
        ORVOrvellaKeyApproval::pendingRequests(_tokens, [this](const QList<ORVOrvellaKeyRequestInfo> &requests,
                                                               const ORVError &error) {
            _looking = false;
            if (_busy || _approval || _answering || !_lookout.isActive() || error)
                return;
            // An offer whose request went away (withdrawn, lapsed) goes too.
            if (_offered) {
                const bool stillThere = std::any_of(requests.begin(), requests.end(), [this](const auto &request) {
                    return request.identifier == _offered->identifier;
                });
                if (stillThere)
                    return;
                _offered.reset();
                if (approvalShown)
                    approvalShown(QString());
            }
            for (auto it = requests.rbegin(); it != requests.rend(); ++it) {
                if (_seenRequests.contains(it->identifier))
                    continue;
                _seenRequests.insert(it->identifier);
                _offered = *it;
                say(ORVStringWithFormat("\"%@\" asks for the account's encryption key", it->deviceName));
                if (approvalShown)
                    approvalShown(it->deviceName);
                return;
            }
        });
    }

    void takeUp(const ORVOrvellaKeyRequestInfo &request)
    {
        if (!approvalShown)
            say(ORVStringWithFormat("\"%@\" asks for the account's encryption key", request.deviceName));
        _approval = ORVOrvellaKeyApproval::create(_tokens, request);
        const QString name = request.deviceName;
        _approval->begin([this, name, approval = _approval](const QString &code, const ORVError &error) {
            // Cancelled or refused meanwhile: whoever did it ends the approval.
            if (approval != _approval || orv_isOrvellaKitCancelError(error))
                return;
            if (code.isEmpty()) {
                const bool suspicious = error.code() == ORVOrvellaKeyTransferUnverifiedErrorCode;
                return approvalEnded(suspicious ? QStringLiteral("The device that asked could not be verified, so "
                                                                 "nothing was sent. If you did not ask from a new "
                                                                 "device just now, someone may be after your key.")
                                                : QStringLiteral("The request could not be taken up; nothing was sent."),
                                     1, error);
            }
            if (approvalCodeWanted)
                return approvalCodeWanted();
            say(ORVStringWithFormat("type the code that \"%@\" shows and press Enter (an empty line refuses):", name));
            readLineFromStandardInput([this](const QString &typed) {
                if (typed.isEmpty())
                    return refuseDevice();
                approveDevice(typed);
            });
        });
    }

    void approvalEnded(const QString &message, int status, const ORVError &error = ORVError())
    {
        _approval.reset();
        if (approvalShown) {
            approvalShown(QString());
            if (!message.isEmpty() && informed)
                informed(message);
            if (error)
                say("the request for the key could not be taken up: " + describe(error));
            return;
        }
        if (error)
            return fail("the request for the key could not be taken up", error);
        finish(status);
    }

    void fail(const QString &what, const ORVError &error)
    {
        say(error ? what + QStringLiteral(": ") + describe(error) : what);
        if (failed) {
            _busy = false;
            return failed(what, error);
        }
        finish(1);
    }

    void finish(int code)
    {
        _busy = false;
        ORVDispatchQueue::mainQueue()->async([this, code] { finished(code); });
    }

    std::shared_ptr<KalendroTokenManager> _tokens;
    QString _secrets; // where the secrets go, for the user
    QString _email;
    QString _password;
    QString _name;
    bool _refresh;
    std::unique_ptr<ORVOpenIDSignIn> _browser;
    QString _magicToken;
    bool _emailLink = false;
    QString _mailbox;
    bool _accountMustBeNew = false; // "already exists" is an answer for the window
    bool _busy = false;
    KeyChoice _keyChoice = KeyChoice::Ask;
    bool _approveDevice = false;
    bool _showRecoveryCode = false;
    QString _note;
    QByteArray _key; // the account's key, once accepted
    std::shared_ptr<ORVOrvellaKeyRequest> _keyRequest;
    std::shared_ptr<ORVOrvellaKeyApproval> _approval;
    std::optional<ORVOrvellaKeyRequestInfo> _offered; // shown, not yet taken up
    QSet<QString> _seenRequests;                      // offered once each
    bool _answering = false;                          // an approve or refuse on its way
    QTimer _lookout;
    bool _looking = false;
};

// SIGTERM and SIGINT quit the event loop, so that the end of main() runs.
// The handler only writes a byte; a socket notifier reads it on the main thread.
int terminationPipe[2] = {-1, -1};

void kalendroQuitOnTerminationSignals()
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, terminationPipe) != 0)
        return;
    auto *notifier = new QSocketNotifier(terminationPipe[1], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, QCoreApplication::instance(), [notifier] {
        char byte = 0;
        [[maybe_unused]] const auto ignored = ::read(terminationPipe[1], &byte, 1);
        notifier->setEnabled(false);
        // A second signal ends the process at once, should the way out hang.
        ::signal(SIGTERM, SIG_DFL);
        ::signal(SIGINT, SIG_DFL);
        say("asked to end; ending");
        QCoreApplication::quit();
    });
    struct sigaction action {};
    action.sa_handler = [](int) {
        const int savedErrno = errno;
        const char byte = 1;
        [[maybe_unused]] const auto ignored = ::write(terminationPipe[0], &byte, 1);
        errno = savedErrno;
    };
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
}

// The provider of a browser sign-in: the account server's own stand-in
// unless the command line names a real one.
ORVOpenIDProviderConfiguration browserProvider(const QString &kind, const QUrl &serverURL, const QCommandLineParser &parser,
                                              const QCommandLineOption &issuer, const QCommandLineOption &client,
                                              const QCommandLineOption &secret)
{
    ORVOpenIDProviderConfiguration provider;
    provider.accountType = kind == QLatin1String("apple") ? ORVOrvellaAccountTypeApple : ORVOrvellaAccountTypeGoogle;
    if (parser.isSet(issuer)) {
        provider.issuer = QUrl(parser.value(issuer));
        provider.clientIdentifier = parser.value(client);
        provider.clientSecret = parser.value(secret);
    } else {
        provider.issuer = serverURL.resolved(QUrl(QStringLiteral("oidc/") + kind));
        provider.clientIdentifier = QStringLiteral("kalendro-sample");
    }
    return provider;
}

// Opens the authorization address with the command (its words, then the
// address) instead of the desktop's browser.
ORVOpenIDSignIn::OpenURLHandler browserCommand(const QString &command)
{
    return [command](const QUrl &url) {
        QStringList words = QProcess::splitCommand(command);
        if (words.isEmpty())
            return false;
        const QString program = words.takeFirst();
        words << url.toString(QUrl::FullyEncoded);
        // The browser is left to end by itself; what it prints is its own
        // business, not the sample's output.
        QProcess browser;
        browser.setProgram(program);
        browser.setArguments(words);
        browser.setStandardOutputFile(QProcess::nullDevice());
        browser.setStandardErrorFile(QProcess::nullDevice());
        return browser.startDetached();
    };
}

} // namespace

int main(int argc, char **argv)
{
    // Nothing here needs a screen: without a display, draw off-screen.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && qEnvironmentVariableIsEmpty("DISPLAY") &&
        qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("kalendro-sample"));
    // The framework's texts (errors among them) in the user's language.
    ORVInstallTranslations();
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Kalendro sample hosting application"));
    parser.addHelpOption();
    const QCommandLineOption serverOption("server", "Use the account server at URL instead of the embedded one.", "URL");
    const QCommandLineOption emailOption("email", "The account's e-mail address.", "E", "demo@kalendro.example");
    const QCommandLineOption passwordOption("password", "The account's password.", "P", "kalendro-demo-2026");
    const QCommandLineOption nameOption("name", "The account's name.", "N", "Kalendro Demo");
    const QCommandLineOption signOutOption("sign-out", "Forget the saved account and secrets first.");
    const QCommandLineOption refreshOption("refresh", "Get a fresh access token even when a stored one is valid.");
    const QCommandLineOption verboseOption("verbose", "Log everything (level verbose) to the log files.");
    const QCommandLineOption guiOption("gui", "Show the preferences window afterwards (its menu opens the crash report "
                                              "dialog and the pending usage reports).");
    const QCommandLineOption screenshotsOption("screenshots", "Write a PNG of each window into DIR, then end.", "DIR");
    const QCommandLineOption signInWithOption("sign-in-with",
                                              "How to sign in when nobody is: password (the default), or google or "
                                              "apple through the browser.", "KIND", "password");
    const QCommandLineOption approveAsOption("approve-as", "The embedded server's identity provider approves every "
                                                           "browser sign-in at once as EMAIL (for scripts).", "EMAIL");
    const QCommandLineOption browserOption("browser", "Open the sign-in page with COMMAND (the address is added) "
                                                      "instead of the desktop's browser.", "COMMAND");
    const QCommandLineOption issuerOption("oidc-issuer", "A real OpenID provider's issuer for the browser sign-in.", "URL");
    const QCommandLineOption clientOption("oidc-client-id", "This application's client identifier there.", "ID");
    const QCommandLineOption secretOption("oidc-client-secret", "Its client secret, if the provider gave one.", "S");
    const QCommandLineOption emailLinkOption("email-link", "Ask the server to mail a sign-in link to --email, then end.");
    const QCommandLineOption installHandlerOption("install-url-handler",
                                                  "Make this program the desktop's handler of kalendro: links, then end.");
    const QCommandLineOption requestKeyOption("request-key", "When the account does not accept this device's "
                                                             "encryption key, ask another device for it and wait.");
    const QCommandLineOption approveDeviceOption("approve-device", "Once the key is accepted, approve the newest "
                                                                   "request for it (the code the other device shows "
                                                                   "is read from standard input).");
    const QCommandLineOption recoveryCodeOption("recovery-code", "When the account does not accept this device's "
                                                                 "key, read the recovery code from standard input.");
    const QCommandLineOption showRecoveryCodeOption("show-recovery-code",
                                                    "Once the key is accepted, print its recovery code.");
    const QCommandLineOption noteOption("note", "Once the key is accepted, store TEXT as the account's note, "
                                                "encrypted with the key (every run reads it back).", "TEXT");
    const QCommandLineOption resetKeyOption("reset-key", "When the account does not accept this device's key, make "
                                                         "it the account's (data encrypted with the old key can no "
                                                         "longer be read).");
    parser.addPositionalArgument("link", "A sign-in link (kalendro://magic?token=... or https://.../magic?token=...).",
                                 "[LINK]");
    parser.addOptions({serverOption, emailOption, passwordOption, nameOption, signOutOption, refreshOption, verboseOption,
                       guiOption, screenshotsOption, signInWithOption, approveAsOption, browserOption, issuerOption,
                       clientOption, secretOption, emailLinkOption, installHandlerOption, requestKeyOption,
                       approveDeviceOption, recoveryCodeOption, showRecoveryCodeOption, resetKeyOption, noteOption});
    parser.process(app);
    const QString signInKind = parser.value(signInWithOption);
    if (signInKind != QLatin1String("password") && signInKind != QLatin1String("google") &&
        signInKind != QLatin1String("apple")) {
        say(ORVStringWithFormat("--sign-in-with wants password, google or apple, not \"%@\"", signInKind));
        return 2;
    }
    if (parser.isSet(approveDeviceOption) && parser.isSet(guiOption)) {
        say("--approve-device is for the command line; with --gui the window shows requests for the key itself");
        return 2;
    }
    if (int(parser.isSet(requestKeyOption)) + int(parser.isSet(recoveryCodeOption)) + int(parser.isSet(resetKeyOption)) > 1) {
        say("--request-key, --recovery-code and --reset-key are three different ways: choose one");
        return 2;
    }
    if (parser.isSet(issuerOption) != parser.isSet(clientOption)) {
        say("--oidc-issuer and --oidc-client-id go together");
        return 2;
    }
    if (parser.isSet(installHandlerOption)) {
        QString problem;
        const QString entry = kalendroInstallURLHandler(QCoreApplication::applicationFilePath(), &problem);
        say(entry.isEmpty() ? QStringLiteral("the link handler could not be installed: ") + problem
                            : ORVStringWithFormat("kalendro: links now open this program (%@)", entry));
        return entry.isEmpty() ? 1 : 0;
    }
    std::optional<QString> magicToken;
    if (!parser.positionalArguments().isEmpty()) {
        const QUrl link(parser.positionalArguments().first());
        magicToken = kalendroMagicToken(link);
        if (parser.positionalArguments().size() > 1 || !magicToken) {
            say("the argument is not a sign-in link (kalendro://magic?token=... or https://.../magic?token=...)");
            return 2;
        }
    }
    // A windowed copy takes the bus name before anything else, so that of two
    // copies opened at once only one goes on to sign in with links; the other
    // hands its link over. Copies without a window never take links.
    const bool windowed = parser.isSet(guiOption) && !parser.isSet(screenshotsOption);
    KalendroLinkReceiver links;
    const bool receivesLinks = windowed && links.registerOnSessionBus();
    if (magicToken && !receivesLinks && kalendroForwardLink(QUrl(parser.positionalArguments().first()))) {
        say("handed the sign-in link to the copy that is already running");
        return 0;
    }

    const ORVBundle &bundle = ORVBundle::mainBundle();
    say(ORVStringWithFormat("OrvellaKit %@, bundle %@ (version %@)", ORVOrvellaKitVersionString(),
                            bundle.bundleIdentifier(), bundle.objectForInfoDictionaryKey("CFBundleVersion")));

    // 1. The platform coordinator.
    ORVRegisterPlatformCoordinator(std::make_shared<KalendroCoordinator>());
    say(ORVStringWithFormat("registered the platform coordinator for %@",
                            ORVCoordinator::platformCoordinator()->appName()));

    // 2. The account server: the embedded one keeps its state in the data
    // folder, so a second run finds the account and this device again.
    const QString dataFolder = ORVApplicationSupportDirectory(true);
    if (dataFolder.isEmpty()) {
        say("the data folder cannot be created (is HOME or XDG_DATA_HOME usable?); stopping");
        return 1;
    }
    std::unique_ptr<orv::server::AccountServer> embedded;
    QUrl serverURL(parser.value(serverOption));
    if (!parser.isSet(serverOption)) {
        embedded = std::make_unique<orv::server::AccountServer>();
        // The sample polls for key requests with its window open: a record
        // of every request would only grow.
        embedded->setRecordsRequests(false);
        const QString state = QDir(dataFolder).filePath(QStringLiteral("embedded-account-server.json"));
        if (parser.isSet(signOutOption))
            QFile::remove(state);
        if (!embedded->service().setStateFile(state.toStdString()))
            say(ORVStringWithFormat("the embedded server's state file %@ could not be read; it starts empty", state));
        if (!embedded->start()) {
            say("the embedded account server could not listen on 127.0.0.1");
            return 1;
        }
        serverURL = QUrl(QString::fromStdString(embedded->baseURL()) + QStringLiteral("/"));
        const QString mailbox = QDir(dataFolder).filePath(QStringLiteral("Mail"));
        QDir().mkpath(mailbox);
        QFile::setPermissions(mailbox, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        embedded->service().setMailDrop(mailbox.toStdString(), "kalendro://magic");
        if (parser.isSet(approveAsOption))
            embedded->service().setAuthorizationAnswer(
                orv::server::AuthorizationAnswer{parser.value(approveAsOption).toStdString(), "", "", ""});
        say(ORVStringWithFormat("started the embedded account server at %@ (state in %@)", serverURL, state));
    } else if (!serverURL.isValid() || serverURL.host().isEmpty()) {
        say(ORVStringWithFormat("--server wants a URL such as http://127.0.0.1:8080/, not \"%@\"",
                                parser.value(serverOption)));
        return 2;
    } else {
        if (!serverURL.path().endsWith('/'))
            serverURL.setPath(serverURL.path() + '/');
        say(ORVStringWithFormat("using the account server at %@", serverURL));
    }

    // 3. The account blocks over the account file.
    auto accounts = std::make_shared<KalendroAccountFile>(QDir(dataFolder).filePath(QStringLiteral("Account.json")),
                                                          embedded ? QStringLiteral("embedded") : serverURL.toString(),
                                                          serverURL);
    auto secrets = std::make_shared<KalendroSecrets>(QDir(dataFolder).filePath(QStringLiteral("secrets.json")));
    // The account encryption key is a secret too: not in the store's plain file.
    ORVUbiquitousKeyValueStore::setDefaultStore(std::make_shared<KalendroKeyValueStore>(secrets));
    if (parser.isSet(signOutOption)) {
        QFile::remove(accounts->path());
        secrets->clear();
        ORVOrvellaTokenManager::resetLastUsedAccount();
        say("forgot the saved account and its secrets");
    }
    QString problem;
    accounts->load(&problem);
    if (!problem.isEmpty())
        say(problem);
    ORVRegisterOrvellaAccountFetchBlock([accounts] { return accounts->current(); });
    ORVRegisterOrvellaAccountSaveBlock([accounts](std::shared_ptr<ORVOrvellaAccount> account,
                                                  ORVOrvellaAccountSaveCompletion completion) {
        const ORVError error = accounts->save(account);
        if (completion)
            completion(error);
    });
    say(ORVStringWithFormat("registered the account blocks over %@; current account: %@", accounts->path(),
                            std::static_pointer_cast<KalendroAccount>(accounts->current())->description()));

    // 4. The token manager, keeping its secrets in the keyring or a private file.
    auto tokens = std::make_shared<KalendroTokenManager>(secrets);
    ORVRegisterSharedTokenManager(tokens);
    say(ORVStringWithFormat("registered the token manager; secrets go to %@", secrets->location()));

    // 5. Logging, and the command log beside the log files.
    ORVDebug::sharedDebug()->setupLogging();
    orvRegisterFileLogLevel();
    if (parser.isSet(verboseOption))
        ORVDebug::sharedDebug()->setLogLevel(ORVLogLevelVerbose);
    const QString logs = ORVDebug::sharedDebug()->logsDirectoryURL().toLocalFile();
    auto commandLog = std::make_shared<KalendroCommandLog>(QDir(logs).filePath(QStringLiteral("commands.log")));
    ORVCommandLogger::setSharedLogger(commandLog);
    ORVLogInfo("Kalendro sample started with OrvellaKit %@", ORVOrvellaKitVersionString());
    say(ORVStringWithFormat("logging set up at level %lu", ORVDebug::sharedDebug()->logLevel()));

    // 6. Another copy of the sample: it may ask this one to quit; with a
    // window, this one asks the user about the other.
    auto duplicates = ORVDuplicateAppManager::sharedManager();
    const bool listening = duplicates->registerApp();
    if (const auto other = ORVFindDuplicateProcess(bundle.bundleIdentifier())) {
        say(ORVStringWithFormat("another copy of the sample is running (process %ld)",
                                static_cast<long>(other->processIdentifier)));
        if (parser.isSet(guiOption) && duplicates->quitDuplicates(false, false, QImage())) {
            say(QStringLiteral("this copy quits; the other one stays"));
            return 0;
        }
    } else {
        say(listening ? QStringLiteral("no other copy is running; a later copy can ask this one to quit")
                      : QStringLiteral("no other copy is running (no session bus to hear from later copies)"));
    }

    // 7. One usage report, due in a week, to the server's collection endpoint.
    auto usage = ORVDataCollectionManager::sharedManager();
    usage->setSubmissionURL(serverURL.resolved(QUrl(QStringLiteral("v1/usage/collect/"))));
    ORVDataCollectionItem launch;
    launch.text = QStringLiteral("Kalendro sample launched");
    launch.category = QStringLiteral("launch");
    launch.language = QLocale().name().section(QLatin1Char('_'), 0, 0);
    launch.country = QLocale::territoryToCode(QLocale().territory());
    launch.userInfo = QJsonObject{{"version", bundle.objectForInfoDictionaryKey("CFBundleVersion").toString()}};
    if (const ORVError error = usage->addItem(launch))
        say(ORVStringWithFormat("the usage report was not queued: %@", error.localizedDescription()));
    usage->startSubmissionTimer();

    // 8. The session: account, sign-in, token, a request, the key.
    Session session(tokens, secrets->location(), parser.value(emailOption), parser.value(passwordOption),
                    parser.value(nameOption), parser.isSet(refreshOption));
    // The same rule for a link that started this copy: the desktop opens
    // "kalendro-sample --gui -- LINK" for any program that opens a link.
    if (magicToken && windowed && ORVFetchOrvellaAccount()->username()) {
        say("the sign-in link is not used, as an account is signed in (sign out first)");
        magicToken.reset();
    }
    if (magicToken)
        session.useMagicToken(*magicToken);
    if (parser.isSet(requestKeyOption))
        session.useKeyChoice(KeyChoice::RequestFromOtherDevice);
    else if (parser.isSet(recoveryCodeOption))
        session.useKeyChoice(KeyChoice::RecoveryCode);
    else if (parser.isSet(resetKeyOption))
        session.useKeyChoice(KeyChoice::Reset);
    if (parser.isSet(approveDeviceOption))
        session.approveDeviceWhenReady();
    if (parser.isSet(showRecoveryCodeOption))
        session.showRecoveryCodeWhenReady();
    if (parser.isSet(noteOption))
        session.writeNote(parser.value(noteOption));
    if (parser.isSet(emailLinkOption))
        session.useEmailLink(embedded ? QDir(dataFolder).filePath(QStringLiteral("Mail")) : QString());
    if (receivesLinks)
        say("sign-in links opened later come to this copy over the session bus");
    const bool browserSignIn = signInKind != QLatin1String("password") && !magicToken;
    if (browserSignIn) {
        auto browser = std::make_unique<ORVOpenIDSignIn>(
            browserProvider(signInKind, serverURL, parser, issuerOption, clientOption, secretOption));
        if (parser.isSet(browserOption))
            browser->setOpenURLHandler(browserCommand(parser.value(browserOption)));
        session.useBrowserSignIn(std::move(browser));
    }
    std::unique_ptr<KalendroWindows> windows;
    QTimer giveUp;
    giveUp.setSingleShot(true);
    // A person approving in the browser, or on another device (a request
    // for the key lives ten minutes), gets more time than a server.
    const int patienceSeconds = parser.isSet(requestKeyOption) ? 660
                                : browserSignIn || parser.isSet(approveDeviceOption) || parser.isSet(recoveryCodeOption)
                                    ? 360
                                    : 60;
    QObject::connect(&giveUp, &QTimer::timeout, &app, [patienceSeconds] {
        say(ORVStringWithFormat("gave up after %d seconds without an answer", patienceSeconds));
        QCoreApplication::exit(1);
    });
    const auto accountText = [&serverURL] {
        const auto account = ORVFetchOrvellaAccount();
        return account && account->username()
                   ? ORVStringWithFormat("Signed in as %@ (%@) on %@.", account->emailAddress(), *account->username(),
                                         serverURL)
                   : ORVStringWithFormat("Not signed in (server %@).", serverURL);
    };
    std::unique_ptr<KalendroSignInWindow> signInWindow;
    if (windowed) {
        KalendroSignInWindow::Actions actions;
        actions.signIn = [&session](const QString &email, const QString &password) {
            session.signInWithPassword(email, password);
        };
        actions.createAccount = [&session](const QString &name, const QString &email, const QString &password) {
            session.createAccountAndSignIn(name, email, password);
        };
        actions.signInWithBrowser = [&](ORVOrvellaAccountType type) {
            const QString kind = type == ORVOrvellaAccountTypeApple ? QStringLiteral("apple") : QStringLiteral("google");
            auto browser = std::make_unique<ORVOpenIDSignIn>(
                browserProvider(kind, serverURL, parser, issuerOption, clientOption, secretOption));
            if (parser.isSet(browserOption))
                browser->setOpenURLHandler(browserCommand(parser.value(browserOption)));
            session.signInThroughBrowser(std::move(browser));
        };
        actions.emailLink = [&session](const QString &email) { session.emailLinkTo(email); };
        actions.signOut = [&] {
            // While the account still signs requests: a request for the key
            // is withdrawn on the server.
            session.stopKeyTransfers();
            auto signedOut = ORVFetchOrvellaAccount()->copy();
            tokens->resetTokensForAccountWithIdentifier(signedOut->identifier());
            signedOut->setUsername(std::nullopt);
            signedOut->setEmailAddress(QString());
            signedOut->setOrvellaAccountType(ORVOrvellaAccountTypeNone);
            accounts->save(signedOut);
            secrets->clear();
            say("signed out: this device forgot the account and its credential");
            signInWindow->showSignIn();
        };
        actions.showPreferences = [&] {
            windows = std::make_unique<KalendroWindows>(usage, accountText());
            windows->show(/*endsTheSample=*/false);
        };
        actions.requestKey = [&session] { session.requestKeyFromOtherDevice(); };
        actions.enterRecoveryCode = [&session](const QString &code) { session.restoreKey(code); };
        actions.resetKey = [&session] { session.resetKey(); };
        actions.takeUpDevice = [&session] { session.takeUpOfferedRequest(); };
        actions.approveDevice = [&session](const QString &typedCode) { session.approveDevice(typedCode); };
        actions.refuseDevice = [&session] { session.refuseDevice(); };
        actions.showRecoveryCode = [&] {
            const QString code = session.recoveryCode();
            if (!code.isEmpty())
                signInWindow->showRecoveryCode(code);
        };
        signInWindow = std::make_unique<KalendroSignInWindow>(actions);
        session.keyChoices = [&](const QString &message) { signInWindow->showKeyChoices(message); };
        session.keyCodeShown = [&](const QString &code) {
            signInWindow->showKeyChoices(
                ORVStringWithFormat("Confirmation code: %@\nType it on your other device, where Kalendro now shows "
                                    "this request, and approve there.",
                                    code));
        };
        session.approvalShown = [&](const QString &deviceName) { signInWindow->showApprovalRequest(deviceName); };
        session.keyRequestRunning = [&](bool asking) { signInWindow->showKeyRequestRunning(asking); };
        session.approvalCodeWanted = [&] { signInWindow->showApprovalCodeEntry(); };
        session.watchForKeyRequests(3000);
        session.failed = [&](const QString &what, const ORVError &error) {
            if (error)
                signInWindow->showError(error);
            else
                signInWindow->showMessage(what);
        };
        session.informed = [&](const QString &message) { signInWindow->showMessage(message); };
        session.finished = [&](int code) {
            if (code == 0)
                signInWindow->showSignedIn(accountText());
        };
        session.started = [&](const QString &what) { signInWindow->showProgress(what); };
        // Links that later copies forward: taken only when nobody is signed
        // in and nothing runs, so that a link from anywhere cannot switch the
        // account under the user's feet.
        QObject::connect(&links, &KalendroLinkReceiver::magicTokenReceived, &app, [&](const QString &token) {
            if (session.isBusy()) {
                say("a later copy handed over a sign-in link; not used, as a sign-in runs");
                return;
            }
            if (ORVFetchOrvellaAccount()->username()) {
                say("a later copy handed over a sign-in link; not used, as an account is signed in");
                signInWindow->showMessage(QStringLiteral("A sign-in link arrived; sign out first to use it."));
                return;
            }
            say("a later copy handed over a sign-in link");
            session.signInWithMagicLink(token);
        });
        // Links that came while this copy was starting.
        links.startDelivering();
        signInWindow->show();
    } else if (parser.isSet(screenshotsOption)) {
        session.finished = [&](int code) {
            giveUp.stop();
            windows = std::make_unique<KalendroWindows>(usage, accountText());
            KalendroSignInWindow sampleWindow({});
            sampleWindow.showSignedIn(accountText());
            const bool written = windows->writeScreenshots(parser.value(screenshotsOption), &sampleWindow);
            QCoreApplication::exit(written ? code : 1);
        };
    }
    if (windowed && !(ORVFetchOrvellaAccount()->username() && tokens->credentialForOrvellaAccount(ORVFetchOrvellaAccount())) &&
        !magicToken && !parser.isSet(emailLinkOption) && !browserSignIn) {
        say("nobody is signed in; the sign-in window is open");
    } else {
        ORVDispatchQueue::mainQueue()->async([&session] { session.start(); });
    }
    if (!windowed)
        giveUp.start(patienceSeconds * 1000);
    // SIGTERM and SIGINT end the sample as closing its window does: the
    // logs and the secrets are written out first. (Installed here, as only
    // the main event loop can end on them.)
    kalendroQuitOnTerminationSignals();
    int status = QApplication::exec();
    // Nothing may reach the windows once they go: links that arrive while
    // the secrets are written out, and a browser sign-in that still waits
    // (cancelled here, its failure goes nowhere).
    // (Only our signal: Qt D-Bus watches the object's destruction through a
    // connection of its own.)
    QObject::disconnect(&links, &KalendroLinkReceiver::magicTokenReceived, nullptr, nullptr);
    session.failed = nullptr;
    session.informed = nullptr;
    session.started = nullptr;
    session.finished = [](int) {};
    session.keyChoices = nullptr;
    session.keyCodeShown = nullptr;
    session.approvalShown = nullptr;
    session.approvalCodeWanted = nullptr;
    session.keyRequestRunning = nullptr;
    session.stopBrowserSignIn();
    session.stopKeyTransfers();
    windows.reset();
    signInWindow.reset();

    usage->stopSubmissionTimer();
    say(ORVStringWithFormat("usage reports waiting in %@: %ld", usage->URLForPendingItems().toLocalFile(),
                            static_cast<long>(usage->pendingItems().size())));
    if (!secrets->flush())
        say("the keyring did not store every secret; the next run may have to sign in again");
    ORVDebug::sharedDebug()->fileLogger()->flush();
    say(status == 0 ? QStringLiteral("done") : QStringLiteral("stopped after an error"));
    say(ORVStringWithFormat("log files in %@:", logs));
    for (const QString &path : ORVDebug::sharedDebug()->fileLogger()->sortedLogFilePaths())
        say(QStringLiteral("  ") + path);
    say(ORVStringWithFormat("command log: %@", commandLog->path()));
    if (embedded)
        embedded->stop();
    return status;
}
