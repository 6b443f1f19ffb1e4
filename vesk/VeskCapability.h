// What a lock is to the compiler, and a scope that holds one.
//
// Clang's -Wthread-safety reports every access to a GUARDED_BY field without its mutex; other
// compilers see plain classes.

#ifndef VESK_VESKCAPABILITY_H_
#define VESK_VESKCAPABILITY_H_

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

}  // namespace vesk

#endif  // VESK_VESKCAPABILITY_H_
