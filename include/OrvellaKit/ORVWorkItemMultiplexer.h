#pragma once

/// \file
/// ORVWorkItemMultiplexer: one run of a work item for many identical requests.

#include <OrvellaKit/ORVErrors.h>
#include <OrvellaKit/ORVWorkItem.h>

#include <QHash>
#include <QList>
#include <QString>

#include <memory>
#include <mutex>
#include <optional>

/// Joins identical work: while an item for a key is running, further
/// requests for that key start nothing; their handlers wait and are all
/// called with the item that ran and its error, in arrival order, one task
/// each on that item's completion queue, after the item's own completion.
/// Work without a key starts directly.
///
/// A key is never left waiting: when the first request's item was started
/// already (its completion is someone else's) or its start() throws, the key
/// is released at once and every handler recorded for it runs with the
/// error "com.orvella.orvellakit" ORVWorkItemMultiplexerItemNotStartableErrorCode
/// (what start() threw is rethrown to the first caller afterwards).
///
/// Key is any type that QHash can hash and compare (QString by default).
///
/// Thread rule: any thread; handlers run on the item's completion queue.
/// Ownership: the multiplexer keeps the running item and the waiting handlers
/// of a key until the key is finished. The item's completion handler shares
/// that state, so a multiplexer destroyed while work runs still answers its
/// waiters.
template <typename Key = QString>
class ORVWorkItemMultiplexer {
public:
    /// What a request is answered with: the item that ran and its error.
    using CompletionHandler = ORVWorkItem::CompletionHandler;

    /// A multiplexer with no running item.
    ORVWorkItemMultiplexer() : _shared(std::make_shared<Shared>()) {}

    /// With no key: the item gets the handler and starts. With a key: the
    /// first request records and starts its item; later ones, while it runs,
    /// only queue their handler (their own item is never started or kept).
    void startWorkItemIfNeeded(const std::shared_ptr<ORVWorkItem> &item, const std::optional<Key> &key,
                               CompletionHandler handler)
    {
        if (!item)
            return;
        if (!key) {
            item->setCompletionHandler(std::move(handler));
            item->start();
            return;
        }
        bool isNew = false;
        {
            std::lock_guard lock(_shared->lock);
            auto &running = _shared->operations[*key];
            if (!running) {
                running = item;
                isNew = true;
            }
            _shared->completionHandlers[*key].append(std::move(handler));
        }
        if (!isNew)
            return;
        try {
            // An item started elsewhere would never call back here; nor
            // would one whose handler could not be set (started meanwhile
            // on another thread, the assertion handler returning).
            if (item->state() != ORVWorkItemStateNotStarted)
                return finish(_shared, *key, notStartableError(QStringLiteral("was started already")), item);
            // The handler holds the shared state, so a multiplexer destroyed
            // while work runs still delivers to its waiters. It finishes the
            // key only while this item is the one recorded for it.
            item->setCompletionHandler([shared = _shared, key = *key](const std::shared_ptr<ORVWorkItem> &finished,
                                                                      const ORVError &error) {
                finish(shared, key, error, finished);
            });
            if (!item->completionHandler())
                return finish(_shared, *key, notStartableError(QStringLiteral("was started already")), item);
            item->start();
        } catch (...) {
            // Whoever ends the key first answers every waiter once: this
            // error, or the item's own result if its completion came first.
            finish(_shared, *key, notStartableError(QStringLiteral("could not be started")), item);
            throw;
        }
    }

    /// Called by the running item's own completion: ends the key's waiting
    /// and answers its handlers with the recorded item and `error`. Does
    /// nothing for a key without a running item.
    void finishWorkItemForKey(const Key &key, const ORVError &error) { finish(_shared, key, error, nullptr); }

    /// Keys with a running item.
    qsizetype runningCount() const
    {
        std::lock_guard lock(_shared->lock);
        return _shared->operations.size();
    }

private:
    struct Shared {
        std::mutex lock;
        QHash<Key, std::shared_ptr<ORVWorkItem>> operations;
        QHash<Key, QList<CompletionHandler>> completionHandlers;
    };

    static ORVError notStartableError(const QString &what)
    {
        return ORVError(ORVOrvellaKitErrorDomain, ORVWorkItemMultiplexerItemNotStartableErrorCode,
                        {{ORVLocalizedDescriptionKey, QStringLiteral("The work item %1.").arg(what)}});
    }

    /// Ends the key's waiting: its handlers get the recorded item and the
    /// error. With `expected`, only while that item is the one recorded (a
    /// late completion must not end a later item's key).
    static void finish(const std::shared_ptr<Shared> &shared, const Key &key, const ORVError &error,
                       const std::shared_ptr<ORVWorkItem> &expected)
    {
        std::shared_ptr<ORVWorkItem> item;
        QList<CompletionHandler> handlers;
        {
            std::lock_guard lock(shared->lock);
            const auto recorded = shared->operations.constFind(key);
            if (recorded == shared->operations.constEnd() || (expected && *recorded != expected))
                return;
            item = shared->operations.take(key);
            handlers = shared->completionHandlers.take(key);
        }
        if (!item)
            return;
        const auto queue = item->completionQueue();
        for (auto &handler : handlers) {
            if (handler)
                queue->async([handler = std::move(handler), item, error] { handler(item, error); });
        }
    }

    std::shared_ptr<Shared> _shared;
};
