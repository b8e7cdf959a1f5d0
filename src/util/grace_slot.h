// One object that any number of threads read without a lock while a writer
// now and then puts another in its place. The replaced object is handed back
// to the writer only once every reader that could have seen it has finished,
// so the writer frees it with no reader left inside.
//
// Readers: read() gives a guard that holds the object for the guard's life.
// It takes no lock and allocates nothing: a counter of the current reader
// generation goes up, the generation is read again (a reader that raced a
// replacement steps back and retries), then the object pointer is loaded. The
// guard's end takes the counter down. A guard must not outlive the slot, and
// the thread that holds one must not replace the object (it would wait for
// itself).
//
// Writers: exchange() installs the new object, then starts a new generation
// and waits until the previous generation's counter is zero. A reader of the
// replaced object counted itself in that generation (or in an older one, which
// the previous exchange already waited for), and readers arriving later see
// only the new object and count in the new generation, so the wait ends as
// soon as the lookups in flight are done. Writers are serialised by
// `writer_lock_`, which readers never touch. All atomics are sequentially
// consistent: replacements are rare, and the argument above needs one order.
//
// Counters are 32-bit so that every target's atomics stay lock-free.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

template <class T, class Deleter = std::default_delete<T>>
class grace_slot {
public:
    using pointer = std::unique_ptr<T, Deleter>;

    // Holds the object current when it was made; null when the slot is empty.
    class reader {
    public:
        reader(const reader&) = delete;
        reader& operator=(const reader&) = delete;
        reader(reader&& o) noexcept : slot_(o.slot_), generation_(o.generation_), object_(o.object_) {
            o.slot_ = nullptr;
        }
        reader& operator=(reader&&) = delete;
        ~reader() {
            if (slot_) slot_->readers_[generation_].fetch_sub(1);
        }
        const T* get() const { return object_; }

    private:
        friend class grace_slot;
        reader(const grace_slot* slot, uint32_t generation, const T* object)
            : slot_(slot), generation_(generation), object_(object) {}
        const grace_slot* slot_;
        uint32_t generation_;  // 0 or 1: the counter this reader raised
        const T* object_;
    };

    grace_slot() = default;
    grace_slot(const grace_slot&) = delete;
    grace_slot& operator=(const grace_slot&) = delete;
    // No reader may be left when the slot goes.
    ~grace_slot() { pointer(current_.load()); }

    reader read() const {
        for (;;) {
            const uint32_t g = epoch_.load();
            readers_[g & 1].fetch_add(1);
            if (epoch_.load() == g) return reader(this, g & 1, current_.load());
            // A replacement began between the two loads: count in the new one.
            readers_[g & 1].fetch_sub(1);
        }
    }

    // Installs `next` (null empties the slot) and returns the object it
    // replaced once no reader holds it any more. Waits only for lookups that
    // started before the call.
    pointer exchange(pointer next) {
        std::lock_guard<std::mutex> writer(writer_lock_);
        T* old = current_.exchange(next.release());
        const uint32_t g = epoch_.fetch_add(1);
        for (int spins = 0; readers_[g & 1].load() != 0; ++spins) {
            if (spins < 64)
                std::this_thread::yield();
            else
                std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return pointer(old);
    }

    // Replaces and frees the object (after its last reader); safe when empty.
    void reset() { exchange(nullptr); }

    // How many readers hold a guard now (for tests and checks).
    uint32_t readers_now() const { return readers_[0].load() + readers_[1].load(); }

private:
    static_assert(std::atomic<uint32_t>::is_always_lock_free);
    static_assert(std::atomic<T*>::is_always_lock_free);

    std::atomic<T*> current_{nullptr};
    std::atomic<uint32_t> epoch_{0};
    // One counter per generation parity, each on its own cache line so that
    // readers of one generation do not slow the writer's polling of the other.
    struct alignas(64) counter : std::atomic<uint32_t> {
        counter() : std::atomic<uint32_t>(0) {}
    };
    mutable counter readers_[2];
    std::mutex writer_lock_;
};
