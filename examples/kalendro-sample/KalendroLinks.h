#pragma once

// Sign-in links: "kalendro://magic?token=..." (the URL scheme the sample
// registers with the desktop) or an https link whose path ends in "/magic",
// handed to the sample as its argument. The first running copy receives the
// links of later copies over the session bus, so that opening a link never
// starts a second copy.

#include <QObject>
#include <QString>
#include <QUrl>

#include <optional>

// The magic token of a sign-in link; nothing for anything else.
std::optional<QString> kalendroMagicToken(const QUrl &link);

// Hands `link` to the running copy; true when it took it.
bool kalendroForwardLink(const QUrl &link);

// Receives the links that later copies forward, once registered on the bus.
class KalendroLinkReceiver : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.orvella.kalendro.SignInLinks")
public:
    using QObject::QObject;
    // Takes the service name and the object; false without a session bus or
    // when another copy holds the name.
    bool registerOnSessionBus();
    // Until this is called, links are kept (the newest one) rather than
    // signalled: the copy takes the name before it can act on them.
    void startDelivering();

public Q_SLOTS:
    // Called over the bus: true when the link is a sign-in link.
    Q_SCRIPTABLE bool Open(const QString &link);

Q_SIGNALS:
    void magicTokenReceived(const QString &token);

private:
    bool _delivering = false;
    QString _pending;
};

// Writes the desktop entry that makes this program the handler of
// "kalendro:" links into the user's applications folder, and makes it the
// default handler in the user's mimeapps.list. The entry's path, or an empty
// string with `problem` set.
QString kalendroInstallURLHandler(const QString &program, QString *problem);
