#pragma once

/// \file
/// The hosting application's account object and the blocks through which the
/// framework reaches it. The framework never owns account storage: the
/// application registers a block that returns the current account and one
/// that saves an account.
///
/// Thread rule: the functions of this file may be called on any thread; the
/// blocks run on the calling thread. The registrations are meant to be made
/// once, on the main thread, before any other use.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVExport.h>

#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>

/// The application's own account errors (the framework does not use it).
ORVELLAKIT_EXPORT extern const QString ORVOrvellaAccountErrorDomain; ///< "com.orvella.orvellakit.orvellaaccount.error"

/// How the account signs in.
enum ORVOrvellaAccountType : qint64 {
    ORVOrvellaAccountTypeNone = 0,     ///< not signed in, or not known
    ORVOrvellaAccountTypePassword = 1, ///< e-mail address and password
    ORVOrvellaAccountTypeApple = 2,    ///< Sign in with Apple (also a magic sign-in link)
    ORVOrvellaAccountTypeGoogle = 3,   ///< Sign in with Google
};

/// An endpoint of the account server or a page of the public web site; the
/// numbers are shared with the application's account class
/// (ORVOrvellaAccountURLForServerEndpoint() turns them into URLs). Numbers
/// missing from the list are not endpoints.
enum ORVOrvellaServerEndpoint : quint64 {
    ORVOrvellaServerEndpointScheduling = 1,         ///< service "/v1/scheduling/"
    ORVOrvellaServerEndpointWeather = 2,            ///< service "/kalendro/weather/v2/"
    ORVOrvellaServerEndpointNotify = 3,             ///< service "/notify/v1/"
    ORVOrvellaServerEndpointKeyValue = 4,           ///< service "/keyvalue/v1/"
    ORVOrvellaServerEndpointSchedJoules = 5,        ///< service "/kalendro/schedjoules/v1/"
    ORVOrvellaServerEndpointPush = 6,               ///< service "/push/"
    ORVOrvellaServerEndpointAccountEmail = 7,       ///< service "/v1/account/email/"
    ORVOrvellaServerEndpointNotifications = 9,      ///< service "/v1/notifications/"
    ORVOrvellaServerEndpointAccountDetails = 10,    ///< service "/v1/account/details/"
    ORVOrvellaServerEndpointAccountRegister = 11,   ///< service "/v1/account/register/" (account creation)
    ORVOrvellaServerEndpointAccountDevice = 12,     ///< service "/v1/account/device/" (another device)
    ORVOrvellaServerEndpointAuthDevice = 13,        ///< service "/v1/auth/device/" (access tokens)
    ORVOrvellaServerEndpointAuthLogin = 14,         ///< service "/v1/auth/login/" (e-mail and password)
    ORVOrvellaServerEndpointAuthGoogleLogin = 15,   ///< service "/v1/auth/google/login/"
    ORVOrvellaServerEndpointAuthAppleLogin = 16,    ///< service "/v1/auth/apple/login/"
    ORVOrvellaServerEndpointAuthMagicInstant = 17,  ///< service "/v1/auth/magic/instant/"
    ORVOrvellaServerEndpointAuthMagicDevice = 18,   ///< service "/v1/auth/magic/device/" (magic sign-in)
    ORVOrvellaServerEndpointPasswordReset = 20,     ///< service "/v1/account/password/reset/"
    ORVOrvellaServerEndpointAppleMacClientBegin = 22, ///< service "/v1/auth/apple/mac-client/begin/?app=" + application
    ORVOrvellaServerEndpointFeatures = 23,          ///< service "/v1/util/features/"
    ORVOrvellaServerEndpointAccountWebPage = 24,    ///< page: the account web page
    ORVOrvellaServerEndpointContactPage = 26,       ///< page: the public site's "/contact"
    ORVOrvellaServerEndpointOnboardingPage = 27,    ///< page: the public site's "/kalendro/onboarding"
    /// page: the public site's "/kalendro/onboarding/kalendro2learnmore"
    ORVOrvellaServerEndpointOnboardingLearnMorePage = 29,
};

