#include "tests/exhaustive/search.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include "tests/exhaustive/driver.h"

namespace vesk_test {

namespace {

// Memory that a child shares with its parent.
template <typename T>
class Shared {
 public:
  Shared()
      : memory_(
            mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
    if (memory_ == MAP_FAILED) throw std::runtime_error("mmap");
    new (memory_) T();
  }
  ~Shared() { munmap(memory_, sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  T* operator->() { return static_cast<T*>(memory_); }

 private:
  void* const memory_;
};

// A case without memory of its own.
struct Finding {
  static constexpr std::size_t kMostSteps = 512;

  unsigned long number = 0;
  Settings settings;
  std::size_t count = 0;
  Step steps[kMostSteps];
  char text[1024] = {};
};

// True when `work`, in a child, returns true. With `quiet` nothing that it prints is seen.
bool WorksInChild(bool quiet, const std::function<bool()>& work) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child == 0) {
    if (quiet && (std::freopen("/dev/null", "w", stdout) == nullptr ||
                  std::freopen("/dev/null", "w", stderr) == nullptr))
      _exit(3);
    const bool well = work();
    std::fflush(nullptr);
    _exit(well ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string WhatFails(const Case& c, const Trial& trial) {
  Shared<Finding> finding;
  const bool well = WorksInChild(false, [&] {
    const std::string broken = trial(c);
    std::snprintf(finding->text, sizeof finding->text, "%s", broken.c_str());
    return broken.empty();
  });
  if (well) return "nothing, when it is repeated";
  return finding->text[0] != '\0' ? finding->text : "the process ended";
}

// In a child, since the case may end the process.
void PrintInWords(const Case& c) {
  WorksInChild(false, [&] { return RunCase(c, {}, true).broken.empty(); });
}

}  // namespace

unsigned long FromEnvironment(const char* name, unsigned long otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::stoul(text);
}

bool FailsInChild(const Case& c, const Trial& trial) {
  return !WorksInChild(true, [&] { return trial(c).empty(); });
}

Case Shrunk(Case c, const std::function<bool(const Case&)>& fails) {
  for (std::size_t chunk = c.steps.size(); chunk > 0;) {
    bool shorter = false;
    for (std::size_t begin = 0; begin < c.steps.size();) {
      Case without = c;
      const std::size_t end = std::min(begin + chunk, c.steps.size());
      without.steps.erase(without.steps.begin() + static_cast<std::ptrdiff_t>(begin),
                          without.steps.begin() + static_cast<std::ptrdiff_t>(end));
      if (fails(without)) {
        c = without;
        shorter = true;
      } else {
        begin = end;
      }
    }
    if (chunk > 1) {
      chunk = (chunk + 1) / 2;
    } else if (!shorter) {
      break;
    }
  }
  return c;
}

std::optional<Tried> FirstFailing(
    const std::function<bool(const std::function<void(const Tried&)>& trying)>& search) {
  Shared<Finding> finding;
  const bool well = WorksInChild(false, [&] {
    return search([&](const Tried& tried) {
      finding->number = tried.number;
      finding->settings = tried.c.settings;
      finding->count = std::min(tried.c.steps.size(), Finding::kMostSteps);
      std::copy_n(tried.c.steps.begin(), finding->count, finding->steps);
    });
  });
  if (well) return std::nullopt;
  return Tried{finding->number,
               Case{finding->settings, Steps(finding->steps, finding->steps + finding->count)}};
}

std::string Report(const Case& c, const Trial& trial, const std::string& command) {
  const Case small =
      Shrunk(c, [&](const Case& candidate) { return FailsInChild(candidate, trial); });
  PrintInWords(small);
  return WhatFails(small, trial) + "\nrepeat it with:\n  " + command +
         "\nor keep it as:\n  ExpectGood(\"" + ToText(small) + "\");\n";
}

}  // namespace vesk_test
