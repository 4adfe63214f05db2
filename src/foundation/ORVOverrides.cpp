#include <OrvellaKit/ORVOverrides.h>

#include <OrvellaKit/ORVStringWithFormat.h>

namespace {
constexpr const char kOverridesFile[] = "ORVOverrides";
// Two spaces after IMP, as the declarations print.
constexpr const char kInstanceFunction[] =
    "IMP  _Nonnull ORVClassOverrideInstanceMethodWithBlock(Class _Nonnull, SEL _Nonnull, id _Nonnull)";
constexpr const char kClassFunction[] =
    "IMP  _Nonnull ORVClassOverrideClassMethodWithBlock(Class _Nonnull, SEL _Nonnull, id _Nonnull)";
constexpr const char kInternalFunction[] =
    "IMP  _Nonnull _ORVClassOverrideMethodWithBlock(Class _Nonnull, SEL _Nonnull, Method _Nonnull, id _Nonnull)";
} // namespace

QString ORVMethod::typeEncoding() const
{
    return implementation().typeEncoding();
}

ORVIMP ORVMethod::implementation() const
{
    std::lock_guard lock(_lock);
    return _implementation;
}

ORVIMP ORVMethod::setImplementation(ORVIMP implementation)
{
    std::lock_guard lock(_lock);
    return std::exchange(_implementation, std::move(implementation));
}

ORVRuntimeClass::ORVRuntimeClass(QString name, ORVRuntimeClass *superclass)
    : _name(std::move(name)), _superclass(superclass)
{
}

bool ORVRuntimeClass::addMethod(Table &table, const QString &selector, ORVIMP implementation)
{
    std::lock_guard lock(_lock);
    if (table.count(selector))
        return false;
    table.emplace(selector, std::make_unique<ORVMethod>(selector, std::move(implementation)));
    return true;
}

bool ORVRuntimeClass::addInstanceMethod(const QString &selector, ORVIMP implementation)
{
    return addMethod(_instanceMethods, selector, std::move(implementation));
}

bool ORVRuntimeClass::addClassMethod(const QString &selector, ORVIMP implementation)
{
    return addMethod(_classMethods, selector, std::move(implementation));
}

ORVMethod *ORVRuntimeClass::findMethod(Table ORVRuntimeClass::*table, const QString &selector) const
{
    for (const ORVRuntimeClass *cls = this; cls; cls = cls->_superclass) {
        std::lock_guard lock(cls->_lock);
        const auto found = (cls->*table).find(selector);
        if (found != (cls->*table).end())
            return found->second.get();
    }
    return nullptr;
}

ORVMethod *ORVRuntimeClass::instanceMethod(const QString &selector) const
{
    return findMethod(&ORVRuntimeClass::_instanceMethods, selector);
}

ORVMethod *ORVRuntimeClass::classMethod(const QString &selector) const
{
    return findMethod(&ORVRuntimeClass::_classMethods, selector);
}

bool ORVRuntimeClass::definesInstanceMethod(const QString &selector) const
{
    std::lock_guard lock(_lock);
    return _instanceMethods.count(selector) != 0;
}

bool ORVRuntimeClass::definesClassMethod(const QString &selector) const
{
    std::lock_guard lock(_lock);
    return _classMethods.count(selector) != 0;
}

void ORVRuntimeClass::unrecognizedSelector(const QString &selector, char kind) const
{
    throw ORVException(ORVException::invalidArgumentName,
                       ORVStringWithFormat("%@[%@ %@]: unrecognized selector or signature", QString(QChar(kind)),
                                           _name, selector));
}

namespace orv::detail {

ORVMethod *overrideLookUp(ORVRuntimeClass *theClass, const QString &selector, bool hasBlock, bool classMethod)
{
    const char *function = classMethod ? kClassFunction : kInstanceFunction;
    if (!ORVFunctionParameterAssert(theClass != nullptr, "theClass != Nil", function, kOverridesFile) ||
        !ORVFunctionParameterAssert(!selector.isNull(), "selector != NULL", function, kOverridesFile) ||
        !ORVFunctionParameterAssert(hasBlock, "block != NULL", function, kOverridesFile))
        return nullptr;
    ORVMethod *method = classMethod ? theClass->classMethod(selector) : theClass->instanceMethod(selector);
    const char *format = classMethod ? "Class method with selector %@ not found for class %@"
                                     : "Instance method with selector %@ not found for class %@";
    if (!ORVFunctionAssert(method != nullptr, function, kOverridesFile,
                           ORVStringWithFormat(format, selector, theClass->name())))
        return nullptr;
    return method;
}

ORVIMP overrideMethodWithBlock(ORVRuntimeClass *theClass, const QString &selector, ORVMethod *originalMethod,
                               ORVIMP block, bool classMethod)
{
    if (!ORVFunctionParameterAssert(theClass != nullptr, "theClass != Nil", kInternalFunction, kOverridesFile) ||
        !ORVFunctionParameterAssert(!selector.isNull(), "selector != NULL", kInternalFunction, kOverridesFile) ||
        !ORVFunctionParameterAssert(originalMethod != nullptr, "originalMethod != NULL", kInternalFunction,
                                    kOverridesFile) ||
        !ORVFunctionParameterAssert(static_cast<bool>(block), "block != NULL", kInternalFunction, kOverridesFile))
        return {};
    const ORVIMP original = originalMethod->implementation();
    // The block must keep the method's type encoding, or callers of the
    // method would find nothing they can call.
    if (!ORVFunctionParameterAssert(block.typeEncoding() == original.typeEncoding(),
                                    "block signature matches the method", kInternalFunction, kOverridesFile))
        return {};
    const bool added = classMethod ? theClass->addClassMethod(selector, block) : theClass->addInstanceMethod(selector, block);
    if (added)
        return original; // inherited: the class now has its own, the superclass keeps its
    return originalMethod->setImplementation(std::move(block));
}

} // namespace orv::detail
