#pragma once

// Replacing a method of a class at run time with a block.
//
// C++ has no method tables to patch, so classes that want replaceable
// methods opt into a small runtime: an ORVRuntimeClass per class (with its
// superclass) holds the instance and class methods by selector name, and the
// class dispatches those calls through it. Overriding then follows the
// familiar rules:
// - a method the class only inherits is added to the class with the block,
//   and the superclass's implementation is returned (the superclass keeps
//   it);
// - a method the class defines itself gets the block, and the implementation
//   it had is returned.
// The block calls the returned implementation to reach the previous
// behaviour. Overrides change process-wide tables: make them at start-up,
// before the methods are used from several threads.
//
//   static ORVRuntimeClass &greeterClass() {
//       static ORVRuntimeClass cls("Greeter");
//       static bool once = cls.addInstanceMethod<QString(const Greeter &)>(
//           "greeting", [](const Greeter &) { return QStringLiteral("hello"); });
//       return cls;
//   }
//   QString Greeter::greeting() const {
//       return greeterClass().invokeInstanceMethod<QString(const Greeter &)>("greeting", *this);
//   }
//
//   auto previous = ORVClassOverrideInstanceMethodWithBlock<QString(const Greeter &)>(
//       &greeterClass(), "greeting", [&](const Greeter &g) { return previous(g) + "!"; });

#include <OrvellaKit/ORVException.h>

#include <QString>

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <typeinfo>

// An implementation: a callable of some signature, shared by identity.
class ORVIMP {
public:
    ORVIMP() = default;
    template<class Sig>
    explicit ORVIMP(std::function<Sig> function)
        : _function(std::make_shared<const std::any>(std::move(function))), _type(&typeid(Sig))
    {
    }

    explicit operator bool() const { return static_cast<bool>(_function); }
    // The signature's type name.
    QString typeEncoding() const { return _type ? QString::fromLatin1(_type->name()) : QString(); }
    template<class Sig>
    bool hasSignature() const
    {
        return _type && *_type == typeid(Sig);
    }
    // The callable; empty when the signature differs.
    template<class Sig>
    std::function<Sig> function() const
    {
        if (!hasSignature<Sig>())
            return {};
        return std::any_cast<const std::function<Sig> &>(*_function);
    }
    friend bool operator==(const ORVIMP &a, const ORVIMP &b) { return a._function == b._function; }

private:
    std::shared_ptr<const std::any> _function;
    const std::type_info *_type = nullptr;
};

// A method of a class: its selector, type encoding and implementation.
class ORVMethod {
public:
    ORVMethod(QString selector, ORVIMP implementation)
        : _selector(std::move(selector)), _implementation(std::move(implementation))
    {
    }
    const QString &selector() const { return _selector; }
    QString typeEncoding() const;
    ORVIMP implementation() const;
    // Installs `implementation`, returns the one replaced.
    ORVIMP setImplementation(ORVIMP implementation);

private:
    QString _selector;
    mutable std::mutex _lock;
    ORVIMP _implementation;
};

class ORVRuntimeClass {
public:
    explicit ORVRuntimeClass(QString name, ORVRuntimeClass *superclass = nullptr);
    ORVRuntimeClass(const ORVRuntimeClass &) = delete;
    ORVRuntimeClass &operator=(const ORVRuntimeClass &) = delete;

    const QString &name() const { return _name; }
    ORVRuntimeClass *superclass() const { return _superclass; }

    // Adds a method to this class itself; false (and nothing changes) when
    // the class already defines one for the selector.
    bool addInstanceMethod(const QString &selector, ORVIMP implementation);
    bool addClassMethod(const QString &selector, ORVIMP implementation);
    template<class Sig>
    bool addInstanceMethod(const QString &selector, std::function<Sig> implementation)
    {
        return addInstanceMethod(selector, ORVIMP(std::move(implementation)));
    }
    template<class Sig>
    bool addClassMethod(const QString &selector, std::function<Sig> implementation)
    {
        return addClassMethod(selector, ORVIMP(std::move(implementation)));
    }

