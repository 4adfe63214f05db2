// The account server as an OpenID provider, one per kind of identity token:
// "<base>/oidc/google" and "<base>/oidc/apple" are issuers with a discovery
// document, an authorization endpoint and a token endpoint, so that the
// framework's browser sign-in can be run end to end without the real
// providers. Only what a desktop client needs is there: the authorization
// code flow for public clients, PKCE with S256 required, loopback redirect
// addresses only (RFC 8252), one-use codes that live a minute, and ID tokens
// signed with HS256 under the server's key, which the server's own
// /v1/auth/google/login/ and /v1/auth/apple/login/ accept until they expire.
//
// The authorization endpoint shows a small page where a person types an
// e-mail address and approves or denies; with setAuthorizationAnswer() it
// answers at once instead, for tests and for a headless browser.

#include "AccountService.h"
#include "ServiceHelpers.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QUrl>
#include <QUrlQuery>

#include <openssl/rand.h>

namespace orv::server {

namespace {

constexpr std::chrono::seconds kCodeLifetime{60};

std::string randomToken(int bytes)
{
    QByteArray random(bytes, Qt::Uninitialized);
    if (RAND_bytes(reinterpret_cast<unsigned char *>(random.data()), bytes) != 1)
        throw std::runtime_error("no random bytes");
    return base64url(random).toStdString();
}

std::string first(const std::multimap<std::string, std::string> &parameters, const std::string &name)
{
    const auto found = parameters.find(name);
    return found == parameters.end() ? std::string() : found->second;
}

std::multimap<std::string, std::string> formFields(const std::string &body)
{
    QString encoded = QString::fromUtf8(body);
    encoded.replace(QLatin1Char('+'), QStringLiteral("%20"));
    std::multimap<std::string, std::string> fields;
    for (const auto &[name, value] : QUrlQuery(encoded).queryItems(QUrl::FullyDecoded))
        fields.emplace(name.toStdString(), value.toStdString());
    return fields;
}

std::string html(const std::string &text)
{
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        default: out += c;
        }
    }
    return out;
}

ServiceReply page(int status, const std::string &title, const std::string &body)
{
    return {status,
            "<!doctype html><html><head><meta charset=\"utf-8\"><title>" + html(title) + "</title></head><body><h1>" +
                html(title) + "</h1>" + body + "</body></html>",
            "text/html; charset=utf-8"};
}

// RFC 8252: a native application's redirect goes to a loopback address on
// a port of its choosing; anything else is refused without redirecting.
bool isLoopbackRedirect(const QUrl &url)
{
    return url.isValid() && url.scheme() == QLatin1String("http") && url.port() > 0 && !url.hasFragment() &&
           (url.host() == QLatin1String("127.0.0.1") || url.host() == QLatin1String("localhost") ||
            url.host() == QLatin1String("::1"));
}

ServiceReply redirect(QUrl target, const std::vector<std::pair<std::string, std::string>> &items)
{
    // Every value fully percent-encoded, so that a "+" or "&" in a client's
    // state comes back as it went.
    QString query = target.query(QUrl::FullyEncoded);
    for (const auto &[name, value] : items) {
        if (!query.isEmpty())
            query += QLatin1Char('&');
        query += QString::fromLatin1(QUrl::toPercentEncoding(q(name)) + '=' + QUrl::toPercentEncoding(q(value)));
    }
    target.setQuery(query, QUrl::StrictMode);
    return {302, "", "text/html", {{"Location", target.toString(QUrl::FullyEncoded).toStdString()}}};
}

ServiceReply oauthError(const char *code, const char *description)
{
    return {400, json({{"error", code}, {"error_description", description}}), "application/json",
            {{"Cache-Control", "no-store"}}};
}

} // namespace

void AccountService::setBaseURL(const std::string &url)
{
    std::lock_guard lock(_lock);
    _baseURL = url;
}

std::string AccountService::issuer(const std::string &provider) const
{
    std::lock_guard lock(_lock);
    return _baseURL + "/oidc/" + provider;
}

void AccountService::setAuthorizationAnswer(std::optional<AuthorizationAnswer> answer)
{
    std::lock_guard lock(_lock);
    _authorizationAnswer = std::move(answer);
}

void AccountService::addOpenIDClient(const std::string &clientId)
{
    std::lock_guard lock(_lock);
    _openIDClients.insert(clientId);
}

void AccountService::setIdentityTokenLifetime(std::chrono::seconds lifetime)
{
    std::lock_guard lock(_lock);
    _identityTokenLifetime = lifetime;
}

