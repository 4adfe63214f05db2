// Key requests: how a device without the account's encryption key gets it
// from another device of the same account, with the server as a relay that
// cannot read what it relays.
//
//   POST   /v1/account/key-requests/                {"device_name", "commitment"}  201 {"id", "expires_in"}
//   GET    /v1/account/key-requests/                the open requests              {"requests": [...]}
//   GET    /v1/account/key-requests/<id>            one request and its state
//   POST   /v1/account/key-requests/<id>/approver   {"public_key"}  the approving device takes the request up
//   POST   /v1/account/key-requests/<id>/requester  {"public_key"}  the new device reveals its key
//   POST   /v1/account/key-requests/<id>/answer     {"ciphertext"}  the key, encrypted to the new device
//   POST   /v1/account/key-requests/<id>/refuse     {}
//   DELETE /v1/account/key-requests/<id>            the new device, once it read the answer (or gave up)
//
// Each step is allowed once and only in this order: open, approving (the
// approver's key is there), confirming (both keys), then answered or
// refused. The new device first posts only a commitment (the SHA-256 of its
// public key) and reveals the key after the approver's is fixed, so neither
// side's key can be chosen to make the confirmation codes the devices show
// agree. Every route needs the account's access token and sees only the
// account's own requests; another account's identifier answers 404.

#include "AccountService.h"
#include "ServiceHelpers.h"

#include <QCryptographicHash>
#include <QDateTime>

#include <openssl/rand.h>

