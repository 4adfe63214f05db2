#pragma once

/// \file
/// Functional helpers on QList, QSet and ORVMapTable: mapping with dropping and
/// expansion, filtering, zipping, reduction, quantifiers, search, stack and
/// deque operations, reversal and shuffling.
///
/// Conventions:
/// - Every helper takes the receiver first. Helpers named "...By..." return a
///   new collection; the others work in place on a non-const receiver.
/// - "Nothing" is std::nullopt, or a null pointer for pointer-like elements
///   (raw pointers, std::shared_ptr). A mapping callable may return an element,
///   std::optional of one, an ORVMappingArray / ORVMappingSet carrier (one
///   element becomes zero or more), or an ORVArrayMapResult / ORVSetMapResult
///   holding any of these.
/// - Selector forms take a pointer to a member function called without
///   arguments on each element (on the pointee for pointer-like elements).
/// - An empty callable (null function pointer, empty std::function, null
///   member-function pointer) fails a parameter assertion ("mapfunc != NULL",
///   "selector != NULL", ...) reported for the files "NSArray+OrvellaKit",
///   "NSSet+OrvellaKit" or "NSMapTable+OrvellaKit"; when the assertion handler
///   returns, the helper returns an empty result and changes nothing.
/// - Nothing locks: an in-place helper must not run while another thread uses
///   the same collection.
///
/// Threads: any thread, under the last rule above. Callables run on the
/// calling thread, before the helper returns; none is kept.

#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVExport.h>

#include <QHash>
#include <QList>
#include <QRandomGenerator>
#include <QSet>

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

/// The not-found index: the largest signed machine integer.
inline constexpr qsizetype ORVNotFound = std::numeric_limits<qsizetype>::max();

/// Hashing of shared pointers by identity, so QSet<std::shared_ptr<T>> and map
/// tables keyed by shared pointers work (found by argument-dependent lookup for
/// classes in the global namespace).
template<class T>
inline size_t qHash(const std::shared_ptr<T> &pointer, size_t seed = 0) noexcept
{
    return qHash(static_cast<const void *>(pointer.get()), seed);
}

namespace orv::detail {
inline constexpr const char kArrayFile[] = "NSArray+OrvellaKit";
inline constexpr const char kSetFile[] = "NSSet+OrvellaKit";
inline constexpr const char kMapTableFile[] = "NSMapTable+OrvellaKit";

template<class T> struct IsStdFunction : std::false_type {};
template<class S> struct IsStdFunction<std::function<S>> : std::true_type {};

/// Whether a callable argument is "NULL": only things that can be empty are.
template<class F>
bool isEmptyCallable(const F &callable)
{
    if constexpr (std::is_pointer_v<F> || std::is_member_pointer_v<F> || IsStdFunction<F>::value)
        return callable == nullptr;
    else
        return false;
}

template<class T> struct IsPointerLike : std::bool_constant<std::is_pointer_v<T>> {};
template<class T> struct IsPointerLike<std::shared_ptr<T>> : std::true_type {};
template<class T> struct IsPointerLike<std::optional<T>> : std::true_type {};

/// Whether a value stands for "nil".
template<class T>
bool isNil(const T &value)
{
    if constexpr (IsPointerLike<T>::value)
        return !value;
    else
        return false;
}

/// What the platform's collection construction does with a nil element.
[[noreturn]] ORVELLAKIT_EXPORT void rejectNilObject(const char *operation);

/// One draw from 0 ..< upperBound, uniform without modulo or multiply bias
/// (QRandomGenerator::bounded() multiplies and shifts without rejecting).
ORVELLAKIT_EXPORT quint32 uniformRandom(quint32 upperBound);
} // namespace orv::detail

// ---------------------------------------------------------------------------
// Expansion carriers

/// The array operations' carrier: a mapping callable returns one to put zero
/// or more objects where the element was (an empty carrier drops it).
///
/// Threads: any thread (a value).
/// Ownership: holds copies of the objects.
template<class T>
class ORVMappingArray {
public:
    /// Carries nothing.
    ORVMappingArray() = default;
    /// Carries a copy of the objects.
    static ORVMappingArray mapTo(QList<T> objects) { return ORVMappingArray(std::move(objects)); }
    /// Carries `first` and the following arguments up to the first nothing
    /// (a null pointer-like argument), in order. A nothing `first` fails
    /// "first != nil" and carries nothing.
    template<class... Rest>
    static ORVMappingArray mapToObjects(T first, Rest &&...rest)
    {
        ORVMappingArray carrier;
        if (!ORVMethodParameterAssert(!orv::detail::isNil(first), "first != nil", "mapToObjects:", "ORVMappingArray",
                                      orv::detail::kArrayFile))
            return carrier;
        carrier._array.append(std::move(first));
        bool ended = false;
        auto take = [&](auto &&object) {
            if (ended || orv::detail::isNil(object)) {
                ended = true;
                return;
            }
            carrier._array.append(T(std::forward<decltype(object)>(object)));
        };
        (take(std::forward<Rest>(rest)), ...);
        return carrier;
    }
    /// The objects carried, in order.
    const QList<T> &array() const { return _array; }

private:
    explicit ORVMappingArray(QList<T> objects) : _array(std::move(objects)) {}
    QList<T> _array;
};

