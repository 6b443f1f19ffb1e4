// Signals, handled by a thread where ordinary code may run.

#ifndef RUNTIME_SIGNALS_H_
#define RUNTIME_SIGNALS_H_

#include <signal.h>

#include <functional>
#include <thread>
#include <vector>

#include "runtime/descriptor_cache.h"

namespace vesk {

// Takes the chosen signals of the process away from every other thread.
//   Owns     a thread
//   Before   made before any other thread, which inherits that the signals are blocked
class SignalWatcher {
 public:
  // `handle` is called by the watcher's thread, once for each signal that arrives.
  //   Ends in  std::system_error when a descriptor or the thread cannot be had
  SignalWatcher(const std::vector<int>& signals, std::function<void(int)> handle);

  // No call of `handle` is running afterwards, and the signals do again what they did before.
  ~SignalWatcher();
  SignalWatcher(const SignalWatcher&) = delete;
  SignalWatcher& operator=(const SignalWatcher&) = delete;

 private:
  void Work();

  sigset_t watched_;
  sigset_t before_;
  const std::function<void(int)> handle_;
  const Descriptor signals_;
  const Descriptor end_;  // an eventfd
  std::thread thread_;
};

}  // namespace vesk

#endif  // RUNTIME_SIGNALS_H_
