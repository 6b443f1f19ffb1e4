#include "runtime/histogram.h"

#include <algorithm>
#include <cmath>

namespace vesk {

// Values below kParts have a bucket each; then the highest bit chooses a row and the next kPartBits
// bits a place in it.
std::size_t Histogram::BucketOf(std::uint64_t value) {
  if (value < kParts) return static_cast<std::size_t>(value);
  const auto highest = static_cast<unsigned int>(63 - __builtin_clzll(value));
  const unsigned int shift = highest - kPartBits;
  return (shift + 1) * kParts + static_cast<std::size_t>((value >> shift) - kParts);
}

std::uint64_t Histogram::LastOf(std::size_t bucket) {
  if (bucket < kParts) return bucket;
  const auto shift = static_cast<unsigned int>(bucket / kParts - 1);
  const std::uint64_t first = (kParts + bucket % kParts) << shift;
  return first + ((std::uint64_t{1} << shift) - 1);
}

void Histogram::Record(std::uint64_t value) {
  buckets_[BucketOf(value)].fetch_add(1, std::memory_order_relaxed);
  count_.fetch_add(1, std::memory_order_relaxed);
  sum_.fetch_add(value, std::memory_order_relaxed);
  std::uint64_t max = max_.load(std::memory_order_relaxed);
  while (value > max && !max_.compare_exchange_weak(max, value, std::memory_order_relaxed)) {
  }
}

std::uint64_t Histogram::Percentile(double fraction) const {
  std::uint64_t total = 0;
  for (const auto& bucket : buckets_) total += bucket.load(std::memory_order_relaxed);
  if (total == 0) return 0;
  const auto wanted = std::max<std::uint64_t>(
      1, static_cast<std::uint64_t>(std::ceil(fraction * static_cast<double>(total))));
  std::uint64_t seen = 0;
  for (std::size_t i = 0; i < kBuckets; ++i) {
    seen += buckets_[i].load(std::memory_order_relaxed);
    if (seen >= wanted) return std::min(LastOf(i), Max());
  }
  return Max();  // buckets grew while they were counted
}

}  // namespace vesk
