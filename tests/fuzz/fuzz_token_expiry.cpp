// Reading the expiry of an access token (a JWT whose payload holds "exp").

#include "FuzzSupport.h"

#include <OrvellaKit/ORVOrvellaTokenManager.h>

static std::shared_ptr<ORVOrvellaTokenManager> g_manager;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    orv::fuzz::setUp();
    g_manager = std::make_shared<ORVOrvellaTokenManager>();
    orv::fuzz::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString token = orv::fuzz::text(data, size);
    (void)g_manager->expirationDateForToken(token);
    // The same with the input as a base64url payload between two parts.
    const QByteArray payload = orv::fuzz::bytes(data, size).toBase64(QByteArray::Base64UrlEncoding |
                                                                    QByteArray::OmitTrailingEquals);
    (void)g_manager->expirationDateForToken(QStringLiteral("eyJhbGciOiJIUzI1NiJ9.") + QString::fromLatin1(payload) +
                                            QStringLiteral(".c2ln"));
    return 0;
}
