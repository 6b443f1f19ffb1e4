// A logger that does not allocate.

#ifndef TESTS_SUPPORT_STILL_LOGGER_H_
#define TESTS_SUPPORT_STILL_LOGGER_H_

#include <cstdarg>
#include <functional>

#include "tests/support/keeping_logger.h"

namespace vesk_test {

// Keeps lines without allocating, so that a failing allocation is the cache's, and calls `on_line`
// at each of them, so that a test sees the block as it was when the line was written.
class StillLogger : public KeepingLogger {
 public:
  // Hands the lines on and forgets them.
  void Replay(vesk::VeskLogger& to);

  // The site of the last line; 0 without one.
  int LastSite() const { return count_ == 0 ? 0 : lines_[count_ - 1].site; }

  std::function<void(int site)> on_line;

 private:
  static constexpr int kMost = 16;
  struct Line {
    const char* operation;
    int site;
    char text[256];
  };

  void Keep(const char* operation, const vesk::LogSite& site, const char* format,
            va_list arguments) override __attribute__((format(printf, 4, 0)));

  Line lines_[kMost];
  int count_ = 0;
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_STILL_LOGGER_H_
