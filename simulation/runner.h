// Runs scenarios, apart from this process where they may end it, and shrinks those that fail.

#ifndef SIMULATION_RUNNER_H_
#define SIMULATION_RUNNER_H_

#include <cstdint>
#include <functional>
#include <string>

#include "simulation/scenario.h"
#include "simulation/world.h"

namespace vesk_simulation {

// One run in this process, which must not have another one going on. Nothing, or what is wrong:
// memory that is left behind counts too. `reached`: that of the plan.
std::string Run(const Scenario& scenario, Totals* totals, const FailingPlan& plan = {},
                bool* reached = nullptr);

// The same in a process of its own: whatever happens there is told.
std::string RunApart(const Scenario& scenario, const FailingPlan& plan = {});

// Runs the seeds from `from` on, up to `to` or until `go_on` says false, in a process of its own.
// The seed that failed; 0: none did.
std::uint64_t RunSeeds(std::uint64_t from, std::uint64_t to, const std::function<bool()>& go_on,
                       Totals* totals);

// The shortest part of the scenario that still fails in the same way, with the plainest numbers:
// first halves of the steps are left out, then smaller parts, at last single ones (Zeller and
// Hildebrandt, "Simplifying and isolating failure-inducing input", 2002).
//   Before   it fails
Scenario Shrink(Scenario scenario, const FailingPlan& plan = {});

// What a failure is told with: what is wrong, the steps, and the command that repeats it.
std::string Report(const Scenario& scenario, const std::string& failure);

}  // namespace vesk_simulation

#endif  // SIMULATION_RUNNER_H_
