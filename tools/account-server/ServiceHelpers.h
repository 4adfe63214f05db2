#pragma once

// Small helpers shared by the account service's source files.

#include "AccountService.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <openssl/evp.h>
#include <openssl/crypto.h>
#include <openssl/hmac.h>

#include <optional>
#include <string>

namespace orv::server {

inline QByteArray base64url(const QByteArray &bytes)
{
    return bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
}

inline std::string json(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

inline ServiceReply error(int status, const char *code, const char *message)
{
    return {status, json({{"code", code}, {"message", message}})};
}

// A field error in the shape the registration form expects:
// {"<field>": [{"code": ..., "message": ...}]}.
inline ServiceReply fieldError(const char *field, const char *code, const char *message)
{
    return {400, json({{field, QJsonArray{QJsonObject{{"code", code}, {"message", message}}}}})};
}

inline QString q(const std::string &text)
{
    return QString::fromStdString(text);
}

inline std::string text(const QJsonObject &object, const char *key)
{
    return object.value(key).toString().toStdString();
}

inline std::optional<QJsonObject> parse(const std::string &body)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(body), &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return document.object();
}

inline QByteArray sign(const std::string &key, const QByteArray &input)
{
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char *>(input.data()),
         static_cast<size_t>(input.size()), mac, &length);
    return QByteArray(reinterpret_cast<const char *>(mac), static_cast<int>(length));
}

// Compares a received signature with the expected one in constant time.
inline bool sameSignature(const QByteArray &a, const QByteArray &b)
{
    return a.size() == b.size() && CRYPTO_memcmp(a.constData(), b.constData(), static_cast<size_t>(a.size())) == 0;
}

inline std::string bearer(const std::string &authorization)
{
    const std::string prefix = "Bearer ";
    return authorization.rfind(prefix, 0) == 0 ? authorization.substr(prefix.size()) : std::string();
}


} // namespace orv::server
