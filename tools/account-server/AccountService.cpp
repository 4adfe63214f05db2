#include "AccountService.h"
#include "ServiceHelpers.h"

#include <QByteArray>
#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QUuid>

#include <algorithm>
#include <cstdio>
#include <cctype>

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace orv::server {

AccountService::AccountService()
{
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1)
        throw std::runtime_error("no random bytes for the signing key");
    _key.assign(reinterpret_cast<const char *>(bytes), sizeof bytes);
}

std::optional<ServiceReply> AccountService::handle(const std::string &method, const std::string &path,
                                                   const std::string &body, const std::string &authorization,
                                                   const std::multimap<std::string, std::string> &query)
{
    for (const char *provider : {"google", "apple"}) {
        const std::string prefix = std::string("/oidc/") + provider + "/";
        if (path.rfind(prefix, 0) == 0)
            return openID(method, provider, path.substr(prefix.size()), body, query);
    }
    if (method == "POST" && path == "/v1/auth/login/")
        return login(body);
    if (method == "POST" && path == "/v1/auth/apple/login/")
        return identityLogin("apple", body);
    if (method == "POST" && path == "/v1/auth/google/login/")
        return identityLogin("google", body);
    if (method == "POST" && path == "/v1/auth/magic/device/")
        return magicLogin(body);
    if (method == "POST" && path == "/v1/auth/magic/instant/")
        return mailMagicLink(body);
    if (method == "POST" && path == "/v1/auth/device/")
        return deviceToken(body);
    if (method == "GET" && path == "/v1/account/details/")
        return details(authorization);
    if (method == "POST" && path == "/v1/account/register/")
        return registerAccount(body);
    if (method == "POST" && path == "/v1/account/device/")
        return registerOtherDevice(body, authorization);
    if (method == "POST" && path == "/v1/usage/collect/")
        return collect(body);
    if (method == "POST" && (path == "/v1/test/identity-token/" || path == "/v1/test/magic-token/"))
        return testToken(path, body);
    const std::string keyRequestPrefix = "/v1/account/key-requests/";
    if (path.rfind(keyRequestPrefix, 0) == 0)
        return keyRequests(method, path.substr(keyRequestPrefix.size()), body, authorization);
    const std::string keyValuePrefix = "/keyvalue/v1/";
    if (path.rfind(keyValuePrefix, 0) == 0 && path.size() > keyValuePrefix.size())
        return keyValueRequest(method, path.substr(keyValuePrefix.size()), body, authorization);
    return std::nullopt;
}

void AccountService::addAccount(const std::string &user, const std::string &email, const std::string &password,
                                const std::string &name)
{
    std::lock_guard lock(_lock);
    _accounts[user] = Account{email, password, name, "password"};
    saveLocked();
}

std::string AccountService::registerDevice(const std::string &user)
{
    std::lock_guard lock(_lock);
    std::string token = newDeviceTokenLocked(user);
    saveLocked();
    return token;
}

std::string AccountService::issueIdentityToken(const std::string &provider, const std::string &email,
                                               const std::string &name)
{
    std::lock_guard lock(_lock);
    std::string token = "idt-" + provider + "-" + QUuid::createUuid().toString(QUuid::WithoutBraces).toStdString();
    _identityTokens[token] = Identity{provider, email, name};
    return token;
}

std::string AccountService::issueMagicToken(const std::string &email)
{
    std::lock_guard lock(_lock);
    std::string token = "magic-" + QUuid::createUuid().toString(QUuid::WithoutBraces).toStdString();
    // A link works once, within the hour, also after a restart.
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    std::erase_if(_magicTokens, [now](const auto &entry) { return entry.second.second <= now; });
    _magicTokens[token] = {email, now + 3600};
    saveLocked();
    return token;
}

void AccountService::setMailDrop(const std::string &folder, const std::string &linkBase)
{
    std::lock_guard lock(_lock);
    _mailFolder = folder;
    _linkBase = linkBase;
}