/// The set operations' carrier. It holds an array (not a set), like its array
/// sibling; only the set mapping helpers recognise it.
///
/// Threads: any thread (a value).
/// Ownership: holds copies of the objects.
template<class T>
class ORVMappingSet {
public:
    /// Carries nothing.
    ORVMappingSet() = default;
    /// Carries a copy of the objects.
    static ORVMappingSet mapTo(QList<T> objects) { return ORVMappingSet(std::move(objects)); }
    /// Carries `first` and the following arguments up to the first nothing,
    /// in order. A nothing `first` fails "first != nil" and carries nothing.
    template<class... Rest>
    static ORVMappingSet mapToObjects(T first, Rest &&...rest)
    {
        if (!ORVMethodParameterAssert(!orv::detail::isNil(first), "first != nil", "mapToObjects:", "ORVMappingSet",
                                      orv::detail::kSetFile))
            return {};
        return ORVMappingSet(
            ORVMappingArray<T>::mapToObjects(std::move(first), std::forward<Rest>(rest)...).array());
    }
    /// The objects carried, in order.
    const QList<T> &array() const { return _array; }

private:
    explicit ORVMappingSet(QList<T> objects) : _array(std::move(objects)) {}
    QList<T> _array;
};

namespace orv::detail {
template<class T> struct IsOptional : std::false_type {};
template<class T> struct IsOptional<std::optional<T>> : std::true_type {};

/// The answer of a mapping callable: nothing, one object, or a carrier.
template<class T, class Carrier>
class MapResult {
public:
    MapResult() = default;
    MapResult(std::nullopt_t) {}
    MapResult(Carrier carrier) : _value(std::move(carrier)) {}
    template<class U>
        requires std::constructible_from<T, U &&> && (!std::same_as<std::remove_cvref_t<U>, MapResult>) &&
                 (!std::same_as<std::remove_cvref_t<U>, Carrier>) &&
                 (!std::same_as<std::remove_cvref_t<U>, std::nullopt_t>) && (!IsOptional<std::remove_cvref_t<U>>::value)
    MapResult(U &&value)
    {
        T object(std::forward<U>(value));
        if (!isNil(object))
            _value = std::move(object);
    }
    template<class U>
    MapResult(std::optional<U> value)
    {
        if (value)
            *this = MapResult(std::move(*value));
    }

    bool isNothing() const { return std::holds_alternative<std::monostate>(_value); }
    const T *object() const { return std::get_if<T>(&_value); }
    const Carrier *carrier() const { return std::get_if<Carrier>(&_value); }
    T *object() { return std::get_if<T>(&_value); }

private:
    std::variant<std::monostate, T, Carrier> _value;
};

/// The element type a mapping callable's answer stands for.
template<class R> struct MappedElement { using type = std::remove_cvref_t<R>; };
template<class T, class C> struct MappedElement<MapResult<T, C>> { using type = T; };
template<class T> struct MappedElement<std::optional<T>> { using type = T; };
template<class T> struct MappedElement<ORVMappingArray<T>> { using type = T; };
template<class T> struct MappedElement<ORVMappingSet<T>> { using type = T; };
template<class R> using MappedElementT = typename MappedElement<std::remove_cvref_t<R>>::type;
} // namespace orv::detail

/// What an array mapping callable may return: nothing, an element (a
/// nothing element counts as nothing), or an ORVMappingArray; it converts
/// from each of them and from std::optional of an element.
template<class T> using ORVArrayMapResult = orv::detail::MapResult<T, ORVMappingArray<T>>;
/// The same for the set mapping helpers, with ORVMappingSet as carrier.
template<class T> using ORVSetMapResult = orv::detail::MapResult<T, ORVMappingSet<T>>;

/// A class test for orv_addObject: orv_addObject(list, object, ORVClass<Circle>{}).
template<class C> struct ORVClass {
    using type = C; ///< The class tested for.
};

// ---------------------------------------------------------------------------
// Map table

