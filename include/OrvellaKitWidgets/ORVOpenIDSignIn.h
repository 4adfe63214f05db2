#pragma once

/// \file
/// ORVOpenIDSignIn: "Sign in with Google" and "Sign in with Apple" on a
/// desktop without a platform identity service. It obtains an ID token from
/// an OpenID Connect provider with the authorization code flow and PKCE
/// (S256) through the user's own browser, checks it, and hands it to the
/// token manager's signInWithGoogleToken() or signInWithAppleToken().
///
/// The flow: the provider's endpoints come from its discovery document
/// ("<issuer>/.well-known/openid-configuration") unless both are configured;
/// a listener on 127.0.0.1 with a port chosen by the system waits for the
/// redirect; the browser opens the authorization address carrying the PKCE
/// challenge, a random "state" and a random "nonce"; the first redirect that
/// arrives closes the listener; its "state" must be ours; the code is
/// exchanged at the token endpoint with the PKCE verifier; the ID token's
/// issuer, audience, expiry and nonce are checked before it is sent on. Qt's
/// QOAuth2AuthorizationCodeFlow and QOAuthHttpServerReplyHandler do the
/// listening, the authorization address and the token request; this class
/// adds PKCE, the nonce, the checks Qt 6.4 leaves out and a clear error for
/// every way the flow can end.
///
/// The ID token's signature is not checked: it comes straight from the
/// token endpoint over the connection the client opened (OpenID Connect Core
/// 1.0, 3.1.3.7), which must be HTTPS unless the provider is on a loopback
/// address.
///
/// Nothing of the flow (code, verifier, state, nonce, tokens) is logged.
/// Qt's own OAuth messages (the "qt.networkauth" categories) quote callback
/// addresses and token answers in some failures, so the first instance
/// turns them off for the process with a category filter that passes every
/// other category to the filter installed before it. No redirect is
/// followed at the provider's endpoints.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVOrvellaAccount.h>
#include <OrvellaKit/ORVOrvellaTokenManager.h>
#include <OrvellaKitWidgets/ORVWidgetsExport.h>

#include <QStringList>
#include <QUrl>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

/// Error codes of the browser sign-in, in ORVOrvellaTokenManagerErrorDomain.
/// Cancelling gives ORVUserCancelledErrorCode in ORVOrvellaKitErrorDomain.
/// The provider's discovery document or token endpoint cannot be reached,
/// or answers with something that is not what it should be.
constexpr qint64 ORVOpenIDSignInProviderUnavailableErrorCode = 20;
/// The flow could not start: one is already running, the configuration
/// lacks the issuer or the client, no loopback port could be opened, or the
/// browser could not be opened.
constexpr qint64 ORVOpenIDSignInCannotStartErrorCode = 21;
/// No redirect came back in time (the browser tab was closed, or the person
/// walked away).
constexpr qint64 ORVOpenIDSignInTimedOutErrorCode = 22;
/// The provider refused: the person denied, or the provider answered the
/// redirect or the code exchange with an OAuth error. The user info holds
/// that error under ORVOpenIDSignInProviderErrorKey.
constexpr qint64 ORVOpenIDSignInRefusedErrorCode = 23;
/// The redirect's "state" is not the one this flow sent: it answers another
/// request, or was forged. Nothing was exchanged.
constexpr qint64 ORVOpenIDSignInStateMismatchErrorCode = 24;
/// The ID token is malformed, or its issuer, audience, expiry or nonce is
/// wrong; the failure reason says which.
constexpr qint64 ORVOpenIDSignInInvalidIDTokenErrorCode = 25;

/// User-info key of the provider's OAuth error code ("access_denied").
ORVELLAKIT_WIDGETS_EXPORT extern const QString ORVOpenIDSignInProviderErrorKey; ///< "OpenIDProviderError"

/// What the application knows of its provider.
struct ORVOpenIDProviderConfiguration {
    /// Which sign-in the ID token is for: Google or Apple.
    ORVOrvellaAccountType accountType = ORVOrvellaAccountTypeGoogle;
    /// The issuer, exactly as the provider's ID tokens name it
    /// ("https://accounts.google.com").
    QUrl issuer;
    /// The authorization endpoint. Both endpoints or neither: without them
    /// the discovery document gives them.
    QUrl authorizationEndpoint;
    /// The token endpoint (see authorizationEndpoint).
    QUrl tokenEndpoint;
    /// The application's client identifier at the provider.
    QString clientIdentifier;
    /// The client secret some providers give installed applications (it is
    /// not secret there); empty for a public client.
    QString clientSecret;
    /// The scopes asked for; "openid" must be among them.
    QStringList scopes{QStringLiteral("openid"), QStringLiteral("email"), QStringLiteral("profile")};
};

/// A checked ID token and the names it carries.
struct ORVOpenIDIdentity {
    QString idToken;    ///< the token itself, to send on; never log it
    QString subject;    ///< "sub"
    QString email;      ///< "email", when given
    QString givenName;  ///< "given_name", when given
    QString familyName; ///< "family_name", when given
};

/// Runs the browser sign-in; see the file's description.
///
/// Thread rule: main thread only; completions run on the main thread, each
/// exactly once. Ownership: owns its listener and network objects;
/// destroying it while a flow runs cancels the flow (its completion gets the
/// cancel error). One flow at a time.
class ORVELLAKIT_WIDGETS_EXPORT ORVOpenIDSignIn {
public:
    /// Receives the checked identity, or nothing and the error.
    using IdentityCompletion = std::function<void(const std::optional<ORVOpenIDIdentity> &identity, const ORVError &error)>;
    /// Opens `url` in a browser; false when it could not.
    using OpenURLHandler = std::function<bool(const QUrl &url)>;

    /// A sign-in with this provider; nothing starts before requestIdentity()
    /// or signIn().
    explicit ORVOpenIDSignIn(ORVOpenIDProviderConfiguration configuration);
    ~ORVOpenIDSignIn();
    ORVOpenIDSignIn(const ORVOpenIDSignIn &) = delete;
    ORVOpenIDSignIn &operator=(const ORVOpenIDSignIn &) = delete;

    /// The provider, as given.
    const ORVOpenIDProviderConfiguration &configuration() const;

    /// Opens the authorization address; QDesktopServices::openUrl() unless
    /// set. Returning false ends the flow with
    /// ORVOpenIDSignInCannotStartErrorCode.
    void setOpenURLHandler(OpenURLHandler handler);
    /// How long to wait for the redirect once the browser was asked to open
    /// (five minutes unless set).
    void setTimeout(std::chrono::milliseconds timeout);

    /// Obtains and checks an ID token; the completion gets it, or the error.
    void requestIdentity(IdentityCompletion completion);
    /// requestIdentity(), then signInWithGoogleToken() or
    /// signInWithAppleToken() (with the given and family names) on `tokens`;
    /// the completion gets the sign-in's result.
    void signIn(const std::shared_ptr<ORVOrvellaTokenManager> &tokens, ORVOrvellaTokenManager::SignInCompletion completion);
    /// Ends a running flow with the cancel error. Once the ID token has been
    /// handed to the token manager the sign-in can no longer be stopped, and
    /// the completion gets its result.
    void cancel();
    /// Whether a flow runs.
    bool isRunning() const;

private:
    struct Private;
    std::shared_ptr<Private> d;
};
