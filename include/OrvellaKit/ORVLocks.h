#pragma once

/// \file
/// Light-weight locks for critical sections that are a few instructions long
/// and taken several times per operation (a work item's and an operation's
/// fields). Uncontended they cost one atomic exchange and one store, where a
/// pthread mutex costs a library call each way. A contended lock spins
/// briefly and then yields its time slice. Both meet the Lockable
/// requirements (std::lock_guard, std::unique_lock).
///
/// Both locks are header-only and may be taken on any thread.

#include <atomic>
#include <thread>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define ORV_CPU_RELAX() _mm_pause()
#else
#define ORV_CPU_RELAX() std::this_thread::yield()
#endif

/// \def ORV_CPU_RELAX()
/// Tells the processor that the caller is spinning on a lock: the pause
/// instruction on x86, elsewhere a yield of the thread's time slice.

/// Non-recursive, like the platform's unfair lock.
///
/// Any thread. Waiters are not served in arrival order. Taking it again on
/// the thread that holds it deadlocks; unlocking it from a thread that does
/// not hold it is not detected.
class ORVUnfairLock {
public:
    /// Takes the lock, spinning briefly and then yielding while another
    /// thread holds it.
    void lock() noexcept
    {
        for (int spins = 0; _locked.exchange(true, std::memory_order_acquire); ++spins) {
            while (_locked.load(std::memory_order_relaxed)) {
                if (spins++ < 64)
                    ORV_CPU_RELAX();
                else
                    std::this_thread::yield();
            }
        }
    }
    /// Takes the lock when it is free; answers whether it did.
    bool try_lock() noexcept
    {
        return !_locked.load(std::memory_order_relaxed) && !_locked.exchange(true, std::memory_order_acquire);
    }
    /// Releases the lock.
    void unlock() noexcept { _locked.store(false, std::memory_order_release); }

private:
    std::atomic<bool> _locked = false;
};

/// Recursive: the owning thread may take it again (observers notified under
/// the lock read values back through the same lock).
///
/// Any thread; each lock() and successful try_lock() must be matched by one
/// unlock() on the same thread.
class ORVRecursiveLock {
public:
    /// Takes the lock, or takes it once more when the calling thread holds it.
    void lock() noexcept
    {
        const auto self = std::this_thread::get_id();
        if (_owner.load(std::memory_order_relaxed) == self) {
            ++_depth;
            return;
        }
        _lock.lock();
        _owner.store(self, std::memory_order_relaxed);
        _depth = 1;
    }
    /// Like lock(), but answers false instead of waiting for another thread.
    bool try_lock() noexcept
    {
        const auto self = std::this_thread::get_id();
        if (_owner.load(std::memory_order_relaxed) == self) {
            ++_depth;
            return true;
        }
        if (!_lock.try_lock())
            return false;
        _owner.store(self, std::memory_order_relaxed);
        _depth = 1;
        return true;
    }
    /// Releases one level; the lock is free once every level is released.
    void unlock() noexcept
    {
        if (--_depth == 0) {
            _owner.store(std::thread::id(), std::memory_order_relaxed);
            _lock.unlock();
        }
    }

private:
    ORVUnfairLock _lock;
    std::atomic<std::thread::id> _owner{};
    int _depth = 0;
};