namespace orv::detail {
template<class X> struct MapSlot {
    using Read = X;
    static Read read(const X &x) { return x; }
    static bool present(const X &) { return true; }
};
template<class X> struct MapSlot<std::weak_ptr<X>> {
    using Read = std::shared_ptr<X>;
    static Read read(const std::weak_ptr<X> &x) { return x.lock(); }
    static bool present(const std::weak_ptr<X> &x) { return !x.expired(); }
};

template<class K> struct MapKey {
    using Hashed = K;
    static const K &hashed(const K &key) { return key; }
};
template<class X> struct MapKey<std::weak_ptr<X>> {
    using Hashed = const void *;
    static const void *hashed(const std::shared_ptr<X> &key) { return key.get(); }
};
} // namespace orv::detail

/// Map table with strong or weak keys and values.
///
/// K and V are either ordinary value types (held strongly) or std::weak_ptr<X>
/// (held weakly). A weak entry whose object is gone reads as nothing (a null
/// shared pointer) and is left out by the helpers below; it is purged when its
/// key is set again. Weak keys are compared by object identity.
///
/// Threads: any thread; not locked: one table must not be changed while
/// another thread uses it.
/// Ownership: strong keys and values are held by value; weak ones do not keep
/// their objects alive.
template<class K, class V>
class ORVMapTable {
    using KeySlot = orv::detail::MapSlot<K>;
    using ValueSlot = orv::detail::MapSlot<V>;
    using KeyIndex = orv::detail::MapKey<K>;

public:
    /// The key as the table takes and hands it out: K, or std::shared_ptr<X>
    /// for a weak key.
    using KeyType = typename KeySlot::Read;
    /// The value as the table takes and hands it out: V, or std::shared_ptr<X>
    /// for a weak value.
    using ValueType = typename ValueSlot::Read;

    /// Sets the value for the key; a nothing key or value is ignored.
    void setObject(const ValueType &value, const KeyType &key)
    {
        if (orv::detail::isNil(key) || orv::detail::isNil(value))
            return;
        _entries.insert(KeyIndex::hashed(key), Entry{K(key), V(value)});
    }
    /// The value, or nothing when the key is absent or its key or value is gone.
    std::optional<ValueType> objectForKey(const KeyType &key) const
    {
        const auto found = _entries.constFind(KeyIndex::hashed(key));
        if (found == _entries.cend() || !found->alive())
            return std::nullopt;
        return ValueSlot::read(found->value);
    }
    /// Removes the entry for the key, if any.
    void removeObjectForKey(const KeyType &key) { _entries.remove(KeyIndex::hashed(key)); }
    /// Removes every entry.
    void removeAllObjects() { _entries.clear(); }
    /// The number of entries held, vanished weak ones included until purged.
    qsizetype count() const { return _entries.size(); }
    /// Removes the entries whose weak key or value is gone.
    void purge()
    {
        _entries.removeIf([](const auto &entry) { return !entry.value().alive(); });
    }

    /// The keys and values as held; gone weak entries read as nothing. These
    /// are snapshots, so the table may change while they are walked.
    QList<KeyType> keyEnumerator() const
    {
        QList<KeyType> keys;
        keys.reserve(_entries.size());
        for (const Entry &entry : _entries)
            keys.append(KeySlot::read(entry.key));
        return keys;
    }
    /// The values, in the order of keyEnumerator().
    QList<ValueType> objectEnumerator() const
    {
        QList<ValueType> values;
        values.reserve(_entries.size());
        for (const Entry &entry : _entries)
            values.append(ValueSlot::read(entry.value));
        return values;
    }

private:
    struct Entry {
        K key;
        V value;
        bool alive() const { return KeySlot::present(key) && ValueSlot::present(value); }
    };
    QHash<typename KeyIndex::Hashed, Entry> _entries;
};

// ---------------------------------------------------------------------------
// Arrays (new results)

/// Builds [block(0), ..., block(count - 1)]. A nothing result raises the
/// ORVException "NSInvalidArgumentException", as inserting nil would.
template<class F>
auto orv_arrayWithCount(qsizetype count, F block) -> QList<std::remove_cvref_t<std::invoke_result_t<F &, qsizetype>>>
{
    using R = std::remove_cvref_t<std::invoke_result_t<F &, qsizetype>>;
    QList<R> result;
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(block), "block != NULL", "orv_arrayWithCount:usingBlock:",
                                  "QList", orv::detail::kArrayFile))
        return result;
    result.reserve(std::max<qsizetype>(count, 0));
    for (qsizetype index = 0; index < count; ++index) {
        R object = std::invoke(block, index);
        if (orv::detail::isNil(object))
            orv::detail::rejectNilObject("orv_arrayWithCount:usingBlock:");
        result.append(std::move(object));
    }
    return result;
}

