#include "OrvTestSupport.h"

#include <OrvellaKit/ORVCollections.h>

using namespace orv::test;

namespace {
struct Shape {
    virtual ~Shape() = default;
    virtual QString name() const { return QStringLiteral("shape"); }
};
struct Circle : Shape {
    QString name() const override { return QStringLiteral("circle"); }
};

using Strings = QList<QString>;
} // namespace

TEST(ArrayMapping, DropsNothingAndSplicesCarriers)
{
    const Strings letters{"a", "b", "c"};
    const Strings dropped = orv_arrayByMappingWithBlock(letters, [](const QString &s, qsizetype) {
        return s == "b" ? std::optional<QString>() : std::optional<QString>(s + "'");
    });
    EXPECT_EQ(dropped, (Strings{"a'", "c'"}));

    const Strings expanded = orv_arrayByMappingWithBlock(letters, [](const QString &s, qsizetype) -> ORVArrayMapResult<QString> {
        if (s == "a")
            return ORVMappingArray<QString>::mapToObjects("x", "y");
        if (s == "b")
            return ORVMappingArray<QString>::mapTo({});
        return s.toUpper();
    });
    EXPECT_EQ(expanded, (Strings{"x", "y", "C"}));

    EXPECT_EQ(orv_arrayByMappingWithSelector(QList<Circle>(2), &Shape::name), (Strings{"circle", "circle"}));
}

TEST(ArrayMapping, InPlaceIndexCountsPositionPlusDropped)
{
    // An expansion moves the position past the inserted objects: b is at
    // position 2 with nothing dropped.
    Strings expanded{"a", "b"};
    std::vector<std::pair<QString, qsizetype>> calls;
    orv_mapWithBlock(expanded, [&](const QString &s, qsizetype index) -> ORVArrayMapResult<QString> {
        calls.emplace_back(s, index);
        if (s == "a")
            return ORVMappingArray<QString>::mapToObjects("x", "y");
        return s + "'";
    });
    EXPECT_EQ(expanded, (Strings{"x", "y", "b'"}));
    EXPECT_EQ(calls, (std::vector<std::pair<QString, qsizetype>>{{"a", 0}, {"b", 2}}));

    // A drop keeps the position and counts one removed: b is called with 1.
    Strings dropped{"a", "b", "c"};
    calls.clear();
    orv_mapWithBlock(dropped, [&](const QString &s, qsizetype index) -> ORVArrayMapResult<QString> {
        calls.emplace_back(s, index);
        if (s == "a")
            return std::nullopt;
        return s;
    });
    EXPECT_EQ(dropped, (Strings{"b", "c"}));
    EXPECT_EQ(calls, (std::vector<std::pair<QString, qsizetype>>{{"a", 0}, {"b", 1}, {"c", 2}}));

    // An empty carrier removes without counting a drop.
    Strings emptied{"a", "b"};
    calls.clear();
    orv_mapWithBlock(emptied, [&](const QString &s, qsizetype index) -> ORVArrayMapResult<QString> {
        calls.emplace_back(s, index);
        return s == "a" ? ORVArrayMapResult<QString>(ORVMappingArray<QString>::mapTo({})) : s;
    });
    EXPECT_EQ(emptied, (Strings{"b"}));
    EXPECT_EQ(calls.back(), (std::pair<QString, qsizetype>{"b", 0}));
}

