#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVOrvellaAccount.h>

#include <mutex>

const QString ORVOrvellaAccountErrorDomain = QStringLiteral("com.orvella.orvellakit.orvellaaccount.error");

namespace {

// The registrations are meant to be made once on the main thread before any
// other use; the lock only keeps a late registration from racing a reader.
std::mutex registrationLock;
ORVOrvellaAccountFetchBlock fetchBlock;
ORVOrvellaAccountSaveBlock saveBlock;

} // namespace

ORVOrvellaAccount::~ORVOrvellaAccount() = default;

QString ORVOrvellaAccountTypeString(ORVOrvellaAccountType type)
{
    switch (type) {
    case ORVOrvellaAccountTypeNone:
        return QStringLiteral("none");
    case ORVOrvellaAccountTypePassword:
        return QStringLiteral("password");
    case ORVOrvellaAccountTypeApple:
        return QStringLiteral("apple");
    case ORVOrvellaAccountTypeGoogle:
        return QStringLiteral("google");
    }
    return QString();
}

void ORVRegisterOrvellaAccountFetchBlock(ORVOrvellaAccountFetchBlock block)
{
    std::lock_guard lock(registrationLock);
    fetchBlock = std::move(block);
}

void ORVRegisterOrvellaAccountSaveBlock(ORVOrvellaAccountSaveBlock block)
{
    std::lock_guard lock(registrationLock);
    saveBlock = std::move(block);
}

std::shared_ptr<ORVOrvellaAccount> ORVFetchOrvellaAccount()
{
    ORVOrvellaAccountFetchBlock block;
    {
        std::lock_guard lock(registrationLock);
        block = fetchBlock;
    }
    if (!ORVFunctionParameterAssert(static_cast<bool>(block), "fetchBlock != nil",
                                    "ORVOrvellaAccount * _Nullable ORVFetchOrvellaAccount(void)", "ORVCoordinator"))
        return nullptr;
    return block();
}

void ORVSaveOrvellaAccount(std::shared_ptr<ORVOrvellaAccount> account, ORVOrvellaAccountSaveCompletion completion)
{
    ORVOrvellaAccountSaveBlock block;
    {
        std::lock_guard lock(registrationLock);
        block = saveBlock;
    }
    if (!ORVFunctionParameterAssert(static_cast<bool>(block), "saveBlock != nil",
                                    "void ORVSaveOrvellaAccount(ORVOrvellaAccount * _Nonnull, "
                                    "void (^ _Nullable)(NSError * _Nullable))",
                                    "ORVCoordinator"))
        return;
    block(std::move(account), std::move(completion));
}