ServiceReply AccountService::mailMagicLink(const std::string &body)
{
    const auto request = parse(body);
    const std::string email = request ? text(*request, "email") : std::string();
    if (email.find('@') == std::string::npos || email.find_first_of("\r\n") != std::string::npos)
        return fieldError("email", "invalid", "Enter a valid email address.");
    std::string folder;
    std::string link;
    int number = 0;
    {
        std::lock_guard lock(_lock);
        if (_mailFolder.empty())
            return error(503, "no_mail", "This server cannot send mail.");
        folder = _mailFolder;
        link = _linkBase;
        number = ++_mailsSent;
    }
    link += "?token=" + issueMagicToken(email);
    // Unique across restarts and processes sharing the folder.
    const QString path = QString::fromStdString(folder) +
                         QStringLiteral("/sign-in-link-%1-%2-%3.txt")
                             .arg(QDateTime::currentSecsSinceEpoch())
                             .arg(number)
                             .arg(QUuid::createUuid().toString(QUuid::Id128).left(8));
    const QByteArray mail = QByteArray("To: ") + QByteArray::fromStdString(email) +
                            "\nSubject: Your sign-in link\n\nOpen this link on the computer you want to sign in "
                            "on; it works once:\n\n" + QByteArray::fromStdString(link) + "\n";
    // The link signs anyone in: the owner alone may read it.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || !file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner) ||
        file.write(mail) != mail.size() || !file.commit())
        return error(503, "no_mail", "The mail could not be written.");
    return {200, json({{"status", "sent"}})};
}

void AccountService::setTokenLifetime(std::chrono::seconds lifetime)
{
    std::lock_guard lock(_lock);
    _lifetime = lifetime;
}

void AccountService::revokeAccessTokens()
{
    std::lock_guard lock(_lock);
    ++_generation;
    saveLocked();
}

std::string AccountService::issueAccessToken(const std::string &user)
{
    std::lock_guard lock(_lock);
    return issueLocked(user);
}

int AccountService::grants() const
{
    std::lock_guard lock(_lock);
    return _grants;
}

std::optional<std::string> AccountService::userForEmail(const std::string &email) const
{
    std::lock_guard lock(_lock);
    return userForEmailLocked(email);
}

std::optional<std::string> AccountService::keyValue(const std::string &user, const std::string &key) const
{
    std::lock_guard lock(_lock);
    const auto values = _values.find(user);
    if (values == _values.end())
        return std::nullopt;
    const auto value = values->second.find(key);
    if (value == values->second.end())
        return std::nullopt;
    return value->second;
}

void AccountService::setKeyValue(const std::string &user, const std::string &key, const std::string &value)
{
    std::lock_guard lock(_lock);
    _values[user][key] = value;
    saveLocked();
}

std::optional<std::string> AccountService::userForEmailLocked(const std::string &email) const
{
    const auto lowered = [](std::string value) {
        std::transform(value.begin(), value.end(), value.begin(), [](unsigned char c) { return std::tolower(c); });
        return value;
    };
    const std::string wanted = lowered(email);
    for (const auto &[user, account] : _accounts) {
        if (lowered(account.email) == wanted)
            return user;
    }
    return std::nullopt;
}