namespace orv::server {

namespace {

constexpr int kMaxOpenRequests = 5;
constexpr qsizetype kMaxDeviceName = 100;
constexpr qsizetype kMaxCiphertext = 512;

// The bytes of a base64 field, or nothing when it is not base64 of `size`
// bytes (any size up to `size` when `exact` is false).
std::optional<QByteArray> base64Field(const QJsonObject &object, const char *key, qsizetype size, bool exact = true)
{
    const QJsonValue value = object.value(key);
    if (!value.isString())
        return std::nullopt;
    const auto decoded = QByteArray::fromBase64Encoding(value.toString().toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.isEmpty() ||
        (exact ? decoded.decoded.size() != size : decoded.decoded.size() > size))
        return std::nullopt;
    return decoded.decoded;
}

std::string newIdentifier()
{
    unsigned char bytes[16];
    if (RAND_bytes(bytes, sizeof bytes) != 1)
        return {};
    return QByteArray(reinterpret_cast<const char *>(bytes), sizeof bytes).toHex().toStdString();
}

const char *stateOf(bool refused, const std::string &answer, const std::string &requesterKey,
                    const std::string &approverKey)
{
    if (refused)
        return "refused";
    if (!answer.empty())
        return "answered";
    if (!requesterKey.empty())
        return "confirming";
    if (!approverKey.empty())
        return "approving";
    return "open";
}

ServiceReply notFound()
{
    return error(404, "not_found", "No such key request (it may have expired).");
}

} // namespace

void AccountService::setKeyRequestLifetime(std::chrono::seconds lifetime)
{
    std::lock_guard lock(_lock);
    _keyRequestLifetime = lifetime;
}

void AccountService::setKeyRequestHourlyLimit(int limit)
{
    std::lock_guard lock(_lock);
    _keyRequestHourlyLimit = limit;
}

int AccountService::keyRequestCount(const std::string &user) const
{
    std::lock_guard lock(_lock);
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    return static_cast<int>(std::count_if(_keyRequests.begin(), _keyRequests.end(), [&](const auto &entry) {
        return entry.second.user == user && entry.second.expires > now;
    }));
}

void AccountService::purgeKeyRequestsLocked()
{
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    std::erase_if(_keyRequests, [now](const auto &entry) { return entry.second.expires <= now; });
    for (auto &[user, times] : _keyRequestTimes)
        std::erase_if(times, [now](qint64 time) { return time <= now - 3600; });
    std::erase_if(_keyRequestTimes, [](const auto &entry) { return entry.second.empty(); });
}

ServiceReply AccountService::keyRequests(const std::string &method, const std::string &rest, const std::string &body,
                                         const std::string &authorization)
{
    const auto user = userForAccessToken(bearer(authorization));
    if (!user)
        return error(401, "invalid_token", "The access token is expired or unknown.");
    // Nothing of this protocol is larger; a bigger body is not parsed (and
    // not under the lock every account shares).
    if (body.size() > 4096)
        return error(413, "too_large", "The body is too large.");
    std::lock_guard lock(_lock);
    purgeKeyRequestsLocked();
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    const auto describe = [now](const std::string &id, const KeyRequest &request) {
        QJsonObject object{{"id", q(id)},
                           {"device_name", q(request.deviceName)},
                           {"created", request.created},
                           {"expires_in", request.expires - now},
                           {"commitment", q(request.commitment)},
                           {"state", stateOf(request.refused, request.answer, request.requesterKey,
                                             request.approverKey)}};
        if (!request.approverKey.empty())
            object.insert("approver_key", q(request.approverKey));
        if (!request.requesterKey.empty())
            object.insert("requester_key", q(request.requesterKey));
        if (!request.answer.empty())
            object.insert("ciphertext", q(request.answer));
        return object;
    };

    if (rest.empty()) {
        if (method == "POST")
            return createKeyRequestLocked(*user, body);
        if (method != "GET")
            return error(405, "method_not_allowed", "Use GET or POST.");
        // Oldest first.
        std::vector<std::pair<qint64, QJsonObject>> open;
        for (const auto &[id, request] : _keyRequests) {
            if (request.user == *user && request.approverKey.empty() && !request.refused)
                open.emplace_back(request.created, describe(id, request));
        }
        std::stable_sort(open.begin(), open.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
        QJsonArray list;
        for (const auto &entry : open)
            list.append(entry.second);
        return {200, json({{"requests", list}})};
    }

    const auto slash = rest.find('/');
    const std::string id = rest.substr(0, slash);
    std::string step = slash == std::string::npos ? std::string() : rest.substr(slash + 1);
    if (!step.empty() && step.back() == '/')
        step.pop_back();
    const auto found = _keyRequests.find(id);
    // Another account's request does not exist, as far as this one can tell.
    if (found == _keyRequests.end() || found->second.user != *user)
        return notFound();
    if (step.empty()) {
        if (method == "DELETE") {
            _keyRequests.erase(found);
            saveLocked();
            return {204, "", "application/json"};
        }
        if (method != "GET")
            return error(405, "method_not_allowed", "Use GET or DELETE.");
        // Answered requests stay until the new device deletes them (or they
        // lapse): an answer lost on its way can be fetched again.
        return {200, json(describe(id, found->second))};
    }
    if (method != "POST")
        return error(405, "method_not_allowed", "Use POST.");
    return stepKeyRequestLocked(found->second, step, body);
}

ServiceReply AccountService::createKeyRequestLocked(const std::string &user, const std::string &body)
{
    const auto request = parse(body);
    if (!request)
        return error(400, "malformed_request", "The body must be a JSON object.");
    const auto commitment = base64Field(*request, "commitment", 32);
    if (!commitment)
        return error(400, "malformed_request", "\"commitment\" must be the base64 SHA-256 of a public key.");
    QString name = request->value("device_name").toString().simplified();
    if (name.isEmpty())
        name = QStringLiteral("Unknown Device");
    const auto codePoints = name.toUcs4();
    if (name.size() > kMaxDeviceName ||
        std::any_of(codePoints.begin(), codePoints.end(), [](char32_t c) { return !QChar::isPrint(c); }))
        return error(400, "malformed_request", "\"device_name\" must be printable and at most 100 characters.");
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    auto &times = _keyRequestTimes[user];
    const auto open = std::count_if(_keyRequests.begin(), _keyRequests.end(),
                                    [&](const auto &entry) { return entry.second.user == user; });
    if (static_cast<int>(times.size()) >= _keyRequestHourlyLimit || open >= kMaxOpenRequests)
        return {429, json({{"code", "too_many_requests"}, {"message", "Too many key requests; try again later."}}),
                "application/json", {{"Retry-After", "3600"}}};
    const std::string id = newIdentifier();
    if (id.empty())
        return error(500, "no_random", "No random bytes for the request.");
    times.push_back(now);
    KeyRequest entry;
    entry.user = user;
    entry.deviceName = name.toStdString();
    entry.commitment = commitment->toBase64().toStdString();
    entry.created = now;
    entry.expires = now + _keyRequestLifetime.count();
    _keyRequests[id] = entry;
    saveLocked();
    return {201, json({{"id", q(id)}, {"expires_in", entry.expires - now}})};
}

ServiceReply AccountService::stepKeyRequestLocked(KeyRequest &request, const std::string &step, const std::string &body)
{
    const auto object = parse(body);
    if (!object)
        return error(400, "malformed_request", "The body must be a JSON object.");
    const auto conflict = [] { return error(409, "wrong_state", "The request is not at this step."); };
    if (request.refused || !request.answer.empty())
        return conflict();
    if (step == "refuse") {
        request.refused = true;
    } else if (step == "approver") {
        const auto key = base64Field(*object, "public_key", 32);
        if (!key)
            return error(400, "malformed_request", "\"public_key\" must be 32 bytes in base64.");
        if (!request.approverKey.empty())
            return conflict();
        request.approverKey = key->toBase64().toStdString();
    } else if (step == "requester") {
        const auto key = base64Field(*object, "public_key", 32);
        if (!key)
            return error(400, "malformed_request", "\"public_key\" must be 32 bytes in base64.");
        if (request.approverKey.empty() || !request.requesterKey.empty())
            return conflict();
        if (QCryptographicHash::hash(*key, QCryptographicHash::Sha256).toBase64().toStdString() != request.commitment)
            return error(400, "commitment_mismatch", "The key does not match the request's commitment.");
        request.requesterKey = key->toBase64().toStdString();
    } else if (step == "answer") {
        const auto ciphertext = base64Field(*object, "ciphertext", kMaxCiphertext, /*exact=*/false);
        if (!ciphertext)
            return error(400, "malformed_request", "\"ciphertext\" must be base64, at most 512 bytes.");
        if (request.requesterKey.empty())
            return conflict();
        request.answer = ciphertext->toBase64().toStdString();
    } else {
        return error(404, "not_found", "No such step.");
    }
    saveLocked();
    return {200, json({{"status", "ok"}})};
}

void AccountService::loadKeyRequestsLocked(const QJsonArray &requests, const QJsonObject &times)
{
    // The hourly limit holds across restarts too.
    _keyRequestTimes.clear();
    for (auto it = times.begin(); it != times.end(); ++it) {
        for (const QJsonValue &time : it.value().toArray())
            _keyRequestTimes[it.key().toStdString()].push_back(time.toInteger());
    }
    _keyRequests.clear();
    for (const QJsonValue &value : requests) {
        const QJsonObject object = value.toObject();
        KeyRequest request;
        request.user = text(object, "user");
        request.deviceName = text(object, "device_name");
        request.commitment = text(object, "commitment");
        request.approverKey = text(object, "approver_key");
        request.requesterKey = text(object, "requester_key");
        request.answer = text(object, "ciphertext");
        request.refused = object.value("refused").toBool();
        request.created = object.value("created").toInteger();
        request.expires = object.value("expires").toInteger();
        const std::string id = text(object, "id");
        if (!id.empty() && !request.user.empty())
            _keyRequests[id] = request;
    }
    purgeKeyRequestsLocked();
}

QJsonObject AccountService::keyRequestTimesJsonLocked() const
{
    QJsonObject times;
    for (const auto &[user, list] : _keyRequestTimes) {
        QJsonArray array;
        for (const qint64 time : list)
            array.append(time);
        times.insert(q(user), array);
    }
    return times;
}

QJsonArray AccountService::keyRequestsJsonLocked() const
{
    QJsonArray requests;
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    for (const auto &[id, request] : _keyRequests) {
        if (request.expires <= now)
            continue;
        requests.append(QJsonObject{{"id", q(id)},
                                    {"user", q(request.user)},
                                    {"device_name", q(request.deviceName)},
                                    {"commitment", q(request.commitment)},
                                    {"approver_key", q(request.approverKey)},
                                    {"requester_key", q(request.requesterKey)},
                                    {"ciphertext", q(request.answer)},
                                    {"refused", request.refused},
                                    {"created", request.created},
                                    {"expires", request.expires}});
    }
    return requests;
}

} // namespace orv::server
