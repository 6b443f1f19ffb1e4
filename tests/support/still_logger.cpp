#include "tests/support/still_logger.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

namespace vesk_test {

void StillLogger::Replay(vesk::VeskLogger& to) {
  ASSERT_LE(count_, kMost);
  for (int i = 0; i < count_; ++i) {
    const Line& line = lines_[i];
    const vesk::LogSite site("VeskStream", line.site);
    if (std::strcmp(line.operation, "Debug") == 0) to.Debug(site, "%s", line.text);
    if (std::strcmp(line.operation, "Trace") == 0) to.Trace(site, "%s", line.text);
    if (std::strcmp(line.operation, "Info") == 0) to.Info(site, "%s", line.text);
    if (std::strcmp(line.operation, "Dump") == 0) to.Dump(site, "%s", line.text);
    if (std::strcmp(line.operation, "Error") == 0) to.Error(site, "%s", line.text);
  }
  count_ = 0;
}

void StillLogger::Keep(const char* operation, const vesk::LogSite& site, const char* format,
                       va_list arguments) {
  EXPECT_EQ(site.first, "VeskStream");
  if (count_ < kMost) {
    Line& line = lines_[count_];
    line.operation = operation;
    line.site = site.second;
    std::vsnprintf(line.text, sizeof line.text, format, arguments);
  }
  ++count_;
  if (on_line) on_line(site.second);
}

}  // namespace vesk_test