// The e-mail address's local part, made of letters and digits, with a
// number added until it is free.
std::string AccountService::newUserNameLocked(const std::string &email)
{
    std::string base;
    for (char c : email.substr(0, email.find('@'))) {
        if (std::isalnum(static_cast<unsigned char>(c)))
            base += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (base.empty())
        base = "user";
    std::string user = base;
    for (int n = 2; _accounts.count(user) != 0; ++n)
        user = base + std::to_string(n);
    return user;
}

std::string AccountService::newDeviceTokenLocked(const std::string &user)
{
    std::string token = "dev-" + QUuid::createUuid().toString(QUuid::WithoutBraces).toStdString();
    _devices[token] = user;
    return token;
}

std::string AccountService::issueLocked(const std::string &user)
{
    ++_grants;
    const qint64 expiry = QDateTime::currentSecsSinceEpoch() + _lifetime.count();
    const QByteArray header = base64url(R"({"alg":"HS256","typ":"JWT"})");
    const QByteArray payload =
        base64url(QJsonDocument(QJsonObject{{"sub", q(user)}, {"exp", expiry}, {"gen", _generation}})
                      .toJson(QJsonDocument::Compact));
    const QByteArray input = header + '.' + payload;
    return (input + '.' + base64url(sign(_key, input))).toStdString();
}

std::optional<std::string> AccountService::userForAccessToken(const std::string &token) const
{
    const QList<QByteArray> parts = QByteArray::fromStdString(token).split('.');
    if (parts.size() != 3)
        return std::nullopt;
    std::lock_guard lock(_lock);
    const QByteArray expected = base64url(sign(_key, parts[0] + '.' + parts[1]));
    if (!sameSignature(expected, parts[2]))
        return std::nullopt;
    const auto payload = parse(QByteArray::fromBase64(parts[1], QByteArray::Base64UrlEncoding).toStdString());
    if (!payload)
        return std::nullopt;
    if (payload->value("gen").toInt() != _generation ||
        payload->value("exp").toInteger() <= QDateTime::currentSecsSinceEpoch())
        return std::nullopt;
    const std::string user = payload->value("sub").toString().toStdString();
    if (_accounts.count(user) == 0)
        return std::nullopt;
    return user;
}

ServiceReply AccountService::signedInLocked(const std::string &user)
{
    const Account &account = _accounts.at(user);
    const std::string device = newDeviceTokenLocked(user);
    const std::string token = issueLocked(user);
    saveLocked();
    return {200, json({{"status", "ok"},
                       {"user", q(user)},
                       {"email", q(account.email)},
                       {"name", q(account.name)},
                       {"device_token", q(device)},
                       {"token", q(token)}})};
}

ServiceReply AccountService::login(const std::string &body)
{
    const auto request = parse(body);
    if (!request)
        return error(400, "malformed_request", "The request body is not a JSON object");
    const std::string email = text(*request, "email");
    const std::string password = text(*request, "password");
    if (email.empty())
        return {400, json({{"email", QJsonArray{"This field is required."}}})};
    if (password.empty())
        return {400, json({{"password", QJsonArray{"This field is required."}}})};
    std::lock_guard lock(_lock);
    const auto user = userForEmailLocked(email);
    if (!user || _accounts.at(*user).password.empty() || _accounts.at(*user).password != password)
        return error(401, "authentication_failed", "The e-mail address or the password is wrong.");
    return signedInLocked(*user);
}

ServiceReply AccountService::identityLogin(const std::string &provider, const std::string &body)
{
    const auto request = parse(body);
    if (!request)
        return error(400, "malformed_request", "The request body is not a JSON object");
    std::lock_guard lock(_lock);
    const std::string idToken = text(*request, "id_token");
    std::optional<Identity> issued = identityFromIDToken(provider, idToken);
    if (const auto found = _identityTokens.find(idToken); !issued && found != _identityTokens.end())
        issued = found->second;
    if (!issued || issued->provider != provider)
        return error(401, "invalid_id_token", "The identity token was not issued by this server.");
    const Identity identity = *issued;
    if (const auto user = userForEmailLocked(identity.email)) {
        if (_accounts.at(*user).kind == "password")
            return error(409, "email_in_use", "An account with a password uses this e-mail address.");
        return signedInLocked(*user);
    }
    // The first sign-in creates the account; Apple tells the name only then.
    std::string name = identity.name;
    const std::string first = text(*request, "first_name");
    const std::string last = text(*request, "last_name");
    if (!first.empty() || !last.empty())
        name = first.empty() || last.empty() ? first + last : first + " " + last;
    const std::string user = newUserNameLocked(identity.email);
    _accounts[user] = Account{identity.email, "", name, provider};
    return signedInLocked(user);
}

ServiceReply AccountService::magicLogin(const std::string &body)
{
    const auto request = parse(body);
    if (!request)
        return error(400, "malformed_request", "The request body is not a JSON object");
    std::lock_guard lock(_lock);
    const auto found = _magicTokens.find(text(*request, "magic_token"));
    if (found == _magicTokens.end() || found->second.second <= QDateTime::currentSecsSinceEpoch())
        return error(401, "invalid_magic_token", "The sign-in link is not valid any more.");
    const std::string email = found->second.first;
    _magicTokens.erase(found);
    auto user = userForEmailLocked(email);
    if (!user) {
        user = newUserNameLocked(email);
        _accounts[*user] = Account{email, "", "", "magic"};
    }
    return signedInLocked(*user);
}

ServiceReply AccountService::deviceToken(const std::string &body)
{
    const auto request = parse(body);
    if (!request)
        return error(400, "malformed_request", "The request body is not a JSON object");
    const std::string user = text(*request, "user");
    const std::string device = text(*request, "device_token");
    std::lock_guard lock(_lock);
    const auto it = _devices.find(device);
    if (it == _devices.end() || it->second != user || _accounts.count(user) == 0)
        return error(401, "invalid_device_token", "This device is not registered for the account.");
    _devices.erase(it);
    const std::string rotated = newDeviceTokenLocked(user);
    const std::string token = issueLocked(user);
    saveLocked();
    return {200, json({{"status", "ok"}, {"device_token", q(rotated)}, {"token", q(token)}})};
}

ServiceReply AccountService::details(const std::string &authorization)
{
    const auto user = userForAccessToken(bearer(authorization));
    if (!user)
        return error(401, "invalid_token", "The access token is expired or unknown.");
    std::lock_guard lock(_lock);
    const Account &account = _accounts.at(*user);
    return {200, json({{"user", q(*user)}, {"email", q(account.email)}, {"name", q(account.name)}})};
}

ServiceReply AccountService::registerAccount(const std::string &body)
{
    const auto request = parse(body);
    if (!request)
        return error(400, "malformed_request", "The request body is not a JSON object");
    const std::string name = text(*request, "name");
    const std::string email = text(*request, "email");
    const std::string password = text(*request, "password1");
    if (name.empty())
        return fieldError("name", "required", "This field is required.");
    const auto at = email.find('@');
    if (at == std::string::npos || at == 0 || email.find('.', at) == std::string::npos)
        return fieldError("email", "invalid", "Enter a valid email address.");
    if (password != text(*request, "password2"))
        return fieldError("password1", "password_mismatch", "The two password fields didn't match.");
    if (password.size() < 8)
        return fieldError("password1", "password_too_short", "This password is too short.");
    if (std::all_of(password.begin(), password.end(), [](unsigned char c) { return std::isdigit(c); }))
        return fieldError("password1", "password_entirely_numeric", "This password is entirely numeric.");
    static const char *const common[] = {"password", "12345678", "qwertyuiop", "iloveyou", "password1", "letmein123"};
    if (std::find(std::begin(common), std::end(common), password) != std::end(common))
        return fieldError("password1", "password_too_common", "This password is too common.");
    std::lock_guard lock(_lock);
    if (userForEmailLocked(email))
        return fieldError("email", "email_claimed", "This email address is already in use.");
    const std::string user = newUserNameLocked(email);
    _accounts[user] = Account{email, password, name, "password"};
    saveLocked();
    return {201, json({{"user", q(user)}, {"email", q(email)}, {"name", q(name)}})};
}

ServiceReply AccountService::registerOtherDevice(const std::string &body, const std::string &authorization)
{
    const auto user = userForAccessToken(bearer(authorization));
    if (!user)
        return error(401, "invalid_token", "The access token is expired or unknown.");
    const auto request = parse(body);
    if (!request || text(*request, "identifier").empty())
        return error(400, "malformed_request", "The body needs the other device's \"identifier\".");
    std::lock_guard lock(_lock);
    // The other device signs in with this device token from now on.
    const std::string device = newDeviceTokenLocked(*user);
    saveLocked();
    return {200, json({{"status", "ok"}, {"user", q(*user)}, {"token", q(device)}})};
}

ServiceReply AccountService::keyValueRequest(const std::string &method, const std::string &key,
                                             const std::string &body, const std::string &authorization)
{
    const auto user = userForAccessToken(bearer(authorization));
    if (!user)
        return error(401, "invalid_token", "The access token is expired or unknown.");
    std::lock_guard lock(_lock);
    auto &values = _values[*user];
    if (method == "GET") {
        const auto found = values.find(key);
        if (found == values.end())
            return error(404, "not_found", "No value is stored under this key.");
        return {200, found->second, "application/octet-stream"};
    }
    if (method == "PUT") {
        values[key] = body;
        saveLocked();
        return {200, json({{"status", "ok"}})};
    }
    if (method == "DELETE") {
        const bool erased = values.erase(key) != 0;
        saveLocked();
        return erased ? ServiceReply{204, "", "application/json"} : error(404, "not_found", "No value is stored under this key.");
    }
    return error(405, "method_not_allowed", "Use GET, PUT or DELETE.");
}

void AccountService::setCollectionStatus(int status)
{
    std::lock_guard lock(_lock);
    _collectionStatus = status;
}

std::vector<int> AccountService::collectedBatches() const
{
    std::lock_guard lock(_lock);
    return _collectedBatches;
}

std::vector<std::string> AccountService::collectedReports() const
{
    std::lock_guard lock(_lock);
    return _collectedReports;
}

ServiceReply AccountService::collect(const std::string &body)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(body), &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isArray())
        return error(400, "malformed_request", "The body is not a JSON array of reports.");
    std::lock_guard lock(_lock);
    if (_collectionStatus < 200 || _collectionStatus > 299)
        return error(_collectionStatus, "refused", "The collection server refuses reports for now.");
    const QJsonArray reports = document.array();
    _collectedBatches.push_back(static_cast<int>(reports.size()));
    for (const QJsonValue &report : reports)
        _collectedReports.push_back(QJsonDocument(report.toObject()).toJson(QJsonDocument::Compact).toStdString());
    return {_collectionStatus, json({{"received", static_cast<int>(reports.size())}})};
}

