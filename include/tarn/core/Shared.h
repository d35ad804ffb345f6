#pragma once
// Process-wide instances of the library's components.
//
// Every component with a `shared()` accessor is created on first use, thread-safely, and lives
// until the process ends. Test programs may call `resetSharedInstancesForTesting()` between cases
// while no library work is in flight; it destroys every instance (the main queue first), so the
// next `shared()` call builds a fresh one.

#include <functional>
#include <memory>
#include <mutex>

namespace tarn {

/// Destroys every process-wide instance of the library. Only for tests; call it when no callback,
/// timer or request of the library is running.
void resetSharedInstancesForTesting();

namespace detail {

/// Registers a function that destroys one process-wide instance; `order` lower runs first.
void registerSharedReset(int order, std::function<void()> reset);

/// Holder of one lazily created process-wide instance of `T`.
template <class T, int ResetOrder = 100>
class SharedInstance {
  public:
    static T& get() {
        std::lock_guard lock(mutex());
        auto& slot = instance();
        if (!slot) {
            slot.reset(new T());
            static std::once_flag registered;
            std::call_once(registered, [] {
                registerSharedReset(ResetOrder, [] {
                    std::unique_ptr<T> old;
                    {
                        std::lock_guard lock(mutex());
                        old = std::move(instance());
                    }
                });
            });
        }
        return *slot;
    }

  private:
    static std::mutex& mutex() {
        static std::mutex m;
        return m;
    }
    static std::unique_ptr<T>& instance() {
        static std::unique_ptr<T> p;
        return p;
    }
};

}  // namespace detail

/// A value that several threads read and write; every access copies under a lock.
template <class T>
class Locked {
  public:
    Locked() = default;
    Locked(T value) : value_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

    T get() const {
        std::lock_guard lock(mutex_);
        return value_;
    }
    void set(T value) {
        std::lock_guard lock(mutex_);
        value_ = std::move(value);
    }
    operator T() const { return get(); }  // NOLINT(google-explicit-constructor)
    Locked& operator=(T value) {
        set(std::move(value));
        return *this;
    }

  private:
    mutable std::mutex mutex_;
    T value_{};
};

}  // namespace tarn
