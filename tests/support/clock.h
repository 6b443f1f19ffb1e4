// The clock of the tests, put in front of the system's `time`.

#ifndef TESTS_SUPPORT_CLOCK_H_
#define TESTS_SUPPORT_CLOCK_H_

#include <ctime>

namespace vesk_test {

// What `time` returns, in seconds; it stands still until a test moves it.
extern time_t clock_now;

// How often `time` was called.
extern int clock_reads;

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_CLOCK_H_
