#pragma once
// Process-wide instances of the library's components.
//
// Every component with a `shared()` accessor is created on first use, thread-safely, and is never
// destroyed: it stays usable until the process is gone, from any thread, also while the process
// exits (static destructors running after `exit()` or a return from `main`, or `quick_exit`). The
// library's own threads (the main queue, the transport workers) are not stopped or joined at exit;
// the operating system ends them with the process. Instances are kept through a pointer in static
// storage, so leak checkers count them as reachable rather than leaked.
//
// What a host may do around exit:
// - Any public call may be made on any thread while the process exits, also after `exit()` has
//   begun on another thread. Such calls are accepted and return at once; the event may be stored
//   but is not guaranteed to be sent, and its completion (if any) may never run.
// - Nothing of the library blocks the exit: requests in flight, a drain step or an answer still
//   being parsed are abandoned where they stand, their completions not run.
// - Nothing needs to be called before exit; there is no shutdown call.
//
// Test programs may call `resetSharedInstancesForTesting()` between cases while no library work is
// in flight; it destroys every instance (the main queue first), so the next `shared()` call builds
// a fresh one.
//
// One of the base utilities under every subsystem (sources in src/base/); it includes nothing
// of the library above that layer.

#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "tarn/core/Export.h"

namespace tarn {

/// Destroys every process-wide instance of the library. Only for tests; call it when no callback,
/// timer or request of the library is running.
TARN_API void resetSharedInstancesForTesting();

namespace detail {

/// Storage for a static object whose destructor never runs, so the object stays usable by other
/// threads while the process exits. Use it for function-local statics:
/// `static NeverDestroyed<std::mutex> m; m->lock();`.
template <class T>
class NeverDestroyed {
  public:
    template <class... Args>
    explicit NeverDestroyed(Args&&... args) {
        ::new (static_cast<void*>(storage_)) T(std::forward<Args>(args)...);
    }
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;
    ~NeverDestroyed() = default;

    T& get() { return *std::launder(reinterpret_cast<T*>(storage_)); }
    T& operator*() { return get(); }
    T* operator->() { return &get(); }

  private:
    alignas(T) unsigned char storage_[sizeof(T)];
};

/// Registers a function that destroys one process-wide instance; `order` lower runs first.
TARN_API void registerSharedReset(int order, std::function<void()> reset);

/// Holder of one lazily created process-wide instance of `T`. The instance is never destroyed
/// except by `resetSharedInstancesForTesting()`.
template <class T, int ResetOrder = 100>
class SharedInstance {
  public:
    static T& get() {
        std::lock_guard lock(*mutex());
        T*& slot = instance();
        if (!slot) {
            slot = new T();
            static std::once_flag registered;
            std::call_once(registered, [] {
                registerSharedReset(ResetOrder, [] {
                    std::unique_ptr<T> old;
                    {
                        std::lock_guard lock(*mutex());
                        old.reset(std::exchange(instance(), nullptr));
                    }
                });
            });
        }
        return *slot;
    }

  private:
    static NeverDestroyed<std::mutex>& mutex() {
        static NeverDestroyed<std::mutex> m;
        return m;
    }
    // A plain pointer in static storage: nothing tears it down at exit, and leak checkers see
    // the instance as reachable.
    static T*& instance() {
        static T* p = nullptr;
        return p;
    }
};

}  // namespace detail

/// A value that several threads read and write; every access copies under a lock.
template <class T>
class Locked {
  public:
    Locked() = default;
    /// Holds `value` (converts implicitly, so a `Locked<T>` member can be initialised with a `T`).
    Locked(T value) : value_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

    /// A copy of the value, read under the lock.
    T get() const {
        std::lock_guard lock(mutex_);
        return value_;
    }
    /// Replaces the value under the lock.
    void set(T value) {
        std::lock_guard lock(mutex_);
        value_ = std::move(value);
    }
    /// Stores `value` and returns the value it replaced, in one step.
    T exchange(T value) {
        std::lock_guard lock(mutex_);
        std::swap(value_, value);
        return value;
    }
    /// A copy of the value, as `get()`.
    operator T() const { return get(); }  // NOLINT(google-explicit-constructor)
    /// Replaces the value, as `set()`.
    Locked& operator=(T value) {
        set(std::move(value));
        return *this;
    }

  private:
    mutable std::mutex mutex_;
    T value_{};
};

}  // namespace tarn