TEST(ArrayFilterAndZip, RejectedElementsAndUnequalLengths)
{
    QList<int> rejected{99};
    const QList<int> kept =
        orv_arrayByFilteringWithBlock(QList<int>{1, 2, 3, 4}, [](int v, qsizetype) { return v % 2 == 0; }, &rejected);
    EXPECT_EQ(kept, (QList<int>{2, 4}));
    EXPECT_EQ(rejected, (QList<int>{1, 3}));

    int calls = 0;
    rejected = {99};
    EXPECT_TRUE(orv_arrayByFilteringWithBlock(QList<int>{}, [&](int, qsizetype) { return ++calls > 0; }, &rejected)
                    .isEmpty());
    EXPECT_TRUE(rejected.isEmpty());
    EXPECT_EQ(calls, 0);

    // Nothing for a missing partner removes the receiver's element.
    auto combine = [](const int *own, const int *other, qsizetype) -> std::optional<int> {
        if (!own || !other)
            return std::nullopt;
        return *own + *other;
    };
    EXPECT_EQ(orv_arrayByZippingWithArray(QList<int>{1, 2, 3}, QList<int>{10}, combine), (QList<int>{11}));
    // Past the receiver's end a result is appended.
    QList<int> shorter{1};
    orv_zipWithArray(shorter, QList<int>{10, 20},
                     [](const int *own, const int *other, qsizetype index) { return (own ? *own : 0) + *other + int(index); });
    EXPECT_EQ(shorter, (QList<int>{11, 21}));
}

TEST(ArrayQueries, ReduceQuantifiersSearchAndEquality)
{
    const QList<int> numbers{3, 1, 4, 1, 5};
    EXPECT_EQ(orv_reduce(numbers, [](int v, qsizetype i, int acc) { return acc + v * int(i); }, 100), 100 + 1 + 8 + 3 + 20);
    EXPECT_EQ(orv_reduce<QString>(QList<int>{}, [](int, qsizetype, QString acc) { return acc + "x"; }), QString());

    int visited = 0;
    EXPECT_TRUE(orv_any(numbers, [&](int v, qsizetype) { return ++visited, v == 4; }));
    EXPECT_EQ(visited, 3) << "stops at the first match";
    EXPECT_FALSE(orv_any(QList<int>{}, [](int, qsizetype) { return true; }));
    EXPECT_TRUE(orv_all(QList<int>{}, [](int, qsizetype) { return false; }));
    EXPECT_FALSE(orv_all(numbers, [](int v, qsizetype) { return v < 5; }));

    qsizetype index = 0;
    EXPECT_EQ(orv_objectPassingTest(numbers, [](int v, qsizetype) { return v > 3; }, &index), 4);
    EXPECT_EQ(index, 2);
    EXPECT_EQ(orv_objectPassingTest(numbers, [](int v, qsizetype) { return v > 9; }, &index), std::nullopt);
    EXPECT_EQ(index, ORVNotFound);

    auto same = [](int a, int b, qsizetype) { return a == b; };
    EXPECT_TRUE(orv_isEqualToArray(QList<int>{}, QList<int>{}, same));
    EXPECT_FALSE(orv_isEqualToArray(numbers, QList<int>{3, 1}, same));
    EXPECT_TRUE(orv_isEqualToArray(numbers, numbers, same));
}

TEST(ArrayDeque, PushPopReverseAndClassTest)
{
    QList<int> empty;
    EXPECT_EQ(orv_popFront(empty), std::nullopt);
    EXPECT_EQ(orv_popBack(empty), std::nullopt);
    EXPECT_TRUE(empty.isEmpty());

    QList<int> deque{2};
    orv_pushFront(deque, 1);
    orv_pushBack(deque, 3);
    EXPECT_EQ(deque, (QList<int>{1, 2, 3}));
    orv_reverse(deque);
    EXPECT_EQ(deque, (QList<int>{3, 2, 1}));
    EXPECT_EQ(orv_arrayByReversing(QList<int>{1, 2, 3, 4}), (QList<int>{4, 3, 2, 1}));
    EXPECT_EQ(orv_popFront(deque), 3);
    EXPECT_EQ(orv_popBack(deque), 1);

    QList<std::shared_ptr<Shape>> shapes;
    EXPECT_FALSE(orv_addObject(shapes, std::shared_ptr<Shape>(), ORVClass<Shape>{}));
    EXPECT_FALSE(orv_addObject(shapes, std::make_shared<Shape>(), ORVClass<Circle>{}));
    EXPECT_TRUE(orv_addObject(shapes, std::make_shared<Circle>(), ORVClass<Shape>{}));
    ASSERT_EQ(shapes.size(), 1);
    EXPECT_EQ(orv_arrayByMappingWithSelector(shapes, &Shape::name), (Strings{"circle"}));

    // Pushing nothing fails the assertion and is then rejected like nil.
    RecordAssertions record;
    QList<std::shared_ptr<Shape>> list;
    EXPECT_THROW(orv_pushBack(list, std::shared_ptr<Shape>()), ORVException);
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(record.descriptions(), QStringList{"Invalid parameter not satisfying: obj != nil"});
}

