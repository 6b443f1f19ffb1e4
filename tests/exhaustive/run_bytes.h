// The way in for fuzzers.

#ifndef TESTS_EXHAUSTIVE_RUN_BYTES_H_
#define TESTS_EXHAUSTIVE_RUN_BYTES_H_

#include <cstddef>
#include <cstdint>

namespace vesk_test {

// Takes any bytes as a case and runs it with all checks, by itself and beside the model. When
// something does not hold, prints what, with the steps, and ends the process.
void RunBytes(const std::uint8_t* bytes, std::size_t count);

}  // namespace vesk_test

#endif  // TESTS_EXHAUSTIVE_RUN_BYTES_H_
