#include "AccountService.h"

#include <QByteArray>
#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace orv::server {

namespace {

QByteArray base64url(const QByteArray &bytes)
{
    return bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
}

std::string json(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

ServiceReply error(int status, const char *code, const char *message)
{
    return {status, json({{"code", code}, {"message", message}})};
}

std::optional<QJsonObject> parse(const std::string &body)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(body), &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return document.object();
}

QByteArray sign(const std::string &key, const QByteArray &input)
{
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char *>(input.data()),
         static_cast<size_t>(input.size()), mac, &length);
    return QByteArray(reinterpret_cast<const char *>(mac), static_cast<int>(length));
}

std::string bearer(const std::string &authorization)
{
    const std::string prefix = "Bearer ";
    return authorization.rfind(prefix, 0) == 0 ? authorization.substr(prefix.size()) : std::string();
}

} // namespace

AccountService::AccountService()
{
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1)
        throw std::runtime_error("no random bytes for the signing key");
    _key.assign(reinterpret_cast<const char *>(bytes), sizeof bytes);
}

std::optional<ServiceReply> AccountService::handle(const std::string &method, const std::string &path,
                                                   const std::string &body, const std::string &authorization)
{
    if (method == "POST" && path == "/v1/auth/login/")
        return login(body);
    if (method == "POST" && path == "/v1/auth/device/")
        return deviceToken(body);
    if (method == "GET" && path == "/v1/account/details/")
        return details(authorization);
    return std::nullopt;
}

void AccountService::addAccount(const std::string &user, const std::string &email, const std::string &password,
                                const std::string &name)
{
    std::lock_guard lock(_lock);
    _accounts[user] = Account{email, password, name};
}

std::string AccountService::registerDevice(const std::string &user)
{
    std::lock_guard lock(_lock);
    return newDeviceTokenLocked(user);
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
    const QByteArray payload = base64url(QJsonDocument(QJsonObject{{"sub", QString::fromStdString(user)},
                                                                   {"exp", expiry},
                                                                   {"gen", _generation}})
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
    if (expected != parts[2])
        return std::nullopt;
    const auto payload = parse(QByteArray::fromBase64(parts[1], QByteArray::Base64UrlEncoding).toStdString());
    if (!payload)
        return std::nullopt;
    if (payload->value("gen").toInt() != _generation ||
        payload->value("exp").toInteger() <= QDateTime::currentSecsSinceEpoch())
        return std::nullopt;
    return payload->value("sub").toString().toStdString();
}

ServiceReply AccountService::login(const std::string &body)
{
    const auto request = parse(body);
    if (!request)
        return error(400, "malformed_request", "The request body is not a JSON object");
    const std::string email = request->value("email").toString().toStdString();
    const std::string password = request->value("password").toString().toStdString();
    std::lock_guard lock(_lock);
    for (const auto &[user, account] : _accounts) {
        if (account.email != email || account.password != password)
            continue;
        const std::string device = newDeviceTokenLocked(user);
        return {200, json({{"status", "ok"},
                           {"user", QString::fromStdString(user)},
                           {"email", QString::fromStdString(account.email)},
                           {"name", QString::fromStdString(account.name)},
                           {"device_token", QString::fromStdString(device)},
                           {"token", QString::fromStdString(issueLocked(user))}})};
    }
    return error(401, "invalid_credentials", "The e-mail address or the password is wrong.");
}

ServiceReply AccountService::deviceToken(const std::string &body)
{
    const auto request = parse(body);
    if (!request)
        return error(400, "malformed_request", "The request body is not a JSON object");
    const std::string user = request->value("user").toString().toStdString();
    const std::string device = request->value("device_token").toString().toStdString();
    std::lock_guard lock(_lock);
    const auto it = _devices.find(device);
    if (it == _devices.end() || it->second != user)
        return error(401, "invalid_device_token", "This device is not registered for the account.");
    _devices.erase(it);
    const std::string rotated = newDeviceTokenLocked(user);
    return {200, json({{"status", "ok"},
                       {"device_token", QString::fromStdString(rotated)},
                       {"token", QString::fromStdString(issueLocked(user))}})};
}

ServiceReply AccountService::details(const std::string &authorization)
{
    const auto user = userForAccessToken(bearer(authorization));
    if (!user)
        return error(401, "invalid_token", "The access token is expired or unknown.");
    std::lock_guard lock(_lock);
    const auto it = _accounts.find(*user);
    const Account account = it == _accounts.end() ? Account{} : it->second;
    return {200, json({{"user", QString::fromStdString(*user)},
                       {"email", QString::fromStdString(account.email)},
                       {"name", QString::fromStdString(account.name)}})};
}

} // namespace orv::server