TEST(ArrayRandom, ShuffleIsAPermutationAndUniform)
{
    EXPECT_EQ(orv_randomObject(QList<int>{7}), 7);
    EXPECT_EQ(orv_randomObject(QList<int>{}), std::nullopt);

    QList<int> values(50);
    std::iota(values.begin(), values.end(), 0);
    QList<int> shuffled = orv_arrayByShufflingUsingFisherYates(values);
    EXPECT_NE(shuffled, values) << "1 in 50! to fail by chance";
    std::sort(shuffled.begin(), shuffled.end());
    EXPECT_EQ(shuffled, values);

    // Every one of the 6 orders of three elements turns up about equally.
    QHash<QList<int>, int> seen;
    for (int i = 0; i < 6000; ++i)
        ++seen[orv_arrayByShufflingUsingFisherYates(QList<int>{1, 2, 3})];
    ASSERT_EQ(seen.size(), 6);
    for (int count : seen)
        EXPECT_NEAR(count, 1000, 150);
    // The uniform draw never reaches its bound.
    for (quint32 bound : {2u, 3u, 7u, 0x80000001u})
        for (int i = 0; i < 1000; ++i)
            ASSERT_LT(orv::detail::uniformRandom(bound), bound);
}

TEST(SetHelpers, MappingReductionAndRemoval)
{
    const QSet<int> set{1, 2, 3};
    const QSet<int> mapped = orv_setByMappingWithBlock(set, [](int v) -> ORVSetMapResult<int> {
        if (v == 1)
            return std::nullopt;
        if (v == 2)
            return ORVMappingSet<int>::mapToObjects(20, 21);
        return v * 10;
    });
    EXPECT_EQ(mapped, (QSet<int>{20, 21, 30}));
    EXPECT_EQ(orv_reduce(set, [](int v, int acc) { return acc + v; }, 0), 6);
    EXPECT_TRUE(orv_all(QSet<int>{}, [](int) { return false; }));
    EXPECT_FALSE(orv_any(QSet<int>{}, [](int) { return true; }));
    EXPECT_EQ(orv_objectPassingTest(set, [](int v) { return v > 2; }), 3);

    QSet<int> mutableSet = set;
    EXPECT_EQ(orv_removeObjectPassingTest(mutableSet, [](int v) { return v == 2; }), 2);
    EXPECT_EQ(mutableSet, (QSet<int>{1, 3}));
    orv_mapWithBlock(mutableSet, [](int v) { return v + 1; });
    EXPECT_EQ(mutableSet, (QSet<int>{2, 4}));
    QSet<int> drained = mutableSet;
    EXPECT_TRUE(orv_removeAnyObject(drained).has_value());
    EXPECT_TRUE(orv_removeAnyObject(drained).has_value());
    EXPECT_EQ(orv_removeAnyObject(drained), std::nullopt);
}

