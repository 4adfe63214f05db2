#pragma once

/// \file
/// Replacing a method of a class at run time with a block.
///
/// C++ has no method tables to patch, so classes that want replaceable
/// methods opt into a small runtime: an ORVRuntimeClass per class (with its
/// superclass) holds the instance and class methods by selector name, and the
/// class dispatches those calls through it. Overriding then follows the
/// familiar rules:
/// - a method the class only inherits is added to the class with the block,
///   and the superclass's implementation is returned (the superclass keeps
///   it);
/// - a method the class defines itself gets the block, and the implementation
///   it had is returned.
///
/// The block calls the returned implementation to reach the previous
/// behaviour. Overrides change process-wide tables: make them at start-up,
/// before the methods are used from several threads.
///
/// \code
///   static ORVRuntimeClass &greeterClass() {
///       static ORVRuntimeClass cls("Greeter");
///       static bool once = cls.addInstanceMethod<QString(const Greeter &)>(
///           "greeting", [](const Greeter &) { return QStringLiteral("hello"); });
///       return cls;
///   }
///   QString Greeter::greeting() const {
///       return greeterClass().invokeInstanceMethod<QString(const Greeter &)>("greeting", *this);
///   }
///
///   auto previous = ORVClassOverrideInstanceMethodWithBlock<QString(const Greeter &)>(
///       &greeterClass(), "greeting", [&](const Greeter &g) { return previous(g) + "!"; });
/// \endcode

#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVExport.h>

#include <QString>

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <typeinfo>

/// An implementation: a callable of some signature, shared by identity.
///
/// Threads: any thread (a value; copies share the callable, which must be
/// safe to call from the threads that call it).
/// Ownership: copies share ownership of the callable.
class ORVIMP {
public:
    /// No implementation.
    ORVIMP() = default;
    /// Wraps `function` (of signature `Sig`); an empty function still makes a
    /// non-empty implementation.
    template<class Sig>
    explicit ORVIMP(std::function<Sig> function)
        : _function(std::make_shared<const std::any>(std::move(function))), _type(&typeid(Sig))
    {
    }

    /// Whether there is an implementation.
    explicit operator bool() const { return static_cast<bool>(_function); }
    /// The signature's type name.
    QString typeEncoding() const { return _type ? QString::fromLatin1(_type->name()) : QString(); }
    /// Whether the callable has the signature `Sig` exactly.
    template<class Sig>
    bool hasSignature() const
    {
        return _type && *_type == typeid(Sig);
    }
    /// The callable; empty when the signature differs.
    template<class Sig>
    std::function<Sig> function() const
    {
        if (!hasSignature<Sig>())
            return {};
        return std::any_cast<const std::function<Sig> &>(*_function);
    }
    /// The same callable (identity, not equal behaviour).
    friend bool operator==(const ORVIMP &a, const ORVIMP &b) { return a._function == b._function; }

private:
    std::shared_ptr<const std::any> _function;
    const std::type_info *_type = nullptr;
};

/// A method of a class: its selector, type encoding and implementation.
///
/// Threads: any thread; the implementation is read and replaced under a lock.
/// Ownership: owned by its ORVRuntimeClass, which hands out pointers that
/// stay valid as long as the class.
class ORVELLAKIT_EXPORT ORVMethod {
public:
    /// A method for `selector` with `implementation`.
    ORVMethod(QString selector, ORVIMP implementation)
        : _selector(std::move(selector)), _implementation(std::move(implementation))
    {
    }
    /// The selector name.
    const QString &selector() const { return _selector; }
    /// The implementation's signature type name (ORVIMP::typeEncoding()).
    QString typeEncoding() const;
    /// The implementation in force.
    ORVIMP implementation() const;
    /// Installs `implementation`, returns the one replaced.
    ORVIMP setImplementation(ORVIMP implementation);

private:
    QString _selector;
    mutable std::mutex _lock;
    ORVIMP _implementation;
};

/// The method tables of one class: instance and class methods by selector,
/// looked up through the superclass chain.
///
/// Threads: any thread; each table is guarded by a lock. Overrides and
/// additions change process-wide behaviour: make them at start-up.
/// Ownership: owns its methods; does not own the superclass, which must
/// outlive it (classes are usually function-local statics).
class ORVELLAKIT_EXPORT ORVRuntimeClass {
public:
    /// A class named `name` under `superclass` (nullptr: a root class).
    explicit ORVRuntimeClass(QString name, ORVRuntimeClass *superclass = nullptr);
    ORVRuntimeClass(const ORVRuntimeClass &) = delete;
    ORVRuntimeClass &operator=(const ORVRuntimeClass &) = delete;

    /// The class name, used in exception reasons.
    const QString &name() const { return _name; }
    /// The superclass; nullptr for a root class.
    ORVRuntimeClass *superclass() const { return _superclass; }

    /// Adds a method to this class itself; false (and nothing changes) when
    /// the class already defines one for the selector.
    bool addInstanceMethod(const QString &selector, ORVIMP implementation);
    /// The same for a class method.
    bool addClassMethod(const QString &selector, ORVIMP implementation);
    /// addInstanceMethod() with a callable of signature `Sig`.
    template<class Sig>
    bool addInstanceMethod(const QString &selector, std::function<Sig> implementation)
    {
        return addInstanceMethod(selector, ORVIMP(std::move(implementation)));
    }
    /// addClassMethod() with a callable of signature `Sig`.
    template<class Sig>
    bool addClassMethod(const QString &selector, std::function<Sig> implementation)
    {
        return addClassMethod(selector, ORVIMP(std::move(implementation)));
    }

    /// The method for the selector on this class or the nearest superclass
    /// that has one; nullptr when none has.
    ORVMethod *instanceMethod(const QString &selector) const;
    /// The same for a class method.
    ORVMethod *classMethod(const QString &selector) const;
    /// Whether this class itself (not a superclass) defines the method.
    bool definesInstanceMethod(const QString &selector) const;
    /// The same for a class method.
    bool definesClassMethod(const QString &selector) const;

    /// Calls the method found for the selector with `arguments` (an instance
    /// method's receiver is the first of them). Raises the ORVException
    /// "NSInvalidArgumentException" when there is no method of that signature.
    template<class Sig, class... Args>
    auto invokeInstanceMethod(const QString &selector, Args &&...arguments) const
    {
        return lookUp<Sig>(instanceMethod(selector), selector, '-')(std::forward<Args>(arguments)...);
    }
    /// The same for a class method.
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
ORVELLAKIT_EXPORT ORVIMP overrideMethodWithBlock(ORVRuntimeClass *theClass, const QString &selector,
                                                 ORVMethod *originalMethod, ORVIMP block, bool classMethod);
ORVELLAKIT_EXPORT ORVMethod *overrideLookUp(ORVRuntimeClass *theClass, const QString &selector, bool hasBlock,
                                            bool classMethod);
} // namespace orv::detail

/// Installs `block` as the instance method for `selector` of `theClass` and
/// returns the implementation that was in force (see above). A missing method
/// is reported as "Instance method with selector %@ not found for class %@";
/// a null class, a null selector or an empty block fail "theClass != Nil",
/// "selector != NULL" or "block != NULL". A block whose signature differs from
/// the method's fails "block signature matches the method". On any failure
/// nothing is installed and an empty function is returned.
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

/// The same for a class method ("Class method with selector %@ not found for
/// class %@").
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
