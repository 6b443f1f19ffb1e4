#include "tests/exhaustive/run_bytes.h"

#include <cstdio>
#include <cstdlib>

#include "tests/exhaustive/driver.h"
#include "tests/exhaustive/mirror.h"

namespace vesk_test {

void RunBytes(const std::uint8_t* bytes, std::size_t count) {
  const Case c = FromBytes(bytes, count);
  std::string broken = RunCase(c).broken;
  if (broken.empty()) broken = RunCompared(c);
  if (broken.empty()) return;
  RunCase(c, {}, true);
  std::fprintf(stderr, "%s\n%s\n", broken.c_str(), ToText(c).c_str());
  std::abort();
}

}  // namespace vesk_test