    // The method for the selector on this class or the nearest superclass
    // that has one; nullptr when none has.
    ORVMethod *instanceMethod(const QString &selector) const;
    ORVMethod *classMethod(const QString &selector) const;
    // Whether this class itself (not a superclass) defines the method.
    bool definesInstanceMethod(const QString &selector) const;
    bool definesClassMethod(const QString &selector) const;

    // Calls the method found for the selector with `arguments` (an instance
    // method's receiver is the first of them). Raises the ORVException
    // "NSInvalidArgumentException" when there is no method of that signature.
    template<class Sig, class... Args>
    auto invokeInstanceMethod(const QString &selector, Args &&...arguments) const
    {
        return lookUp<Sig>(instanceMethod(selector), selector, '-')(std::forward<Args>(arguments)...);
    }
    template<class Sig, class... Args>
    auto invokeClassMethod(const QString &selector, Args &&...arguments) const
    {
        return lookUp<Sig>(classMethod(selector), selector, '+')(std::forward<Args>(arguments)...);
    }

private:
    using Table = std::map<QString, std::unique_ptr<ORVMethod>>;
    bool addMethod(Table &table, const QString &selector, ORVIMP implementation);
    ORVMethod *findMethod(Table ORVRuntimeClass::*table, const QString &selector) const;
    [[noreturn]] void unrecognizedSelector(const QString &selector, char kind) const;
    template<class Sig>
    std::function<Sig> lookUp(ORVMethod *method, const QString &selector, char kind) const
    {
        std::function<Sig> function = method ? method->implementation().template function<Sig>() : nullptr;
        if (!function)
            unrecognizedSelector(selector, kind);
        return function;
    }

    QString _name;
    ORVRuntimeClass *_superclass;
    mutable std::mutex _lock;
    Table _instanceMethods;
    Table _classMethods;
};

namespace orv::detail {
ORVIMP overrideMethodWithBlock(ORVRuntimeClass *theClass, const QString &selector, ORVMethod *originalMethod,
                               ORVIMP block, bool classMethod);
ORVMethod *overrideLookUp(ORVRuntimeClass *theClass, const QString &selector, bool hasBlock, bool classMethod);
} // namespace orv::detail

// Installs `block` as the instance method for `selector` of `theClass` and
// returns the implementation that was in force (see above). A missing method
// is reported as "Instance method with selector %@ not found for class %@";
// a null class, a null selector or an empty block fail "theClass != Nil",
// "selector != NULL" or "block != NULL". A block whose signature differs from
// the method's fails "block signature matches the method". On any failure
// nothing is installed and an empty function is returned.
template<class Sig>
std::function<Sig> ORVClassOverrideInstanceMethodWithBlock(ORVRuntimeClass *theClass, const QString &selector,
                                                           std::function<Sig> block)
{
    const bool hasBlock = static_cast<bool>(block);
    ORVMethod *method = orv::detail::overrideLookUp(theClass, selector, hasBlock, false);
    if (!method)
        return {};
    return orv::detail::overrideMethodWithBlock(theClass, selector, method, ORVIMP(std::move(block)), false)
        .template function<Sig>();
}

// The same for a class method ("Class method with selector %@ not found for
// class %@").
template<class Sig>
std::function<Sig> ORVClassOverrideClassMethodWithBlock(ORVRuntimeClass *theClass, const QString &selector,
                                                        std::function<Sig> block)
{
    const bool hasBlock = static_cast<bool>(block);
    ORVMethod *method = orv::detail::overrideLookUp(theClass, selector, hasBlock, true);
    if (!method)
        return {};
    return orv::detail::overrideMethodWithBlock(theClass, selector, method, ORVIMP(std::move(block)), true)
        .template function<Sig>();
}