/// The text form kept in the ubiquitous store: "none", "password", "apple",
/// "google"; a null string for other values.
ORVELLAKIT_EXPORT QString ORVOrvellaAccountTypeString(ORVOrvellaAccountType type);

/// The application's account, implemented by the application.
///
/// Thread rule: the framework reads accounts on any thread (the network
/// manager, the token manager's queue, a session's delegate queue): the
/// getters must be safe to call from several threads at once. The framework
/// calls the setters only on a copy() of its own, before it hands the copy
/// to the save block.
/// Ownership: shared. The framework keeps an account only while an operation
/// for it runs (a token fetch, a sign-in).
class ORVELLAKIT_EXPORT ORVOrvellaAccount {
public:
    virtual ~ORVOrvellaAccount();

    /// The account's identifier: the key of its tokens in the token manager.
    virtual QString identifier() const = 0;
    /// The user name the server knows the account by.
    /// Nothing while nobody is signed in.
    virtual std::optional<QString> username() const = 0;
    /// The account's e-mail address.
    virtual QString emailAddress() const = 0;
    /// How the account signs in.
    virtual ORVOrvellaAccountType orvellaAccountType() const = 0;
    /// The name shown to the user.
    virtual QString displayName() const = 0;
    /// Sets the name shown to the user.
    virtual void setDisplayName(const QString &displayName) = 0;
    /// Sets the user name.
    /// Sign-in fills these in on a copy of the current account, which it
    /// then hands to the save block.
    virtual void setUsername(const std::optional<QString> &username) = 0;
    /// Sets the e-mail address (see setUsername()).
    virtual void setEmailAddress(const QString &emailAddress) = 0;
    /// Sets how the account signs in (see setUsername()).
    virtual void setOrvellaAccountType(ORVOrvellaAccountType type) = 0;
    /// An independent copy of the same class and state.
    virtual std::shared_ptr<ORVOrvellaAccount> copy() const = 0;

    // Answers that belong to the account's class rather than to one account:
    // they must not depend on the instance's state.

    /// The URL of an endpoint on this account's server (empty for an unknown
    /// endpoint). Depends on the class only, never on the instance's state.
    virtual QUrl URLForServerEndpoint(ORVOrvellaServerEndpoint endpoint) const = 0;
    /// The URL of the account server's programming interface; its host is
    /// the one bearer tokens may be sent to. Depends on the class only.
    virtual QUrl serverURLForAPIAccess() const = 0;
};

/// Returns the current account, or null.
using ORVOrvellaAccountFetchBlock = std::function<std::shared_ptr<ORVOrvellaAccount>()>;
/// Told the result of a save: a null error for success.
using ORVOrvellaAccountSaveCompletion = std::function<void(const ORVError &error)>;
/// Saves `account` and calls `completion` (on a queue of the application's
/// choosing).
using ORVOrvellaAccountSaveBlock =
    std::function<void(std::shared_ptr<ORVOrvellaAccount> account, ORVOrvellaAccountSaveCompletion completion)>;

/// Registers the block that returns the current account, kept until the
/// next registration. Registrations replace the previous block (no check for
/// a second registration).
ORVELLAKIT_EXPORT void ORVRegisterOrvellaAccountFetchBlock(ORVOrvellaAccountFetchBlock block);
/// Registers the block that saves an account; kept until the next
/// registration, which replaces it (no check for a second registration).
ORVELLAKIT_EXPORT void ORVRegisterOrvellaAccountSaveBlock(ORVOrvellaAccountSaveBlock block);

/// Calls the fetch block. Calling it before a block is registered is a
/// programming error: it fails the assertion "fetchBlock != nil" and gives
/// nothing when the assertion handler returns.
ORVELLAKIT_EXPORT std::shared_ptr<ORVOrvellaAccount> ORVFetchOrvellaAccount();
/// Calls the save block with both arguments; the application calls the
/// completion on the queue it chooses. Without a block it fails
/// "saveBlock != nil".
ORVELLAKIT_EXPORT void ORVSaveOrvellaAccount(std::shared_ptr<ORVOrvellaAccount> account,
                                             ORVOrvellaAccountSaveCompletion completion);