ServiceReply AccountService::testToken(const std::string &path, const std::string &body)
{
    const auto request = parse(body);
    if (!request || text(*request, "email").empty())
        return error(400, "malformed_request", "The body needs an \"email\".");
    if (path == "/v1/test/magic-token/")
        return {200, json({{"magic_token", q(issueMagicToken(text(*request, "email")))}})};
    const std::string provider = text(*request, "provider");
    if (provider != "apple" && provider != "google")
        return error(400, "malformed_request", "\"provider\" is \"apple\" or \"google\".");
    return {200, json({{"id_token", q(issueIdentityToken(provider, text(*request, "email"), text(*request, "name")))}})};
}

// --- state file -------------------------------------------------------------------

bool AccountService::setStateFile(const std::string &path)
{
    std::lock_guard lock(_lock);
    _stateFile = path;
    QFile file(q(path));
    if (!file.exists())
        return true;
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const auto state = parse(file.readAll().toStdString());
    if (!state)
        return false;
    const QByteArray key = QByteArray::fromBase64(state->value("signingKey").toString().toLatin1());
    if (key.size() >= 32)
        _key = key.toStdString();
    _generation = std::max(1, state->value("generation").toInt());
    _accounts.clear();
    const QJsonObject accounts = state->value("accounts").toObject();
    for (auto it = accounts.begin(); it != accounts.end(); ++it) {
        const QJsonObject a = it.value().toObject();
        _accounts[it.key().toStdString()] = Account{text(a, "email"), text(a, "password"), text(a, "name"), text(a, "kind")};
    }
    _devices.clear();
    const QJsonObject devices = state->value("devices").toObject();
    for (auto it = devices.begin(); it != devices.end(); ++it)
        _devices[it.key().toStdString()] = it.value().toString().toStdString();
    _magicTokens.clear();
    const QJsonObject links = state->value("magicLinks").toObject();
    for (auto it = links.begin(); it != links.end(); ++it)
        _magicTokens[it.key().toStdString()] = {text(it.value().toObject(), "email"),
                                                it.value().toObject().value("expires").toInteger()};
    loadKeyRequestsLocked(state->value("keyRequests").toArray(), state->value("keyRequestTimes").toObject());
    _values.clear();
    const QJsonObject values = state->value("values").toObject();
    for (auto user = values.begin(); user != values.end(); ++user) {
        const QJsonObject entries = user.value().toObject();
        for (auto entry = entries.begin(); entry != entries.end(); ++entry)
            _values[user.key().toStdString()][entry.key().toStdString()] =
                QByteArray::fromBase64(entry.value().toString().toLatin1()).toStdString();
    }
    return true;
}

