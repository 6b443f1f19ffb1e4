// The cache, with any steps in any order: see tests/exhaustive/driver.h.

#include "tests/exhaustive/run_bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  vesk_test::RunBytes(bytes, count);
  return 0;
}
