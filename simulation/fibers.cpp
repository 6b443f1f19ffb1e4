#include "simulation/fibers.h"

#include <cxxabi.h>
#include <pthread.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VESK_ASAN
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define VESK_ASAN
#endif

#ifdef VESK_ASAN
#include <sanitizer/common_interface_defs.h>
#endif

namespace vesk_simulation {

namespace {

constexpr std::size_t kStack = std::size_t{256} << 10;
constexpr std::size_t kGuard = 4096;

Fibers* current = nullptr;

// What the C++ runtime keeps for each thread about exceptions on their way: a fiber may give way
// in the middle of a handler or of unwinding.
struct Exceptions {
  void* caught = nullptr;
  unsigned int uncaught = 0;
};

#ifdef VESK_ASAN
// The scheduler's stack, as the sanitizer tells it.
const void* bottom = nullptr;
std::size_t size = 0;
#endif

Exceptions& ExceptionsOfThisThread() {
  return *reinterpret_cast<Exceptions*>(abi::__cxa_get_globals());
}

void* NewStack() {
  void* const memory = mmap(nullptr, kStack + kGuard, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  mprotect(memory, kGuard, PROT_NONE);
  return memory;
}

}  // namespace

struct Fibers::Fiber {
  Id id = 0;
  std::string what;
  std::function<void()> body;
  bool ended = false;

  // What it waits for; null: nothing.
  const void* on = nullptr;
  Time until = kNever;

  bool may_fail = false;
  std::vector<std::pair<const void*, std::shared_ptr<void>>> locals;

  ucontext_t context{};
  void* stack = nullptr;  // its lowest address is a page that nobody may touch
  Exceptions exceptions;
#ifdef VESK_ASAN
  void* fake_stack = nullptr;
#endif