/// Maps in order: an element answer is appended, a carrier's objects are
/// spliced in, nothing drops the element. mapfunc(element, index).
template<class T, class F>
auto orv_arrayByMappingWithBlock(const QList<T> &array, F mapfunc)
    -> QList<orv::detail::MappedElementT<std::invoke_result_t<F &, const T &, qsizetype>>>
{
    using U = orv::detail::MappedElementT<std::invoke_result_t<F &, const T &, qsizetype>>;
    QList<U> result;
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(mapfunc), "mapfunc != NULL",
                                  "orv_arrayByMappingWithBlock:", "QList", orv::detail::kArrayFile))
        return result;
    result.reserve(array.size());
    for (qsizetype index = 0; index < array.size(); ++index) {
        ORVArrayMapResult<U> mapped(std::invoke(mapfunc, array.at(index), index));
        if (const auto *carrier = mapped.carrier())
            result.append(carrier->array());
        else if (auto *object = mapped.object())
            result.append(std::move(*object));
    }
    return result;
}

/// orv_arrayByMappingWithBlock() with `selector` called on each element.
template<class T, class M>
    requires std::is_member_function_pointer_v<M>
auto orv_arrayByMappingWithSelector(const QList<T> &array, M selector)
{
    using U = orv::detail::MappedElementT<std::invoke_result_t<M, const T &>>;
    if (!ORVMethodParameterAssert(selector != nullptr, "selector != NULL", "orv_arrayByMappingWithSelector:", "QList",
                                  orv::detail::kArrayFile))
        return QList<U>();
    return orv_arrayByMappingWithBlock(array, [selector](const T &object, qsizetype) {
        return ORVArrayMapResult<U>(std::invoke(selector, object));
    });
}

/// A strong-to-strong table of element -> mapfunc(element); later equal keys
/// overwrite earlier ones.
template<class T, class F>
auto orv_mapTableWithBlock(const QList<T> &array, F mapfunc)
{
    using U = std::remove_cvref_t<std::invoke_result_t<F &, const T &>>;
    ORVMapTable<T, U> table;
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(mapfunc), "mapfunc != NULL", "orv_mapTableWithBlock:",
                                  "QList", orv::detail::kArrayFile))
        return table;
    for (const T &object : array)
        table.setObject(std::invoke(mapfunc, object), object);
    return table;
}

/// orv_mapTableWithBlock() with `selector` called on each element.
template<class T, class M>
    requires std::is_member_function_pointer_v<M>
auto orv_mapTableWithSelector(const QList<T> &array, M selector)
{
    using U = std::remove_cvref_t<std::invoke_result_t<M, const T &>>;
    if (!ORVMethodParameterAssert(selector != nullptr, "selector != NULL", "orv_mapTableWithSelector:", "QList",
                                  orv::detail::kArrayFile))
        return ORVMapTable<T, U>();
    return orv_mapTableWithBlock(array, [selector](const T &object) { return std::invoke(selector, object); });
}

/// Left fold in order: accumulator = reducefunc(element, index, accumulator).
template<class T, class A, class F>
A orv_reduce(const QList<T> &array, F reducefunc, A initially)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(reducefunc), "reducefunc != NULL",
                                  "orv_reduce:initially:", "QList", orv::detail::kArrayFile))
        return initially;
    A accumulator = std::move(initially);
    for (qsizetype index = 0; index < array.size(); ++index)
        accumulator = std::invoke(reducefunc, array.at(index), index, std::move(accumulator));
    return accumulator;
}

/// The same starting from "nothing": A's default value. Name A explicitly:
/// orv_reduce<int>(numbers, sum).
template<class A, class T, class F>
A orv_reduce(const QList<T> &array, F reducefunc)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(reducefunc), "reducefunc != NULL", "orv_reduce:",
                                  "QList", orv::detail::kArrayFile))
        return A();
    return orv_reduce(array, std::move(reducefunc), A());
}

/// Whether predicate(element, index) holds for some element (false for an
/// empty array); stops at the first that does.
template<class T, class F>
bool orv_any(const QList<T> &array, F predicate)
{
    // The condition text names the parameter of the reducers on purpose.
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(predicate), "reducefunc != NULL", "orv_any:", "QList",
                                  orv::detail::kArrayFile))
        return false;
    for (qsizetype index = 0; index < array.size(); ++index)
        if (std::invoke(predicate, array.at(index), index))
            return true;
    return false;
}

