// The time of day, as blocks count their age.

#ifndef RUNTIME_WALL_CLOCK_H_
#define RUNTIME_WALL_CLOCK_H_

#include <ctime>

namespace vesk {

// The low 32 bits of the seconds since the epoch: what VeskBuffer::ltime is compared with. Read
// with the call that the cache reads it with, so that a clock put in front at link time is seen by
// both.
//   Threads  any
inline unsigned int WallSeconds() { return static_cast<unsigned int>(time(nullptr)); }

}  // namespace vesk

#endif  // RUNTIME_WALL_CLOCK_H_
