#pragma once

// Light-weight locks for critical sections that are a few instructions long
// and taken several times per operation (a work item's and an operation's
// fields). Uncontended they cost one atomic exchange and one store, where a
// pthread mutex costs a library call each way. A contended lock spins
// briefly and then yields its time slice. Both meet the Lockable
// requirements (std::lock_guard, std::unique_lock).

#include <atomic>
#include <thread>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define ORV_CPU_RELAX() _mm_pause()
#else
#define ORV_CPU_RELAX() std::this_thread::yield()
#endif

// Non-recursive, like the platform's unfair lock.
class ORVUnfairLock {
public:
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
    bool try_lock() noexcept
    {
        return !_locked.load(std::memory_order_relaxed) && !_locked.exchange(true, std::memory_order_acquire);
    }
    void unlock() noexcept { _locked.store(false, std::memory_order_release); }

private:
    std::atomic<bool> _locked = false;
};

// Recursive: the owning thread may take it again (observers notified under
// the lock read values back through the same lock).
class ORVRecursiveLock {
public:
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