  Fiber() = default;
  ~Fiber() {
    if (stack != nullptr) munmap(stack, kStack + kGuard);
  }
  Fiber(const Fiber&) = delete;
  Fiber& operator=(const Fiber&) = delete;
};

Fibers::Fibers() : outside_(std::make_unique<Fiber>()), before_(current) { current = this; }

Fibers::~Fibers() {
  for (std::unique_ptr<Fiber>& fiber : fibers_) {
    if (!fiber->ended) (void)fiber.release();  // what is on its stack is left, and so it is
  }
  current = before_;
}

Fibers& Fibers::Current() { return *current; }

Fibers::Id Fibers::Start(std::function<void()> body, std::string what) {
  std::unique_ptr<Fiber> fiber;
  if (spare_.empty()) {
    fiber = std::make_unique<Fiber>();
    fiber->stack = NewStack();
  } else {
    fiber = std::move(spare_.back());
    spare_.pop_back();
  }
  fiber->id = ++last_;
  fiber->what = std::move(what);
  fiber->body = std::move(body);
  fiber->ended = false;
  fiber->may_fail = false;
  getcontext(&fiber->context);
  fiber->context.uc_stack.ss_sp = static_cast<char*>(fiber->stack) + kGuard;
  fiber->context.uc_stack.ss_size = kStack;
  fiber->context.uc_link = nullptr;
  makecontext(&fiber->context, &Fibers::Main, 0);
  fibers_.push_back(std::move(fiber));
  return last_;
}

void Fibers::Main() {
  Fibers& self = *current;
#ifdef VESK_ASAN
  __sanitizer_finish_switch_fiber(nullptr, &bottom, &size);
#endif
  self.running_->body();
  self.running_->body = nullptr;
  self.running_->locals.clear();
  self.running_->ended = true;
  Wake(self.running_, true);
  self.SwitchBack(true);
}

void Fibers::SwitchTo(Fiber* fiber) {
  running_ = fiber;
  outside_->exceptions = std::exchange(ExceptionsOfThisThread(), fiber->exceptions);
#ifdef VESK_ASAN
  __sanitizer_start_switch_fiber(&outside_->fake_stack, static_cast<char*>(fiber->stack) + kGuard,
                                 kStack);
#endif
  swapcontext(&outside_->context, &fiber->context);
#ifdef VESK_ASAN
  __sanitizer_finish_switch_fiber(outside_->fake_stack, nullptr, nullptr);
#endif
  fiber->exceptions = std::exchange(ExceptionsOfThisThread(), outside_->exceptions);
  running_ = nullptr;
}

// Back to the scheduler.
void Fibers::SwitchBack([[maybe_unused]] bool for_good) {
  Fiber* const fiber = running_;
#ifdef VESK_ASAN
  __sanitizer_start_switch_fiber(for_good ? nullptr : &fiber->fake_stack, bottom, size);
#endif
  swapcontext(&fiber->context, &outside_->context);
#ifdef VESK_ASAN
  __sanitizer_finish_switch_fiber(fiber->fake_stack, &bottom, &size);
#endif
}

Fibers::Fiber* Fibers::Find(Id id) const {
  for (const std::unique_ptr<Fiber>& fiber : fibers_) {
    if (fiber->id == id) return fiber.get();
  }
  return nullptr;
}

bool Fibers::CanRun(Id id) const {
  const Fiber* const fiber = Find(id);
  return fiber != nullptr && (fiber->on == nullptr || fiber->until <= now);
}

bool Fibers::Ended(Id id) const { return Find(id) == nullptr; }

std::vector<Fibers::Id> Fibers::Runnable() const {
  std::vector<Id> runnable;
  for (const std::unique_ptr<Fiber>& fiber : fibers_) {
    if (CanRun(fiber->id)) runnable.push_back(fiber->id);
  }
  return runnable;
}

Fibers::Time Fibers::NextTime() const {
  Time next = kNever;
  for (const std::unique_ptr<Fiber>& fiber : fibers_) {
    if (fiber->on != nullptr) next = std::min(next, fiber->until);
  }
  return next;
}

std::string Fibers::Describe() const {
  std::string text;
  for (const std::unique_ptr<Fiber>& fiber : fibers_) {
    text += "  fiber " + std::to_string(fiber->id) + " (" + fiber->what + ")" +
            (CanRun(fiber->id)        ? " can run"
             : fiber->until == kNever ? " waits, for ever if nobody wakes it"
                                      : " waits for a time") +
            "\n";
  }
  return text;
}

void Fibers::Run(Id id, unsigned points) {
  Fiber* const fiber = Find(id);
  fiber->on = nullptr;
  points_ = points;
  SwitchTo(fiber);
  if (!fiber->ended) return;
  const auto place =
      std::find_if(fibers_.begin(), fibers_.end(),
                   [fiber](const std::unique_ptr<Fiber>& other) { return other.get() == fiber; });
  spare_.push_back(std::move(*place));
  fibers_.erase(place);
}

void Fibers::WaitFor(const void* on, Time until) {
  Fibers* const self = current;
  if (self == nullptr || self->running_ == nullptr) {
    std::fputs("the simulation's scheduler would have to wait for itself\n", stderr);
    std::abort();
  }
  self->running_->on = on;
  self->running_->until = until;
  self->SwitchBack(false);
}

void Fibers::Wake(const void* on, bool all) {
  if (current == nullptr) return;
  for (const std::unique_ptr<Fiber>& fiber : current->fibers_) {
    if (fiber->on != on) continue;
    fiber->on = nullptr;
    if (!all) return;
  }
}

void Fibers::SwitchPoint() {
  Fibers* const self = current;
  if (self == nullptr || self->running_ == nullptr) return;
  if (self->points_ > 0) {
    --self->points_;
    return;
  }
  self->SwitchBack(false);
}

void Fibers::Join(Id id) {
  for (const Fiber* fiber = Find(id); fiber != nullptr && !fiber->ended; fiber = Find(id)) {
    WaitFor(fiber);
  }
}

void* Fibers::Local(const void* key, const std::function<std::shared_ptr<void>()>& make) {
  Fiber* const fiber = current->running_ != nullptr ? current->running_ : current->outside_.get();
  for (const auto& [other, object] : fiber->locals) {
    if (other == key) return object.get();
  }
  const bool may_fail = std::exchange(fiber->may_fail, false);
  fiber->locals.emplace_back(key, make());
  fiber->may_fail = may_fail;
  return fiber->locals.back().second.get();
}

bool& Fibers::MayFail() {
  static bool nowhere = false;
  if (current == nullptr) return nowhere = false;
  return (current->running_ != nullptr ? current->running_ : current->outside_.get())->may_fail;
}

}  // namespace vesk_simulation

// The pool of the threads that collect finished jobs has a condition of the operating system's: its
// waits give way as well. Nobody gives way while holding the mutex.
extern "C" int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  pthread_mutex_unlock(mutex);
  vesk_simulation::Fibers::WaitFor(condition);
  pthread_mutex_lock(mutex);
  return 0;
}
extern "C" int pthread_cond_signal(pthread_cond_t* condition) noexcept {
  vesk_simulation::Fibers::Wake(condition, false);
  return 0;
}
extern "C" int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
  vesk_simulation::Fibers::Wake(condition, true);
  return 0;
}