/// Whether predicate(element, index) holds for every element (true for an
/// empty array); stops at the first that does not.
template<class T, class F>
bool orv_all(const QList<T> &array, F predicate)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(predicate), "reducefunc != NULL", "orv_all:", "QList",
                                  orv::detail::kArrayFile))
        return true;
    for (qsizetype index = 0; index < array.size(); ++index)
        if (!std::invoke(predicate, array.at(index), index))
            return false;
    return true;
}

/// The first element passing predicate(element, index), or nothing. `index`
/// receives its position or ORVNotFound.
template<class T, class F>
std::optional<T> orv_objectPassingTest(const QList<T> &array, F predicate, qsizetype *index = nullptr)
{
    if (index)
        *index = ORVNotFound;
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(predicate), "predicate != NULL",
                                  index ? "orv_objectPassingTest:atIndex:" : "orv_objectPassingTest:", "QList",
                                  orv::detail::kArrayFile))
        return std::nullopt;
    for (qsizetype position = 0; position < array.size(); ++position) {
        if (std::invoke(predicate, array.at(position), position)) {
            if (index)
                *index = position;
            return array.at(position);
        }
    }
    return std::nullopt;
}

/// Equal counts and comparator(own, other, index) for every position.
template<class T, class O, class F>
bool orv_isEqualToArray(const QList<T> &array, const QList<O> &other, F comparator)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(comparator), "comparator != NULL",
                                  "orv_isEqualToArray:withComparator:", "QList", orv::detail::kArrayFile))
        return false;
    if (array.size() != other.size())
        return false;
    return orv_all(array, [&](const T &object, qsizetype index) {
        return static_cast<bool>(std::invoke(comparator, object, other.at(index), index));
    });
}

/// The elements in reverse order.
template<class T>
QList<T> orv_arrayByReversing(const QList<T> &array)
{
    return QList<T>(array.crbegin(), array.crend());
}

// ---------------------------------------------------------------------------
// Arrays (in place)

/// Maps in place. The index given to mapfunc is the current position plus the
/// number of elements dropped so far, so after an expansion it is not the
/// element's original index; the objects of a carrier are not visited again.
template<class T, class F>
void orv_mapWithBlock(QList<T> &array, F mapfunc)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(mapfunc), "mapfunc != NULL", "orv_mapWithBlock:",
                                  "QList", orv::detail::kArrayFile))
        return;
    qsizetype position = 0;
    qsizetype removed = 0;
    while (position < array.size()) {
        ORVArrayMapResult<T> mapped(std::invoke(mapfunc, std::as_const(array)[position], position + removed));
        if (const auto *carrier = mapped.carrier()) {
            const QList<T> objects = carrier->array();
            if (objects.isEmpty()) {
                array.remove(position);
            } else {
                // One shift of the tail, then the carried objects in place.
                array[position] = objects.first();
                array.insert(position + 1, objects.size() - 1, objects.first());
                std::copy(objects.cbegin() + 1, objects.cend(), array.begin() + position + 1);
            }
            position += objects.size();
        } else if (auto *object = mapped.object()) {
            array[position] = std::move(*object);
            ++position;
        } else {
            array.remove(position);
            ++removed;
        }
    }
}

/// orv_mapWithBlock() with `selector` called on each element.
template<class T, class M>
    requires std::is_member_function_pointer_v<M>
void orv_mapWithSelector(QList<T> &array, M selector)
{
    if (!ORVMethodParameterAssert(selector != nullptr, "selector != NULL", "orv_mapWithSelector:", "QList",
                                  orv::detail::kArrayFile))
        return;
    orv_mapWithBlock(array,
                     [selector](const T &object, qsizetype) { return ORVArrayMapResult<T>(std::invoke(selector, object)); });
}

/// Keeps the elements passing filterFunc(element, index) and returns the
/// removed ones in their former order. The index follows orv_mapWithBlock.
template<class T, class F>
QList<T> orv_filterWithBlock(QList<T> &array, F filterFunc)
{
    QList<T> removed;
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(filterFunc), "filterFunc != NULL",
                                  "orv_filterWithBlock:", "QList", orv::detail::kArrayFile))
        return removed;
    if (array.isEmpty())
        return removed;
    orv_mapWithBlock(array, [&](const T &object, qsizetype index) -> ORVArrayMapResult<T> {
        if (std::invoke(filterFunc, object, index))
            return object;
        removed.append(object);
        return std::nullopt;
    });
    return removed;
}