std::optional<ServiceReply> AccountService::openID(const std::string &method, const std::string &provider,
                                                   const std::string &route, const std::string &body,
                                                   const std::multimap<std::string, std::string> &query)
{
    if (method == "GET" && route == ".well-known/openid-configuration")
        return discovery(provider);
    if (method == "GET" && route == "authorize")
        return authorize(provider, query, false);
    if (method == "POST" && route == "authorize")
        return authorize(provider, formFields(body), true);
    if (method == "POST" && route == "token")
        return tokenGrant(provider, body);
    return error(404, "not_found", "The OpenID provider has no such endpoint.");
}

ServiceReply AccountService::discovery(const std::string &provider) const
{
    const std::string base = issuer(provider);
    return {200, json({{"issuer", q(base)},
                       {"authorization_endpoint", q(base + "/authorize")},
                       {"token_endpoint", q(base + "/token")},
                       {"response_types_supported", QJsonArray{"code"}},
                       {"grant_types_supported", QJsonArray{"authorization_code"}},
                       {"subject_types_supported", QJsonArray{"public"}},
                       {"id_token_signing_alg_values_supported", QJsonArray{"HS256"}},
                       {"code_challenge_methods_supported", QJsonArray{"S256"}},
                       {"scopes_supported", QJsonArray{"openid", "email", "profile"}},
                       {"token_endpoint_auth_methods_supported", QJsonArray{"none", "client_secret_post"}}})};
}

ServiceReply AccountService::authorize(const std::string &provider,
                                       const std::multimap<std::string, std::string> &parameters, bool decided)
{
    const std::string title = provider == "apple" ? "Sign in with Apple" : "Sign in with Google";
    const std::string clientId = first(parameters, "client_id");
    const QUrl redirectURI(q(first(parameters, "redirect_uri")));
    bool knownClient = false;
    {
        std::lock_guard lock(_lock);
        knownClient = _openIDClients.count(clientId) != 0;
    }
    if (!knownClient || !isLoopbackRedirect(redirectURI))
        return page(400, title,
                    "<p>This request comes from no client this provider knows, or its redirect address is not a "
                    "loopback address of this computer, so nothing was sent back.</p>");
    const std::string state = first(parameters, "state");
    const auto refuse = [&](const char *code, const char *description) {
        std::vector<std::pair<std::string, std::string>> items{{"error", code}, {"error_description", description}};
        if (!state.empty())
            items.emplace_back("state", state);
        return redirect(redirectURI, items);
    };
    if (first(parameters, "response_type") != "code")
        return refuse("unsupported_response_type", "Only the authorization code flow is supported.");
    const std::string challenge = first(parameters, "code_challenge");
    if (first(parameters, "code_challenge_method") != "S256" || challenge.size() != 43)
        return refuse("invalid_request", "PKCE with the S256 method is required.");
    if (!QString::fromStdString(first(parameters, "scope")).split(QLatin1Char(' ')).contains(QLatin1String("openid")))
        return refuse("invalid_scope", "The scope must include openid.");

    std::optional<AuthorizationAnswer> person;
    if (decided) {
        if (first(parameters, "decision") != "approve")
            person = AuthorizationAnswer{"", "", "", "access_denied"};
        else if (first(parameters, "email").find('@') != std::string::npos)
            person = AuthorizationAnswer{first(parameters, "email"), first(parameters, "given_name"),
                                         first(parameters, "family_name"), ""};
    } else {
        std::lock_guard lock(_lock);
        person = _authorizationAnswer;
    }
    if (!person) {
        std::string form = "<p>The reference account server stands in for the identity provider. The application <b>" +
                           html(clientId) + "</b> asks who you are.</p>";
        if (decided)
            form += "<p><b>Enter an e-mail address.</b></p>";
        form += "<form method=\"post\" action=\"/oidc/" + html(provider) + "/authorize\">";
        for (const char *name : {"response_type", "client_id", "redirect_uri", "scope", "state", "nonce",
                                 "code_challenge", "code_challenge_method"})
            form += "<input type=\"hidden\" name=\"" + std::string(name) + "\" value=\"" +
                    html(first(parameters, name)) + "\">";
        form += "<p><label>E-mail address <input name=\"email\" type=\"email\" value=\"" +
                html(first(parameters, "login_hint")) + "\"></label></p>"
                "<p><label>First name <input name=\"given_name\"></label> "
                "<label>Last name <input name=\"family_name\"></label></p>"
                "<p><button name=\"decision\" value=\"approve\">Approve</button> "
                "<button name=\"decision\" value=\"deny\">Deny</button></p></form>";
        return page(200, title, form);
    }
    if (!person->error.empty())
        return refuse(person->error.c_str(), "The person did not approve the sign-in.");

    const std::string code = randomToken(32);
    {
        std::lock_guard lock(_lock);
        const auto now = std::chrono::steady_clock::now();
        std::erase_if(_authorizationCodes, [now](const auto &entry) { return entry.second.expiry <= now; });
        _authorizationCodes[code] =
            AuthorizationCode{provider,  clientId, redirectURI.toString(QUrl::FullyEncoded).toStdString(),
                              challenge, first(parameters, "nonce"), *person, now + kCodeLifetime};
    }
    std::vector<std::pair<std::string, std::string>> items{{"code", code}};
    if (!state.empty())
        items.emplace_back("state", state);
    return redirect(redirectURI, items);
}

