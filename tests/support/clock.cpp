#include "tests/support/clock.h"

namespace vesk_test {

time_t clock_now = 0;
int clock_reads = 0;

}  // namespace vesk_test

extern "C" time_t time(time_t* result) noexcept {
  ++vesk_test::clock_reads;
  if (result != nullptr) *result = vesk_test::clock_now;
  return vesk_test::clock_now;
}