/// Zips in place: for every index below the larger count the block gets
/// (own or null, other or null, index). An answer replaces or appends; nothing
/// marks an existing element for removal after the walk.
template<class T, class O, class F>
void orv_zipWithArray(QList<T> &array, const QList<O> &other, F combineFunc)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(combineFunc), "combineFunc != NULL",
                                  "orv_zipWithArray:usingBlock:", "QList", orv::detail::kArrayFile))
        return;
    const qsizetype count = std::max(array.size(), other.size());
    QList<qsizetype> marked;
    for (qsizetype index = 0; index < count; ++index) {
        const T *own = index < array.size() ? &std::as_const(array)[index] : nullptr;
        const O *theirs = index < other.size() ? &other[index] : nullptr;
        ORVArrayMapResult<T> combined(std::invoke(combineFunc, own, theirs, index));
        if (auto *object = combined.object()) {
            if (index < array.size())
                array[index] = std::move(*object);
            else
                array.append(std::move(*object));
        } else if (index < array.size()) {
            marked.append(index);
        }
    }
    for (auto it = marked.crbegin(); it != marked.crend(); ++it)
        array.remove(*it);
}

/// Inserts the object at the front. A nothing object fails "obj != nil" and,
/// when the handler returns, raises the ORVException
/// "NSInvalidArgumentException" (as inserting nil would).
template<class T>
void orv_pushFront(QList<T> &array, T object)
{
    if (!ORVMethodParameterAssert(!orv::detail::isNil(object), "obj != nil", "orv_pushFront:", "QList",
                                  orv::detail::kArrayFile))
        orv::detail::rejectNilObject("orv_pushFront:");
    array.prepend(std::move(object));
}

/// Appends the object; a nothing object fails as in orv_pushFront().
template<class T>
void orv_pushBack(QList<T> &array, T object)
{
    if (!ORVMethodParameterAssert(!orv::detail::isNil(object), "obj != nil", "orv_pushBack:", "QList",
                                  orv::detail::kArrayFile))
        orv::detail::rejectNilObject("orv_pushBack:");
    array.append(std::move(object));
}

/// Removes and returns the first element; nothing for an empty array.
template<class T>
std::optional<T> orv_popFront(QList<T> &array)
{
    if (array.isEmpty())
        return std::nullopt;
    return array.takeFirst();
}

/// Removes and returns the last element; nothing for an empty array.
template<class T>
std::optional<T> orv_popBack(QList<T> &array)
{
    if (array.isEmpty())
        return std::nullopt;
    return array.takeLast();
}

/// Reverses the order of the elements in place.
template<class T>
void orv_reverse(QList<T> &array)
{
    const qsizetype count = array.size();
    if (count <= 1)
        return;
    for (qsizetype i = 0; i < count / 2; ++i)
        array.swapItemsAt(i, count - 1 - i);
}

/// Fisher-Yates: for i from count-1 down to 1, exchange i with a uniform draw
/// from 0 ... i.
template<class T>
void orv_shuffleUsingFisherYates(QList<T> &array)
{
    if (array.size() <= 1)
        return;
    for (qsizetype i = array.size() - 1; i >= 1; --i)
        array.swapItemsAt(i, orv::detail::uniformRandom(static_cast<quint32>(i + 1)));
}

/// Appends the object when it is something and its pointee is a C (or derived
/// from C); returns whether it did.
template<class T, class U, class C>
bool orv_addObject(QList<T> &array, const U &object, ORVClass<C>)
{
    if (orv::detail::isNil(object))
        return false;
    const auto *pointee = &*object;
    if (dynamic_cast<const C *>(pointee) == nullptr)
        return false;
    array.append(T(object));
    return true;
}

/// The elements passing filterFunc(element, index); `filteredObjects`
/// receives the rejected ones (an empty list for an empty array).
template<class T, class F>
QList<T> orv_arrayByFilteringWithBlock(const QList<T> &array, F filterFunc, QList<T> *filteredObjects = nullptr)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(filterFunc), "filterFunc != NULL",
                                  filteredObjects ? "orv_arrayByFilteringWithBlock:filteredObjects:"
                                                  : "orv_arrayByFilteringWithBlock:",
                                  "QList", orv::detail::kArrayFile))
        return {};
    QList<T> kept = array;
    QList<T> rejected = orv_filterWithBlock(kept, std::move(filterFunc));
    if (filteredObjects)
        *filteredObjects = std::move(rejected);
    return kept;
}

/// Zips into a copy; see orv_zipWithArray.
template<class T, class O, class F>
QList<T> orv_arrayByZippingWithArray(const QList<T> &array, const QList<O> &other, F combineFunc)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(combineFunc), "combineFunc != NULL",
                                  "orv_arrayByZippingWithArray:usingBlock:", "QList", orv::detail::kArrayFile))
        return {};
    QList<T> zipped = array;
    orv_zipWithArray(zipped, other, std::move(combineFunc));
    return zipped;
}