void AccountService::saveLocked() const
{
    if (_stateFile.empty())
        return;
    QJsonObject accounts;
    for (const auto &[user, a] : _accounts)
        accounts.insert(q(user), QJsonObject{{"email", q(a.email)}, {"password", q(a.password)}, {"name", q(a.name)}, {"kind", q(a.kind)}});
    QJsonObject devices;
    for (const auto &[token, user] : _devices)
        devices.insert(q(token), q(user));
    QJsonObject links;
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    for (const auto &[token, link] : _magicTokens) {
        if (link.second > now)
            links.insert(q(token), QJsonObject{{"email", q(link.first)}, {"expires", link.second}});
    }
    QJsonObject values;
    for (const auto &[user, entries] : _values) {
        QJsonObject object;
        for (const auto &[key, value] : entries)
            object.insert(q(key), QString::fromLatin1(QByteArray::fromStdString(value).toBase64()));
        values.insert(q(user), object);
    }
    const QJsonObject state{{"signingKey", QString::fromLatin1(QByteArray::fromStdString(_key).toBase64())},
                            {"generation", _generation},
                            {"accounts", accounts},
                            {"devices", devices},
                            {"magicLinks", links},
                            {"keyRequests", keyRequestsJsonLocked()},
                            {"keyRequestTimes", keyRequestTimesJsonLocked()},
                            {"values", values}};
    // Passwords and the signing key are in it: the owner alone may read it.
    const QByteArray json = QJsonDocument(state).toJson(QJsonDocument::Indented);
    QSaveFile file(q(_stateFile));
    if (!file.open(QIODevice::WriteOnly) ||
        !file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner) || file.write(json) != json.size() ||
        !file.commit())
        std::fprintf(stderr, "account server: cannot write the state file %s: %s\n", _stateFile.c_str(),
                     qPrintable(file.errorString()));
}

} // namespace orv::server
