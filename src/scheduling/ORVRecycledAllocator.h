#pragma once

// An allocator for objects that one thread makes and another one frees, many
// times a second: block operations, made by the thread that adds them to a
// queue and freed by the pool thread that ran them.
//
// glibc's malloc returns a freed chunk of this size (a few hundred bytes, too
// big for its lock-free fast bins) to the arena of the thread that made it,
// under that arena's lock; with the maker allocating from the same arena at
// the same moment, the two threads meet at that lock for every object, and
// the profile of a queue fed from one thread shows it as futex waits and
// wakes. Here a thread keeps the blocks it frees, and hands them on in
// batches of kBatch through one shared list, so the two threads meet once per
// batch instead of once per object.
//
// What is kept is bounded: a thread keeps at most 2 * kBatch blocks of a
// type, the shared list at most kSpareBatches batches; the rest goes back to
// malloc. A thread's own blocks go back to malloc when its thread_local
// objects are destroyed; a thread that first frees a block after that (in a
// pthread key destructor) keeps up to 2 * kBatch - 1 of them for good.
//
// Under AddressSanitizer every block comes from and goes to operator new and
// delete, so a use after free is still caught.

#include <atomic>
#include <cstddef>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define ORV_RECYCLE_BLOCKS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORV_RECYCLE_BLOCKS 0
#endif
#endif
#ifndef ORV_RECYCLE_BLOCKS
#define ORV_RECYCLE_BLOCKS 1
#endif

namespace orv::detail {

// The blocks of one size; Size and Align name the pool.
template <std::size_t Size, std::size_t Align>
class BlockRecycler {
public:
    static constexpr std::size_t kBatch = 64;
    static constexpr std::size_t kSpareBatches = 16;

    static void *allocate()
    {
#if ORV_RECYCLE_BLOCKS
        Local &local = localBlocks();
        // A thread whose blocks were let go at its end takes no more.
        if (!local.head && !local.ended)
            takeSpareBatch(local);
        if (Node *node = local.head) {
            local.head = node->next;
            --local.count;
            return node;
        }
#endif
        return rawNew();
    }

    static void deallocate(void *block) noexcept
    {
#if ORV_RECYCLE_BLOCKS
        Local &local = localBlocks();
        if (!local.ended) {
            if (!local.reaperSet)
                setReaper(local);
            auto *node = static_cast<Node *>(block);
            node->next = local.head;
            local.head = node;
            if (++local.count >= 2 * kBatch)
                giveBatch(local);
            return;
        }
#endif
        rawDelete(block);
    }

private:
    struct Node {
        Node *next;
    };
    static_assert(Size >= sizeof(Node) && Align >= alignof(Node));

    static void *rawNew()
    {
        if constexpr (Align > __STDCPP_DEFAULT_NEW_ALIGNMENT__)
            return ::operator new(Size, std::align_val_t(Align));
        else
            return ::operator new(Size);
    }
    static void rawDelete(void *block) noexcept
    {
        if constexpr (Align > __STDCPP_DEFAULT_NEW_ALIGNMENT__)
            ::operator delete(block, std::align_val_t(Align));
        else
            ::operator delete(block);
    }
    static void freeList(Node *head) noexcept
    {
        while (head)
            rawDelete(std::exchange(head, head->next));
    }

    // One thread's blocks. Trivially destructible, so it stays readable
    // while the thread's other thread_local objects are destroyed (and free
    // operations); the reaper empties it when the thread ends.
    struct Local {
        Node *head;
        std::size_t count;
        bool reaperSet;
        bool ended;
    };
    struct Reaper {
        Local *local;
        ~Reaper()
        {
            local->ended = true;
            freeList(std::exchange(local->head, nullptr));
            local->count = 0;
        }
    };

    static Local &localBlocks() noexcept
    {
        thread_local Local local{};
        return local;
    }

    static void setReaper(Local &local) noexcept
    {
        thread_local Reaper reaper{&local};
        (void)reaper;
        local.reaperSet = true;
    }

    struct Batch {
        Node *head;
        std::size_t count;
    };
    struct Spare {
        std::mutex lock;
        std::vector<Batch> batches;
        // batches.size(), so that a thread finding none need not lock.
        std::atomic<std::size_t> available = 0;
    };

    static Spare &spare()
    {
        // Never destroyed: blocks may be freed by threads that outlive the
        // static destructors.
        static Spare *instance = [] {
            auto *made = new Spare();
            made->batches.reserve(kSpareBatches);
            return made;
        }();
        return *instance;
    }

    static void takeSpareBatch(Local &local)
    {
        Spare &shared = spare();
        if (shared.available.load(std::memory_order_relaxed) == 0)
            return;
        {
            std::lock_guard lock(shared.lock);
            if (shared.batches.empty())
                return;
            const Batch batch = shared.batches.back();
            shared.batches.pop_back();
            shared.available.store(shared.batches.size(), std::memory_order_relaxed);
            local.head = batch.head;
            local.count = batch.count;
        }
        if (!local.reaperSet)
            setReaper(local);
    }

    // Moves kBatch of the thread's blocks to the shared list (or back to
    // malloc when the list is full).
    static void giveBatch(Local &local) noexcept
    {
        Node *head = local.head;
        Node *last = head;
        for (std::size_t i = 1; i < kBatch; ++i)
            last = last->next;
        local.head = last->next;
        local.count -= kBatch;
        last->next = nullptr;
        {
            Spare &shared = spare();
            std::lock_guard lock(shared.lock);
            if (shared.batches.size() < kSpareBatches) {
                shared.batches.push_back({head, kBatch});
                shared.available.store(shared.batches.size(), std::memory_order_relaxed);
                return;
            }
        }
        freeList(head);
    }
};

// A standard allocator over BlockRecycler for std::allocate_shared, which
// asks for one object at a time.
template <typename T>
struct RecycledAllocator {
    using value_type = T;
    RecycledAllocator() = default;
    template <typename U>
    RecycledAllocator(const RecycledAllocator<U> &) noexcept
    {
    }

    T *allocate(std::size_t n)
    {
        if (n != 1)
            throw std::bad_array_new_length();
        return static_cast<T *>(BlockRecycler<sizeof(T), alignof(T)>::allocate());
    }
    void deallocate(T *p, std::size_t n) noexcept
    {
        (void)n;
        BlockRecycler<sizeof(T), alignof(T)>::deallocate(p);
    }
    template <typename U>
    bool operator==(const RecycledAllocator<U> &) const noexcept
    {
        return true;
    }
};

} // namespace orv::detail