TEST(MapTable, WeakEntriesVanishAndValuesAreASet)
{
    ORVMapTable<QString, std::weak_ptr<Shape>> table;
    auto kept = std::make_shared<Shape>();
    {
        auto gone = std::make_shared<Circle>();
        table.setObject(kept, "kept");
        table.setObject(gone, "gone");
        table.setObject(kept, "again");
        EXPECT_EQ(orv_allObjects(table).size(), 2);
    }
    EXPECT_EQ(table.objectForKey("gone"), std::nullopt);
    EXPECT_EQ(orv_allKeys(table), (QSet<QString>{"kept", "gone", "again"})) << "strong keys remain";
    EXPECT_EQ(orv_allObjects(table), (QSet<std::shared_ptr<Shape>>{kept})) << "duplicate values once, gone ones left out";

    QStringList walked;
    orv_enumerateKeysAndObjectsUsingBlock(table, [&](const QString &key, const std::shared_ptr<Shape> &, bool *) {
        walked << key;
    });
    walked.sort();
    EXPECT_EQ(walked, (QStringList{"again", "kept"}));

    int calls = 0;
    orv_enumerateKeysAndObjectsUsingBlock(table, [&](const QString &, const std::shared_ptr<Shape> &, bool *stop) {
        ++calls;
        *stop = true;
    });
    EXPECT_EQ(calls, 1);

    // Weak keys by identity; a gone key is left out and purged.
    ORVMapTable<std::weak_ptr<Shape>, int> byObject;
    auto first = std::make_shared<Shape>();
    byObject.setObject(1, first);
    {
        auto second = std::make_shared<Shape>();
        byObject.setObject(2, second);
    }
    EXPECT_EQ(orv_allKeys(byObject), (QSet<std::shared_ptr<Shape>>{first}));
    EXPECT_EQ(byObject.objectForKey(first), 1);
    byObject.purge();
    EXPECT_EQ(byObject.count(), 1);

    const auto lengths = orv_mapTableWithSelector(Strings{"ab", "c", "ab"}, &QString::size);
    EXPECT_EQ(lengths.count(), 2);
    EXPECT_EQ(lengths.objectForKey("ab"), 2);
}

TEST(CollectionAssertions, EmptyCallablesReportTheirTextsAndFiles)
{
    RecordAssertions record;
    std::function<bool(int, qsizetype)> none;
    std::function<bool(int)> noSetPredicate;
    std::function<void(const QString &, const int &, bool *)> noBlock;
    QString (QString::*noSelector)() const & = nullptr;

    EXPECT_FALSE(orv_any(QList<int>{1}, none));
    EXPECT_TRUE(orv_all(QList<int>{1}, none));
    EXPECT_FALSE(orv_any(QSet<int>{1}, noSetPredicate));
    EXPECT_TRUE(orv_arrayByMappingWithSelector(Strings{"a"}, noSelector).isEmpty());
    EXPECT_TRUE(orv_arrayByFilteringWithBlock(QList<int>{1}, none).isEmpty());
    orv_enumerateKeysAndObjectsUsingBlock(ORVMapTable<QString, int>(), noBlock);

    const auto failures = record.failures();
    ASSERT_EQ(failures.size(), 6u);
    EXPECT_EQ(failures[0].description, "Invalid parameter not satisfying: reducefunc != NULL");
    EXPECT_EQ(failures[1].description, "Invalid parameter not satisfying: reducefunc != NULL");
    EXPECT_EQ(failures[0].file, "NSArray+OrvellaKit");
    EXPECT_EQ(failures[2].file, "NSSet+OrvellaKit");
    EXPECT_EQ(failures[3].description, "Invalid parameter not satisfying: selector != NULL");
    EXPECT_EQ(failures[4].description, "Invalid parameter not satisfying: filterFunc != NULL");
    EXPECT_EQ(failures[5].file, "NSMapTable+OrvellaKit");
    EXPECT_EQ(failures[5].description, "Invalid parameter not satisfying: block != NULL");

    // With the default handler the failure raises.
    ORVScopedAssertionHandler defaults(nullptr);
    EXPECT_THROW(orv_arrayWithCount(2, std::function<int(qsizetype)>()), ORVException);
}
