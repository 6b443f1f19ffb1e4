#include "simulation/runner.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>

#include "tests/support/allocation.h"

namespace vesk_simulation {

namespace {

constexpr unsigned kSecondsApart = 20;  // after which a run hangs

// Failures of one kind begin alike, but for the numbers in them.
std::string KindOf(const std::string& failure) {
  std::string kind;
  for (const char letter : failure) {
    if (kind.size() == 24 || letter == '\n') break;
    if (letter < '0' || letter > '9') kind += letter;
  }
  return kind;
}

}  // namespace

std::string Run(const Scenario& scenario, Totals* totals, const FailingPlan& plan, bool* reached) {
  const long before = vesk_test::LiveAllocations();
  std::string failure;
  bool broken = false;
  {
    World world(scenario, plan);
    failure = world.Run();
    totals->Add(world.totals());
    broken = world.totals().broken > 0;
    if (reached != nullptr) *reached = world.reached();
  }
  // What a failed check has put out of service is left in memory for good.
  const long left = vesk_test::LiveAllocations() - before - (failure.empty() ? 0 : 1);
  if (failure.empty() && !broken && left != 0) {
    failure = std::to_string(left) + " allocations are left behind";
  }
  return failure;
}

std::string RunApart(const Scenario& scenario, const FailingPlan& plan) {
  int pipes[2];
  if (pipe(pipes) != 0) throw std::runtime_error("no pipe");
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child == 0) {
    close(pipes[0]);
    alarm(kSecondsApart);
    Totals ignored;
    (void)Run(Scenario{}, &ignored);  // what is made once and kept is no leak of the run
    const std::string failure = Run(scenario, &ignored, plan);
    (void)!write(pipes[1], failure.data(), failure.size());
    _exit(0);
  }
  close(pipes[1]);
  std::string failure;
  char part[4096];
  for (ssize_t count = 0; (count = read(pipes[0], part, sizeof part)) > 0;) {
    failure.append(part, static_cast<std::size_t>(count));
  }
  close(pipes[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) {
    return WTERMSIG(status) == SIGALRM
               ? "the run does not end"
               : std::string("the process was ended: ") + strsignal(WTERMSIG(status));
  }
  if (WEXITSTATUS(status) != 0)
    return "the process has ended with " + std::to_string(WEXITSTATUS(status));
  return failure;
}

std::uint64_t RunSeeds(std::uint64_t from, std::uint64_t to, const std::function<bool()>& go_on,
                       Totals* totals) {
  struct Shared {
    Totals totals;
    std::uint64_t seed;  // that runs, or has failed; 0: all have run
  };
  void* const memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  auto* const shared = new (memory) Shared{*totals, from};
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child == 0) {
    Totals ignored;
    (void)Run(Scenario{}, &ignored);
    for (; shared->seed < to && go_on(); ++shared->seed) {
      alarm(kSecondsApart);
      if (!Run(FromSeed(shared->seed), &shared->totals).empty()) _exit(1);
    }
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  *totals = shared->totals;
  const std::uint64_t seed = shared->seed;
  munmap(memory, sizeof(Shared));
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : seed;
}

Scenario Shrink(Scenario scenario, const FailingPlan& plan) {
  const std::string kind = KindOf(RunApart(scenario, plan));
  const auto fails = [&plan, &kind](const Scenario& candidate) {
    const std::string failure = RunApart(candidate, plan);
    return !failure.empty() && KindOf(failure) == kind;
  };
  for (std::size_t part = std::max<std::size_t>(1, scenario.steps.size() / 2); part > 0;) {
    bool shorter = false;
    for (std::size_t at = 0; at < scenario.steps.size();) {
      Scenario candidate = scenario;
      const auto begin = candidate.steps.begin() + static_cast<std::ptrdiff_t>(at);
      const auto end =
          begin + static_cast<std::ptrdiff_t>(std::min(part, scenario.steps.size() - at));
      candidate.steps.erase(begin, end);
      if (fails(candidate)) {
        scenario = candidate;
        shorter = true;
      } else {
        at += part;
      }
    }
    if (part > 1 || !shorter) part /= 2;
  }
  for (Step& step : scenario.steps) {
    for (std::uint32_t Step::*field : {&Step::who, &Step::a, &Step::b, &Step::c}) {
      const std::uint32_t before = step.*field;
      if (before == 0) continue;
      step.*field = 0;
      if (!fails(scenario)) step.*field = before;
    }
  }
  return scenario;
}

std::string Report(const Scenario& scenario, const std::string& failure) {
  std::string text = failure + "\n" + std::to_string(scenario.steps.size()) + " steps:\n";
  for (const Step& step : scenario.steps) text += "  " + ToText(step) + "\n";
  return text + "again: build/dev/simulation/simulate --scenario '" + ToText(scenario) + "'\n";
}

}  // namespace vesk_simulation
