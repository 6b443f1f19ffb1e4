// Threads of execution that take turns inside one thread, in an order that can be repeated.

#ifndef SIMULATION_FIBERS_H_
#define SIMULATION_FIBERS_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vesk_simulation {

// One scheduler and its fibers. A fiber runs when Run says so, until it ends, has to wait, or has
// come past so many switch points: every mutex has one before it is taken and one after it was
// given up, so what another thread may see in between is seen by another fiber.
//   Owns     the fibers with their stacks; those that have not ended when it is destroyed are left
//            as they are, with all that is on their stacks
//   Threads  one: that of the scheduler
class Fibers {
 public:
  using Time = std::chrono::steady_clock::time_point;
  using Id = std::uint32_t;  // from 1 on, in the order of Start

  static constexpr Time kNever = Time::max();

  Fibers();
  ~Fibers();
  Fibers(const Fibers&) = delete;
  Fibers& operator=(const Fibers&) = delete;

  static Fibers& Current();

  // `body` runs when Run says so. `what` names it where it is stuck.
  Id Start(std::function<void()> body, std::string what);

  // Runs one fiber past up to `points` switch points.
  //   Before   CanRun(fiber)
  void Run(Id fiber, unsigned points);

  bool CanRun(Id fiber) const;
  std::vector<Id> Runnable() const;
  bool Ended(Id fiber) const;

  // The time at which one that waits could run; kNever: there is none.
  Time NextTime() const;

  // Those that have not ended, one line each.
  std::string Describe() const;

  Time now{};

  // ---- from inside a fiber; outside of all nothing has to wait, and nothing happens ----

  // Waits until woken with Wake(on) or `until` has come.
  static void WaitFor(const void* on, Time until = kNever);
  static void Wake(const void* on, bool all);
  static void SwitchPoint();
  void Join(Id fiber);

  // The running fiber's object of that key, made at its first use there.
  static void* Local(const void* key, const std::function<std::shared_ptr<void>()>& make);

  // Whether allocations fail in the running fiber, where one is to fail.
  static bool& MayFail();

 private:
  struct Fiber;

  static void Main();
  void SwitchTo(Fiber* fiber);
  void SwitchBack(bool for_good);
  Fiber* Find(Id id) const;

  std::vector<std::unique_ptr<Fiber>> fibers_;  // that have not ended, in the order of their start
  std::vector<std::unique_ptr<Fiber>> spare_;   // whose stacks can be used again
  std::unique_ptr<Fiber> outside_;              // what the scheduler itself has
  Fiber* running_ = nullptr;
  unsigned points_ = 0;
  Id last_ = 0;
  Fibers* const before_;  // the current one before this
};

}  // namespace vesk_simulation

#endif  // SIMULATION_FIBERS_H_
