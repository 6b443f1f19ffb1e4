// A mutex that the compiler can check, and a condition to wait on with it.
//
// Clang's -Wthread-safety reports every access to a GUARDED_BY field without its mutex; other
// compilers see plain standard mutexes.

#ifndef VESK_VESKMUTEX_H_
#define VESK_VESKMUTEX_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define VESK_ANNOTATION(x) __attribute__((x))
#else
#define VESK_ANNOTATION(x)
#endif

// NOLINTBEGIN(bugprone-macro-parentheses): attribute arguments
#define VESK_CAPABILITY(name) VESK_ANNOTATION(capability(name))
#define VESK_SCOPED_CAPABILITY VESK_ANNOTATION(scoped_lockable)
#define VESK_GUARDED_BY(mutex) VESK_ANNOTATION(guarded_by(mutex))
#define VESK_REQUIRES(...) VESK_ANNOTATION(requires_capability(__VA_ARGS__))
#define VESK_EXCLUDES(...) VESK_ANNOTATION(locks_excluded(__VA_ARGS__))
#define VESK_ACQUIRE(...) VESK_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VESK_RELEASE(...) VESK_ANNOTATION(release_capability(__VA_ARGS__))
#define VESK_NO_THREAD_SAFETY_ANALYSIS VESK_ANNOTATION(no_thread_safety_analysis)
// NOLINTEND(bugprone-macro-parentheses)

namespace vesk {

//   Before   not recursive; unlocked by the thread that locked it
class VESK_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() VESK_ACQUIRE() { mutex_.lock(); }
  void unlock() VESK_RELEASE() { mutex_.unlock(); }

 private:
  friend class Condition;

  std::mutex mutex_;
};

// Holds a mutex from here to the end of the scope; may be let go and taken again in between.
template <typename Lockable>
class VESK_SCOPED_CAPABILITY Holding {
 public:
  explicit Holding(Lockable& mutex) VESK_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~Holding() VESK_RELEASE() {
    if (held_) mutex_.unlock();
  }
  Holding(const Holding&) = delete;
  Holding& operator=(const Holding&) = delete;

  void Unlock() VESK_RELEASE() {
    held_ = false;
    mutex_.unlock();
  }
  void Lock() VESK_ACQUIRE() {
    mutex_.lock();
    held_ = true;
  }

 private:
  Lockable& mutex_;
  bool held_ = true;
};

using MutexLock = Holding<Mutex>;

// Wakes threads that wait for a change of what the mutex guards. Waits may end without one: callers
// look again, in a loop.
class Condition {
 public:
  void Wait(Mutex& mutex) VESK_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();  // NOLINT(bugprone-unused-return-value): the caller holds it on
  }

  void WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point until) VESK_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait_until(lock, until);
    lock.release();  // NOLINT(bugprone-unused-return-value): the caller holds it on
  }

  void WakeOne() { condition_.notify_one(); }
  void WakeAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace vesk

#endif  // VESK_VESKMUTEX_H_
