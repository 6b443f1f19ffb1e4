// Counts of a measured quantity by magnitude, from which percentiles are told.

#ifndef RUNTIME_HISTOGRAM_H_
#define RUNTIME_HISTOGRAM_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace vesk {

// Each power of two is divided into 8 parts, so a percentile is exact to 12.5 % of its value; the
// greatest value is exact. The scheme is that of HdrHistogram (G. Tene).
//   Threads  any; Record takes no lock
class Histogram {
 public:
  void Record(std::uint64_t value);

  std::uint64_t Count() const { return count_.load(std::memory_order_relaxed); }
  std::uint64_t Sum() const { return sum_.load(std::memory_order_relaxed); }
  std::uint64_t Max() const { return max_.load(std::memory_order_relaxed); }

  // The value that `fraction` (0 to 1) of the recorded ones do not exceed, rounded up to the end of
  // its part, and never above Max; 0 when nothing was recorded.
  std::uint64_t Percentile(double fraction) const;

 private:
  static constexpr unsigned int kPartBits = 3;
  static constexpr std::size_t kParts = std::size_t{1} << kPartBits;
  static constexpr std::size_t kBuckets = (64 - kPartBits + 1) * kParts;

  static std::size_t BucketOf(std::uint64_t value);
  static std::uint64_t LastOf(std::size_t bucket);

  std::array<std::atomic<std::uint64_t>, kBuckets> buckets_{};
  std::atomic<std::uint64_t> count_{0};
  std::atomic<std::uint64_t> sum_{0};
  std::atomic<std::uint64_t> max_{0};
};

}  // namespace vesk

#endif  // RUNTIME_HISTOGRAM_H_
