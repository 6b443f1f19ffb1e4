// What the benchmarks share: timing in interleaved rounds, and one line a figure.

#ifndef BENCH_HARNESS_H_
#define BENCH_HARNESS_H_

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <vector>

namespace vesk_bench {

// One of several ways to do the same, compared in one run.
struct Contender {
  const char* name;
  std::function<void()> once;  // does it `count` times, see Compare
};

inline double Seconds(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Runs all contenders in turn, `rounds` times, so that what else the machine does meets all of
// them, and returns each one's best time for one of `count` in nanoseconds.
inline std::vector<double> Compare(const std::vector<Contender>& contenders, long count,
                                   int rounds = 7) {
  std::vector<double> best(contenders.size(), 1e300);
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < contenders.size(); ++i) {
      best[i] = std::min(best[i], Seconds(contenders[i].once) * 1e9 / static_cast<double>(count));
    }
  }
  return best;
}

// "<name>  <ratio>  (<how>), wanted: at most <limit>"; returns whether it is.
inline bool AtMost(const char* name, double ratio, double limit, const char* how) {
  const bool held = ratio <= limit;
  std::printf("%-34s %7.2f   at most %.2f: %s   %s\n", name, ratio, limit, held ? "yes" : "NO",
              how);
  return held;
}

inline bool AtLeast(const char* name, double ratio, double limit, const char* how) {
  const bool held = ratio >= limit;
  std::printf("%-34s %7.2f   at least %.2f: %s   %s\n", name, ratio, limit, held ? "yes" : "NO",
              how);
  return held;
}

inline void Tell(const char* name, double value, const char* unit) {
  std::printf("    %-40s %10.1f %s\n", name, value, unit);
}

}  // namespace vesk_bench

#endif  // BENCH_HARNESS_H_
