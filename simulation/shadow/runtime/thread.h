// Threads of the simulation are fibers: stands in front of the header of the same name.

#ifndef RUNTIME_THREAD_H_
#define RUNTIME_THREAD_H_

#include <functional>
#include <memory>
#include <utility>

#include "simulation/fibers.h"

namespace vesk {

class Thread {
 public:
  Thread() = default;
  explicit Thread(std::function<void()> body)
      : fiber_(vesk_simulation::Fibers::Current().Start(std::move(body), "thread")) {}

  void join() { vesk_simulation::Fibers::Current().Join(fiber_); }

 private:
  vesk_simulation::Fibers::Id fiber_ = 0;
};

template <typename T>
T& OfThisThread() {
  static const char key = 0;
  return *static_cast<T*>(
      vesk_simulation::Fibers::Local(&key, [] { return std::shared_ptr<void>(new T); }));
}

}  // namespace vesk

#endif  // RUNTIME_THREAD_H_
