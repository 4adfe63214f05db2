#pragma once

// The hosting application's account object and the blocks through which the
// framework reaches it. The framework never owns account storage: the
// application registers a block that returns the current account and one
// that saves an account.

#include <OrvellaKit/ORVError.h>

#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>

// The application's own account errors (the framework does not use it).
extern const QString ORVOrvellaAccountErrorDomain; // "com.orvella.orvellakit.orvellaaccount.error"

// How the account signs in.
enum ORVOrvellaAccountType : qint64 {
    ORVOrvellaAccountTypeNone = 0,
    ORVOrvellaAccountTypePassword = 1,
    ORVOrvellaAccountTypeApple = 2,
    ORVOrvellaAccountTypeGoogle = 3,
};

// An endpoint of the account server or a page of the public web site; the
// numbers are shared with the application's account class
// (ORVOrvellaAccountURLForServerEndpoint() turns them into URLs). Numbers
// missing from the list are not endpoints.
enum ORVOrvellaServerEndpoint : quint64 {
    ORVOrvellaServerEndpointScheduling = 1,
    ORVOrvellaServerEndpointWeather = 2,
    ORVOrvellaServerEndpointNotify = 3,
    ORVOrvellaServerEndpointKeyValue = 4,
    ORVOrvellaServerEndpointSchedJoules = 5,
    ORVOrvellaServerEndpointPush = 6,
    ORVOrvellaServerEndpointAccountEmail = 7,
    ORVOrvellaServerEndpointNotifications = 9,
    ORVOrvellaServerEndpointAccountDetails = 10,
    ORVOrvellaServerEndpointAccountRegister = 11,
    ORVOrvellaServerEndpointAccountDevice = 12,
    ORVOrvellaServerEndpointAuthDevice = 13,
    ORVOrvellaServerEndpointAuthLogin = 14,
    ORVOrvellaServerEndpointAuthGoogleLogin = 15,
    ORVOrvellaServerEndpointAuthAppleLogin = 16,
    ORVOrvellaServerEndpointAuthMagicInstant = 17,
    ORVOrvellaServerEndpointAuthMagicDevice = 18,
    ORVOrvellaServerEndpointPasswordReset = 20,
    ORVOrvellaServerEndpointAppleMacClientBegin = 22,
    ORVOrvellaServerEndpointFeatures = 23,
    ORVOrvellaServerEndpointAccountWebPage = 24,
    ORVOrvellaServerEndpointContactPage = 26,
    ORVOrvellaServerEndpointOnboardingPage = 27,
    ORVOrvellaServerEndpointOnboardingLearnMorePage = 29,
};

// The text form kept in the ubiquitous store: "none", "password", "apple",
// "google"; a null string for other values.
QString ORVOrvellaAccountTypeString(ORVOrvellaAccountType type);

class ORVOrvellaAccount {
public:
    virtual ~ORVOrvellaAccount();

    virtual QString identifier() const = 0;
    // Nothing while nobody is signed in.
    virtual std::optional<QString> username() const = 0;
    virtual QString emailAddress() const = 0;
    virtual ORVOrvellaAccountType orvellaAccountType() const = 0;
    virtual QString displayName() const = 0;
    virtual void setDisplayName(const QString &displayName) = 0;
    // Sign-in fills these in on a copy of the current account, which it
    // then hands to the save block.
    virtual void setUsername(const std::optional<QString> &username) = 0;
    virtual void setEmailAddress(const QString &emailAddress) = 0;
    virtual void setOrvellaAccountType(ORVOrvellaAccountType type) = 0;
    virtual std::shared_ptr<ORVOrvellaAccount> copy() const = 0;

    // Answers that belong to the account's class rather than to one account:
    // they must not depend on the instance's state.
    //
    // The URL of an endpoint on this account's server (empty for an unknown
    // endpoint).
    virtual QUrl URLForServerEndpoint(ORVOrvellaServerEndpoint endpoint) const = 0;
    // The URL of the account server's programming interface; its host is
    // the one bearer tokens may be sent to.
    virtual QUrl serverURLForAPIAccess() const = 0;
};

using ORVOrvellaAccountFetchBlock = std::function<std::shared_ptr<ORVOrvellaAccount>()>;
using ORVOrvellaAccountSaveCompletion = std::function<void(const ORVError &error)>;
using ORVOrvellaAccountSaveBlock =
    std::function<void(std::shared_ptr<ORVOrvellaAccount> account, ORVOrvellaAccountSaveCompletion completion)>;

// Replace the previous block (no check for a second registration).
void ORVRegisterOrvellaAccountFetchBlock(ORVOrvellaAccountFetchBlock block);
void ORVRegisterOrvellaAccountSaveBlock(ORVOrvellaAccountSaveBlock block);

// Calls the fetch block. Calling it before a block is registered is a
// programming error: it fails the assertion "fetchBlock != nil" and gives
// nothing when the assertion handler returns.
std::shared_ptr<ORVOrvellaAccount> ORVFetchOrvellaAccount();
// Calls the save block with both arguments; the application calls the
// completion on the queue it chooses. Without a block it fails
// "saveBlock != nil".
void ORVSaveOrvellaAccount(std::shared_ptr<ORVOrvellaAccount> account, ORVOrvellaAccountSaveCompletion completion);
