#pragma once

/// \file
/// ORVDispatchQueue: serial and concurrent executors.

#include <OrvellaKit/ORVExport.h>

#include <QString>

#include <chrono>
#include <functional>
#include <memory>

/// Serial and concurrent executors.
///
/// - The main queue is the Qt main thread: its blocks run from the
///   application object's event loop, in order. Blocks added before the
///   QCoreApplication exists wait for its event loop.
/// - Serial queues run one block at a time, in order, on threads of the
///   framework's own pool (not QThreadPool::globalInstance(), which has only
///   as many threads as cores). The pool starts a thread whenever work waits
///   and no thread is idle, up to 64 running blocks; a thread that waits in
///   sync() does not count, so a block that waits for another queue never
///   holds the last free thread.
/// - Global queues run blocks concurrently on the same pool; higher qualities
///   of service are taken first.
///
/// isCurrent() is the "am I running on this queue" test. A block that throws
/// is reported on the Qt log and does not stop the queue; sync() rethrows the
/// exception in the caller.
///
/// Thread rule: any thread. Ownership: queues are shared; the main and global
/// queues live as long as the process. A queue keeps its blocks until they
/// have run, and a queue with blocks waiting (or a delayed block due) is kept
/// alive by them.
class ORVELLAKIT_EXPORT ORVDispatchQueue : public std::enable_shared_from_this<ORVDispatchQueue> {
public:
    /// How urgent a global queue's blocks are; higher ones are taken first.
    enum class QualityOfService {
        Background,     ///< The lowest.
        Utility,        ///< Above Background.
        Default,        ///< The default.
        UserInitiated,  ///< Above Default.
        UserInteractive ///< The highest; the main queue's.
    };

    /// A unit of work.
    using Block = std::function<void()>;

    /// A new serial queue.
    static std::shared_ptr<ORVDispatchQueue> create(const QString &label);
    /// The queue of the Qt main thread.
    static std::shared_ptr<ORVDispatchQueue> mainQueue();
    /// The shared concurrent queue of a quality of service.
    static std::shared_ptr<ORVDispatchQueue> globalQueue(QualityOfService qos = QualityOfService::Default);
    /// The innermost queue whose block the calling thread is running, or the
    /// main queue on the main thread, or null.
    static std::shared_ptr<ORVDispatchQueue> currentQueue();

    virtual ~ORVDispatchQueue();
    ORVDispatchQueue(const ORVDispatchQueue &) = delete;
    ORVDispatchQueue &operator=(const ORVDispatchQueue &) = delete;

    /// The label given at creation ("com.orvella.main-thread" for the main
    /// queue, "com.orvella.root.\<quality\>-qos" for a global one).
    const QString &label() const { return _label; }
    /// True for serial queues and the main queue, false for global queues.
    bool isSerial() const { return _kind != Kind::Concurrent; }
    /// True for the main queue.
    bool isMainQueue() const { return _kind == Kind::Main; }

    /// True while the calling thread runs a block of this queue (for the main
    /// queue: while it is the main thread).
    bool isCurrent() const;

    /// Runs the block later, on this queue. A null block is ignored.
    void async(Block block);
    /// Runs the block on this queue and waits for it. Called from a block
    /// already running on this (serial) queue it runs inline instead of
    /// deadlocking. On the main queue before the QCoreApplication exists it
    /// throws ORVException instead of waiting for ever. A null block is
    /// ignored.
    void sync(const Block &block);
    /// Runs the block on this queue once the delay has passed. A null block
    /// is ignored.
    void after(std::chrono::milliseconds delay, Block block);

protected:
    /// What kind of queue an object is.
    enum class Kind {
        Main,      ///< The main queue.
        Serial,    ///< A serial queue on the worker pool.
        Concurrent ///< A global queue.
    };
    /// Made by the factories above only.
    ORVDispatchQueue(QString label, Kind kind, QualityOfService qos);

private:
    struct Private;
    friend struct Private;
    void drain();

    QString _label;
    Kind _kind;
    QualityOfService _qos;
    std::unique_ptr<Private> d;
};