ServiceReply AccountService::tokenGrant(const std::string &provider, const std::string &body)
{
    const auto fields = formFields(body);
    if (first(fields, "grant_type") != "authorization_code")
        return oauthError("unsupported_grant_type", "Only authorization_code is supported.");
    std::lock_guard lock(_lock);
    // A code is spent by the first attempt, right or wrong.
    const auto found = _authorizationCodes.find(first(fields, "code"));
    if (found == _authorizationCodes.end())
        return oauthError("invalid_grant", "The code is unknown or was used already.");
    const AuthorizationCode grant = found->second;
    _authorizationCodes.erase(found);
    if (grant.expiry <= std::chrono::steady_clock::now() || grant.provider != provider)
        return oauthError("invalid_grant", "The code has expired.");
    if (first(fields, "client_id") != grant.clientId)
        return oauthError("invalid_client", "The code was issued to another client.");
    if (QUrl(q(first(fields, "redirect_uri"))).toString(QUrl::FullyEncoded).toStdString() != grant.redirectURI)
        return oauthError("invalid_grant", "The redirect address differs from the authorization request's.");
    const std::string verifier = first(fields, "code_verifier");
    const QByteArray digest = QCryptographicHash::hash(QByteArray::fromStdString(verifier), QCryptographicHash::Sha256);
    if (verifier.size() < 43 || verifier.size() > 128 || base64url(digest).toStdString() != grant.challenge)
        return oauthError("invalid_grant", "The PKCE code verifier does not match the challenge.");

    const std::string email = grant.person.email;
    const std::string given = grant.person.givenName;
    const std::string family = grant.person.familyName;
    const std::string name = given.empty() || family.empty() ? given + family : given + " " + family;
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    QJsonObject claims{{"iss", q(_baseURL + "/oidc/" + provider)},
                       {"sub", QString::fromLatin1(QCryptographicHash::hash(QByteArray::fromStdString(email).toLower(),
                                                                           QCryptographicHash::Sha256)
                                                       .toHex()
                                                       .left(24))},
                       {"aud", q(grant.clientId)},
                       {"iat", now},
                       {"exp", now + _identityTokenLifetime.count()},
                       {"email", q(email)},
                       {"email_verified", true}};
    if (!grant.nonce.empty())
        claims.insert("nonce", q(grant.nonce));
    if (!name.empty())
        claims.insert("name", q(name));
    if (!given.empty())
        claims.insert("given_name", q(given));
    if (!family.empty())
        claims.insert("family_name", q(family));
    const QByteArray input = base64url(R"({"alg":"HS256","typ":"JWT"})") + '.' +
                             base64url(QJsonDocument(claims).toJson(QJsonDocument::Compact));
    const QByteArray idToken = input + '.' + base64url(sign(_key, input));
    return {200,
            json({{"access_token", q(randomToken(32))},
                  {"token_type", "Bearer"},
                  {"expires_in", 3600},
                  {"scope", "openid email profile"},
                  {"id_token", QString::fromLatin1(idToken)}}),
            "application/json",
            {{"Cache-Control", "no-store"}}};
}

// Called with the lock held.
std::optional<AccountService::Identity> AccountService::identityFromIDToken(const std::string &provider,
                                                                          const std::string &token) const
{
    const QList<QByteArray> parts = QByteArray::fromStdString(token).split('.');
    if (parts.size() != 3 || !sameSignature(base64url(sign(_key, parts[0] + '.' + parts[1])), parts[2]))
        return std::nullopt;
    const auto claims = parse(QByteArray::fromBase64(parts[1], QByteArray::Base64UrlEncoding).toStdString());
    if (!claims || text(*claims, "iss") != _baseURL + "/oidc/" + provider ||
        claims->value("exp").toInteger() <= QDateTime::currentSecsSinceEpoch() || text(*claims, "email").empty() ||
        _openIDClients.count(text(*claims, "aud")) == 0)
        return std::nullopt;
    return Identity{provider, text(*claims, "email"), text(*claims, "name")};
}

} // namespace orv::server
