// A snapshot of a block, to see which of its fields a call has changed.

#ifndef TESTS_SUPPORT_BLOCK_FIELDS_H_
#define TESTS_SUPPORT_BLOCK_FIELDS_H_

#include <ostream>
#include <tuple>

#include "vesk/VeskStream.h"

namespace vesk_test {

struct Fields {
  explicit Fields(const vesk::VeskBuffer& b)
      : skip(b.skip),
        ltime(b.ltime),
        size(b.size),
        state(b.state),
        bptr(b.bptr),
        off(b.off),
        dlen(b.dlen),
        blen(b.blen),
        dirty_length(b.dirty_length),
        rc(b.rc),
        job(b.job) {}

  unsigned int skip, ltime, size, state;
  const unsigned char* bptr;
  unsigned long off;
  unsigned int dlen, blen, dirty_length;
  int rc;
  const vesk::VeskJob* job;

  auto All() const {
    return std::tie(skip, ltime, size, state, bptr, off, dlen, blen, dirty_length, rc, job);
  }
};

inline bool operator==(const Fields& a, const Fields& b) { return a.All() == b.All(); }

inline void PrintTo(const Fields& f, std::ostream* out) {
  *out << "skip " << f.skip << " ltime " << f.ltime << " size " << f.size << " state " << f.state
       << " bptr " << static_cast<const void*>(f.bptr) << " off " << f.off << " dlen " << f.dlen
       << " blen " << f.blen << " dirty_length " << f.dirty_length << " rc " << f.rc << " job "
       << static_cast<const void*>(f.job);
}

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_BLOCK_FIELDS_H_