/// A shuffled copy; see orv_shuffleUsingFisherYates().
template<class T>
QList<T> orv_arrayByShufflingUsingFisherYates(const QList<T> &array)
{
    QList<T> shuffled = array;
    orv_shuffleUsingFisherYates(shuffled);
    return shuffled;
}

/// A uniformly drawn element; the only element without drawing; nothing for
/// an empty array.
template<class T>
std::optional<T> orv_randomObject(const QList<T> &array)
{
    if (array.size() > 1)
        return array.at(orv::detail::uniformRandom(static_cast<quint32>(array.size())));
    if (array.isEmpty())
        return std::nullopt;
    return array.first();
}

// ---------------------------------------------------------------------------
// Sets

/// mapfunc(element): an answer is added, an ORVMappingSet adds its objects,
/// nothing adds nothing.
template<class T, class F>
auto orv_setByMappingWithBlock(const QSet<T> &set, F mapfunc)
    -> QSet<orv::detail::MappedElementT<std::invoke_result_t<F &, const T &>>>
{
    using U = orv::detail::MappedElementT<std::invoke_result_t<F &, const T &>>;
    QSet<U> result;
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(mapfunc), "mapfunc != NULL",
                                  "orv_setByMappingWithBlock:", "QSet", orv::detail::kSetFile))
        return result;
    result.reserve(set.size());
    for (const T &object : set) {
        ORVSetMapResult<U> mapped(std::invoke(mapfunc, object));
        if (const auto *carrier = mapped.carrier()) {
            for (const U &each : carrier->array())
                result.insert(each);
        } else if (auto *element = mapped.object()) {
            result.insert(std::move(*element));
        }
    }
    return result;
}

/// orv_setByMappingWithBlock() with `selector` called on each element.
template<class T, class M>
    requires std::is_member_function_pointer_v<M>
auto orv_setByMappingWithSelector(const QSet<T> &set, M selector)
{
    using U = orv::detail::MappedElementT<std::invoke_result_t<M, const T &>>;
    if (!ORVMethodParameterAssert(selector != nullptr, "selector != NULL", "orv_setByMappingWithSelector:", "QSet",
                                  orv::detail::kSetFile))
        return QSet<U>();
    return orv_setByMappingWithBlock(
        set, [selector](const T &object) { return ORVSetMapResult<U>(std::invoke(selector, object)); });
}

/// A strong-to-strong table of element -> mapfunc(element).
template<class T, class F>
auto orv_mapTableWithBlock(const QSet<T> &set, F mapfunc)
{
    using U = std::remove_cvref_t<std::invoke_result_t<F &, const T &>>;
    ORVMapTable<T, U> table;
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(mapfunc), "mapfunc != NULL", "orv_mapTableWithBlock:",
                                  "QSet", orv::detail::kSetFile))
        return table;
    for (const T &object : set)
        table.setObject(std::invoke(mapfunc, object), object);
    return table;
}

/// orv_mapTableWithBlock() with `selector` called on each element.
template<class T, class M>
    requires std::is_member_function_pointer_v<M>
auto orv_mapTableWithSelector(const QSet<T> &set, M selector)
{
    using U = std::remove_cvref_t<std::invoke_result_t<M, const T &>>;
    if (!ORVMethodParameterAssert(selector != nullptr, "selector != NULL", "orv_mapTableWithSelector:", "QSet",
                                  orv::detail::kSetFile))
        return ORVMapTable<T, U>();
    return orv_mapTableWithBlock(set, [selector](const T &object) { return std::invoke(selector, object); });
}

/// accumulator = reducefunc(element, accumulator) in the set's order.
template<class T, class A, class F>
A orv_reduce(const QSet<T> &set, F reducefunc, A initially)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(reducefunc), "reducefunc != NULL",
                                  "orv_reduce:initially:", "QSet", orv::detail::kSetFile))
        return initially;
    A accumulator = std::move(initially);
    for (const T &object : set)
        accumulator = std::invoke(reducefunc, object, std::move(accumulator));
    return accumulator;
}

/// The same starting from A's default value: orv_reduce<int>(numbers, sum).
template<class A, class T, class F>
A orv_reduce(const QSet<T> &set, F reducefunc)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(reducefunc), "reducefunc != NULL", "orv_reduce:",
                                  "QSet", orv::detail::kSetFile))
        return A();
    return orv_reduce(set, std::move(reducefunc), A());
}

