// Any bytes as the shape of a world and the steps in it, for the file-access layer.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "simulation/runner.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vesk_simulation;
  static const bool warm = [] {
    Totals ignored;
    return Run(Scenario{}, &ignored).empty();  // what is made once and kept is no leak
  }();
  Totals totals;
  const Scenario scenario = FromBytes(data, size);
  const std::string failure = warm ? Run(scenario, &totals) : "the empty run fails";
  if (failure.empty()) return 0;
  std::fprintf(stderr, "BROKEN %s\n", Report(scenario, failure).c_str());
  std::abort();
}
