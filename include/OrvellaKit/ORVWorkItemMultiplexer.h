#pragma once

// ORVWorkItemMultiplexer joins identical work: while an item for a key is
// running, further requests for that key start nothing; their handlers wait
// and are all called with the item that ran and its error, in arrival order,
// one task each on that item's completion queue, after the item's own
// completion. Work without a key starts directly.
//
// Key is any type that QHash can hash and compare (QString by default).

#include <OrvellaKit/ORVWorkItem.h>

#include <QHash>
#include <QList>
#include <QString>

#include <memory>
#include <mutex>
#include <optional>

template <typename Key = QString>
class ORVWorkItemMultiplexer {
public:
    using CompletionHandler = ORVWorkItem::CompletionHandler;

    ORVWorkItemMultiplexer() : _shared(std::make_shared<Shared>()) {}

    // With no key: the item gets the handler and starts. With a key: the
    // first request records and starts its item; later ones, while it runs,
    // only queue their handler (their own item is never started or kept).
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
        // The handler holds the shared state, so a multiplexer destroyed
        // while work runs still delivers to its waiters.
        item->setCompletionHandler([shared = _shared, key = *key](const std::shared_ptr<ORVWorkItem> &,
                                                                  const ORVError &error) {
            finish(shared, key, error);
        });
        item->start();
    }

    // Called by the running item's own completion.
    void finishWorkItemForKey(const Key &key, const ORVError &error) { finish(_shared, key, error); }

    // Keys with a running item.
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

    static void finish(const std::shared_ptr<Shared> &shared, const Key &key, const ORVError &error)
    {
        std::shared_ptr<ORVWorkItem> item;
        QList<CompletionHandler> handlers;
        {
            std::lock_guard lock(shared->lock);
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