/// Whether predicate(element) holds for some element (false for an empty
/// set). The assertion's condition text is "reducefunc != NULL", as for the
/// arrays.
template<class T, class F>
bool orv_any(const QSet<T> &set, F predicate)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(predicate), "reducefunc != NULL", "orv_any:", "QSet",
                                  orv::detail::kSetFile))
        return false;
    return std::any_of(set.cbegin(), set.cend(), [&](const T &object) { return std::invoke(predicate, object); });
}

/// Whether predicate(element) holds for every element (true for an empty
/// set).
template<class T, class F>
bool orv_all(const QSet<T> &set, F predicate)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(predicate), "reducefunc != NULL", "orv_all:", "QSet",
                                  orv::detail::kSetFile))
        return true;
    return std::all_of(set.cbegin(), set.cend(), [&](const T &object) { return std::invoke(predicate, object); });
}

/// An element passing predicate(element) (the first in the set's order), or
/// nothing.
template<class T, class F>
std::optional<T> orv_objectPassingTest(const QSet<T> &set, F predicate)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(predicate), "predicate != NULL",
                                  "orv_objectPassingTest:", "QSet", orv::detail::kSetFile))
        return std::nullopt;
    for (const T &object : set)
        if (std::invoke(predicate, object))
            return object;
    return std::nullopt;
}

/// In place: the set becomes orv_setByMappingWithBlock(set, mapfunc).
template<class T, class F>
void orv_mapWithBlock(QSet<T> &set, F mapfunc)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(mapfunc), "mapfunc != NULL", "orv_mapWithBlock:",
                                  "QSet", orv::detail::kSetFile))
        return;
    set = orv_setByMappingWithBlock(std::as_const(set), std::move(mapfunc));
}

/// orv_mapWithBlock() with `selector` called on each element.
template<class T, class M>
    requires std::is_member_function_pointer_v<M>
void orv_mapWithSelector(QSet<T> &set, M selector)
{
    if (!ORVMethodParameterAssert(selector != nullptr, "selector != NULL", "orv_mapWithSelector:", "QSet",
                                  orv::detail::kSetFile))
        return;
    set = orv_setByMappingWithSelector(std::as_const(set), selector);
}

/// Removes and returns some element; nothing for an empty set.
template<class T>
std::optional<T> orv_removeAnyObject(QSet<T> &set)
{
    if (set.isEmpty())
        return std::nullopt;
    auto any = set.begin();
    T object = *any;
    set.erase(any);
    return object;
}

/// Removes and returns the element orv_objectPassingTest() finds, or nothing.
template<class T, class F>
std::optional<T> orv_removeObjectPassingTest(QSet<T> &set, F predicate)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(predicate), "predicate != NULL",
                                  "orv_removeObjectPassingTest:", "QSet", orv::detail::kSetFile))
        return std::nullopt;
    std::optional<T> found = orv_objectPassingTest(std::as_const(set), std::move(predicate));
    if (found)
        set.remove(*found);
    return found;
}

// ---------------------------------------------------------------------------
// Map tables

/// Every key held, once (a set), gone weak keys left out.
template<class K, class V>
auto orv_allKeys(const ORVMapTable<K, V> &table)
{
    QSet<typename ORVMapTable<K, V>::KeyType> keys;
    for (auto &key : table.keyEnumerator())
        if (!orv::detail::isNil(key))
            keys.insert(std::move(key));
    return keys;
}

/// Every value once (a set), gone weak values left out.
template<class K, class V>
auto orv_allObjects(const ORVMapTable<K, V> &table)
{
    QSet<typename ORVMapTable<K, V>::ValueType> values;
    for (auto &value : table.objectEnumerator())
        if (!orv::detail::isNil(value))
            values.insert(std::move(value));
    return values;
}

/// block(key, value, &stop) for every entry whose key and value are there;
/// stop ends the walk. The walk is over a snapshot of the keys, so the block
/// may change the table.
template<class K, class V, class F>
void orv_enumerateKeysAndObjectsUsingBlock(const ORVMapTable<K, V> &table, F block)
{
    if (!ORVMethodParameterAssert(!orv::detail::isEmptyCallable(block), "block != NULL",
                                  "orv_enumerateKeysAndObjectsUsingBlock:", "ORVMapTable", orv::detail::kMapTableFile))
        return;
    for (const auto &key : table.keyEnumerator()) {
        if (orv::detail::isNil(key))
            continue;
        const auto value = table.objectForKey(key);
        if (!value || orv::detail::isNil(*value))
            continue;
        bool stop = false;
        std::invoke(block, key, *value, &stop);
        if (stop)
            break;
    }
}
