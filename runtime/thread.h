// Threads as the runtime starts them, and what each of them has of its own.

#ifndef RUNTIME_THREAD_H_
#define RUNTIME_THREAD_H_

#include <thread>

namespace vesk {

using Thread = std::thread;

// The calling thread's object of that type, made at its first use there.
template <typename T>
T& OfThisThread() {
  static thread_local T object;
  return object;
}

}  // namespace vesk

#endif  // RUNTIME_THREAD_H_
