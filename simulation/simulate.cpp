// Runs of the file-access layer in a world where chance, or a scenario, has everything in hand.

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>

#include "simulation/runner.h"

namespace {

using namespace vesk_simulation;

int ReportSeed(std::uint64_t seed) {
  Scenario scenario = FromSeed(seed);
  std::printf("seed %llu fails: %s\nshrinking its %zu steps ...\n",
              static_cast<unsigned long long>(seed), RunApart(scenario).c_str(),
              scenario.steps.size());
  scenario = Shrink(scenario);
  std::puts(Report(scenario, RunApart(scenario)).c_str());
  return 1;
}

int RunText(const std::string& text, bool verbose) {
  const Scenario scenario = FromText(text);
  World world(scenario);
  if (verbose) {
    world.on_end = [](const std::string& ended) { std::printf("ENDED %s\n", ended.c_str()); };
    world.on_step = [](const Step& step, const World& after) {
      std::printf("%s\n%s", ToText(step).c_str(), after.Describe().c_str());
    };
  }
  const std::string failure = world.Run();
  std::printf("%s\n%s", failure.empty() ? "no difference" : failure.c_str(),
              failure.empty() ? "" : world.Describe().c_str());
  return failure.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::uint64_t from = 1;
  std::uint64_t count = 1000;
  double minutes = 0;
  std::string text;
  bool verbose = false;
  CLI::App app("Runs the file-access layer in a simulated world");
  app.add_option("--from", from, "the first seed")->check(CLI::PositiveNumber);
  app.add_option("--count", count, "how many seeds (1000)");
  app.add_option("--minutes", minutes, "as many seeds as fit in this time instead")
      ->check(CLI::PositiveNumber);
  app.add_option("--scenario", text, "run this one, as a failure prints it");
  bool print = false;
  app.add_flag("--print", print, "print the scenario of the first seed, and run nothing");
  app.add_flag("--verbose", verbose, "show what is cached after each step of the scenario");
  CLI11_PARSE(app, argc, argv);
  try {
    if (print) return std::puts(ToText(FromSeed(from)).c_str()) < 0 ? 1 : 0;
    if (!text.empty()) return RunText(text, verbose);
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double, std::ratio<60>>(minutes));
    const auto go_on = [&] { return minutes == 0 || Clock::now() < end; };
    const std::uint64_t to = minutes == 0 ? from + count : ~std::uint64_t{0};
    Totals totals;
    const std::uint64_t failed = RunSeeds(from, to, go_on, &totals);
    std::printf("\r%s\n", ToText(totals).c_str());
    return failed == 0 ? 0 : ReportSeed(failed);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "simulate: %s\n", failure.what());
    return 2;
  }
}
