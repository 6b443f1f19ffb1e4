// Chance that can be repeated.

#ifndef RUNTIME_RANDOM_H_
#define RUNTIME_RANDOM_H_

#include <cstdint>

namespace vesk {

// The same seed gives the same numbers on every machine (splitmix64: Steele, Lea and Flood, "Fast
// splittable pseudorandom number generators", 2014), which the standard library's distributions do
// not promise.
//   Threads  guarded by its owner
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}

  std::uint64_t Next() {
    state_ += 0x9e3779b97f4a7c15u;
    std::uint64_t z = state_;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
  }

  // From 0 on, below 1.
  double Fraction() { return static_cast<double>(Next() >> 11) * 0x1p-53; }

 private:
  std::uint64_t state_;
};

}  // namespace vesk

#endif  // RUNTIME_RANDOM_H_
