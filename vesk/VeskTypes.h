// Types of the layer above that the cache hands on without looking inside.

#ifndef VESK_VESKTYPES_H_
#define VESK_VESKTYPES_H_

#include <cstdint>

namespace vesk {

// A file-status record; the cache passes a pointer through and never follows it.
struct sfsstat;

// A 16-byte time value, stored whole and never interpreted.
struct vesk_custom_time {
  std::uint64_t seconds;
  std::uint64_t nanoseconds;
};
static_assert(sizeof(vesk_custom_time) == 16, "two 64-bit words, stored in this order");

}  // namespace vesk

#endif  // VESK_VESKTYPES_H_
